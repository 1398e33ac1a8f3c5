// Expressions: operand ownership, deep copies, the constant and projection tests, condition
// building, aggregates and their kind predicates, column lists, and the expression
// traversal contract.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "HookVisitors.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

RqExpr* Int(int64_t value) {
    return RQ_NEW RqExprIntegerLiteral(value);
}
RqTargetColumn* Col(uint32_t id) {
    return RQ_NEW RqTargetColumn(VoidID(4, id), L"C" + ZKString::FromInt(id), 1);
}

// Records the expressions presented, in order; `handled` are answered true.
struct Recorder {
    std::vector<const RqExpr*> m_seen;
    std::set<const RqExpr*> m_handled;
    HookExprVisitor m_visitor{[this](RqExpr& e) {
        m_seen.push_back(&e);
        return m_handled.count(&e) != 0;
    }};
};

TEST(ExprOperands, ConstructorsOwnOperandsAndReplacementHandsBackTheOld) {
    RqExpr* left = Int(1);
    RqExpr* right = Col(7);
    Heap<RqExpr> add(RQ_NEW RqExprAdd(left, right));
    EXPECT_EQ(left->GetParent(), add.Get());
    Heap<RqExpr> old(add->ReplaceIthOperand(0, Int(2)));
    EXPECT_EQ(old.Get(), left);
    EXPECT_EQ(old->GetParent(), nullptr);
    SmartRqNodePtr watch(right);
    add->SetIthOperand(1, Int(3));
    EXPECT_EQ(watch.Get(), nullptr) << "SetIthOperand destroys the operand it replaces";

    // The block of a subquery is a child but not an operand.
    auto* block = RQ_NEW RqList();
    Heap<RqExprSubquery> sub(RQ_NEW RqExprLogicalSubquery(block));
    EXPECT_EQ(sub->GetQuery(), block);
    EXPECT_EQ(sub->GetIthOperand(0), nullptr);
}

TEST(ExprTests, ConstantTestAcceptsOnlyRowIndependentDeterministicValues) {
    struct Case {
        const char* m_name;
        std::function<RqExpr*()> m_make;
        bool m_bConstant;
    };
    RqDerivedColumn target(Int(1));
    const std::vector<Case> cases = {
        {"null literal", [] { return RQ_NEW RqExprNullLiteral(); }, true},
        {"parameter", [] { return RQ_NEW RqExprParam(L"p"); }, true},
        {"pi", [] { return RQ_NEW RqExprPi(); }, true},
        {"function of constants",
         [] { return RQ_NEW RqExprAdd(Int(1), RQ_NEW RqExprCast(Int(2), L"INT")); }, true},
        {"comparison of constants", [] { return RQ_NEW RqExprCondEquality(Int(1), Int(1)); }, true},
        {"deep column",
         [] { return RQ_NEW RqExprUpper(RQ_NEW RqExprLower(RQ_NEW RqExprUpper(Col(3)))); }, false},
        {"reference", [&] { return RQ_NEW RqDerivedColumnReference(&target); }, false},
        {"aggregate of a constant", [] { return RQ_NEW RqExprAggrSum(Int(1)); }, false},
        {"random", [] { return RQ_NEW RqExprRand(Int(7)); }, false},
        {"grouping id", [] { return RQ_NEW RqExprGroupingId(); }, false},
        {"subquery", [] { return RQ_NEW RqExprLogicalSubquery(RQ_NEW RqList()); }, false},
        {"function without operands", [] { return RQ_NEW RqExprUpper(); }, false},
        {"column list of constants", [] { return RQ_NEW RqExprColumnList(RqExprVector{Int(1)}); },
         false},
    };
    for (const Case& c : cases) {
        Heap<RqExpr> expr(c.m_make());
        EXPECT_EQ(expr->IsConstant(), c.m_bConstant) << c.m_name;
    }
}

