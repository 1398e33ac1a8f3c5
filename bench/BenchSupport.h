#pragma once
// What every rule benchmark shares: the bare traversal it is measured beside, the size of a
// request in nodes, and time per node as a counter.

#include <benchmark/benchmark.h>

#include <cstdint>

#include "Query/Optimizer/Request/SQORRqVisitorDefaults.h"

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

// Reports the tree's size and the time per node; `numNodes` is what one iteration handles.
inline void SetNsPerNode(benchmark::State& state, int64_t numNodes) {
    state.counters["nodes"] = static_cast<double>(numNodes);
    state.counters["ns/node"] = benchmark::Counter(
        static_cast<double>(numNodes) * 1e-9,
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

}  // namespace rqbench
