// The vertical list splitter: on trees built by hand, the nesting (what the outer block reads,
// what moves outward, who reads the outer block), composition across blocks, rendering into a
// child, GROUP BY and ORDER BY relocation, the break-filter operations and the assertions; on
// SQLite, nesting and columns moved up through AddOuterColumn, on chosen and on random
// requests. Every rewritten request must still pass the verifier.

#include <gtest/gtest.h>

#include "../sql/SqlTestCatalog.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAggrFinder.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUVerticalListSplitter.h"
#include "RqRequestGenerator.h"

namespace {

using rqb::Ref;

void ExpectValid(const RqNode& root) {
    const std::vector<RqViolation> violations = RqVerifier::Verify(root);
    EXPECT_TRUE(violations.empty()) << RqVerifier::Describe(violations).ToUtf8();
}

RqDerivedColumn* ReadColumn(const RqExpr* expr) {
    return RqCast<RqDerivedColumnReference>(expr)->GetDerivedColumn();
}

// SELECT region (#5), amount (#7), amount * 2 (#8) FROM sales ORDER BY amount DESC, region
// LIMIT 10 OFFSET 2, read by an outer block through a derived table.
struct Nested {
    RqHandleNode* m_pRequest;
    RqList* m_pInner;
    RqList* m_pTop;
};

Nested MakeNested(bool bDistinct = false) {
    rqb::Block inner;
    inner.SelectAs(rqb::Col(L"region", 1), 5)
        .SelectAs(rqb::Col(L"amount", 1), 7)
        .SelectAs(rqb::Mul(rqb::Col(L"amount", 1), rqb::Int(2)), 8)
        .From(rqb::Table(VoidID(3, 1), 1))
        .OrderBy({{1, RqSortSpec::kDesc}, {0}})
        .Limit(10)
        .Offset(2)
        .Distinct(bDistinct);
    RqList* innerList = inner.Build();
    rqb::Block top;
    top.Select(Ref(*innerList, 0)).Select(Ref(*innerList, 2)).From(rqb::Derived(innerList, 2));
    RqList* topList = top.Build();
    return {rqb::Request(topList), innerList, topList};
}

TEST(VerticalListSplitter, NestingReprojectsEveryColumnAndMovesOrderAndPaging) {
    Nested n = MakeNested(true);
    Heap<RqHandleNode> request(n.m_pRequest);
    RqList* outer =
        VerticalListSplitter::NestWithinOuterReprojection(*n.m_pInner, nullptr, true, 0);

    // The outer block stands where the inner one stood and reads it as its only table.
    RqDerivedTable* place = RqCast<RqDerivedTable>(outer->GetParent());
    EXPECT_EQ(place->GetParent()->GetParent()->GetParent()->GetParent(), n.m_pTop);
    ASSERT_EQ(outer->GetJoinSpec()->GetNumTableReferences(), 1);
    RqDerivedTable* table = outer->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->GetInnerList(), n.m_pInner);
    EXPECT_EQ(table->GetNestingLevel(), 1);

    const RqProjection* outerProjection = outer->GetProjection();
    ASSERT_EQ(outerProjection->GetNumColumns(), 3);
    for (int i = 0; i < 3; ++i) {
        const RqDerivedColumn* column = outerProjection->GetIthColumn(i);
        EXPECT_EQ(column->GetColumnNum(),
                  n.m_pInner->GetProjection()->GetIthColumn(i)->GetColumnNum());
        EXPECT_EQ(ReadColumn(column->GetExpr()), n.m_pInner->GetProjection()->GetIthColumn(i));
    }
    // The top block now reads the outer columns.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ReadColumn(n.m_pTop->GetProjection()->GetIthColumn(i)->GetExpr()),
                  outerProjection->GetIthColumn(i == 0 ? 0 : 2));
    }
    // ORDER BY, paging and DISTINCT moved outward.
    EXPECT_EQ(n.m_pInner->GetOrderBy(), nullptr);
    ASSERT_NE(outer->GetOrderBy(), nullptr);
    ASSERT_EQ(outer->GetOrderBy()->GetNumSortSpecs(), 2);
    EXPECT_EQ(outer->GetOrderBy()->GetIthSortSpec(0)->GetColumnNumber(), 7);
    EXPECT_EQ(outer->GetOrderBy()->GetIthSortSpec(0)->GetSortDirection(), RqSortSpec::kDesc);
    EXPECT_EQ(outer->GetOrderBy()->GetIthSortSpec(1)->GetColumnNumber(), 5);
    EXPECT_EQ(outer->m_rowLimit, 10u);
    EXPECT_EQ(outer->m_rowOffset, 2u);
    EXPECT_EQ(n.m_pInner->m_rowLimit, 0u);
    EXPECT_EQ(n.m_pInner->m_rowOffset, 0u);
    EXPECT_TRUE(outer->IsDistinct());
    EXPECT_FALSE(n.m_pInner->IsDistinct());
    ExpectValid(*request);
}

