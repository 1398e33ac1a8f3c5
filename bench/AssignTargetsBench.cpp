// AssignTargets on requests of growing size: a UNION ALL of blocks whose target types were
// left unknown, alternately bound to a warehouse and to a framework database, each reading a
// derived table whose block is unknown too. Every block gets its type back; the expressions
// below them are walked as well, since any node may carry a target. A bare Accept traversal
// of the same request is timed beside it; both report time per node.

#include <benchmark/benchmark.h>

#include <string>

#include "BenchSupport.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAssignTargets.h"

namespace {

constexpr int kWidth = 8;  // columns per block

std::string BenchCatalog() {
    std::string text;
    for (const char* database : {"Dw ansisql", "Fw fennick"}) {
        text += "database " + std::string(database) + " {\n pool Pool\n table T {\n";
        for (int i = 0; i < kWidth; ++i)
            text += "  column C" + std::to_string(i) + " INTEGER\n";
        text += " }\n}\n";
    }
    return text;
}

rqbench::CatalogSession& Session() {
    static rqbench::CatalogSession session(BenchCatalog());
    return session;
}

// About 40 nodes per block pair (outer and derived).
RqHandleNode* UnionRequest(int blocks) {
    std::string text = "request {\n union all {\n";
    for (int b = 0; b < blocks; ++b) {
        const char* database = b % 2 == 0 ? "Dw" : "Fw";
        const std::string inner = "i" + std::to_string(b);
        const std::string table = "t" + std::to_string(2 * b + 1);
        const std::string derived = "t" + std::to_string(2 * b + 2);
        text += "  list [target=unknown at=" + std::string(database) + "] {\n   select {\n";
        for (int i = 0; i < kWidth; ++i)
            text += "    " + std::to_string(i) + ": @" + inner + "." + std::to_string(i) + "\n";
        text += "   }\n   from {\n    derived " + derived + " {\n     list @" + inner +
                " [target=unknown at=" + database + "] {\n      select {\n";
        for (int i = 0; i < kWidth; ++i)
            text += "       " + std::to_string(i) + ": " + table + ".C" + std::to_string(i) + "\n";
        text += "      }\n      from {\n       table " + std::string(database) + ".T " + table +
                "\n      }\n     }\n    }\n   }\n  }\n";
    }
    text += " }\n}\n";
    return RqTextReader::Read(text, "bench.rq", Session().m_pSession.get());
}

void BM_AssignTargets(benchmark::State& state) {
    rqbench::TimeOnFreshRequests(state, UnionRequest, [](RqHandleNode& request) {
        AssignTargets rule(Session().m_pSession.get());
        rule.ApplyRule(request);
        benchmark::DoNotOptimize(rule.GetNumAssigned());
    });
}
BENCHMARK(BM_AssignTargets)
    ->RangeMultiplier(8)
    ->Range(32, 32768)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

void BM_AssignTargetsBareTraversal(benchmark::State& state) {
    rqbench::BareTraversal(state, UnionRequest);
}
BENCHMARK(BM_AssignTargetsBareTraversal)
    ->RangeMultiplier(8)
    ->Range(32, 32768)
    ->Unit(benchmark::kMillisecond)
    ->Complexity(benchmark::oN);

}  // namespace
