// Expressions: operand ownership, deep copies, the constant test, condition
// building, aggregates and their kind predicates, column lists, and the expression
// traversal contract.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "Query/Optimizer/Request/SQORAVisitorRqExpr.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

RqExpr* Int(int64_t value) {
    return RQ_NEW RqExprIntegerLiteral(value);
}
RqTargetColumn* Col(uint32_t id) {
    return RQ_NEW RqTargetColumn(VoidID(4, id), L"C" + ZKString::FromInt(id), 1);
}

// Records every expression presented, in order; answers true (handled) for the ones in
// m_handled, and runs m_onVisit first when set.
class RecordingExprVisitor : public AVisitorRqExpr {
public:
#define RQ_EV_A(cls)              \
    bool Visit(cls& e) override { \
        return Record(e);         \
    }
#define RQ_EV_F(cls) RQ_EV_A(cls)
#define RQ_EV_L(cls) RQ_EV_A(cls)
#define RQ_EV_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_EV_##ev(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_EV_A
#undef RQ_EV_F
#undef RQ_EV_L
#undef RQ_EV_N

    std::vector<const RqExpr*> m_seen;
    std::set<const RqExpr*> m_handled;
    std::function<void(RqExpr&)> m_onVisit;

private:
    bool Record(RqExpr& e) {
        if (m_onVisit)
            m_onVisit(e);
        m_seen.push_back(&e);
        return m_handled.count(&e) != 0;
    }
};

// Overrides only the abstract overloads: the report aggregate and the no-aggregate marker
// fall to their defaults.
class MinimalExprVisitor : public AVisitorRqExpr {
public:
#define RQ_EV_A(cls)            \
    bool Visit(cls&) override { \
        return false;           \
    }
#define RQ_EV_F(cls)
#define RQ_EV_L(cls)
#define RQ_EV_N(cls)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) RQ_EV_##ev(cls)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_EV_A
#undef RQ_EV_F
#undef RQ_EV_L
#undef RQ_EV_N
    using AVisitorRqExpr::Visit;
};

TEST(ExprOperands, ConstructorsOwnOperandsInOrderAndReplacementHandsBackTheOld) {
    RqExpr* left = Int(1);
    RqExpr* right = Col(7);
    Heap<RqExpr> add(RQ_NEW RqExprAdd(left, right));
    ASSERT_EQ(add->GetNumOperands(), 2);
    EXPECT_EQ(add->GetIthOperand(0), left);
    EXPECT_EQ(add->GetIthOperand(1), right);
    EXPECT_EQ(left->GetParent(), add.Get());

    Heap<RqExpr> old(add->ReplaceIthOperand(0, Int(2)));
    EXPECT_EQ(old.Get(), left);
    EXPECT_EQ(old->GetParent(), nullptr);

    SmartRqNodePtr watch(right);
    add->SetIthOperand(1, Int(3));
    EXPECT_EQ(watch.Get(), nullptr) << "SetIthOperand destroys the operand it replaces";
}

TEST(ExprOperands, SubqueryBlockIsAChildButNotAnOperand) {
    auto* block = RQ_NEW RqList();
    Heap<RqExprSubquery> sub(RQ_NEW RqExprLogicalSubquery(block));
    EXPECT_EQ(sub->GetQuery(), block);
    EXPECT_EQ(sub->GetNumOperands(), 1);
    EXPECT_EQ(sub->GetIthOperand(0), nullptr);
}

