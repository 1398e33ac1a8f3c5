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
};

[[gnu::noinline]] int Recurse(StackProbe& probe, int depth) {
    if (depth > 1000000)
        return 0;  // unreachable on any real stack; bounds the recursion for the compiler
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    ZKThread::LowStackCheck(static_cast<int>(sizeof(frame)));
    probe.m_nDepth = depth;
    probe.m_nRemainingAtEnd = ZKThread::RemainingStack();
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
    constexpr std::size_t kStackSize = 256 * 1024;
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
    // The guard lets the stack be used down to its margin, not stop far above it.
    EXPECT_GE(probe.m_nRemainingAtEnd, ZKThread::kStackSafetyMargin);
    EXPECT_LT(probe.m_nRemainingAtEnd, ZKThread::kStackSafetyMargin + 8 * 1024);
    EXPECT_GT(static_cast<std::size_t>(probe.m_nDepth),
              (probe.m_nRemainingAtStart - ZKThread::kStackSafetyMargin) / 4096);
}