TEST(VerticalListSplitter, NestingLeavesOutColumnsAndKeepsAnOrderOnThem) {
    for (bool bLeaveOutSortKey : {false, true}) {
        SCOPED_TRACE(bLeaveOutSortKey);
        Nested n = MakeNested(true);
        Heap<RqHandleNode> request(n.m_pRequest);
        // Leave out #8 (read from above: the caller's to fix) or the sort key #7.
        Int32Vector leaveOut{bLeaveOutSortKey ? 7 : 8};
        RqList* outer =
            VerticalListSplitter::NestWithinOuterReprojection(*n.m_pInner, &leaveOut, false, 1);
        ASSERT_EQ(outer->GetProjection()->GetNumColumns(), 2);
        EXPECT_EQ(outer->GetProjection()->GetIthColumn(1)->GetColumnNum(),
                  bLeaveOutSortKey ? 8 : 7);
        EXPECT_EQ(
            outer->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetNestingLevel(), 2);
        // DISTINCT stays inside unless asked to move.
        EXPECT_TRUE(n.m_pInner->IsDistinct());
        EXPECT_FALSE(outer->IsDistinct());
        EXPECT_EQ(n.m_pInner->GetOrderBy() != nullptr, bLeaveOutSortKey);
        EXPECT_EQ(outer->GetOrderBy() != nullptr, !bLeaveOutSortKey);
        EXPECT_EQ(n.m_pInner->m_rowLimit, bLeaveOutSortKey ? 10u : 0u);
        EXPECT_EQ(outer->m_rowLimit, bLeaveOutSortKey ? 0u : 10u);
        if (bLeaveOutSortKey) {
            // Asked again, the ORDER BY still has no outer column to sort on and stays.
            VerticalListSplitter::RelocateOrderByToOuterList(*n.m_pInner, outer);
            EXPECT_NE(n.m_pInner->GetOrderBy(), nullptr);
            EXPECT_EQ(outer->GetOrderBy(), nullptr);
            ExpectValid(*request);
        }
    }
}

// The sort that moves out of a block nested in a derived table stays a sort inside a derived
// table; a database that cannot run one leaves it, and the outer block, to the server.
TEST(VerticalListSplitter, NestingHandsANestedSortToTheServerWhenTheDatabaseCannotRunIt) {
    const struct {
        ServerInfo::TargetType m_type;
        bool m_bNested;
        bool m_bToServer;
    } cases[] = {
        {ServerInfo::kAnsiSql, true, true},
        {ServerInfo::kAnsiSql, false, false},
        {ServerInfo::kRowStoreDatabase, true, false},
        {ServerInfo::kUnknown, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.m_type << " nested " << c.m_bNested);
        Nested n = MakeNested();
        Heap<RqHandleNode> request(n.m_pRequest);
        n.m_pInner->MarkTargetType(c.m_type);
        RqList* block = c.m_bNested ? n.m_pInner : n.m_pTop;
        if (!c.m_bNested) {
            block->SetOrderBy(RQ_NEW RqOrderBy(
                {RQ_NEW RqSortSpec(block->GetProjection()->GetIthColumn(0)->GetColumnNum())}));
            block->MarkTargetType(c.m_type);
        }
        RqList* outer = VerticalListSplitter::NestWithinOuterReprojection(*block, nullptr, true, 0);
        ASSERT_NE(outer->GetOrderBy(), nullptr);
        const ServerInfo::TargetType expected =
            c.m_bToServer ? ServerInfo::kBuiltInExecutionEngine : ServerInfo::kUnknown;
        EXPECT_EQ(outer->GetTargetType(), expected);
        EXPECT_EQ(outer->GetOrderBy()->GetTargetType(), expected);
    }
}

// ---- Composition --------------------------------------------------------------------------

// top.0 = mid.0 + 1, mid.0 = inner.0, inner.0 = t1.amount; top.1 = COALESCE(mid.0, 0).
struct Chain {
    RqHandleNode* m_pRequest;
    RqList* m_pInner;
    RqList* m_pMid;
    RqList* m_pTop;
};

Chain MakeChain() {
    RqList* inner = rqb::Block()
                        .Select(rqb::Col(L"amount", 1))
                        .Select(rqb::Col(L"region", 1))
                        .From(rqb::Table(VoidID(3, 1), 1))
                        .Build();
    RqList* mid = rqb::Block().Select(Ref(*inner, 0)).From(rqb::Derived(inner, 2)).Build();
    RqExpr* coalesce = RQ_NEW RqExprCoalesce(Ref(*mid, 0), rqb::Int(0));
    RqList* top = rqb::Block()
                      .Select(rqb::Add(Ref(*mid, 0), rqb::Int(1)))
                      .Select(coalesce)
                      .From(rqb::Derived(mid, 3))
                      .Build();
    return {rqb::Request(top), inner, mid, top};
}

