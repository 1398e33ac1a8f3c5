// The node base: ownership of children and the handles that watch nodes, the traversal
// contract of both visitors (including visitors that rewrite what they walk and trees far
// deeper than the call stack), and the accounting of the containers that nodes hold.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "HookVisitors.h"
#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"

namespace {

using namespace rqb;

// Runs `body` on a thread with the platform's usual stack (not the test runner's), and
// rethrows there what it threw.
void OnOrdinaryThread(const std::function<void()>& body) {
    std::exception_ptr failure;
    std::thread([&] {
        try {
            body();
        } catch (...) {
            failure = std::current_exception();
        }
    }).join();
    if (failure)
        std::rethrow_exception(failure);
}

// -(-(...-(1)...)), `depth` minus signs.
RqExpr* NegationChain(int depth) {
    RqExpr* chain = Int(1);
    for (int i = 0; i < depth; ++i)
        chain = Neg(chain);
    return chain;
}

}  // namespace

// ---- Ownership ------------------------------------------------------------------------------

TEST(NodeOwnership, PuttingAChildBackIntoItsOwnSlotKeepsIt) {
    Heap<RqExpr> sum(Add(Col(L"a", 1), Int(1)));
    RqNode* left = sum->GetIthChild(0);
    SmartRqNodePtr watch(left);
    sum->SetIthChild(0, left);
    EXPECT_EQ(watch.Get(), left) << "the child was destroyed while its slot still held it";
    EXPECT_EQ(left->GetParent(), sum.Get());

    // The clause setters and DeleteChild are built on the same operation.
    RqList block;
    RqDetailFilter* filter = RQ_NEW RqDetailFilter(IsNull(Col(L"a", 1)));
    block.SetDetailFilter(filter);
    SmartRqNodePtr watchFilter(filter);
    block.SetDetailFilter(filter);
    filter->SetCond(filter->GetCond());
    EXPECT_EQ(watchFilter.Get(), filter);
    EXPECT_EQ(ToString(filter).ToUtf8(), "RqDetailFilter: T1.a IS NULL");
}

