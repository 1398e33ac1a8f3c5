// AddPKToLeaf on requests of growing size: a UNION of many framework blocks, each joining
// stock rows many-to-one to their parts over a wide projection of table columns and one
// computed column. Every block gets the part's key, a wrapping reprojection for the union
// and an outer block for its computed column. A bare Accept traversal of the same request
// shows how much of the rule's time is the walk itself; both report time per node.

#include <benchmark/benchmark.h>

#include <string>

#include "BenchSupport.h"
#include "Query/Optimizer/Request/SQORRqVisitorDefaults.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAddPKToLeaf.h"

namespace {

constexpr int kWidth = 12;  // table columns per block

std::string BenchCatalog() {
    std::string text = "database Fw fennick {\n pool P\n table STOCK {\n";
    for (int i = 0; i < kWidth; ++i)
        text += "  column C" + std::to_string(i) + " INTEGER\n";
    text +=
        "  key PK_STOCK (C0, C1)\n }\n table PARTS {\n  column C0 INTEGER\n"
        "  column NAME VARCHAR(20)\n  key PK_PARTS (C0)\n }\n}\n"
        "join Fw.STOCK -> Fw.PARTS many_to_one\n";
    return text;
}

rqbench::CatalogSession& Session() {
    static rqbench::CatalogSession session(BenchCatalog());
    return session;
}

// About 45 nodes per block.
RqHandleNode* UnionRequest(int blocks) {
    std::string text = "request [target=engine] {\n union all {\n";
    for (int b = 0; b < blocks; ++b) {
        const std::string s = "t" + std::to_string(2 * b + 1);
        const std::string p = "t" + std::to_string(2 * b + 2);
        text += "  list [target=fennick at=Fw] {\n   select {\n";
        for (int i = 0; i < kWidth; ++i)
            text += "    " + std::to_string(i) + ": " + s + ".C" + std::to_string(i) + "\n";
        text += "    " + std::to_string(kWidth) + ": Add(" + s + ".C2, " + s + ".C3)\n   }\n";
        text += "   from {\n    join inner {\n     table Fw.STOCK " + s + "\n     table Fw.PARTS " +
                p + "\n     on Eq(" + s + ".C0, " + p + ".C0)\n    }\n   }\n  }\n";
    }
    text += " }\n}\n";
    return RqTextReader::Read(text, "bench.rq", Session().m_pSession.get());
}

void BM_AddPKToLeaf(benchmark::State& state) {
    rqbench::TimeOnFreshRequests(state, UnionRequest, [](RqHandleNode& request) {
        AddPKToLeaf rule(Session().m_pSession.get());
        rule.ApplyRule(request);
        benchmark::DoNotOptimize(&request);
    });
}
BENCHMARK(BM_AddPKToLeaf)
    ->RangeMultiplier(8)
    ->Range(32, 32768)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Complexity(benchmark::oN);

void BM_AddPKToLeafBareTraversal(benchmark::State& state) {
    rqbench::BareTraversal(state, UnionRequest);
}
BENCHMARK(BM_AddPKToLeafBareTraversal)
    ->RangeMultiplier(8)
    ->Range(32, 32768)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Complexity(benchmark::oN);

}  // namespace
