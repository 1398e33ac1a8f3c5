// DeleteOrphanCols on generated requests of about 10^3 to 10^6 nodes, beside a bare Accept
// traversal of requests of the same shape. Four shapes, each with unread columns at every level:
//   wide:  a top block reading every fourth column of one derived table with many columns;
//   wideAllRead: the same reading every column (the analysis alone: nothing is destroyed);
//   many:  a top block joining many derived tables, each read by one column of eight;
//   deep:  a chain of blocks, each reading two of the four columns of the block below.
// The rule's time per node should stay flat as the request grows, and within a small factor
// of the bare walk: each block is reduced once, and each column is looked up once in the set
// of read columns.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "BenchSupport.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUDeleteOrphanCols.h"

namespace {

RqList* LeafBlock(int numColumns, int tableNum) {
    rqb::Block block;
    for (int i = 0; i < numColumns; ++i)
        block.Select(rqb::Col(ZKString(L"c") + ZKString(std::to_wstring(i)), tableNum));
    block.From(rqb::Table(VoidID(3, 1), tableNum))
        .Where(rqb::Gt(rqb::Col(L"c0", tableNum), rqb::Int(0)));
    return block.Build();
}

RqHandleNode* WideRequest(int size) {
    const int numColumns = size / 4;
    RqList* inner = LeafBlock(numColumns, 1);
    rqb::Block outer;
    for (int i = 0; i < numColumns; i += 4)
        outer.Select(rqb::Ref(*inner, i));
    outer.From(rqb::Derived(inner, 2));
    return rqb::Request(outer.Build());
}

// The wide shape with every column read: the rule's analysis alone, nothing to destroy.
RqHandleNode* WideAllReadRequest(int size) {
    const int numColumns = size / 7;
    RqList* inner = LeafBlock(numColumns, 1);
    rqb::Block outer;
    for (int i = 0; i < numColumns; ++i)
        outer.Select(rqb::Ref(*inner, i));
    outer.From(rqb::Derived(inner, 2));
    return rqb::Request(outer.Build());
}

RqHandleNode* ManyRequest(int size) {
    const int numTables = size / 30;
    rqb::Block outer;
    for (int t = 0; t < numTables; ++t) {
        RqList* inner = LeafBlock(8, 2 * t + 1);
        outer.Select(rqb::Ref(*inner, t % 8));
        outer.From(rqb::Derived(inner, 2 * t + 2));
    }
    return rqb::Request(outer.Build());
}

RqHandleNode* DeepRequest(int size) {
    const int depth = size / 22;
    RqList* list = LeafBlock(4, 1);
    for (int level = 1; level < depth; ++level) {
        RqExpr* a = rqb::Ref(*list, 0);
        RqExpr* b = rqb::Ref(*list, 2);
        list = rqb::Block()
                   .Select(a)
                   .Select(rqb::Add(rqb::Ref(*list, 0), rqb::Int(level)))
                   .Select(b)
                   .Select(rqb::Int(level))
                   .From(rqb::Derived(list, level + 1))
                   .Build();
    }
    return rqb::Request(list);
}

using rqbench::MakeRequest;

void BM_DeleteOrphanCols(benchmark::State& state, MakeRequest make) {
    rqbench::TimeOnFreshRequests(state, make, [](RqHandleNode& request) {
        DeleteOrphanCols rule(nullptr);
        rule.ApplyRule(request);
        benchmark::DoNotOptimize(&request);
    });
}

void BM_OrphanBareTraversal(benchmark::State& state, MakeRequest make) {
    rqbench::BareTraversal(state, make);
}

// The deep chain stops at about 10^5 nodes (4,500 levels): the rule nests one walk per level
// on the call stack, as every visitor that walks a derived table's block from its Visit does.
#define RQ_ORPHAN_BENCH(shape, make, largest)              \
    BENCHMARK_CAPTURE(BM_DeleteOrphanCols, shape, make)    \
        ->RangeMultiplier(10)                              \
        ->Range(1000, largest)                             \
        ->Unit(benchmark::kMicrosecond);                   \
    BENCHMARK_CAPTURE(BM_OrphanBareTraversal, shape, make) \
        ->RangeMultiplier(10)                              \
        ->Range(1000, largest)                             \
        ->Unit(benchmark::kMicrosecond);

RQ_ORPHAN_BENCH(wide, WideRequest, 1000000)
RQ_ORPHAN_BENCH(wideAllRead, WideAllReadRequest, 1000000)
RQ_ORPHAN_BENCH(many, ManyRequest, 1000000)
RQ_ORPHAN_BENCH(deep, DeepRequest, 100000)

}  // namespace
