// RemoveRedundantOrderBy: which ORDER BY survives, how joins met before it count, and the
// re-targeting of every node reached.

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
        if (node->GetObjectType() == kRqOrderBy)
            found.push_back(static_cast<RqOrderBy*>(node));
        for (int i = node->GetNumChildren() - 1; i >= 0; --i) {
            if (RqNode* child = node->GetIthChild(i))
                work.push_back(child);
        }
    }
    return found;
}

RqList& TopList(RqHandleNode& request) {
    return static_cast<RqList&>(*request.GetRqNode());
}

RqList& InnerList(RqList& outer) {
    RqTableReference* reference = outer.GetJoinSpec()->GetIthTableReference(0);
    return static_cast<RqList&>(*reference->GetDerivedTable()->GetInnerList());
}

void Apply(RqHandleNode& request) {
    RemoveRedundantOrderBy rule(nullptr);
    rule.ApplyRule(request);
    EXPECT_FALSE(rule.StillActive());
    EXPECT_EQ(RqVerifier::Describe(RqVerifier::Verify(request)), ZKString(L""));
}

TEST(RemoveRedundantOrderBy, KeepsTheTopOrderByAndDropsInnerOnes) {
    Heap<RqHandleNode> request(RequestOverDerived(SalesBlock(true), true));
    Apply(*request);
    RqList& top = TopList(*request);
    ASSERT_NE(top.GetOrderBy(), nullptr);
    EXPECT_EQ(InnerList(top).GetOrderBy(), nullptr);
    EXPECT_EQ(OrderBys(*request).size(), 1u);
}

TEST(RemoveRedundantOrderBy, TopBlockKeepsItsOrderByEvenWhenItJoins) {
    // The block's own ORDER BY lies above its table references in the walk.
    Heap<RqHandleNode> request(
        RequestOverDerived(SalesBlock(true), true, SqlTableRef::kInnerJoin, true));
    Apply(*request);
    EXPECT_NE(TopList(*request).GetOrderBy(), nullptr);
    EXPECT_EQ(InnerList(TopList(*request)).GetOrderBy(), nullptr);
}

TEST(RemoveRedundantOrderBy, AJoinOfTwoTablesMetFirstDropsTheFirstOrderBy) {
    for (SqlTableRef::JoinType type :
         {SqlTableRef::kInnerJoin, SqlTableRef::kLeftOuterJoin, SqlTableRef::kFullOuterJoin}) {
        SCOPED_TRACE(type);
        Heap<RqHandleNode> request(RequestOverDerived(SalesBlock(true), false, type, true));
        Apply(*request);
        EXPECT_TRUE(OrderBys(*request).empty());
    }
}

TEST(RemoveRedundantOrderBy, NaturalJoinsAndSingleTablesDoNotCount) {
    {
        Heap<RqHandleNode> request(
            RequestOverDerived(SalesBlock(true), false, SqlTableRef::kNaturalJoin, true));
        Apply(*request);
        EXPECT_EQ(OrderBys(*request).size(), 1u);
    }
    {
        // An inner join whose right side is missing is a single table.
        Heap<RqHandleNode> request(RequestOverDerived(SalesBlock(true), false));
        Apply(*request);
        EXPECT_EQ(OrderBys(*request).size(), 1u);
    }
}

TEST(RemoveRedundantOrderBy, AnOuterJoinCountsWhateverItsTables) {
    Heap<RqHandleNode> request(
        RequestOverDerived(SalesBlock(true), false, SqlTableRef::kLeftOuterJoin, false));
    Apply(*request);
    EXPECT_TRUE(OrderBys(*request).empty());
}

TEST(RemoveRedundantOrderBy, AmongEquallyDeepOrderBysTheFirstInChildOrderStays) {
    RqList* first = SalesBlock(true, L"first");
    RqList* second = SalesBlock(true, L"second");
    Heap<RqHandleNode> request(rqb::Request(rqb::Union({first, second}, true)));
    Apply(*request);
    EXPECT_NE(first->GetOrderBy(), nullptr);
    EXPECT_EQ(second->GetOrderBy(), nullptr);
}

TEST(RemoveRedundantOrderBy, RetargetsEveryNodeReachedExceptRawStorage) {
    RqList* inner = SalesBlock(false);
    inner->GetProjection()->GetIthColumn(0)->MarkTargetType(ServerInfo::kInternalRawDataStorage);
    Heap<RqHandleNode> request(RequestOverDerived(inner, true));
    RqSortSpec* spec = TopList(*request).GetOrderBy()->GetIthSortSpec(0);
    spec->MarkTargetType(ServerInfo::kAnsiSql);
    Apply(*request);

    std::vector<RqNode*> work{request.Get()};
    int unknown = 0;
    while (!work.empty()) {
        RqNode* node = work.back();
        work.pop_back();
        if (node == inner->GetProjection()->GetIthColumn(0)) {
            EXPECT_EQ(node->GetTargetType(), ServerInfo::kInternalRawDataStorage);
        } else if (node == spec) {
            // Sort specs below an ORDER BY are never reached.
            EXPECT_EQ(node->GetTargetType(), ServerInfo::kAnsiSql);
        } else {
            EXPECT_EQ(node->GetTargetType(), ServerInfo::kUnknown)
                << RqNodeTypeName(node->GetObjectType());
            ++unknown;
        }
        for (int i = 0; i < node->GetNumChildren(); ++i) {
            if (RqNode* child = node->GetIthChild(i))
                work.push_back(child);
        }
    }
    EXPECT_GT(unknown, 10);
}

TEST(RemoveRedundantOrderBy, WalkFromANullRootOrWithoutOrderByChangesNothingElse) {
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

    // Reset clears them: the next walk keeps a topmost ORDER BY again.
    Heap<RqHandleNode> third(rqb::Request(SalesBlock(true, L"c")));
    rule.Reset();
    rule.MarkNodesToUnknownTargetAndDeleteOrderBys(third.Get());
    EXPECT_EQ(OrderBys(*third).size(), 1u);
}

TEST(RemoveRedundantOrderBy, OnlyTheRootHandleStartsTheWalk) {
    // Applied to a list instead of the request's handle, no Visit starts the walk.
    Heap<RqHandleNode> request(RequestOverDerived(SalesBlock(true), true));
    RemoveRedundantOrderBy rule(nullptr);
    rule.ApplyRule(TopList(*request));
    EXPECT_EQ(OrderBys(*request).size(), 2u);
}

}  // namespace
