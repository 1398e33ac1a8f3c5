// The request builder: each helper must make exactly the shape its name promises, since
// other tests build their trees with it and trust what they get.

#include <gtest/gtest.h>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"

namespace {

using namespace rqb;
// The repository's Ref<T> template would make a plain `Ref` ambiguous.
using rqb::Ref;

// A failed expectation shows the verifier's report.
std::string Report(const RqNode& root) {
    return RqVerifier::Describe(RqVerifier::Verify(root)).ToUtf8();
}

TEST(BuilderTest, ColumnNumbersComeFromTheGeneratorAndSortKeysByPosition) {
    Heap<RqList> block(Block(4)
                           .Select(Col(L"a", 1))
                           .SelectAs(Col(L"b", 1), 10)
                           .Select(Col(L"c", 1))
                           .SelectAs(Col(L"d", 1), 2)
                           .From(Table(VoidID(3, 1), 1))
                           .OrderBy({{1, RqSortSpec::kDesc}, {3}})
                           .Build());
    RqProjection* projection = block->GetProjection();
    ASSERT_EQ(projection->GetNumColumns(), 4);
    EXPECT_EQ(projection->GetIthColumn(0)->GetColumnNum(), 4);
    EXPECT_EQ(projection->GetIthColumn(1)->GetColumnNum(), 10);
    // An explicit number moves the generator past it.
    EXPECT_EQ(projection->GetIthColumn(2)->GetColumnNum(), 11);
    EXPECT_EQ(projection->GetIthColumn(3)->GetColumnNum(), 2);

    RqOrderBy* orderBy = block->GetOrderBy();
    ASSERT_NE(orderBy, nullptr);
    ASSERT_EQ(orderBy->GetNumSortSpecs(), 2);
    EXPECT_EQ(orderBy->GetIthSortSpec(0)->GetColumnNumber(), 10);
    EXPECT_EQ(orderBy->GetIthSortSpec(0)->GetSortDirection(), RqSortSpec::kDesc);
    EXPECT_EQ(orderBy->GetIthSortSpec(1)->GetColumnNumber(), 2);
    EXPECT_EQ(orderBy->GetIthSortSpec(1)->GetSortDirection(), RqSortSpec::kAsc);
    EXPECT_TRUE(RqVerifier::Verify(*block).empty()) << Report(*block);
}

TEST(BuilderTest, FromAndJoinMakeOneJoinNodeEach) {
    RqList* left = Block().Select(Col(L"k", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqExpr* leftKey = Ref(*left, 0);
    Heap<RqList> block(Block()
                           .Select(leftKey)
                           .Join(SqlTableRef::kLeftOuterJoin, Derived(left, 1),
                                 JoinRef(SqlTableRef::kInnerJoin, Table(VoidID(3, 2), 2),
                                         Table(VoidID(3, 3), 3), Eq(Col(L"x", 2), Col(L"x", 3))),
                                 Eq(leftKey->DeepExprCopy(), Col(L"k", 2)))
                           .From(Table(VoidID(3, 4), 4))
                           .Where(IsNull(Col(L"z", 4)))
                           .Build());
    RqJoinSpec* joinSpec = block->GetJoinSpec();
    ASSERT_NE(joinSpec, nullptr);
    ASSERT_EQ(joinSpec->GetNumTableReferences(), 2);

    RqTableReference* join = joinSpec->GetIthTableReference(0);
    EXPECT_EQ(join->GetJoinType(), SqlTableRef::kLeftOuterJoin);
    ASSERT_NE(join->GetDerivedTable(), nullptr);
    EXPECT_EQ(join->GetDerivedTable()->GetInnerList(), left);
    ASSERT_EQ(join->GetRightNode()->GetObjectType(), kRqTableReference);
    EXPECT_EQ(join->GetSearchCond()->GetObjectType(), kRqExprCondEquality);

    // A plain FROM member is a table reference with no right side and no condition.
    RqTableReference* single = joinSpec->GetIthTableReference(1);
    EXPECT_EQ(single->GetLeftNode()->GetObjectType(), kRqAtomicTable);
    EXPECT_EQ(single->GetRightNode(), nullptr);
    EXPECT_EQ(single->GetSearchCond(), nullptr);
    EXPECT_TRUE(RqVerifier::Verify(*block).empty()) << Report(*block);
}

TEST(BuilderTest, AggregatesCarryTheirListsAndFlags) {
    Heap<RqExprAggr> plain(Sum(Col(L"s", 1)));
    EXPECT_EQ(plain->GetNumOperands(), 3);
    EXPECT_EQ(plain->GetByList(), nullptr);
    EXPECT_EQ(plain->GetComputeBreak(), nullptr);

    Heap<RqExprAggr> grouped(
        Sum(Col(L"s", 1), By({Col(L"a", 1), Col(L"b", 1)}), ComputeBreak({Col(L"a", 1)})));
    ASSERT_NE(grouped->GetByList(), nullptr);
    EXPECT_EQ(grouped->GetByList()->GetNumColumns(), 2);
    ASSERT_NE(grouped->GetComputeBreak(), nullptr);
    EXPECT_EQ(grouped->GetComputeBreak()->GetNumColumns(), 1);

    // An empty by-list is present (the grand total), unlike a missing one.
    Heap<RqExprAggr> total(Max(Col(L"s", 1), By({})));
    ASSERT_NE(total->GetByList(), nullptr);
    EXPECT_EQ(total->GetByList()->GetNumColumns(), 0);

    Heap<RqExprAggr> distinct(Distinct(Count(Col(L"c", 1))));
    EXPECT_TRUE(distinct->IsDistinctAggregation());
    EXPECT_EQ(distinct->GetObjectType(), kRqExprAggrCount);

    Heap<RqExprAggr> star(CountStar());
    EXPECT_EQ(star->GetObjectType(), kRqExprAggrCountStar);
    EXPECT_EQ(star->GetMeasure(), nullptr);

    Heap<RqExprAggrRank> rank(SortedBy(Aggr<RqExprAggrRank>(Col(L"s", 1)),
                                       {{3, RqSortSpec::kDesc}, {1, RqSortSpec::kAsc}}));
    const RqExprSortDependentAggr::SortKeys expected{{3, RqSortSpec::kDesc}, {1, RqSortSpec::kAsc}};
    EXPECT_EQ(rank->GetSortSpec(), expected);

    // Lists given but never taken by an aggregate are destroyed with their holder.
    By unused({Col(L"never", 1)});
}

TEST(BuilderTest, TargetMarksTheBlockButNotTheBlocksNestedInIt) {
    const VoidID database(7, 1);
    RqList* inner = Block()
                        .Select(Col(L"a", 1))
                        .From(Table(VoidID(3, 1), 1))
                        .Target(ServerInfo::kRowStoreDatabase, database)
                        .Build();
    Heap<RqList> outer(Block()
                           .Select(Ref(*inner, 0))
                           .From(Derived(inner))
                           .Where(Gt(Ref(*inner, 0), Int(1)))
                           .Limit(10)
                           .Offset(5)
                           .Distinct()
                           .Label(L"outer")
                           .Target(ServerInfo::kBuiltInExecutionEngine)
                           .Build());
    EXPECT_EQ(outer->GetTargetType(), ServerInfo::kBuiltInExecutionEngine);
    EXPECT_EQ(outer->GetDetailFilter()->GetCond()->GetTargetType(),
              ServerInfo::kBuiltInExecutionEngine);
    EXPECT_EQ(outer->GetJoinSpec()->GetIthTableReference(0)->GetDerivedTable()->GetTargetType(),
              ServerInfo::kBuiltInExecutionEngine);
    EXPECT_EQ(inner->GetTargetType(), ServerInfo::kRowStoreDatabase);
    EXPECT_EQ(inner->GetTargetID(), database);
    EXPECT_EQ(inner->GetProjection()->GetIthColumn(0)->GetTargetType(),
              ServerInfo::kRowStoreDatabase);

    EXPECT_EQ(outer->GetRowLimit(), 10u);
    EXPECT_EQ(outer->GetRowOffset(), 5u);
    EXPECT_TRUE(outer->IsDistinct());
    EXPECT_EQ(outer->GetLabel(), L"outer");
}

TEST(BuilderTest, ReferencesToListsNameTheColumnsTheListExposes) {
    RqList* first =
        Block().Select(Col(L"a", 1)).Select(Col(L"b", 1)).From(Table(VoidID(3, 1), 1)).Build();
    RqList* second =
        Block().Select(Col(L"c", 2)).Select(Col(L"d", 2)).From(Table(VoidID(3, 2), 2)).Build();
    Heap<RqAbstractList> filtered(BreakFilter(Union({first, second}, true), {0}));
    // A set operation's columns are its first member's; a break filter shows its inner list's.
    Heap<RqExpr> reference(Ref(*filtered, 1));
    EXPECT_EQ(static_cast<RqDerivedColumnReference*>(reference.Get())->GetDerivedColumn(),
              first->GetProjection()->GetIthColumn(1));
}

TEST(BuilderTest, ABlockDroppedBeforeBuildTakesItsNodesWithIt) {
    RqList* inner = Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).Build();
    Block unfinished;
    unfinished.Select(Ref(*inner, 0)).From(Derived(inner)).GroupBy({Ref(*inner, 0)}).OrderBy({{0}});
    EXPECT_EQ(unfinished.Column(0)->GetColumnNum(), 0);
    // The leak check after the test is the assertion.
}

}  // namespace