TEST(VerticalListSplitter, ComposingFollowsReferencesDownButNotThroughCoalesce) {
    Chain c = MakeChain();
    Heap<RqHandleNode> request(c.m_pRequest);
    Heap<RqExpr> sum(VerticalListSplitter::ComposeAllDerivedColumnReferences(
        c.m_pTop->GetProjection()->GetIthColumn(0)->GetExpr()));
    Heap<RqExpr> expected(rqb::Add(rqb::Col(L"amount", 1), rqb::Int(1)));
    EXPECT_TRUE(sum->IsEquivalent(*expected)) << ToString(sum.Get()).ToUtf8();

    const RqExpr* coalesce = c.m_pTop->GetProjection()->GetIthColumn(1)->GetExpr();
    Heap<RqExpr> kept(VerticalListSplitter::ComposeAllDerivedColumnReferences(coalesce));
    EXPECT_TRUE(kept->IsEquivalent(*coalesce));
    EXPECT_EQ(ReadColumn(kept->GetIthOperand(0)), c.m_pMid->GetProjection()->GetIthColumn(0));
}

TEST(VerticalListSplitter, ComposingIntoAnInnerBlock) {
    Chain c = MakeChain();
    Heap<RqHandleNode> request(c.m_pRequest);
    RqProjection* mid = c.m_pMid->GetProjection();
    RqProjection* inner = c.m_pInner->GetProjection();
    const RqExpr* topSum = c.m_pTop->GetProjection()->GetIthColumn(0)->GetExpr();

    // Direct: the reference to mid becomes mid's expression, a reference to inner.
    Heap<RqExpr> direct(VerticalListSplitter::CreateDirectEquivalentInnerExpr(topSum, *mid));
    EXPECT_EQ(ReadColumn(direct->GetIthOperand(0)), inner->GetIthColumn(0));
    Heap<RqExpr> column(
        VerticalListSplitter::CreateDirectEquivalentInnerExpr(topSum->GetIthOperand(0), *mid));
    EXPECT_EQ(ReadColumn(column.Get()), inner->GetIthColumn(0));

    bool bFailed = false;
    Heap<RqExpr> same(
        VerticalListSplitter::ComposeEquivalentInnerExpr(topSum, mid, mid, bFailed, false));
    ASSERT_FALSE(bFailed);
    EXPECT_TRUE(same->IsEquivalent(*direct));
    // A pattern projection of another block: its column at the same index stands in.
    Heap<RqExpr> patterned(
        VerticalListSplitter::ComposeEquivalentInnerExpr(topSum, mid, inner, bFailed, true));
    Heap<RqExpr> expected(rqb::Add(rqb::Col(L"amount", 1), rqb::Int(1)));
    EXPECT_TRUE(patterned->IsEquivalent(*expected));
    // A reference to a column outside the inner projection cannot be composed.
    EXPECT_EQ(
        VerticalListSplitter::ComposeEquivalentInnerExpr(topSum, inner, inner, bFailed, false),
        nullptr);
    EXPECT_TRUE(bFailed);
    EXPECT_EQ(
        VerticalListSplitter::ComposeEquivalentInnerExpr(nullptr, inner, inner, bFailed, false),
        nullptr);
}

TEST(VerticalListSplitterDeathTest, BrokenInvariantsAreReported) {
    Chain c = MakeChain();
    Heap<RqHandleNode> request(c.m_pRequest);
    RqProjection* mid = c.m_pMid->GetProjection();
    RqProjection* inner = c.m_pInner->GetProjection();
    bool bFailed = false;
    EXPECT_DEATH(
        VerticalListSplitter::ComposeEquivalentInnerExpr(rqb::Int(1), mid, inner, bFailed, false),
        "bIgnoreProjectionDiffs \\|\\| pPatternProjection->GetNumColumns\\(\\) == "
        "pInnerProjection->GetNumColumns\\(\\)");
    EXPECT_DEATH(VerticalListSplitter::CreateDirectEquivalentInnerExpr(nullptr, *mid),
                 "pOuterExpr");
    Heap<RqExpr> dangling(rqb::Add(RQ_NEW RqDerivedColumnReference(), rqb::Int(1)));
    EXPECT_DEATH(ComposeInnerReferences(dangling.Get(), *mid),
                 "pChildColumnReference->GetDerivedColumn\\(\\)");
    EXPECT_DEATH(VerticalListSplitter::AddOuterColumn(nullptr, *inner, *mid, false),
                 "pChildColumn");
    // The region column is read by no column of mid.
    EXPECT_DEATH(VerticalListSplitter::AddOuterColumn(inner->GetIthColumn(1), *inner, *mid, false),
                 "!derivedColumnReferences.empty\\(\\)");
    // A GROUP BY cannot move to a block without a projection.
    c.m_pInner->SetGroupBy(RQ_NEW RqGroupBy({rqb::Col(L"region", 1)}));
    c.m_pMid->SetProjection(nullptr);
    EXPECT_DEATH(VerticalListSplitter::RelocateGroupByToOuterList(*c.m_pInner, *c.m_pMid),
                 "pInnerProjection && pOuterProjection");
}

