// DeleteOrphanCols through its API: the renumbering of join positions, the positions a
// visitor records for the block it reduced (which its parent's join renumbering reads), a
// sub-visitor over a derived table, and the assertions. What the rule does to whole requests
// is shown by the golden cases in tests/golden/DeleteOrphanCols/.

#include <gtest/gtest.h>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUDeleteOrphanCols.h"

namespace DeleteOrphanColsLocal {
void ComputeNewJoinIndexes(const UInt16Vector& joinIndexes, const Int32Vector& deletedIndexes,
                           UInt16Vector& newIndexes);
}

class DeleteOrphanColsTestAccess {
public:
    // A visitor below the top block, as the rule starts one for each side of a join.
    static std::unique_ptr<DeleteOrphanCols> SubVisitor(RqDerivedColumnSet* columnRefs) {
        return std::unique_ptr<DeleteOrphanCols>(new DeleteOrphanCols(columnRefs, nullptr));
    }
};

namespace {

using DeleteOrphanColsLocal::ComputeNewJoinIndexes;

UInt16Vector Indexes(std::initializer_list<uint16_t> values) {
    return UInt16Vector(values);
}

TEST(DeleteOrphanCols, JoinIndexesMoveDownPastDeletedPositions) {
    const struct {
        UInt16Vector m_join;
        Int32Vector m_deleted;
        UInt16Vector m_expected;
    } cases[] = {
        // Columns 1 and 3 of five deleted: 4 -> 2, 2 -> 1, 0 stays; order kept.
        {Indexes({4, 2, 0}), {1, 3}, Indexes({2, 1, 0})},
        // Deleted positions in any order count the same.
        {Indexes({4, 2, 0}), {3, 1}, Indexes({2, 1, 0})},
        // Only positions strictly below count.
        {Indexes({2}), {2, 5}, Indexes({2})},
        {Indexes({0, 1}), {}, Indexes({0, 1})},
        {Indexes({}), {0, 1}, Indexes({})},
        {Indexes({7, 7}), {0, 1, 2}, Indexes({4, 4})},
    };
    for (const auto& c : cases) {
        UInt16Vector out = Indexes({9, 9, 9, 9});  // replaced, not appended to
        ComputeNewJoinIndexes(c.m_join, c.m_deleted, out);
        EXPECT_EQ(out, c.m_expected);
    }
}

// SELECT key, a, b, c, d FROM sales: the block a derived table hands to a sub-visitor.
RqList* FiveColumnBlock() {
    rqb::Block block;
    block.Select(rqb::Col(L"key", 1))
        .Select(rqb::Col(L"a", 1))
        .Select(rqb::Col(L"b", 1))
        .Select(rqb::Col(L"c", 1))
        .Select(rqb::Col(L"d", 1))
        .From(rqb::Table(VoidID(3, 1), 1));
    return block.Build();
}

TEST(DeleteOrphanCols, SubVisitorRecordsThePositionsItDeletes) {
    RqList* inner = FiveColumnBlock();
    RqHandleNode* holder = rqb::Request(rqb::Derived(inner, 3));
    RqDerivedColumnSet read{rqb::Column(*inner, 0), rqb::Column(*inner, 2), rqb::Column(*inner, 4)};
    RqDerivedColumn* kept[] = {rqb::Column(*inner, 0), rqb::Column(*inner, 2),
                               rqb::Column(*inner, 4)};

    auto visitor = DeleteOrphanColsTestAccess::SubVisitor(&read);
    holder->GetIthChild(0)->Accept(*visitor);

    EXPECT_EQ(visitor->GetDeletedColIndexes(), (Int32Vector{1, 3}));
    EXPECT_EQ(visitor->GetNumColumns(), 5);
    ASSERT_EQ(inner->GetProjection()->GetNumColumns(), 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(inner->GetProjection()->GetIthColumn(i), kept[i]);
    delete holder;
}

TEST(DeleteOrphanCols, NothingReadStillLeavesOneColumnAndRecordsTheRest) {
    RqList* inner = FiveColumnBlock();
    RqHandleNode* holder = rqb::Request(rqb::Derived(inner, 3));
    RqDerivedColumnSet read;

    auto visitor = DeleteOrphanColsTestAccess::SubVisitor(&read);
    holder->GetIthChild(0)->Accept(*visitor);

    // The first column that carries a value stays; the four others are recorded.
    EXPECT_EQ(visitor->GetDeletedColIndexes(), (Int32Vector{1, 2, 3, 4}));
    ASSERT_EQ(inner->GetProjection()->GetNumColumns(), 1);
    delete holder;
}

TEST(DeleteOrphanCols, UnionAllRecordsTheSharedPositionOnce) {
    RqList* store = FiveColumnBlock();
    RqList* web = FiveColumnBlock();
    RqHandleNode* holder = rqb::Request(rqb::Derived(rqb::Union({store, web}, true), 3));
    RqDerivedColumnSet read{rqb::Column(*store, 0), rqb::Column(*store, 1), rqb::Column(*web, 3),
                            rqb::Column(*web, 4)};

    auto visitor = DeleteOrphanColsTestAccess::SubVisitor(&read);
    holder->GetIthChild(0)->Accept(*visitor);

    // Position 2 is read in neither branch; every other position in one of them.
    EXPECT_EQ(visitor->GetDeletedColIndexes(), (Int32Vector{2}));
    EXPECT_EQ(store->GetProjection()->GetNumColumns(), 4);
    EXPECT_EQ(web->GetProjection()->GetNumColumns(), 4);
    delete holder;
}

TEST(DeleteOrphanCols, AppliedToARequestRenumbersTheJoinAndStaysWellFormed) {
    RqList* inner = FiveColumnBlock();
    rqb::Block outer;
    outer.Select(rqb::Ref(*inner, 4));
    RqTableReference* join =
        rqb::JoinRef(SqlTableRef::kInnerJoin, rqb::Derived(inner, 3), rqb::Table(VoidID(3, 2), 2),
                     rqb::Eq(rqb::Ref(*inner, 2), rqb::Col(L"k", 2)));
    join->SetLeftJoinColumnIndexes(Indexes({2}));
    outer.From(join);
    RqHandleNode* request = rqb::Request(outer.Build());

    DeleteOrphanCols rule(nullptr);
    rule.ApplyRule(*request);

    // Columns 0, 1 and 3 go: the join column at 2 moves to 0.
    EXPECT_EQ(join->GetLeftJoinColumnIndexes(), Indexes({0}));
    EXPECT_EQ(inner->GetProjection()->GetNumColumns(), 2);
    EXPECT_TRUE(RqVerifier::Verify(*request).empty());
    delete request;
}

// Runs a sub-visitor over `inner` as the derived table of a request and returns what it
// deleted; `read` holds the columns the parent reads.
Int32Vector ReduceAsDerivedTable(RqAbstractList* inner, RqDerivedColumnSet read) {
    RqHandleNode* holder = rqb::Request(rqb::Derived(inner, 9));
    auto visitor = DeleteOrphanColsTestAccess::SubVisitor(&read);
    holder->GetIthChild(0)->Accept(*visitor);
    Int32Vector deleted = visitor->GetDeletedColIndexes();
    EXPECT_TRUE(RqVerifier::Verify(*holder).empty());
    delete holder;
    return deleted;
}

TEST(DeleteOrphanCols, BreakByAndSortKeyColumnsOfAggregatesStay) {
    // SELECT region, store, SUM(x) BY (region), RANK() ORDER BY store, extra
    rqb::Block block;
    block.Select(rqb::Col(L"region", 1)).Select(rqb::Col(L"store", 1));
    const int storeNum = block.Column(1)->GetColumnNum();
    block.Select(rqb::Sum(rqb::Col(L"x", 1), rqb::By({rqb::Col(L"region", 1)})))
        .Select(rqb::SortedBy(rqb::Aggr<RqExprAggrRank>(rqb::Col(L"x", 1)),
                              {{storeNum, RqSortSpec::kAsc}}))
        .Select(rqb::Col(L"extra", 1))
        .From(rqb::Table(VoidID(3, 1), 1));
    RqList* list = block.Build();
    RqDerivedColumnSet read{rqb::Column(*list, 2), rqb::Column(*list, 3)};
    // The region (break-by) and the store (sort key) stay; only the extra column goes.
    EXPECT_EQ(ReduceAsDerivedTable(list, read), (Int32Vector{4}));
}

TEST(DeleteOrphanCols, AggregateWithItsOwnLevelStaysUnlessAKeptOneHasIt) {
    for (const bool bKeptSameLevel : {false, true}) {
        SCOPED_TRACE(bKeptSameLevel);
        // SELECT key, SUM(x) BY (key), MAX(x) BY (key|other): the SUM is unread.
        rqb::Block block;
        block.Select(rqb::Col(L"key", 1))
            .Select(rqb::Sum(rqb::Col(L"x", 1), rqb::By({rqb::Col(L"key", 1)})))
            .Select(rqb::Max(rqb::Col(L"x", 1),
                             rqb::By({rqb::Col(bKeptSameLevel ? L"key" : L"other", 1)})))
            .From(rqb::Table(VoidID(3, 1), 1));
        RqList* list = block.Build();
        RqDerivedColumnSet read{rqb::Column(*list, 0), rqb::Column(*list, 2)};
        EXPECT_EQ(ReduceAsDerivedTable(list, read),
                  bKeptSameLevel ? Int32Vector{1} : Int32Vector{});
    }
}

TEST(DeleteOrphanCols, MultidimensionalTargetsKeepTheirAggregates) {
    rqb::Block block;
    block.Select(rqb::Col(L"key", 1))
        .Select(rqb::Sum(rqb::Col(L"x", 1)))
        .Select(rqb::Col(L"name", 1))
        .From(rqb::Table(VoidID(3, 1), 1))
        .GroupBy({rqb::Col(L"key", 1), rqb::Col(L"name", 1)})
        .Target(ServerInfo::kCubeMdxServer);
    RqList* list = block.Build();
    RqDerivedColumnSet read{rqb::Column(*list, 0)};
    // The unread name goes; the unread SUM stays, and so does the GROUP BY.
    EXPECT_EQ(ReduceAsDerivedTable(list, read), (Int32Vector{2}));
}

TEST(DeleteOrphanCols, GrainCheckColumnsKeepTheirInputs) {
    RqList* inner = FiveColumnBlock();
    rqb::Block outer;
    outer.Select(rqb::Ref(*inner, 0))
        .Select(RQ_NEW RqExprGrainCheckDisplay(rqb::Ref(*inner, 3)))
        .Select(rqb::Ref(*inner, 4))
        .From(rqb::Derived(inner, 3));
    RqList* list = outer.Build();
    RqDerivedColumnSet read;
    DeleteOrphanCols::RemoveGrainCheckColumnsFromDeleteOrphans(*list, read);
    EXPECT_EQ(read, (RqDerivedColumnSet{rqb::Column(*list, 1), rqb::Column(*inner, 3)}));
    delete list;
}

TEST(DeleteOrphanCols, WhichUnionsMayLoseColumns) {
    const struct {
        bool m_bAll;
        bool m_bDistinctBranch;
        bool m_bSharedBranch;
        bool m_bExpected;
    } cases[] = {
        {true, false, false, true},
        {false, false, false, false},
        {true, true, false, false},
        {true, false, true, false},
    };
    for (const auto& c : cases) {
        RqList* first = FiveColumnBlock();
        RqList* second = FiveColumnBlock();
        second->SetDistinct(c.m_bDistinctBranch);
        second->SetShared(c.m_bSharedBranch);
        RqUnion* unionNode = rqb::Union({first, rqb::BreakFilter(second, {1})}, c.m_bAll);
        RqDerivedColumnSet read;
        auto visitor = DeleteOrphanColsTestAccess::SubVisitor(&read);
        EXPECT_EQ(visitor->CheckUnionRemovability(*unionNode, read), c.m_bExpected);
        delete unionNode;
    }
    // Met before any block, a union is the request's result.
    RqUnion* top = rqb::Union({FiveColumnBlock(), FiveColumnBlock()}, true);
    DeleteOrphanCols rule(nullptr);
    RqDerivedColumnSet read;
    EXPECT_FALSE(rule.CheckUnionRemovability(*top, read));
    delete top;
}

TEST(DeleteOrphanCols, DeepNestIsReducedInOneVisitPerBlock) {
    // A chain of 400 blocks, each reading columns 0 and 2 of the one below: a walk that
    // visited a block again per level above it would not finish.
    RqList* list = FiveColumnBlock();
    RqList* bottom = list;
    for (int level = 0; level < 400; ++level) {
        rqb::Block block;
        block.Select(rqb::Ref(*list, 0))
            .Select(rqb::Int(level))
            .Select(rqb::Ref(*list, 2))
            .Select(rqb::Int(level))
            .Select(rqb::Int(level))
            .From(rqb::Derived(list, level + 2));
        list = block.Build();
    }
    RqHandleNode* request = rqb::Request(list);
    DeleteOrphanCols rule(nullptr);
    rule.ApplyRule(*request);
    EXPECT_EQ(bottom->GetProjection()->GetNumColumns(), 2);
    EXPECT_EQ(list->GetProjection()->GetNumColumns(), 5);  // the top block keeps everything
    EXPECT_TRUE(RqVerifier::Verify(*request).empty());
    delete request;
}

TEST(DeleteOrphanColsDeathTest, AssertionsNameTheirCondition) {
    EXPECT_DEATH(DeleteOrphanColsTestAccess::SubVisitor(nullptr), "pColumnRefs");

    // An ORDER BY key that names no column of the projection.
    RqList* sorted = FiveColumnBlock();
    sorted->SetOrderBy(RQ_NEW RqOrderBy({RQ_NEW RqSortSpec(42)}));
    RqDerivedColumnSet read;
    EXPECT_DEATH(
        DeleteOrphanCols::AddOrderByReferences(sorted->GetOrderBy(), sorted->GetProjection(), read),
        "pSortCol");
    delete sorted;

    // COUNT(*) over an empty FROM clause.
    rqb::Block counting;
    counting.Select(rqb::CountStar());
    RqList* list = counting.Build();
    list->SetJoinSpec(RQ_NEW RqJoinSpec());
    EXPECT_DEATH(DeleteOrphanCols::AddCountStarReference(*list, read),
                 "listNode\\.GetJoinSpec\\(\\)->GetNumTableReferences\\(\\)>0");
    delete list;
}

}  // namespace
