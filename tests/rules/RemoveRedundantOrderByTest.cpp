// RemoveRedundantOrderBy through its API: which join types count as a join of two tables,
// the walk called directly (null root, flags carried over), a rule object applied twice, and
// the driver starting the walk only at the request's handle. What the rule does to whole
// requests is shown by the golden cases in tests/golden/RemoveRedundantOrderBy/.

#include <gtest/gtest.h>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

namespace {

// SELECT region, amount FROM sales [ORDER BY amount]
RqList* SalesBlock(bool bOrdered) {
    rqb::Block block;
    block.Select(rqb::Col(L"region", 1))
        .Select(rqb::Col(L"amount", 1))
        .From(rqb::Table(VoidID(3, 1), 1));
    if (bOrdered)
        block.OrderBy({{1, RqSortSpec::kDesc}});
    return block.Build();
}

// SELECT inner.region FROM (inner) <join> [stores] ON ...
RqHandleNode* JoinedRequest(RqList* inner, SqlTableRef::JoinType joinType, bool bTwoTables) {
    rqb::Block outer;
    outer.Select(rqb::Ref(*inner, 0));
    RqNode* stores = bTwoTables ? rqb::Table(VoidID(3, 2), 2) : nullptr;
    RqExpr* cond = bTwoTables ? rqb::Eq(rqb::Ref(*inner, 0), rqb::Col(L"region", 2)) : nullptr;
    outer.Join(joinType, rqb::Derived(inner), stores, cond);
    return rqb::Request(outer.Build());
}

size_t CountOrderBys(const RqNode& node) {
    size_t count = node.IsKindOf(kRqOrderBy) ? 1 : 0;
    for (int i = 0; i < node.GetNumChildren(); ++i) {
        if (const RqNode* child = node.GetIthChild(i))
            count += CountOrderBys(*child);
    }
    return count;
}

// A join that counts, met before the request's only ORDER BY (in the derived table),
// deletes it too.
TEST(RemoveRedundantOrderBy, WhichJoinsCountAsAJoinOfTwoTables) {
    using J = SqlTableRef;
    const struct {
        J::JoinType m_type;
        bool m_bTwoTables;
        bool m_bCounts;
    } cases[] = {
        {J::kInnerJoin, true, true},       {J::kInnerJoin, false, false},
        {J::kNaturalJoin, true, false},    {J::kNaturalJoin, false, false},
        {J::kLeftOuterJoin, true, true},   {J::kLeftOuterJoin, false, true},
        {J::kRightOuterJoin, false, true}, {J::kFullOuterJoin, true, true},
        {J::kFullOuterJoin, false, true},  {J::kFullOuterStitchJoin, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "join type " << c.m_type << ", two " << c.m_bTwoTables);
        Heap<RqHandleNode> request(JoinedRequest(SalesBlock(true), c.m_type, c.m_bTwoTables));
        RemoveRedundantOrderBy rule(nullptr);
        rule.ApplyRule(*request);
        EXPECT_FALSE(rule.StillActive());
        EXPECT_TRUE(RqVerifier::Verify(*request).empty());
        EXPECT_EQ(CountOrderBys(*request), c.m_bCounts ? 0u : 1u);
    }
}

TEST(RemoveRedundantOrderBy, ADirectSecondWalkKeepsTheFlagsOfTheFirst) {
    RemoveRedundantOrderBy rule(nullptr);
    rule.MarkNodesToUnknownTargetAndDeleteOrderBys(nullptr);
    Heap<RqHandleNode> first(rqb::Request(SalesBlock(true)));
    Heap<RqHandleNode> second(rqb::Request(SalesBlock(true)));
    rule.MarkNodesToUnknownTargetAndDeleteOrderBys(first.Get());
    rule.MarkNodesToUnknownTargetAndDeleteOrderBys(second.Get());
    EXPECT_EQ(CountOrderBys(*first), 1u);
    EXPECT_EQ(CountOrderBys(*second), 0u);
}

// The driver resets both flags before the pass: one rule object applied to a request that
// keeps an ORDER BY, or to one that joins two tables, and then to a plain ordered block
// keeps that block's ORDER BY.
TEST(RemoveRedundantOrderBy, ApplyingTheRuleAgainStartsAfresh) {
    for (RqHandleNode* before : {rqb::Request(SalesBlock(true)),
                                 JoinedRequest(SalesBlock(false), SqlTableRef::kInnerJoin, true)}) {
        Heap<RqHandleNode> first(before);
        Heap<RqHandleNode> second(rqb::Request(SalesBlock(true)));
        RemoveRedundantOrderBy rule(nullptr);
        rule.ApplyRule(*first);
        rule.ApplyRule(*second);
        EXPECT_EQ(CountOrderBys(*second), 1u);
    }
}

TEST(RemoveRedundantOrderBy, OnlyTheRootHandleStartsTheWalk) {
    // Applied to a list instead of the request's handle, no Visit starts the walk.
    Heap<RqHandleNode> request(JoinedRequest(SalesBlock(true), SqlTableRef::kInnerJoin, true));
    RemoveRedundantOrderBy rule(nullptr);
    rule.ApplyRule(*request->GetRqNode());
    EXPECT_EQ(CountOrderBys(*request), 1u);
}

}  // namespace