// Conditions of a join tree, nested on the left and chained on the right, come out in front
// of what was collected before, each a copy.
TEST(VerticalListSplitter, SearchConditionsAreCollectedFromTheWholeJoinTree) {
    auto cond = [](int i) { return rqb::Eq(rqb::Col(L"k", i), rqb::Int(i)); };
    Heap<RqTableReference> tree(
        rqb::JoinRef(SqlTableRef::kInnerJoin,
                     rqb::JoinRef(SqlTableRef::kInnerJoin, rqb::Table(VoidID(3, 1), 1),
                                  rqb::Table(VoidID(3, 2), 2), cond(1)),
                     rqb::JoinRef(SqlTableRef::kLeftOuterJoin, rqb::Table(VoidID(3, 3), 3),
                                  rqb::Table(VoidID(3, 4), 4), cond(3)),
                     cond(2)));
    Heap<RqExprCond> collected(RqCast<RqExprCond>(cond(0)));
    CollectSearchCond(tree.Get(), collected);
    // Each condition met goes in front: this reference's, the left side's, then the right side's.
    EXPECT_EQ(
        ToString(collected.Get()).ToUtf8(),
        ToString(
            Heap<RqExpr>(rqb::And(cond(3), rqb::And(cond(1), rqb::And(cond(2), cond(0))))).Get())
            .ToUtf8());
    EXPECT_NE(tree->GetSearchCond(), nullptr);
}

// ---- Rendering into a child ---------------------------------------------------------------

TEST(VerticalListSplitter, RenderingPushesWhatTheChildComputesAndTakesTheRestApart) {
    for (bool bNoEvaluateInChild : {false, true}) {
        SCOPED_TRACE(bNoEvaluateInChild);
        Heap<RqList> child(rqb::Block()
                               .Select(rqb::Col(L"amount", 1))
                               .From(rqb::Table(VoidID(3, 1), 1))
                               .Target(ServerInfo::kAnsiSql)
                               .Build());
        RqProjection& projection = *child->GetProjection();
        // (amount * 2) + region: the child already has amount.
        RqExpr* expr =
            rqb::Add(rqb::Mul(rqb::Col(L"amount", 1), rqb::Int(2)), rqb::Col(L"region", 1));
        Heap<RqExpr> rendered(VerticalListSplitter::RenderChildReferences(expr, projection, false,
                                                                          bNoEvaluateInChild));
        if (!bNoEvaluateInChild) {
            // A remote child computes the whole expression in a new column.
            ASSERT_EQ(projection.GetNumColumns(), 2);
            EXPECT_EQ(ReadColumn(rendered.Get()), projection.GetIthColumn(1));
            EXPECT_TRUE(projection.GetIthColumn(1)->GetExpr()->IsKindOf(kRqExprAdd));
        } else {
            // Only the direct columns go down: amount is found, region added.
            ASSERT_EQ(projection.GetNumColumns(), 2);
            EXPECT_EQ(rendered.Get(), expr);
            EXPECT_EQ(ReadColumn(rendered->GetIthOperand(0)->GetIthOperand(0)),
                      projection.GetIthColumn(0));
            EXPECT_EQ(ReadColumn(rendered->GetIthOperand(1)), projection.GetIthColumn(1));
        }
    }
}

TEST(VerticalListSplitter, AnEvaluateExpressionStaysAboveAServerChild) {
    Heap<RqList> child(rqb::Block()
                           .Select(rqb::Col(L"amount", 1))
                           .From(rqb::Table(VoidID(3, 1), 1))
                           .Target(ServerInfo::kBuiltInExecutionEngine)
                           .Build());
    RqExpr* expr = RQ_NEW RqExprEvaluate(rqb::Str(L"f(%1)"), rqb::Col(L"amount", 1));
    Heap<RqExpr> rendered(
        VerticalListSplitter::RenderChildReferences(expr, *child->GetProjection(), false, false));
    EXPECT_EQ(rendered.Get(), expr);
    EXPECT_EQ(child->GetProjection()->GetNumColumns(), 1);
    EXPECT_EQ(ReadColumn(rendered->GetIthOperand(1)), child->GetProjection()->GetIthColumn(0));
}

