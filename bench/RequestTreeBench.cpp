// Costs of the request layer's basic operations and of RemoveRedundantOrderBy on requests of
// growing size: a chain of blocks, each reading the one below it as a derived table and
// carrying an ORDER BY of its own. A bare traversal of the same chain, with and without a
// visitor, shows how much of the rule's time is the walk itself.
//
// DeepCopy and Verify also run on two wide shapes of about the same node count as the chain:
// a UNION of leaf blocks side by side, and one block with a wide projection. A cost that is
// paid per node per level of nesting shows up in the chain only; a cost of memory traffic
// (the tree outgrowing the caches) shows up in every shape alike. Their counters report
// nodes per second, so the shapes compare at equal node counts.

#include <benchmark/benchmark.h>

#include <deque>
#include <vector>

#include "BenchSupport.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

namespace {

RqList* LeafBlock() {
    return rqb::Block()
        .Select(rqb::Col(L"a", 1))
        .Select(rqb::Col(L"b", 1))
        .From(rqb::Table(VoidID(3, 1), 1))
        .Where(rqb::Gt(rqb::Col(L"a", 1), rqb::Int(0)))
        .OrderBy({{1}})
        .Build();
}

// About 14 nodes per block.
RqHandleNode* NestedRequest(int depth) {
    RqList* list = LeafBlock();
    for (int level = 1; level < depth; ++level) {
        RqExpr* a = rqb::Ref(*list, 0);
        RqExpr* b = rqb::Ref(*list, 1);
        list = rqb::Block()
                   .Select(a)
                   .Select(rqb::Add(b, rqb::Int(level)))
                   .From(rqb::Derived(list))
                   .OrderBy({{0, RqSortSpec::kDesc}})
                   .Build();
    }
    return rqb::Request(list);
}

// `width` leaf blocks (16 nodes each) under one UNION ALL: as many blocks as the chain of
// that depth, none nested in another.
RqHandleNode* WideUnionRequest(int width) {
    RqAbstractListVector members;
    for (int i = 0; i < width; ++i)
        members.push_back(LeafBlock());
    return rqb::Request(RQ_NEW RqUnion(members, true));
}

// One block over a leaf block with 3.5 columns per `width` (4 nodes each), every fourth one
// also an ORDER BY key: the chain's node count in two levels.
RqHandleNode* WideProjectionRequest(int width) {
    RqList* inner = LeafBlock();
    rqb::Block outer;
    const int numColumns = width * 7 / 2;
    for (int i = 0; i < numColumns; ++i)
        outer.Select(rqb::Add(rqb::Ref(*inner, i % 2), rqb::Int(i)));
    outer.From(rqb::Derived(inner));
    SortSpecVector keys;
    for (int i = 0; i < numColumns; i += 4)
        keys.push_back(RQ_NEW RqSortSpec(outer.Column(i)->GetColumnNum(), RqSortSpec::kAsc));
    RqList* block = outer.Build();
    block->SetOrderBy(RQ_NEW RqOrderBy(keys));
    return rqb::Request(block);
}

using MakeRequest = RqHandleNode* (*)(int);

void BM_RemoveRedundantOrderBy(benchmark::State& state) {
    const int depth = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        Heap<RqHandleNode> request(NestedRequest(depth));
        state.ResumeTiming();
        RemoveRedundantOrderBy rule(nullptr);
        rule.ApplyRule(*request);
        benchmark::DoNotOptimize(request.Get());
        state.PauseTiming();
        request.Reset();
        state.ResumeTiming();
    }
    state.SetComplexityN(depth);
}
BENCHMARK(BM_RemoveRedundantOrderBy)->RangeMultiplier(2)->Range(256, 4096)->Complexity();

// The same tree as BM_RemoveRedundantOrderBy, walked without rewriting it: through Accept
// with a visitor that does nothing, and breadth first through a queue as the rule walks.
void BM_BareTraversal(benchmark::State& state, bool bQueue) {
    const int depth = static_cast<int>(state.range(0));
    Heap<RqHandleNode> request(NestedRequest(depth));
    for (auto _ : state) {
        int64_t count = 0;
        if (bQueue) {
            std::deque<RqNode*, ZKAllocator<RqNode*>> queue{request.Get()};
            while (!queue.empty()) {
                RqNode* node = queue.front();
                queue.pop_front();
                ++count;
                for (int i = 0; i < node->GetNumChildren(); ++i) {
                    if (RqNode* child = node->GetIthChild(i))
                        queue.push_back(child);
                }
            }
        } else {
            rqbench::NodeCounter counter;
            request->Accept(counter);
            count = counter.m_count;
        }
        benchmark::DoNotOptimize(count);
    }
    state.SetComplexityN(depth);
}
BENCHMARK_CAPTURE(BM_BareTraversal, accept, false)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();
BENCHMARK_CAPTURE(BM_BareTraversal, queue, true)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();

void BM_BuildAndDestroy(benchmark::State& state) {
    const int depth = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Heap<RqHandleNode> request(NestedRequest(depth));
        benchmark::DoNotOptimize(request.Get());
    }
    state.SetComplexityN(depth);
}
BENCHMARK(BM_BuildAndDestroy)->RangeMultiplier(2)->Range(256, 4096)->Complexity();

// The copy and its destruction: a copy is made to be thrown away again.
void BM_DeepCopy(benchmark::State& state, MakeRequest make) {
    const int size = static_cast<int>(state.range(0));
    Heap<RqHandleNode> request(make(size));
    for (auto _ : state) {
        Heap<RqNode> copy(request->DeepCopy(false));
        benchmark::DoNotOptimize(copy.Get());
    }
    state.SetComplexityN(size);
    state.SetItemsProcessed(state.iterations() * rqbench::CountNodes(*request));
}
BENCHMARK_CAPTURE(BM_DeepCopy, chain, NestedRequest)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();
BENCHMARK_CAPTURE(BM_DeepCopy, union, WideUnionRequest)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();
BENCHMARK_CAPTURE(BM_DeepCopy, projection, WideProjectionRequest)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();

void BM_Verify(benchmark::State& state, MakeRequest make) {
    const int size = static_cast<int>(state.range(0));
    Heap<RqHandleNode> request(make(size));
    for (auto _ : state) {
        benchmark::DoNotOptimize(RqVerifier::Verify(*request));
    }
    state.SetComplexityN(size);
    state.SetItemsProcessed(state.iterations() * rqbench::CountNodes(*request));
}
BENCHMARK_CAPTURE(BM_Verify, chain, NestedRequest)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();
BENCHMARK_CAPTURE(BM_Verify, union, WideUnionRequest)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();
BENCHMARK_CAPTURE(BM_Verify, projection, WideProjectionRequest)
    ->RangeMultiplier(2)
    ->Range(256, 4096)
    ->Complexity();

}  // namespace
