#pragma once
// Broken invariants. A failed assertion or logic error means the program is in a state its
// code does not handle, so the process reports the site and stops: continuing would risk
// rewriting a request into a wrong one. The reporter is replaceable so that a host can
// route the report to its own log before the process aborts.

#include "Platform/ZKString.h"

#define ZK_WIDEN_(x) L##x
// L-prefixes a string literal after macro expansion (ZK_WIDEN(__FILE__)).
#define ZK_WIDEN(x) ZK_WIDEN_(x)

class ZKAssert {
public:
    [[noreturn]] static void handleAssert(const wchar_t* file, int line, const wchar_t* condition);
    [[noreturn]] static void handleLogicError(const wchar_t* file, int line,
                                              const ZKString& message);

    // kind is L"ASSERTION FAILED" or L"LOGIC ERROR"; text is the condition or the message.
    using Reporter = void (*)(const wchar_t* kind, const wchar_t* file, int line,
                              const wchar_t* text);
    // Installs a reporter (nullptr restores the default) and returns the previous one.
    // Whatever the reporter does, the process aborts once it returns.
    static Reporter SetReporter(Reporter reporter);
    // The reporter installed by default: one UTF-8 line on stderr, flushed.
    static void DefaultReporter(const wchar_t* kind, const wchar_t* file, int line,
                                const wchar_t* text);
};

#define ZK_ASSERT(cond)                                                              \
    do {                                                                             \
        if (!(cond)) {                                                               \
            ::ZKAssert::handleAssert(ZK_WIDEN(__FILE__), __LINE__, ZK_WIDEN(#cond)); \
        }                                                                            \
    } while (0)

#define ZK_LOGIC_ERROR(msg) ::ZKAssert::handleLogicError(ZK_WIDEN(__FILE__), __LINE__, (msg))