TEST(VerticalListSplitter, AggregatesBecomeColumnsOnce) {
    Heap<RqList> block(
        rqb::Block().Select(rqb::Col(L"region", 1)).From(rqb::Table(VoidID(3, 1), 1)).Build());
    // Sum(amount) + Max(amount) * Sum(amount) + Ago(Sum(amount)): the period-ago is kept whole.
    Heap<RqExpr> expr(rqb::Add(
        rqb::Add(rqb::Sum(rqb::Col(L"amount", 1)),
                 rqb::Mul(rqb::Max(rqb::Col(L"amount", 1)), rqb::Sum(rqb::Col(L"amount", 1)))),
        rqb::Aggr<RqExprAgo>(rqb::Sum(rqb::Col(L"amount", 1)))));
    VerticalListSplitter::AddAggrSubExprs(expr.Get(), *block->GetProjection());
    const RqProjection& projection = *block->GetProjection();
    ASSERT_EQ(projection.GetNumColumns(), 4);
    EXPECT_TRUE(projection.GetIthColumn(1)->GetExpr()->IsKindOf(kRqExprAggrSum));
    EXPECT_TRUE(projection.GetIthColumn(2)->GetExpr()->IsKindOf(kRqExprAggrMax));
    EXPECT_TRUE(projection.GetIthColumn(3)->GetExpr()->IsKindOf(kRqExprAgo));
}

// ---- Duplicate columns, GROUP BY ------------------------------------------------------------

TEST(VerticalListSplitter, DuplicateExpressionsCollapseOntoOneInnerColumn) {
    Nested n = MakeNested();
    Heap<RqHandleNode> request(n.m_pRequest);
    RqList* outer =
        VerticalListSplitter::NestWithinOuterReprojection(*n.m_pInner, nullptr, true, 0);
    RqProjection* inner = n.m_pInner->GetProjection();
    // A second inner region column, sorted on, and an outer column recomputing amount * 2.
    RqDerivedColumn* region2 = inner->InsertDonatedColumnExpr(rqb::Col(L"region", 1));
    ASSERT_EQ(region2, inner->GetIthColumn(0));  // InsertColumnExpr already reuses the column
    auto* duplicate = RQ_NEW RqDerivedColumn(rqb::Col(L"region", 1), 20);
    inner->AddColumn(duplicate);
    outer->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(rqb::Ref(duplicate), 21));
    outer->GetProjection()->AddColumn(
        RQ_NEW RqDerivedColumn(rqb::Mul(rqb::Ref(inner->GetIthColumn(1)), rqb::Int(2)), 22));
    n.m_pInner->SetOrderBy(RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(20)}));

    VerticalListSplitter::EliminateDuplicateExpressions(*inner, *outer);
    EXPECT_EQ(inner->GetNumColumns(), 3);
    EXPECT_EQ(ReadColumn(outer->GetProjection()->GetIthColumn(3)->GetExpr()),
              inner->GetIthColumn(0));
    EXPECT_EQ(ReadColumn(outer->GetProjection()->GetIthColumn(4)->GetExpr()),
              inner->GetIthColumn(2));
    EXPECT_EQ(n.m_pInner->GetOrderBy()->GetIthSortSpec(0)->GetColumnNumber(), 5);
    ExpectValid(*request);
}

TEST(VerticalListSplitter, GroupByMovesOutOverTheInnerColumns) {
    RqList* inner = rqb::Block()
                        .Select(rqb::Col(L"region", 1))
                        .Select(rqb::Sum(rqb::Col(L"amount", 1)))
                        .From(rqb::Table(VoidID(3, 1), 1))
                        .GroupBy({rqb::Col(L"region", 1)})
                        .Build();
    inner->GetGroupBy()->SetInternalExecutionMode(RqGroupBy::kSort);
    Heap<RqHandleNode> request(rqb::Request(inner));
    RqList* outer = VerticalListSplitter::NestWithinOuterReprojection(*inner, nullptr, true, 0);
    outer->GetProjection()->AddColumn(RQ_NEW RqDerivedColumn(
        rqb::Add(rqb::Ref(inner->GetProjection()->GetIthColumn(0)), rqb::Int(1))));
    VerticalListSplitter::RelocateGroupByToOuterList(*inner, *outer);
    EXPECT_EQ(inner->GetGroupBy(), nullptr);
    const RqGroupBy* groupBy = outer->GetGroupBy();
    ASSERT_NE(groupBy, nullptr);
    EXPECT_EQ(groupBy->GetInternalExecutionMode(), RqGroupBy::kSort);
    // The region column, then the computed outer column; never the sum.
    ASSERT_EQ(groupBy->GetNumColumns(), 2);
    EXPECT_EQ(ReadColumn(groupBy->GetIthColumn(0)), inner->GetProjection()->GetIthColumn(0));
    EXPECT_TRUE(groupBy->GetIthColumn(1)->IsKindOf(kRqExprAdd));
    ExpectValid(*request);

    // An empty GROUP BY is simply dropped.
    outer->SetGroupBy(RQ_NEW RqGroupBy());
    VerticalListSplitter::RelocateGroupByToOuterList(*outer, *inner);
    EXPECT_EQ(outer->GetGroupBy(), nullptr);
    EXPECT_EQ(inner->GetGroupBy(), nullptr);
}

