// Many threads at once over the whole stack: each reads sample requests, verifies them,
// applies the default pipeline, prints and renders them, some sharing one session, while one
// thread toggles server-wide flags and jobs are cancelled under the running rules. Nothing may
// crash, race (the test also runs under ThreadSanitizer, scripts/tsan.sh) or leak a node.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Platform/CompatFlags.h"
#include "Platform/Repository.h"
#include "Platform/ZKNodeAlloc.h"
#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRoundsPerThread = 24;

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> SampleRequests() {
    std::vector<std::string> texts;
    for (const auto& entry : std::filesystem::directory_iterator(
             std::filesystem::path(RQ_SOURCE_DIR) / "examples/requests"))
        texts.push_back(ReadFile(entry.path()));
    return texts;
}

struct Tally {
    std::atomic<int> m_nOptimized{0};
    std::atomic<int> m_nCancelled{0};
    std::atomic<int> m_nFailures{0};
};

// One request through the whole stack, under `job`. False when the job was cancelled.
bool Optimize(const std::string& text, RpSession& session, const std::shared_ptr<ZKJob>& job,
              Tally& tally) {
    ZKThreadJobMgr::ScopedJob scope(job);
    Heap<RqHandleNode> root(RqTextReader::Read(text, "sample.rq", &session));
    if (!RqVerifier::Verify(*root).empty())
        ++tally.m_nFailures;
    const std::string before = RqTextWriter::Write(*root, &session);
    (void)SqlRenderer::Render(*root, &session);
    ServerStatistics statistics;
    const RuleContext context{&session, &statistics};
    try {
        for (const RuleSpec& spec :
             RuleRegistry::PipelineRules(*RuleRegistry::FindPipeline("default")))
            RuleRegistry::Apply(spec, context, *root);
    } catch (const JobCancelledException&) {
        // A cancelled rule leaves a tree that is whole, if not fully rewritten.
        if (!RqVerifier::Verify(*root).empty())
            ++tally.m_nFailures;
        return false;
    }
    if (!RqVerifier::Verify(*root).empty())
        ++tally.m_nFailures;
    Heap<RqHandleNode> again(
        RqTextReader::Read(RqTextWriter::Write(*root, &session), "again.rq", &session));
    if (!RqTextSameTree(*root, *again))
        ++tally.m_nFailures;
    (void)SqlRenderer::Render(*root, &session);
    return !before.empty();
}

const CompatFlagInfo* FirstServerBooleanFlag() {
    for (const CompatFlagInfo& info : CompatFlagCatalog::All())
        if (info.m_bServerScope && !info.m_bIsInt)
            return &info;
    return nullptr;
}

TEST(ConcurrentPipeline, EightThreadsOptimizeWhileFlagsChangeAndJobsAreCancelled) {
    const long long liveAtStart = ZKNodeAlloc::LiveCount();
    const std::vector<std::string> requests = SampleRequests();
    ASSERT_FALSE(requests.empty());
    const RqCatalog catalog = RqCatalogText::Read(
        ReadFile(std::filesystem::path(RQ_SOURCE_DIR) / "examples/sales.catalog"), "sales.catalog");
    const std::unique_ptr<RpSession> shared = catalog.MakeSession();
    Tally tally;
    std::atomic<bool> done{false};

    // One thread toggles a server-wide flag that the rules may read as they run.
    const CompatFlagInfo* flag = FirstServerBooleanFlag();
    std::thread toggler([&] {
        bool value = false;
        while (!done.load()) {
            if (flag != nullptr)
                SUCompatFlag::SetBool(flag->m_name, value = !value);
            std::this_thread::yield();
        }
    });

    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([&, t] {
            // Even threads share one session; odd ones have their own.
            const std::unique_ptr<RpSession> own = t % 2 == 1 ? catalog.MakeSession() : nullptr;
            RpSession& session = own ? *own : *shared;
            for (int round = 0; round < kRoundsPerThread; ++round) {
                const std::string& text = requests[(t + round) % requests.size()];
                auto job = std::make_shared<ZKJob>();
                // Every third job is cancelled by another thread while it runs (or before it
                // starts, which must be as clean).
                std::thread canceller;
                if (round % 3 == 2)
                    canceller = std::thread([job, round] {
                        std::this_thread::sleep_for(std::chrono::microseconds(50 * round));
                        job->Cancel();
                    });
                try {
                    if (Optimize(text, session, job, tally))
                        ++tally.m_nOptimized;
                    else
                        ++tally.m_nCancelled;
                } catch (const std::exception& e) {
                    ADD_FAILURE() << "thread " << t << ": " << e.what();
                }
                if (canceller.joinable())
                    canceller.join();
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    done = true;
    toggler.join();
    SUCompatFlag::Reset();

    EXPECT_EQ(tally.m_nFailures.load(), 0);
    EXPECT_EQ(tally.m_nOptimized + tally.m_nCancelled, kThreads * kRoundsPerThread);
    EXPECT_GT(tally.m_nOptimized.load(), 0);
    EXPECT_EQ(ZKNodeAlloc::LiveCount(), liveAtStart);
    std::cout << "optimized " << tally.m_nOptimized << ", cancelled " << tally.m_nCancelled << "\n";
}

}  // namespace