TEST(ExprTests, ProjectionTestAcceptsWhatReadsTheRowDirectly) {
    // An inner block with one column; a column of another block.
    RqList inner;
    inner.GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(Col(1)));
    RqDerivedColumn* innerColumn = inner.GetProjection()->GetIthColumn(0);
    RqDerivedColumn elsewhere(Col(2));
    struct Case {
        const char* m_name;
        RqExpr* m_pExpr;
        bool m_bAlone;         // the test on its own
        bool m_bAgainstInner;  // the test against the inner projection
    };
    const std::vector<Case> cases = {
        {"target column", Col(3), true, true},
        {"cube column", RQ_NEW RqTargetCubeColumn(L"m", 1), true, true},
        {"row identifier", RQ_NEW RqExprRowID(), true, true},
        {"reference into the inner block", RQ_NEW RqDerivedColumnReference(innerColumn), true,
         true},
        {"reference elsewhere", RQ_NEW RqDerivedColumnReference(&elsewhere), true, false},
        {"reference to no column", RQ_NEW RqDerivedColumnReference(), true, false},
        {"literal", Int(1), false, false},
        {"parameter", RQ_NEW RqExprParam(L"p"), false, false},
        {"function of a column", RQ_NEW RqExprUpper(Col(3)), false, false},
        {"sum of a reference",
         RQ_NEW RqExprAdd(RQ_NEW RqDerivedColumnReference(innerColumn), Int(1)), false, false},
        {"aggregate", RQ_NEW RqExprAggrSum(Col(3)), false, false},
        {"grouping id", RQ_NEW RqExprGroupingId(Col(3)), false, false},
        {"condition", RQ_NEW RqExprCondIsNull(Col(3)), false, false},
        {"subquery", RQ_NEW RqExprLogicalSubquery(RQ_NEW RqList()), false, false},
    };
    for (const Case& c : cases) {
        Heap<RqExpr> owner(c.m_pExpr);
        EXPECT_EQ(c.m_pExpr->IsInnerProjectable(), c.m_bAlone) << c.m_name;
        EXPECT_EQ(c.m_pExpr->IsInnerProjectable(*inner.GetProjection()), c.m_bAgainstInner)
            << c.m_name;
    }
}

TEST(ExprConditions, ConcatenateOwnsBothSidesAndConcatenateCopyCopiesTheRight) {
    RqExprCond* a = RQ_NEW RqExprCondIsNull(Col(1));
    EXPECT_EQ(RqExprCondAnd::Concatenate(nullptr, nullptr), nullptr);
    EXPECT_EQ(RqExprCondAnd::Concatenate(a, nullptr), a);
    EXPECT_EQ(RqExprCondOr::Concatenate(nullptr, a), a);
    RqExprCond* b = RQ_NEW RqExprCondEquality(Col(2), Int(3));
    Heap<RqExprCond> both(RqExprCondAnd::Concatenate(a, b));
    auto* conj = RqCast<RqExprCondAnd>(both.Get());
    EXPECT_EQ(conj->GetLeftCond(), a);
    EXPECT_EQ(conj->GetRightCond(), b);

    Heap<RqExprCond> kept(RQ_NEW RqExprCondLess(Col(4), Int(5)));
    Heap<RqExprCond> either(RqExprCondOr::ConcatenateCopy(both.Release(), kept.Get()));
    auto* disj = RqCast<RqExprCondOr>(either.Get());
    EXPECT_EQ(disj->GetLeftCond(), conj);
    EXPECT_NE(disj->GetRightCond(), kept.Get());
    EXPECT_EQ(kept->GetParent(), nullptr);
    EXPECT_TRUE(RqEquivalence()(*disj->GetRightCond(), *kept));
}

TEST(ExprAggregates, FunctionalWrapperAndHashableFollowTheFamilies) {
    struct Case {
        const char* m_name;
        RqExprAggr* m_pAggr;
        bool m_bFunctional;
        bool m_bWrapper;
        bool m_bHashable;
    };
    const std::vector<Case> cases = {
        {"sum", RQ_NEW RqExprAggrSum(Col(1)), false, false, true},
        {"median", RQ_NEW RqExprAggrMedian(Col(1)), false, false, false},
        // Every sort-dependent aggregate, whatever its kind.
        {"moving sum", RQ_NEW RqExprAggrMovingSum(Col(1)), true, false, false},
        // Report aggregates are computed from aggregated rows but need no order.
        {"report average", RQ_NEW RqExprAggrReportAvg(Col(1)), true, false, true},
        {"width bucket", RQ_NEW RqExprAggrWidthBucket(Col(1)), true, false, true},
        {"evaluate aggregate", RQ_NEW RqExprEvaluateAggr(Col(1)), false, true, true},
        {"null if not unique", RQ_NEW RqExprAggrNullIfNotUnique(Col(1)), false, false, false},
    };
    for (const Case& c : cases) {
        Heap<RqExprAggr> aggr(c.m_pAggr);
        EXPECT_EQ(aggr->IsFunctionalAggr(), c.m_bFunctional) << c.m_name;
        EXPECT_EQ(aggr->IsAggrWrapper(), c.m_bWrapper) << c.m_name;
        EXPECT_EQ(aggr->IsHashable(), c.m_bHashable) << c.m_name;
    }
    Heap<RqExprAggr> distinctBreak(RQ_NEW RqExprAggrSum(Col(1)));
    distinctBreak->SetDistinctComputeBreak(true);
    EXPECT_FALSE(distinctBreak->IsHashable());
}