TEST(VerticalListSplitter, GroupingSetsFollowTheirColumnsOut) {
    RqList* inner = rqb::Block()
                        .Select(rqb::Col(L"amount", 1))
                        .Select(rqb::Col(L"region", 1))
                        .From(rqb::Table(VoidID(3, 1), 1))
                        .GroupBy({rqb::Col(L"region", 1), rqb::Col(L"cust", 1)})
                        .Build();
    inner->GetGroupBy()->AddGroupingSet({0, 1});
    inner->GetGroupBy()->AddGroupingSet({1});
    Heap<RqHandleNode> request(rqb::Request(inner));
    RqList* outer = VerticalListSplitter::NestWithinOuterReprojection(*inner, nullptr, true, 0);
    VerticalListSplitter::RelocateGroupByToOuterList(*inner, *outer);
    // Members: amount, region, then cust added to the inner block for its set.
    const RqGroupBy* groupBy = outer->GetGroupBy();
    ASSERT_EQ(groupBy->GetNumColumns(), 3);
    EXPECT_EQ(inner->GetProjection()->GetNumColumns(), 3);
    EXPECT_EQ(groupBy->GetIthGroupingSet(0), (UInt16Vector{1, 2}));
    EXPECT_EQ(groupBy->GetIthGroupingSet(1), (UInt16Vector{2}));
    ExpectValid(*request);
}

// ---- Break filters --------------------------------------------------------------------------

RqList* BreakBlock(std::initializer_list<rqb::Order> order) {
    rqb::Block block;
    block.Select(rqb::Col(L"a", 1))
        .Select(rqb::Col(L"b", 1))
        .Select(rqb::Col(L"c", 1))
        .From(rqb::Table(VoidID(3, 1), 1));
    if (order.size() > 0)
        block.OrderBy(order);
    return block.Build();
}

TEST(VerticalListSplitter, OrderConsistentWithBreaks) {
    Heap<RqList> none(BreakBlock({}));
    EXPECT_TRUE(VerticalListSplitter::OrderByIsConsistentWithBreakColumns(none.Get(), {}));
    EXPECT_FALSE(VerticalListSplitter::OrderByIsConsistentWithBreakColumns(none.Get(), {0}));
    Heap<RqList> sorted(BreakBlock({{2}, {1}, {0}}));
    EXPECT_TRUE(VerticalListSplitter::OrderByIsConsistentWithBreakColumns(sorted.Get(), {1, 2}));
    EXPECT_FALSE(VerticalListSplitter::OrderByIsConsistentWithBreakColumns(sorted.Get(), {0, 1}));
    EXPECT_TRUE(VerticalListSplitter::OrderByIsConsistentWithBreakColumns(sorted.Get(), {0, 1, 2}));
    Heap<RqList> shortSort(BreakBlock({{1}}));
    EXPECT_FALSE(
        VerticalListSplitter::OrderByIsConsistentWithBreakColumns(shortSort.Get(), {1, 2}));
}

TEST(VerticalListSplitter, BreakFilterSortSkipsLargeObjects) {
    Heap<RqList> block(BreakBlock({{0, RqSortSpec::kDesc}}));
    block->GetProjection()->GetIthColumn(1)->SetBreakStatus(RqDerivedColumn::kLobData);
    VerticalListSplitter::MakeBreakFilterSort(block.Get(), {2, 1});
    ASSERT_EQ(block->GetOrderBy()->GetNumSortSpecs(), 1);
    EXPECT_EQ(block->GetOrderBy()->GetIthSortSpec(0)->GetColumnNumber(), 2);
    EXPECT_EQ(block->GetOrderBy()->GetIthSortSpec(0)->GetSortDirection(),
              RqSortSpec::kEitherDirection);
    VerticalListSplitter::MakeBreakFilterSort(block.Get(), {1});
    EXPECT_EQ(block->GetOrderBy(), nullptr);
}

