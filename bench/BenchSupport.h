#pragma once
// What every rule benchmark shares: the bare traversal it is measured beside, the size of a
// request in nodes, and time per node as a counter.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Query/Optimizer/Request/SQORRqVisitorDefaults.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"

namespace rqbench {

// A node visitor that answers every node through the root family hook of the visitor
// defaults: what the traversal itself costs, the delegation from each kind's overload to the
// hook included.
class NodeCounter : public RqNodeVisitorDefaults<AVisitorRqNode> {
public:
    RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<AVisitorRqNode>);
    bool VisitAny(RqNode&) override {
        ++m_count;
        return false;
    }
    int64_t m_count = 0;
};

// The nodes of the tree below `root`, `root` included.
inline int64_t CountNodes(RqNode& root) {
    NodeCounter counter;
    root.Accept(counter);
    return counter.m_count;
}

// Reports the size of one request and the time per node, when every iteration handles
// `numRequests` requests of `numNodes` nodes.
inline void SetNsPerNode(benchmark::State& state, int64_t numNodes, int numRequests = 1) {
    state.counters["nodes"] = static_cast<double>(numNodes);
    state.counters["ns/node"] = benchmark::Counter(
        static_cast<double>(numNodes) * numRequests * 1e-9,
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

using MakeRequest = RqHandleNode* (*)(int);

// A catalog read from its text and a session over it, for benchmarks whose requests are read
// from the text format against a catalog of their own.
struct CatalogSession {
    explicit CatalogSession(const std::string& catalogText)
        : m_catalog(RqCatalogText::Read(catalogText, "bench.catalog")),
          m_pSession(m_catalog.MakeSession()) {}
    RqCatalog m_catalog;
    std::unique_ptr<RpSession> m_pSession;
};

// The request a made item owns: a request alone, or a request with the parts of it that a
// benchmark works on.
inline RqHandleNode& RequestOf(Heap<RqHandleNode>& request) {
    return *request;
}

// Times `work` on each item of a batch of freshly made ones (`make(size)` returns an item that
// owns its request, see RequestOf); making and destroying them is not timed. Small requests
// are made in batches, so that stopping the clock (a system call) is not counted as their
// cost. A rule rewrites its request, so every run needs a fresh one; the bare walk is given
// fresh ones too, so that both start from trees in the same state (just built, the batch too
// large to stay in the caches) and their ratio is the work's own.
template <class Make, class Work>
void TimeOnFreshItems(benchmark::State& state, Make make, Work work) {
    using Item = decltype(make(0));
    const int size = static_cast<int>(state.range(0));
    int64_t numNodes = 0;
    {
        Item probe = make(size);
        numNodes = CountNodes(RequestOf(probe));
    }
    const int batch =
        static_cast<int>(std::max<int64_t>(1, 100000 / std::max<int64_t>(1, numNodes)));
    std::vector<Item> items;
    items.reserve(static_cast<size_t>(batch));
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < batch; ++i)
            items.push_back(make(size));
        state.ResumeTiming();
        for (Item& item : items)
            work(item);
        state.PauseTiming();
        items.clear();
        state.ResumeTiming();
    }
    SetNsPerNode(state, numNodes, batch);
    state.SetComplexityN(numNodes);
}

// TimeOnFreshItems over requests alone.
template <class Work>
void TimeOnFreshRequests(benchmark::State& state, MakeRequest make, Work work) {
    TimeOnFreshItems(
        state, [make](int size) { return Heap<RqHandleNode>(make(size)); },
        [&work](Heap<RqHandleNode>& request) { work(*request); });
}

// The bare traversal beside a rule: Accept with a visitor that does nothing.
inline void BareTraversal(benchmark::State& state, MakeRequest make) {
    TimeOnFreshRequests(state, make, [](RqHandleNode& request) {
        NodeCounter counter;
        request.Accept(counter);
        benchmark::DoNotOptimize(counter.m_count);
    });
}

}  // namespace rqbench
