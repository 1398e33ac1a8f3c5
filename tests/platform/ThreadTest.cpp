// Job cancellation across threads and the stack-depth guard.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <thread>

#include "Platform/ZKThread.h"

TEST(ZKThreadJobMgrTest, CancellationFromAnotherThreadStopsTheWorker) {
    auto job = std::make_shared<ZKJob>();
    std::atomic<bool> started{false};
    std::thread worker([&] {
        ZKThreadJobMgr::ScopedJob scope(job);
        started = true;
        EXPECT_THROW(for (;;) ZKThreadJobMgr::ServiceJobCancellation(), JobCancelledException);
    });
    while (!started)
        std::this_thread::yield();
    job->Cancel();
    worker.join();
}

TEST(ZKThreadJobMgrTest, CurrentJobIsPerThreadAndScopesNest) {
    ZKThreadJobMgr::ServiceJobCancellation();  // no job: nothing to cancel
    auto outer = std::make_shared<ZKJob>();
    auto inner = std::make_shared<ZKJob>();
    {
        ZKThreadJobMgr::ScopedJob outerScope(outer);
        try {
            ZKThreadJobMgr::ScopedJob innerScope(inner);
            inner->Cancel();
            ZKThreadJobMgr::ServiceJobCancellation();
            ADD_FAILURE() << "cancelled job did not throw";
        } catch (const JobCancelledException&) {
        }
        // The exception left the inner scope; the outer job is current and still running.
        EXPECT_EQ(ZKThreadJobMgr::GetCurrentJob(), outer);
        EXPECT_NO_THROW(ZKThreadJobMgr::ServiceJobCancellation());

        std::shared_ptr<ZKJob> seenByOtherThread = outer;
        std::thread([&] { seenByOtherThread = ZKThreadJobMgr::GetCurrentJob(); }).join();
        EXPECT_EQ(seenByOtherThread, nullptr);
    }
    EXPECT_EQ(ZKThreadJobMgr::GetCurrentJob(), nullptr);
}

namespace {

struct StackProbe {
    int m_nDepth = 0;
    bool m_bExhausted = false;
    std::size_t m_nRemainingAtStart = 0;
    std::size_t m_nRemainingAtEnd = 0;
    // What one level costs in this build, measured rather than assumed: sanitizers and
    // optimisation levels change frame sizes several times over.
    std::size_t m_nRemainingAtFirst = 0;
    std::size_t m_nRemainingAtSecond = 0;
};

[[gnu::noinline]] int Recurse(StackProbe& probe, int depth) {
    if (depth > 1000000)
        return 0;  // unreachable on any real stack; bounds the recursion for the compiler
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    ZKThread::LowStackCheck(static_cast<int>(sizeof(frame)));
    probe.m_nDepth = depth;
    probe.m_nRemainingAtEnd = ZKThread::RemainingStack();
    if (depth == 1)
        probe.m_nRemainingAtFirst = probe.m_nRemainingAtEnd;
    if (depth == 2)
        probe.m_nRemainingAtSecond = probe.m_nRemainingAtEnd;
    // Using the result after the call keeps the recursion from becoming a loop.
    return Recurse(probe, depth + 1) + frame[0];
}

void* RunProbe(void* arg) {
    StackProbe& probe = *static_cast<StackProbe*>(arg);
    probe.m_nRemainingAtStart = ZKThread::RemainingStack();
    try {
        Recurse(probe, 1);
    } catch (const StackExhaustedException&) {
        probe.m_bExhausted = true;
    }
    return nullptr;
}

}  // namespace

TEST(ZKThreadTest, DeepRecursionOnSmallStackEndsWithExceptionNotCrash) {
    constexpr std::size_t kStackSize = std::size_t{256} * 1024;
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, kStackSize), 0);
    StackProbe probe;
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attr, &RunProbe, &probe), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);

    EXPECT_TRUE(probe.m_bExhausted);
    ASSERT_GT(probe.m_nRemainingAtStart, ZKThread::kStackSafetyMargin);
    ASSERT_GT(probe.m_nRemainingAtFirst, probe.m_nRemainingAtSecond);
    const std::size_t perLevel = probe.m_nRemainingAtFirst - probe.m_nRemainingAtSecond;
    // The guard lets the stack be used down to its margin (within a level and the frame the
    // check is asked to leave room for), not stop far above it.
    EXPECT_GE(probe.m_nRemainingAtEnd, ZKThread::kStackSafetyMargin);
    EXPECT_LT(probe.m_nRemainingAtEnd, ZKThread::kStackSafetyMargin + 1024 + 2 * perLevel);
    EXPECT_GE(static_cast<std::size_t>(probe.m_nDepth),
              (probe.m_nRemainingAtFirst - ZKThread::kStackSafetyMargin) / perLevel * 9 / 10);
}
