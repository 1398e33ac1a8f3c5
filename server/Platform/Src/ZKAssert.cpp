// Reporting of broken invariants, then abort.

#include "Platform/ZKAssert.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::atomic<ZKAssert::Reporter> g_reporter{&ZKAssert::DefaultReporter};

[[noreturn]] void ReportAndAbort(const wchar_t* kind, const wchar_t* file, int line,
                                 const wchar_t* text) {
    const ZKAssert::Reporter reporter = g_reporter.load(std::memory_order_acquire);
    reporter(kind, file != nullptr ? file : L"?", line, text != nullptr ? text : L"");
    std::abort();
}

}  // namespace

void ZKAssert::DefaultReporter(const wchar_t* kind, const wchar_t* file, int line,
                               const wchar_t* text) {
    // One write of the whole line, so that reports of two failing threads do not interleave.
    std::string message = ZKToUtf8(kind);
    message += ": ";
    message += ZKToUtf8(file);
    message += ':';
    message += std::to_string(line);
    message += ": ";
    message += ZKToUtf8(text);
    message += '\n';
    std::fwrite(message.data(), 1, message.size(), stderr);
    std::fflush(stderr);
}

void ZKAssert::handleAssert(const wchar_t* file, int line, const wchar_t* condition) {
    ReportAndAbort(L"ASSERTION FAILED", file, line, condition);
}

void ZKAssert::handleLogicError(const wchar_t* file, int line, const ZKString& message) {
    ReportAndAbort(L"LOGIC ERROR", file, line, message.c_str());
}

ZKAssert::Reporter ZKAssert::SetReporter(Reporter reporter) {
    return g_reporter.exchange(reporter != nullptr ? reporter : &ZKAssert::DefaultReporter,
                               std::memory_order_acq_rel);
}
