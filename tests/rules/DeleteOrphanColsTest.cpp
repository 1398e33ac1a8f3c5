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