TEST(ExprCopy, DeepCopyKeepsStructureAndOutsideReferencesWithFreshOrKeptIdentity) {
    RqDerivedColumn outside(Col(1));
    Heap<RqExpr> original(RQ_NEW RqExprMultiply(RQ_NEW RqDerivedColumnReference(&outside),
                                                RQ_NEW RqExprCast(Int(5), L"DOUBLE")));
    Heap<RqExpr> fresh(original->DeepExprCopy(false));
    Heap<RqExpr> kept(original->DeepExprCopy(true));

    EXPECT_TRUE(RqEquivalence()(*original, *fresh));
    EXPECT_NE(fresh->GetIthOperand(0), original->GetIthOperand(0)) << "a deep copy shares no node";
    auto* copiedRef = static_cast<RqDerivedColumnReference*>(fresh->GetIthOperand(0));
    EXPECT_EQ(copiedRef->GetDerivedColumn(), &outside)
        << "a column outside the copy stays the target";
    EXPECT_EQ(outside.GetNumReferences(), 3);
    EXPECT_EQ(static_cast<RqExprCast*>(fresh->GetIthOperand(1))->GetTypeName(), L"DOUBLE");

    EXPECT_FALSE(fresh->IsCopyOf(*original));
    EXPECT_FALSE(fresh->GetIthOperand(1)->IsCopyOf(*original->GetIthOperand(1)));
    EXPECT_TRUE(kept->IsCopyOf(*original));
    EXPECT_TRUE(kept->GetIthOperand(1)->GetIthOperand(0)->IsCopyOf(
        *original->GetIthOperand(1)->GetIthOperand(0)));
}