TEST(VerticalListSplitter, AddBreakFilterPutsADetachedOrderAboveTheFilter) {
    for (bool bLimited : {false, true}) {
        SCOPED_TRACE(bLimited);
        RqList* block = BreakBlock({{2, RqSortSpec::kDesc}, {2}, {0}});
        block->m_rowLimit = bLimited ? 5 : 0;
        RqList* top = rqb::Block().Select(Ref(*block, 1)).From(rqb::Derived(block, 2)).Build();
        Heap<RqHandleNode> request(rqb::Request(top));
        RqDerivedTable* place = RqCast<RqDerivedTable>(block->GetParent());
        RqAbstractList* result = VerticalListSplitter::AddBreakFilter({0, 0, 1}, block);
        place->SetInnerList(result);
        ExpectValid(*request);

        RqList* outer = RqCast<RqList>(result);
        RqBreakFilter* filter = RqCast<RqBreakFilter>(
            outer->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetInnerList());
        EXPECT_EQ(filter->BreakColumnIndexes(), (UInt16Vector{0, 1}));
        EXPECT_EQ(filter->GetInnerList(), block);
        // The top block now reads the outer block.
        EXPECT_EQ(ReadColumn(top->GetProjection()->GetIthColumn(0)->GetExpr()),
                  outer->GetProjection()->GetIthColumn(1));
        // The sort on c (repeated key dropped) goes above; under a limit it also stays.
        ASSERT_NE(outer->GetOrderBy(), nullptr);
        ASSERT_EQ(outer->GetOrderBy()->GetNumSortSpecs(), 2);
        EXPECT_EQ(outer->GetOrderBy()->GetIthSortSpec(0)->GetColumnNumber(),
                  outer->GetProjection()->GetIthColumn(2)->GetColumnNum());
        EXPECT_EQ(block->GetOrderBy() != nullptr, bLimited);
    }
}

TEST(VerticalListSplitter, AddBreakFilterKeepsAConsistentOrderAndSkipsLargeObjects) {
    Heap<RqList> lobs(BreakBlock({}));
    lobs->GetProjection()->GetIthColumn(0)->SetBreakStatus(RqDerivedColumn::kLobData);
    EXPECT_EQ(VerticalListSplitter::AddBreakFilter({0}, lobs.Get()), lobs.Get());

    RqList* block = BreakBlock({{1}, {0}});
    Heap<RqAbstractList> result(VerticalListSplitter::AddBreakFilter({0, 1}, block));
    EXPECT_NE(block->GetOrderBy(), nullptr);
    EXPECT_EQ(RqCast<RqList>(result.Get())->GetOrderBy(), nullptr);
    ExpectValid(*result);
}

// ---- Results kept, checked on SQLite ------------------------------------------------------

// After a nesting, the computed columns of an inner block that neither groups nor removes
// duplicates move up one by one, as a rule does with columns its database cannot compute;
// then duplicates merge. Returns the number of columns moved.
int MoveComputedColumnsUp(RqAbstractList& innerList, RqList& outer) {
    auto* inner = RqDynCast<RqList>(&innerList);
    if (inner == nullptr || inner->GetGroupBy() != nullptr || inner->IsDistinct())
        return 0;
    RqProjection& projection = *inner->GetProjection();
    for (int i = 0; i < projection.GetNumColumns(); ++i) {
        const RqExpr* expr = projection.GetIthColumn(i)->GetExpr();
        if (AggrFinder::FindAggr(expr) || FoundNodes(expr, RqNode::IsObjectType(kRqExprSubquery)))
            return 0;
    }
    int numMoved = 0;
    for (int i = 0; i < projection.GetNumColumns();) {
        RqDerivedColumn* column = projection.GetIthColumn(i);
        if (column->GetExpr()->IsInnerProjectable() || column->GetNumReferences() == 0) {
            ++i;
            continue;
        }
        VerticalListSplitter::AddOuterColumn(column, projection, *outer.GetProjection(), false);
        projection.DeleteColumn(column);
        ++numMoved;
        i = 0;
    }
    VerticalListSplitter::EliminateDuplicateExpressions(projection, outer);
    return numMoved;
}

class VerticalListSplitterSqlTest : public SqlTestCatalog {
protected:
    // Nests the block labelled `label` (the top block when empty) and checks the result.
    // With `bMoveUp`, the computed columns of the nested block then move up.
    void ExpectNestingKeepsRows(const std::string& text, bool bMoveDistinct, bool bMoveUp = false) {
        Heap<RqHandleNode> before(Read(text));
        ASSERT_TRUE(before);
        Heap<RqHandleNode> after(RqCast<RqHandleNode>(before->DeepCopy(false)));
        RqNodeVector lists;
        FindNodes(after.Get(), RqNode::IsObjectType(kRqList), lists);
        RqAbstractList* inner = RqCast<RqAbstractList>(lists.back());
        RqList* outer =
            VerticalListSplitter::NestWithinOuterReprojection(*inner, nullptr, bMoveDistinct, 0);
        if (bMoveUp) {
            EXPECT_GT(MoveComputedColumnsUp(*inner, *outer), 1);
        }
        ExpectValid(*after);
        for (uint64_t seed : {1, 2, 3}) {
            SqlCheckOptions options;
            options.m_seed = seed;
            options.m_rows = 200;
            const SqlCheckOutcome outcome = SqlCheck::Compare(*before, *after, Rp(), options);
            EXPECT_EQ(outcome.m_kind, SqlCheckOutcome::kSame) << outcome.Report();
        }
    }
};

