// RemoveRedundantOrderBy through its API: which join types count as a join of two tables,
// the walk called directly (null root, flags carried over), a rule object applied twice, and
// the driver starting the walk only at the request's handle. What the rule does to whole requests
// is shown by the golden cases in tests/golden/RemoveRedundantOrderBy/.

#include <gtest/gtest.h>

#include <vector>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

namespace {

const VoidID kSales(3, 1);
const VoidID kStores(3, 2);
const VoidID kDatabase(1, 1);

// SELECT region, amount FROM sales [ORDER BY amount]
RqList* SalesBlock(bool bOrdered, const ZKString& label = L"sales") {
    rqb::Block block;
    block.Label(label)
        .Select(rqb::Col(L"region", 1))
        .Select(rqb::Col(L"amount", 1))
        .From(rqb::Table(kSales, 1))
        .Target(ServerInfo::kAnsiSql, kDatabase);
    if (bOrdered)
        block.OrderBy({{1, RqSortSpec::kDesc}});
    return block.Build();
}

// SELECT inner.region FROM (inner) [<join> stores ON ...] [ORDER BY region]
RqHandleNode* RequestOverDerived(RqList* inner, bool bOuterOrdered,
                                 SqlTableRef::JoinType joinType = SqlTableRef::kInnerJoin,
                                 bool bJoinStores = false) {
    rqb::Block outer;
    outer.Select(rqb::Ref(*inner, 0));
    if (bJoinStores) {
        outer.Join(joinType, rqb::Derived(inner), rqb::Table(kStores, 2),
                   rqb::Eq(rqb::Ref(*inner, 0), rqb::Col(L"region", 2)));
    } else if (joinType != SqlTableRef::kInnerJoin) {
        outer.Join(joinType, rqb::Derived(inner), nullptr, nullptr);
    } else {
        outer.From(rqb::Derived(inner));
    }
    if (bOuterOrdered)
        outer.OrderBy({{0}});
    return rqb::Request(outer.Build());
}

std::vector<RqOrderBy*> OrderBys(RqNode& root) {
    std::vector<RqOrderBy*> found;
    std::vector<RqNode*> work{&root};
    while (!work.empty()) {
        RqNode* node = work.back();
        work.pop_back();
        if (RqOrderBy* orderBy = RqDynCast<RqOrderBy>(node))
            found.push_back(orderBy);
        for (int i = node->GetNumChildren() - 1; i >= 0; --i) {
            if (RqNode* child = node->GetIthChild(i))
                work.push_back(child);
        }
    }
    return found;
}

void Apply(RqHandleNode& request) {
    RemoveRedundantOrderBy rule(nullptr);
    rule.ApplyRule(request);
    EXPECT_FALSE(rule.StillActive());
    EXPECT_EQ(RqVerifier::Describe(RqVerifier::Verify(request)), ZKString(L""));
}

// Which table references count as a join of two tables, over every join type and both
// shapes: a join that counts, met before the request's first ORDER BY, deletes it too.
TEST(RemoveRedundantOrderBy, WhichJoinsCountAsAJoinOfTwoTables) {
    struct Case {
        SqlTableRef::JoinType m_type;
        bool m_bTwoTables;
        bool m_bCounts;
    };
    const Case cases[] = {
        {SqlTableRef::kInnerJoin, true, true},
        {SqlTableRef::kInnerJoin, false, false},
        {SqlTableRef::kNaturalJoin, true, false},
        {SqlTableRef::kNaturalJoin, false, false},
        {SqlTableRef::kLeftOuterJoin, true, true},
        {SqlTableRef::kLeftOuterJoin, false, true},
        {SqlTableRef::kRightOuterJoin, false, true},
        {SqlTableRef::kFullOuterJoin, true, true},
        {SqlTableRef::kFullOuterJoin, false, true},
        {SqlTableRef::kFullOuterStitchJoin, false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "join type " << c.m_type << ", two tables " << c.m_bTwoTables);
        Heap<RqHandleNode> request(
            RequestOverDerived(SalesBlock(true), false, c.m_type, c.m_bTwoTables));
        Apply(*request);
        EXPECT_EQ(OrderBys(*request).size(), c.m_bCounts ? 0u : 1u);
    }
}

TEST(RemoveRedundantOrderBy, WalkFromANullRootOrWithoutOrderByDeletesNothing) {
    RemoveRedundantOrderBy rule(nullptr);
    rule.MarkNodesToUnknownTargetAndDeleteOrderBys(nullptr);

    Heap<RqHandleNode> request(RequestOverDerived(SalesBlock(false), false));
    const int before = static_cast<int>(ZKNodeAlloc::LiveCount());
    Apply(*request);
    EXPECT_EQ(ZKNodeAlloc::LiveCount(), before);
}

TEST(RemoveRedundantOrderBy, ADirectSecondWalkKeepsTheFlagsOfTheFirst) {
    Heap<RqHandleNode> first(rqb::Request(SalesBlock(true, L"a")));
    Heap<RqHandleNode> second(rqb::Request(SalesBlock(true, L"b")));
    RemoveRedundantOrderBy rule(nullptr);
    rule.MarkNodesToUnknownTargetAndDeleteOrderBys(first.Get());
    rule.MarkNodesToUnknownTargetAndDeleteOrderBys(second.Get());
    EXPECT_EQ(OrderBys(*first).size(), 1u);
    EXPECT_TRUE(OrderBys(*second).empty());
}

// The driver resets both flags before the pass: one rule object applied to a request that
// keeps an ORDER BY, or to one that joins two tables, and then to a plain ordered block
// keeps that block's ORDER BY.
TEST(RemoveRedundantOrderBy, ApplyingTheRuleAgainStartsAfresh) {
    for (RqHandleNode* before :
         {rqb::Request(SalesBlock(true, L"ordered")),
          RequestOverDerived(SalesBlock(false), false, SqlTableRef::kInnerJoin, true)}) {
        Heap<RqHandleNode> first(before);
        Heap<RqHandleNode> second(rqb::Request(SalesBlock(true, L"again")));
        RemoveRedundantOrderBy rule(nullptr);
        rule.ApplyRule(*first);
        rule.ApplyRule(*second);
        EXPECT_EQ(OrderBys(*second).size(), 1u);
    }
}

TEST(RemoveRedundantOrderBy, OnlyTheRootHandleStartsTheWalk) {
    // Applied to a list instead of the request's handle, no Visit starts the walk.
    Heap<RqHandleNode> request(RequestOverDerived(SalesBlock(true), true));
    RemoveRedundantOrderBy rule(nullptr);
    rule.ApplyRule(*request->GetRqNode());
    EXPECT_EQ(OrderBys(*request).size(), 2u);
}

}  // namespace
