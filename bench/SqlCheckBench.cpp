// Cost of the differential check of a rewrite: a sample request read through the text format,
// rewritten by the default pipeline, then both run on generated data of growing size. The
// data is made anew in every iteration, as every run of `rqopt --check-sql` makes it.

#include <benchmark/benchmark.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "Query/Optimizer/RequestSql/SQORSqlCheck.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

namespace {

const char* const kSamples[] = {
    "sales-by-region",  // a join below a grouping
    "paging",           // a row limit and offset over an ordered join: its ties are checked
    "union-channels",   // a set operation of two sources
    "framework-join",   // joins of several tables
    "write-summary",    // a write, compared by the rows it writes
};

std::string ReadText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// The sample as read and as the default pipeline rewrites it, over the sample catalog.
struct Sample {
    RqCatalog m_catalog;
    std::unique_ptr<RpSession> m_pSession;
    Heap<RqNode> m_pRead;
    Heap<RqHandleNode> m_pRewritten;

    explicit Sample(const std::string& name) {
        const std::string root = RQ_SOURCE_DIR;
        m_catalog = RqCatalogText::Read(ReadText(root + "/examples/sales.catalog"), "sales");
        m_pSession = m_catalog.MakeSession();
        m_pRewritten.Reset(RqTextReader::Read(ReadText(root + "/examples/requests/" + name + ".rq"),
                                              name, m_pSession.get()));
        m_pRead.Reset(m_pRewritten->DeepCopy(false));
        ServerStatistics statistics;
        const RuleContext context{m_pSession.get(), &statistics};
        for (const RuleSpec& spec :
             RuleRegistry::PipelineRules(*RuleRegistry::FindPipeline("default")))
            RuleRegistry::Apply(spec, context, *m_pRewritten);
    }
};

void BM_SqlCheckCompare(benchmark::State& state) {
    const Sample sample(kSamples[state.range(0)]);
    SqlCheckOptions options;
    options.m_rows = static_cast<uint32_t>(state.range(1));
    for (auto _ : state) {
        const SqlCheckOutcome outcome = SqlCheck::Compare(*sample.m_pRead, *sample.m_pRewritten,
                                                          sample.m_pSession.get(), options);
        if (!outcome.IsSame()) {
            state.SkipWithError(("the check is not 'same': " + outcome.Report()).c_str());
            break;
        }
        benchmark::DoNotOptimize(outcome.m_beforeRowCount);
    }
    state.SetLabel(kSamples[state.range(0)]);
}
BENCHMARK(BM_SqlCheckCompare)
    ->ArgsProduct({{0, 1, 2, 3, 4}, {1000, 4000}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