TEST_F(VerticalListSplitterSqlTest, NestingKeepsTheRows) {
    // Sorted and paged at the top.
    ExpectNestingKeepsRows(
        "request { list limit=7 offset=3 { select { 0: t1.REGION 1: t1.AMOUNT 2: t1.ORDER_ID } "
        "from { " ORDERS_T1 "} orderby 1 desc, 2 } }",
        true);
    // DISTINCT, unsorted.
    ExpectNestingKeepsRows(
        "request { list distinct { select { 0: t1.REGION 1: t1.CUST_ID } from { " ORDERS_T1 "} } }",
        true);
    // A grouped, sorted block read by another through a derived table.
    ExpectNestingKeepsRows(
        "request { list { select { 0: @g.0 1: @g.1 } from { derived t3 { list @g limit=4 { select "
        "{ 0: t1.REGION 1: Sum(t1.AMOUNT) } from { " ORDERS_T1
        "} groupby (t1.REGION) orderby 1 "
        "desc, 0 } } } } }",
        false);
    // Computed columns, one of them twice, moved above a sorted block.
    ExpectNestingKeepsRows(
        "request { list { select { 0: @c.0 1: @c.1 2: @c.2 3: @c.3 } from { derived t3 { list @c "
        "{ select { 0: t1.ORDER_ID 1: Mul(t1.AMOUNT, 2) 2: Add(t1.CUST_ID, t1.ORDER_ID) 3: "
        "Mul(t1.AMOUNT, 2) } from { " ORDERS_T1 "} where Gt(t1.AMOUNT, 10) orderby 1, 0 } } } } }",
        true, true);
}

// Every block of random requests that a derived table, a set operation, a break filter or the
// request itself holds, nested on its own (and, every other time, with its computed columns
// moved up): the request stays valid and keeps its rows.
TEST_F(VerticalListSplitterSqlTest, NestingAnyBlockOfRandomRequestsKeepsTheRows) {
    RqRequestGenerator generator(*m_pRepository);
    int numNested = 0;
    int numTried = 0;
    int numMoved = 0;
    for (uint64_t seed = 1; seed <= 50; ++seed) {
        const std::string text = generator.Generate(seed);
        Heap<RqHandleNode> before(Read(text));
        ASSERT_TRUE(before);
        RqNodeVector lists;
        FindNodes(before.Get(), RqNode::IsObjectType(kRqAbstractList), lists);
        for (size_t k = 0; k < lists.size(); ++k) {
            const RqNode* parent = lists[k]->GetParent();
            if (!parent->IsKindOf(kRqDerivedTable) && !parent->IsKindOf(kRqHandleNode) &&
                !parent->IsKindOf(kRqAbstractList))
                continue;
            SCOPED_TRACE(testing::Message() << "seed " << seed << ", list " << k << "\n" << text);
            ++numTried;
            Heap<RqHandleNode> after(RqCast<RqHandleNode>(before->DeepCopy(false)));
            RqNodeVector copies;
            FindNodes(after.Get(), RqNode::IsObjectType(kRqAbstractList), copies);
            auto* inner = RqCast<RqAbstractList>(copies[k]);
            RqList* outer = VerticalListSplitter::NestWithinOuterReprojection(*inner, nullptr,
                                                                              seed % 2 == 0, 0);
            if (k % 2 == 1)
                numMoved += MoveComputedColumnsUp(*inner, *outer);
            ExpectValid(*after);
            SqlCheckOptions options;
            options.m_seed = seed;
            // Random requests cross-join freely: a few rows a table keep their results small
            // enough to compare quickly in the sanitizer build too.
            options.m_rows = 8;
            const SqlCheckOutcome outcome = SqlCheck::Compare(*before, *after, Rp(), options);
            EXPECT_NE(outcome.m_kind, SqlCheckOutcome::kDifferent) << outcome.Report();
            numNested += outcome.m_kind == SqlCheckOutcome::kSame ? 1 : 0;
        }
    }
    // Most results compare (the rest are refused with a reason, never passed).
    EXPECT_GT(numNested, numTried / 2);
    EXPECT_GT(numMoved, 0);
}

}  // namespace
