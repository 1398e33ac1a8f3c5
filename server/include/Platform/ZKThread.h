#pragma once
// Cooperative cancellation and stack-depth protection for the threads that run rewrites.
// A job is shared between the thread doing the work and whoever may cancel it; the worker
// polls with ServiceJobCancellation at points where unwinding is safe. Deeply recursive
// code calls LowStackCheck so that an absurdly nested request fails with an exception
// instead of overflowing the thread's stack.

#include <atomic>
#include <cstddef>
#include <exception>
#include <memory>

class JobCancelledException : public std::exception {
public:
    const char* what() const noexcept override { return "the job was cancelled"; }
};

class StackExhaustedException : public std::exception {
public:
    const char* what() const noexcept override { return "the thread's stack is nearly exhausted"; }
};

class ZKJob {
public:
    void Cancel() { m_bCancelled.store(true, std::memory_order_release); }
    bool IsCancelled() const { return m_bCancelled.load(std::memory_order_acquire); }

private:
    std::atomic<bool> m_bCancelled{false};
};

class ZKThreadJobMgr {
public:
    // The calling thread's current job; nullptr means the thread works for no job.
    static void SetCurrentJob(std::shared_ptr<ZKJob> job);
    static std::shared_ptr<ZKJob> GetCurrentJob();
    // Throws JobCancelledException when the calling thread's current job has been cancelled.
    static void ServiceJobCancellation();

    // Makes a job current for a scope and restores the previous one on exit, including
    // when the scope is left by an exception.
    class ScopedJob {
    public:
        explicit ScopedJob(std::shared_ptr<ZKJob> job);
        ~ScopedJob();
        ScopedJob(const ScopedJob&) = delete;
        ScopedJob& operator=(const ScopedJob&) = delete;

    private:
        std::shared_ptr<ZKJob> m_pPrevious;
    };
};

class ZKThread {
public:
    // What must always remain free below the current frame: room for the unwinder, for
    // library calls made on the way out and for the frames between two checks.
    static constexpr std::size_t kStackSafetyMargin = std::size_t{64} * 1024;

    // Throws StackExhaustedException when less than kStackSafetyMargin + extraBytes of the
    // calling thread's stack remains. extraBytes is what the caller is about to use.
    static void LowStackCheck(int extraBytes);
    // Bytes between the current frame and the end of the calling thread's stack. When the
    // stack bounds cannot be determined this is SIZE_MAX and LowStackCheck never throws.
    static std::size_t RemainingStack();
};
