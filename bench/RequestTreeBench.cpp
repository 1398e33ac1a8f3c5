// Costs of the request layer's basic operations and of RemoveRedundantOrderBy on requests of
// growing size: a chain of blocks, each reading the one below it as a derived table and
// carrying an ORDER BY of its own.

#include <benchmark/benchmark.h>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

namespace {

RqHandleNode* NestedRequest(int depth) {
    RqList* list = rqb::Block()
                       .Select(rqb::Col(L"a", 1))
                       .Select(rqb::Col(L"b", 1))
                       .From(rqb::Table(VoidID(3, 1), 1))
                       .Where(rqb::Gt(rqb::Col(L"a", 1), rqb::Int(0)))
                       .OrderBy({{1}})
                       .Build();
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

void BM_BuildAndDestroy(benchmark::State& state) {
    const int depth = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Heap<RqHandleNode> request(NestedRequest(depth));
        benchmark::DoNotOptimize(request.Get());
    }
    state.SetComplexityN(depth);
}
BENCHMARK(BM_BuildAndDestroy)->RangeMultiplier(2)->Range(256, 4096)->Complexity();

void BM_DeepCopy(benchmark::State& state) {
    const int depth = static_cast<int>(state.range(0));
    Heap<RqHandleNode> request(NestedRequest(depth));
    for (auto _ : state) {
        Heap<RqNode> copy(request->DeepCopy(false));
        benchmark::DoNotOptimize(copy.Get());
    }
    state.SetComplexityN(depth);
}
BENCHMARK(BM_DeepCopy)->RangeMultiplier(2)->Range(256, 4096)->Complexity();

void BM_Verify(benchmark::State& state) {
    const int depth = static_cast<int>(state.range(0));
    Heap<RqHandleNode> request(NestedRequest(depth));
    for (auto _ : state) {
        benchmark::DoNotOptimize(RqVerifier::Verify(*request));
    }
    state.SetComplexityN(depth);
}
BENCHMARK(BM_Verify)->RangeMultiplier(2)->Range(256, 4096)->Complexity();

}  // namespace