TEST(ExprColumnLists, SubsetPrefixAndMembershipGoByEquivalence) {
    Heap<RqExprColumnListOrdered> ab(RQ_NEW RqExprColumnListOrdered(RqExprVector{Col(1), Col(2)}));
    Heap<RqExprColumnListOrdered> ba(RQ_NEW RqExprColumnListOrdered(RqExprVector{Col(2), Col(1)}));
    Heap<RqExprColumnListOrdered> abc(
        RQ_NEW RqExprColumnListOrdered(RqExprVector{Col(1), Col(2), Col(3)}));
    EXPECT_TRUE(ab->IsSubsetOf(*ba));
    EXPECT_FALSE(abc->IsSubsetOf(*ab));
    EXPECT_TRUE(ab->IsPrefixSubsetOf(*abc));
    EXPECT_FALSE(ba->IsPrefixSubsetOf(*abc));
    EXPECT_FALSE(abc->IsPrefixSubsetOf(*ab));
    Heap<RqExpr> probe(Col(3));
    EXPECT_TRUE(abc->HasEquivalentMember(*probe));
    EXPECT_FALSE(ab->HasEquivalentMember(*probe));
}

TEST(ExprTraversal, PreOrderInOperandOrderAndHandledSkipsOperands) {
    // (c1 + c2) * upper(c3), with the sum handled by the visitor.
    RqExpr* c1 = Col(1);
    RqExpr* c2 = Col(2);
    RqExpr* c3 = Col(3);
    RqExpr* sum = RQ_NEW RqExprAdd(c1, c2);
    RqExpr* upper = RQ_NEW RqExprUpper(c3);
    Heap<RqExpr> root(RQ_NEW RqExprMultiply(sum, upper));
    Recorder all;
    root->Accept(all.m_visitor);
    EXPECT_EQ(all.m_seen, (std::vector<const RqExpr*>{root.Get(), sum, c1, c2, upper, c3}));
    Recorder skipping;
    skipping.m_handled.insert(sum);
    root->Accept(skipping.m_visitor);
    EXPECT_EQ(skipping.m_seen, (std::vector<const RqExpr*>{root.Get(), sum, upper, c3}));
}

TEST(ExprTraversal, SubqueryBlocksAreNotEnteredAndRewrittenOperandsAreVisited) {
    auto* block = RQ_NEW RqList();
    block->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(Col(5)));
    RqExpr* sub = RQ_NEW RqExprLogicalSubquery(block);
    RqExpr* replacement = Col(2);
    Heap<RqExpr> root(RQ_NEW RqExprCoalesce(sub, Col(1)));
    std::vector<const RqExpr*> seen;
    HookExprVisitor visitor([&](RqExpr& e) {
        if (&e == root.Get())
            e.SetIthOperand(1, replacement);
        seen.push_back(&e);
        return false;
    });
    root->Accept(visitor);
    EXPECT_EQ(seen, (std::vector<const RqExpr*>{root.Get(), sub, replacement}));
}

TEST(ExprTraversalDeathTest, ResolvedKindsWithoutAnOverrideAreALogicError) {
    for (RqExpr* resolved : {static_cast<RqExpr*>(RQ_NEW RqExprAggrReport(Col(1))),
                             static_cast<RqExpr*>(RQ_NEW RqExprNoAggregate(Col(1)))}) {
        Heap<RqExpr> expr(RQ_NEW RqExprAdd(Int(1), resolved));
        HookExprVisitor visitor([](RqExpr&) { return false; }, true);
        EXPECT_DEATH(expr->Accept(visitor), "LOGIC ERROR");
    }
}

}  // namespace
