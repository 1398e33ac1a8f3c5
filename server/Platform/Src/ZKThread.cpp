// Per-thread job tracking and stack measurement.

#include "Platform/ZKThread.h"

#include <pthread.h>

#include <cstdint>
#include <limits>
#include <utility>

namespace {

thread_local std::shared_ptr<ZKJob> t_pCurrentJob;

// The lowest usable address of the calling thread's stack, found once per thread; 0 when
// the bounds could not be determined.
struct StackBounds {
    bool m_bKnown = false;
    std::uintptr_t m_nLow = 0;
};
thread_local StackBounds t_stack;

std::uintptr_t StackLow() {
    if (!t_stack.m_bKnown) {
        t_stack.m_bKnown = true;
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            void* base = nullptr;
            std::size_t size = 0;
            // The reported range excludes the guard area, so it is all usable stack.
            if (pthread_attr_getstack(&attr, &base, &size) == 0 && base != nullptr) {
                t_stack.m_nLow = reinterpret_cast<std::uintptr_t>(base);
            }
            pthread_attr_destroy(&attr);
        }
    }
    return t_stack.m_nLow;
}

}  // namespace

void ZKThreadJobMgr::SetCurrentJob(std::shared_ptr<ZKJob> job) {
    t_pCurrentJob = std::move(job);
}

std::shared_ptr<ZKJob> ZKThreadJobMgr::GetCurrentJob() {
    return t_pCurrentJob;
}

void ZKThreadJobMgr::ServiceJobCancellation() {
    const ZKJob* job = t_pCurrentJob.get();
    if (job != nullptr && job->IsCancelled()) {
        throw JobCancelledException();
    }
}

ZKThreadJobMgr::ScopedJob::ScopedJob(std::shared_ptr<ZKJob> job)
    : m_pPrevious(std::exchange(t_pCurrentJob, std::move(job))) {}

ZKThreadJobMgr::ScopedJob::~ScopedJob() {
    t_pCurrentJob = std::move(m_pPrevious);
}

std::size_t ZKThread::RemainingStack() {
    const std::uintptr_t low = StackLow();
    if (low == 0) {
        return std::numeric_limits<std::size_t>::max();
    }
    // The stack grows down: what is left lies between the current frame and the low end.
    const std::uintptr_t here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    return here > low ? static_cast<std::size_t>(here - low) : 0;
}

void ZKThread::LowStackCheck(int extraBytes) {
    const std::size_t remaining = RemainingStack();
    const std::size_t needed =
        kStackSafetyMargin + (extraBytes > 0 ? static_cast<std::size_t>(extraBytes) : 0);
    if (remaining < needed) {
        throw StackExhaustedException();
    }
}