TEST(ExprTests, ConstantTestAcceptsOnlyRowIndependentDeterministicValues) {
    struct Case {
        const char* m_name;
        std::function<RqExpr*()> m_make;
        bool m_bConstant;
    };
    RqDerivedColumn target(Int(1));
    const std::vector<Case> cases = {
        {"integer literal", [] { return Int(1); }, true},
        {"null literal", [] { return RQ_NEW RqExprNullLiteral(); }, true},
        {"parameter", [] { return RQ_NEW RqExprParam(L"p"); }, true},
        {"session variable", [] { return RQ_NEW RqExprSessionVar(L"USER"); }, true},
        {"pi", [] { return RQ_NEW RqExprPi(); }, true},
        {"function of constants",
         [] { return RQ_NEW RqExprAdd(Int(1), RQ_NEW RqExprCast(Int(2), L"INT")); }, true},
        {"comparison of constants", [] { return RQ_NEW RqExprCondEquality(Int(1), Int(1)); }, true},
        {"function over a column", [] { return RQ_NEW RqExprAdd(Int(1), Col(3)); }, false},
        {"deep column",
         [] { return RQ_NEW RqExprUpper(RQ_NEW RqExprLower(RQ_NEW RqExprUpper(Col(3)))); }, false},
        {"target column", [] { return Col(3); }, false},
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

TEST(ExprConditions, ConcatenateReturnsTheOtherSideWhenOneIsNull) {
    EXPECT_EQ(RqExprCondAnd::Concatenate(nullptr, nullptr), nullptr);
    RqExprCond* a = RQ_NEW RqExprCondIsNull(Col(1));
    EXPECT_EQ(RqExprCondAnd::Concatenate(a, nullptr), a);
    EXPECT_EQ(RqExprCondOr::Concatenate(nullptr, a), a);
    delete a;
}

TEST(ExprConditions, ConcatenateOwnsBothSidesAndConcatenateCopyCopiesTheRight) {
    RqExprCond* a = RQ_NEW RqExprCondIsNull(Col(1));
    RqExprCond* b = RQ_NEW RqExprCondEquality(Col(2), Int(3));
    Heap<RqExprCond> both(RqExprCondAnd::Concatenate(a, b));
    ASSERT_EQ(both->GetObjectType(), kRqExprCondAnd);
    auto* conj = static_cast<RqExprCondAnd*>(both.Get());
    EXPECT_EQ(conj->GetLeftCond(), a);
    EXPECT_EQ(conj->GetRightCond(), b);
    EXPECT_EQ(b->GetParent(), conj);

    Heap<RqExprCond> kept(RQ_NEW RqExprCondLess(Col(4), Int(5)));
    Heap<RqExprCond> either(RqExprCondOr::ConcatenateCopy(both.Release(), kept.Get()));
    auto* disj = static_cast<RqExprCondOr*>(either.Get());
    ASSERT_EQ(disj->GetObjectType(), kRqExprCondOr);
    EXPECT_EQ(disj->GetLeftCond(), conj);
    EXPECT_NE(disj->GetRightCond(), kept.Get());
    EXPECT_EQ(kept->GetParent(), nullptr);
    EXPECT_TRUE(RqEquivalence()(*disj->GetRightCond(), *kept));

    Heap<RqExpr> negation(RQ_NEW RqExprCondNot(RQ_NEW RqExprCondIsNull(Col(1))));
    EXPECT_NE(static_cast<RqExprCondNot*>(negation.Get())->GetLeftCond(), nullptr);
    EXPECT_EQ(static_cast<RqExprCondNot*>(negation.Get())->GetRightCond(), nullptr);
}

TEST(ExprAggregates, OperandLayoutFlagsAndMeasureRelease) {
    RqExpr* measure = Col(1);
    auto* byList = RQ_NEW RqExprColumnList(RqExprVector{Col(2)});
    Heap<RqExprAggr> sum(RQ_NEW RqExprAggrSum(measure, byList, nullptr, RqExprAggr::kDistinct));
    EXPECT_TRUE(sum->IsAggr());
    EXPECT_TRUE(sum->IsDistinctAggregation());
    EXPECT_EQ(sum->GetNumOperands(), 3);
    EXPECT_EQ(sum->GetByList(), byList);
    EXPECT_EQ(sum->GetComputeBreak(), nullptr);
    EXPECT_EQ(sum->GetNumParameters(), 0);

    auto* computeBreak = RQ_NEW RqExprColumnList(RqExprVector{Col(3)});
    sum->SetComputeBreak(computeBreak);
    EXPECT_EQ(sum->GetSecondColumnList(), computeBreak);

    Heap<RqExpr> released(sum->ReleaseMeasure());
    EXPECT_EQ(released.Get(), measure);
    EXPECT_EQ(sum->GetMeasure(), nullptr);
    EXPECT_EQ(sum->GetNumOperands(), 3) << "the measure slot stays, empty";

    Heap<RqExprAggr> countStar(RQ_NEW RqExprAggrCountStar());
    EXPECT_EQ(countStar->GetNumOperands(), 3);
    EXPECT_EQ(countStar->GetMeasure(), nullptr);
    EXPECT_FALSE(countStar->IsDistinctAggregation());
}

TEST(ExprAggregates, FunctionalWrapperAndHashableByKind) {
    struct Case {
        const char* m_name;
        std::function<RqExprAggr*()> m_make;
        bool m_bFunctional;
        bool m_bWrapper;
        bool m_bHashable;
    };
    const std::vector<Case> cases = {
        {"sum", [] { return RQ_NEW RqExprAggrSum(Col(1)); }, false, false, true},
        {"count", [] { return RQ_NEW RqExprAggrCount(Col(1)); }, false, false, true},
        {"median", [] { return RQ_NEW RqExprAggrMedian(Col(1)); }, false, false, false},
        {"rank", [] { return RQ_NEW RqExprAggrRank(Col(1)); }, true, false, false},
        {"row number", [] { return RQ_NEW RqExprAggrRowNum(Col(1)); }, true, false, false},
        {"percentile", [] { return RQ_NEW RqExprAggrPercentile(Col(1)); }, true, false, false},
        {"report sum", [] { return RQ_NEW RqExprAggrReportSum(Col(1)); }, true, false, true},
        {"subtotal", [] { return RQ_NEW RqExprAggrSubtotal(Col(1)); }, true, false, true},
        {"trend line", [] { return RQ_NEW RqExprAggrTrendline(Col(1)); }, true, false, true},
        {"bin", [] { return RQ_NEW RqExprAggrBin(Col(1)); }, true, false, true},
        {"width bucket", [] { return RQ_NEW RqExprAggrWidthBucket(Col(1)); }, true, false, true},
        {"no aggregate", [] { return RQ_NEW RqExprNoAggregate(Col(1)); }, false, true, true},
        {"evaluate aggregate", [] { return RQ_NEW RqExprEvaluateAggr(Col(1)); }, false, true, true},
        {"external", [] { return RQ_NEW RqExprAggrExternal(Col(1)); }, false, true, true},
        {"list aggregation", [] { return RQ_NEW RqExprAggrListAgg(Col(1)); }, false, false, false},
        {"null if not unique", [] { return RQ_NEW RqExprAggrNullIfNotUnique(Col(1)); }, false,
         false, false},
    };
    for (const Case& c : cases) {
        Heap<RqExprAggr> aggr(c.m_make());
        EXPECT_EQ(aggr->IsFunctionalAggr(), c.m_bFunctional) << c.m_name;
        EXPECT_EQ(aggr->IsAggrWrapper(), c.m_bWrapper) << c.m_name;
        EXPECT_EQ(aggr->IsHashable(), c.m_bHashable) << c.m_name;
    }
    Heap<RqExprAggr> distinctBreak(RQ_NEW RqExprAggrSum(Col(1)));
    distinctBreak->SetDistinctComputeBreak(true);
    EXPECT_FALSE(distinctBreak->IsHashable());
}

TEST(ExprAggregates, SortDirectionsFollowTheSortKeys) {
    Heap<RqExprAggrRank> rank(RQ_NEW RqExprAggrRank(Col(1)));
    rank->SetSortSpec({{4, RqSortSpec::kDesc}, {2, RqSortSpec::kAsc}});
    std::vector<RqSortSpec::SortDirection> directions{RqSortSpec::kEitherDirection};
    rank->GetSortDirections(directions);
    EXPECT_EQ(directions,
              (std::vector<RqSortSpec::SortDirection>{RqSortSpec::kDesc, RqSortSpec::kAsc}));
}

TEST(ExprColumnLists, SubsetPrefixAndMembershipGoByEquivalence) {
    Heap<RqExprColumnListOrdered> ab(RQ_NEW RqExprColumnListOrdered(RqExprVector{Col(1), Col(2)}));
    Heap<RqExprColumnListOrdered> ba(RQ_NEW RqExprColumnListOrdered(RqExprVector{Col(2), Col(1)}));
    Heap<RqExprColumnListOrdered> abc(
        RQ_NEW RqExprColumnListOrdered(RqExprVector{Col(1), Col(2), Col(3)}));
    EXPECT_TRUE(ab->IsSubsetOf(*ba));
    EXPECT_TRUE(ab->IsSubsetOf(*abc));
    EXPECT_FALSE(abc->IsSubsetOf(*ab));
    EXPECT_TRUE(ab->IsPrefixSubsetOf(*abc));
    EXPECT_FALSE(ba->IsPrefixSubsetOf(*abc));
    EXPECT_FALSE(abc->IsPrefixSubsetOf(*ab));
    Heap<RqExpr> probe(Col(3));
    EXPECT_TRUE(abc->HasEquivalentMember(*probe));
    EXPECT_FALSE(ab->HasEquivalentMember(*probe));

    ab->SetIthColumn(3, Col(9));
    EXPECT_EQ(ab->GetNumColumns(), 4);
    EXPECT_EQ(ab->GetIthColumn(2), nullptr);
}

TEST(ExprColumnLists, SortedListsHaveOneOrderAndCopyingListsLeaveTheMembers) {
    Heap<RqExpr> one(Col(1));
    Heap<RqExpr> two(Col(2));
    Heap<RqExpr> three(Col(3));
    Heap<RqExprColumnList> forward(
        RQ_NEW RqExprColumnList({one.Get(), two.Get(), three.Get()}, true, false));
    Heap<RqExprColumnList> backward(
        RQ_NEW RqExprColumnList({three.Get(), two.Get(), one.Get()}, true, false));
    EXPECT_EQ(one->GetParent(), nullptr) << "a list that does not own its members copies them";
    EXPECT_TRUE(RqEquivalence()(*forward, *backward));

    backward->AddMember(Col(0));
    forward->AddMember(Col(0));
    EXPECT_TRUE(RqEquivalence()(*forward, *backward));
    const LessEquivalentRqExpr less;
    for (int i = 1; i < forward->GetNumColumns(); ++i) {
        EXPECT_FALSE(less(forward->GetIthColumn(i), forward->GetIthColumn(i - 1)));
    }

    Heap<RqExprColumnList> unsorted(
        RQ_NEW RqExprColumnList({three.Get(), one.Get()}, false, false));
    EXPECT_TRUE(RqEquivalence()(unsorted->GetIthColumn(0), three.Get()));
}

TEST(ExprSortSpec, CopyKeepsOrRenewsIdentity) {
    RqSortSpec spec(3, RqSortSpec::kDesc, true, false, RqSortSpec::kLast);
    RqSortSpec kept(spec, true);
    RqSortSpec fresh(spec, false);
    EXPECT_TRUE(kept.IsCopyOf(spec));
    EXPECT_FALSE(fresh.IsCopyOf(spec));
    EXPECT_EQ(fresh.GetColumnNumber(), 3);
    EXPECT_EQ(fresh.GetSortDirection(), RqSortSpec::kDesc);
    EXPECT_EQ(fresh.GetNullSortDirection(), RqSortSpec::kLast);
    EXPECT_TRUE(fresh.IsLogicalSelectList());
}

TEST(ExprTraversal, PreOrderInOperandOrderAndHandledSkipsOperands) {
    // (c1 + c2) * upper(c3), with the sum handled by the visitor.
    RqExpr* c1 = Col(1);
    RqExpr* c2 = Col(2);
    RqExpr* c3 = Col(3);
    RqExpr* sum = RQ_NEW RqExprAdd(c1, c2);
    RqExpr* upper = RQ_NEW RqExprUpper(c3);
    Heap<RqExpr> root(RQ_NEW RqExprMultiply(sum, upper));

    RecordingExprVisitor all;
    root->Accept(all);
    EXPECT_EQ(all.m_seen, (std::vector<const RqExpr*>{root.Get(), sum, c1, c2, upper, c3}));

    RecordingExprVisitor skipping;
    skipping.m_handled.insert(sum);
    root->Accept(skipping);
    EXPECT_EQ(skipping.m_seen, (std::vector<const RqExpr*>{root.Get(), sum, upper, c3}));

    RecordingExprVisitor rootHandled;
    rootHandled.m_handled.insert(root.Get());
    root->Accept(rootHandled);
    EXPECT_EQ(rootHandled.m_seen, (std::vector<const RqExpr*>{root.Get()}));
}

TEST(ExprTraversal, SubqueryBlocksAreNotEnteredAndRewrittenOperandsAreVisited) {
    auto* block = RQ_NEW RqList();
    RqExpr* inside = Col(5);
    block->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(inside));
    RqExpr* sub = RQ_NEW RqExprLogicalSubquery(block);
    RqExpr* old = Col(1);
    RqExpr* replacement = Col(2);
    Heap<RqExpr> root(RQ_NEW RqExprCoalesce(sub, old));

    RecordingExprVisitor visitor;
    visitor.m_onVisit = [&](RqExpr& e) {
        if (&e == root.Get())
            e.SetIthOperand(1, replacement);
    };
    root->Accept(visitor);
    EXPECT_EQ(visitor.m_seen, (std::vector<const RqExpr*>{root.Get(), sub, replacement}));
}

TEST(ExprTraversalDeathTest, ReportAggregateWithoutOverrideIsALogicError) {
    EXPECT_DEATH(
        {
            Heap<RqExpr> expr(RQ_NEW RqExprAdd(Int(1), RQ_NEW RqExprAggrReport(Col(1))));
            MinimalExprVisitor visitor;
            expr->Accept(visitor);
        },
        "LOGIC ERROR");
}

TEST(ExprTraversalDeathTest, NoAggregateWithoutOverrideIsALogicError) {
    EXPECT_DEATH(
        {
            Heap<RqExpr> expr(RQ_NEW RqExprNoAggregate(Col(1)));
            MinimalExprVisitor visitor;
            expr->Accept(visitor);
        },
        "LOGIC ERROR");
}

}  // namespace