TEST(NodeOwnershipDeathTest, HandlesLetGoInAnyOrderLeaveNoStaleLink) {
    // Three handles watch one node; some are let go (moved to another node, destroyed, or
    // cleared) in every order; then the node is destroyed. Every handle must read null
    // afterwards and the destruction must end: a stale link in the chain of watchers makes
    // it loop, so the check runs in a child process with an alarm.
    auto allOrdersHold = [] {
        const std::vector<std::vector<int>> orders = {
            {0},    {1},       {2},       {0, 1},    {1, 0},    {0, 2},    {2, 0},   {1, 2},
            {2, 1}, {0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
        for (const std::vector<int>& order : orders) {
            RqNode* node = RQ_NEW RqNullNode();
            RqNode* other = RQ_NEW RqNullNode();
            std::optional<SmartRqNodePtr> handles[3];
            for (auto& handle : handles)
                handle.emplace(node);
            for (int which : order) {
                if (which == 0)
                    *handles[0] = other;
                else if (which == 1)
                    handles[1].reset();
                else
                    *handles[2] = nullptr;
            }
            delete node;
            const bool bMoved = std::find(order.begin(), order.end(), 0) != order.end();
            if (handles[0]->Get() != (bMoved ? other : nullptr))
                return false;
            if ((handles[1] && handles[1]->Get() != nullptr) || handles[2]->Get() != nullptr)
                return false;
            delete other;
            if (handles[0]->Get() != nullptr)
                return false;
        }
        return true;
    };
    EXPECT_EXIT(
        {
            alarm(5);
            std::exit(allOrdersHold() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// ---- Traversal ------------------------------------------------------------------------------

TEST(NodeTraversal, ChildOrderAndAHandledListHidesEverythingBelow) {
    RqList* inner =
        Block().Select(Col(L"a", 1)).From(Table(VoidID(3, 1), 1)).OrderBy({{0}}).Build();
    Heap<RqHandleNode> root(Request(Block()
                                        .Select(rqb::Ref(*inner, 0))
                                        .From(Derived(inner))
                                        .Where(IsNull(Col(L"a", 1)))
                                        .Build()));
    std::vector<RqNodeType_e> seen;
    bool bHandleLists = false;
    HookNodeVisitor visitor([&](RqNode& n) {
        seen.push_back(n.IsExpr() ? kRqExpr : n.GetObjectType());
        return bHandleLists && n.IsRqList();
    });
    root->Accept(visitor);
    const std::vector<RqNodeType_e> expected = {
        kRqHandleNode,     kRqList,          kRqProjection,     kRqDerivedColumn, kRqExpr,
        kRqJoinSpec,       kRqJoinNode,      kRqTableReference, kRqDerivedTable,  kRqList,
        kRqProjection,     kRqDerivedColumn, kRqExpr,           kRqJoinSpec,      kRqJoinNode,
        kRqTableReference, kRqAtomicTable,   kRqOrderBy,        kRqSortSpec,      kRqDetailFilter,
        kRqExpr,           kRqExpr};
    EXPECT_EQ(seen, expected);

    seen.clear();
    bHandleLists = true;
    root->Accept(visitor);
    EXPECT_EQ(seen, (std::vector<RqNodeType_e>{kRqHandleNode, kRqList}));
}

TEST(NodeTraversal, AVisitThatRemovesALaterSiblingNeitherSkipsNorReadsIt) {
    // Visiting the first member of a union removes the second: the walk goes on with the
    // third, which is now second. Both walks read the child count afresh at every step.
    RqList* first = Block().Label(L"first").Select(Int(1)).Build();
    RqList* second = Block().Label(L"second").Select(Int(2)).Build();
    RqList* third = Block().Label(L"third").Select(Int(3)).Build();
    Heap<RqUnion> both(Union({first, second, third}, true));
    std::vector<RqNode*> lists;
    HookNodeVisitor visitor([&](RqNode& n) {
        if (n.IsRqList()) {
            lists.push_back(&n);
            if (&n == first)
                both->EraseIthChild(1);
        }
        return n.IsRqList();
    });
    both->Accept(visitor);
    EXPECT_EQ(lists, (std::vector<RqNode*>{first, third}));

    RqExpr* a = Col(L"a", 1);
    RqExpr* c = Col(L"c", 1);
    Heap<RqExpr> coalesce(RQ_NEW RqExprCoalesce({a, Col(L"b", 1), c}));
    std::vector<RqExpr*> operands;
    HookExprVisitor exprVisitor([&](RqExpr& e) {
        operands.push_back(&e);
        if (&e == a)
            coalesce->EraseIthChild(1);
        return false;
    });
    coalesce->Accept(exprVisitor);
    EXPECT_EQ(operands, (std::vector<RqExpr*>{coalesce.Get(), a, c}));
}

TEST(NodeTraversal, TreesDeeperThanTheStackAreWalkedOrFailWithTheStackError) {
    constexpr int kDepth = 1000000;
    Heap<RqExpr> chain(NegationChain(kDepth));
    OnOrdinaryThread([&] {
        // Both walks keep their own stacks.
        int nodes = 0;
        HookNodeVisitor nodeVisitor([&](RqNode&) {
            ++nodes;
            return false;
        });
        chain->Accept(nodeVisitor);
        EXPECT_EQ(nodes, kDepth + 1);
        int exprs = 0;
        HookExprVisitor exprVisitor([&](RqExpr&) {
            ++exprs;
            return false;
        });
        chain->Accept(exprVisitor);
        EXPECT_EQ(exprs, kDepth + 1);

        // Visitors that walk the operands themselves nest on the call stack: the walk ends
        // with the stack error, an exception, and the tree is left as it was.
        std::function<bool(RqExpr&)> descend;
        HookExprVisitor recursive([&](RqExpr& e) { return descend(e); });
        descend = [&](RqExpr& e) {
            for (int i = 0; i < e.GetNumOperands(); ++i)
                e.GetIthOperand(i)->Accept(recursive);
            return true;
        };
        EXPECT_THROW(chain->Accept(recursive), StackExhaustedException);
        std::function<bool(RqNode&)> descendNodes;
        HookNodeVisitor recursiveNodes([&](RqNode& n) { return descendNodes(n); });
        descendNodes = [&](RqNode& n) {
            for (int i = 0; i < n.GetNumChildren(); ++i)
                n.GetIthChild(i)->Accept(recursiveNodes);
            return true;
        };
        EXPECT_THROW(chain->Accept(recursiveNodes), StackExhaustedException);
    });
    RqNodeVector leaves;
    FindNodes(chain.Get(), RqNode::IsObjectType(kRqExprIntegerLiteral), leaves);
    EXPECT_EQ(leaves.size(), 1u);
}

// ---- Containers held by nodes ---------------------------------------------------------------

TEST(NodeContainers, WhatANodeHoldsIsCountedByTheTrackingAllocator) {
    // Each case fills a container of a node that already exists: the storage must appear as
    // live blocks of the tracking allocator, so that a leak of it is caught like a node's.
    std::optional<RqOrderBy> orderBy;
    RqTransientOpaqueTable table;
    RqCache cache;
    RqExprAggrRank rank(Col(L"a", 1));
    RqGroupBy groupBy;
    RqTableReference join;
    const std::vector<std::pair<const char*, std::function<void()>>> fills = {
        {"sort types",
         [&] { orderBy.emplace(SortSpecVector(), std::vector<ZKString>{L"INTEGER"}, false); }},
        {"column types",
         [&] {
             table.AddColumnTypeInfos({L"INTEGER", L"VARCHAR(10)"});
         }},
        {"plan bytes",
         [&] {
             cache.SetLogicalPlanEntry({5, 2, 0});
         }},
        {"sort keys",
         [&] {
             rank.SetSortSpec({{0, RqSortSpec::kDesc}});
         }},
        {"grouping sets",
         [&] {
             groupBy.AddGroupingSet({0, 1});
         }},
        {"join columns",
         [&] {
             join.SetLeftJoinColumnIndexes({0, 2});
         }},
    };
    for (const auto& [name, fill] : fills) {
        const long long before = ZKNodeAlloc::LiveCount();
        fill();
        EXPECT_GT(ZKNodeAlloc::LiveCount(), before) << name;
    }
}
