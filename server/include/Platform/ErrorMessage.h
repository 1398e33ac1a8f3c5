#pragma once
// User-facing errors. An ErrorMessage is either a numbered message from the catalogue,
// whose text is filled in with the arguments given at the raising site, or a plain text
// message (number 0). Raise with ZK_THROW so that the raising site is recorded on the
// exception and in the thread's recent-error record.

#include <concepts>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/ZKAssert.h"
#include "Platform/ZKString.h"

// Numbers of the catalogue messages, named for the code that raises them.
enum ErrorNumber : unsigned long {
    kErr_JobCancelled = 17001,
    kErr_StackExhausted = 17002,
    kErr_InternalError = 17010,
    kErr_UnknownCompatFlag = 27002,
    kErr_ServerCompatFlagInSession = 27003,
    kErr_BadCompatFlagValue = 27004,
    kErr_PropertyNotInteger = 27010,
    kErr_DuplicateRepositoryName = 38001,
    kErr_RepositoryObjectNotFound = 38002,
    kErr_InvalidRepositoryDefinition = 38003,
    kErr_TableWithoutPrimaryKey = 38119,
    kErr_UnknownRewriteRule = 46001,
    kErr_UnknownTargetType = 46002,
    kErr_UnknownFeature = 46003,
};

class ErrorMessage : public std::exception {
public:
    // A text message: number 0, no arguments.
    explicit ErrorMessage(const ZKString& text);

    // A catalogue message. Each argument is turned into text: wide strings as they are,
    // narrow strings as UTF-8, integers in decimal, doubles in their shortest exact form.
    template <class... A>
    explicit ErrorMessage(unsigned long number, const A&... args)
        : m_nNumber(number), m_args{ArgText(args)...} {
        ComposeWhat();
    }

    unsigned long GetNumber() const { return m_nNumber; }
    const std::vector<ZKString>& GetArgs() const { return m_args; }
    // The catalogue text with %1, %2 ... replaced by the arguments ("%%" is a literal %).
    ZKString GetText() const;
    // "[nnnnn] text" in UTF-8, or just the text for a text message.
    const char* what() const noexcept override { return m_what.c_str(); }

    // Where the error was raised; null/0 until prethrowProcess has seen it.
    const wchar_t* GetFile() const { return m_pFile; }
    int GetLine() const { return m_nLine; }
    bool IsPrethrown() const { return m_bPrethrown; }

    // Records the raising site on e. With log, also appends a copy to the calling
    // thread's recent-error record, which diagnostics read after the stack has unwound.
    static void prethrowProcess(const ErrorMessage& e, bool log, const wchar_t* file, int line);
    // The calling thread's recent errors, oldest first (at most kPrethrownHistory).
    static std::vector<ErrorMessage> LastPrethrown();
    static void ClearLastPrethrown();
    static constexpr std::size_t kPrethrownHistory = 8;

    // The catalogue text of a number, or nullptr when the catalogue has no such message.
    static const wchar_t* CatalogueText(unsigned long number);

private:
    static ZKString ArgText(const ZKString& v) { return v; }
    static ZKString ArgText(const std::wstring& v) { return ZKString(v); }
    static ZKString ArgText(std::wstring_view v) { return ZKString(v); }
    static ZKString ArgText(const wchar_t* v) { return ZKString(v); }
    static ZKString ArgText(const std::string& v) { return ZKString::FromUtf8(v); }
    static ZKString ArgText(std::string_view v) { return ZKString::FromUtf8(v); }
    static ZKString ArgText(const char* v) {
        return ZKString::FromUtf8(v != nullptr ? std::string_view(v) : std::string_view());
    }
    static ZKString ArgText(bool v) { return ZKString(v ? L"true" : L"false"); }
    static ZKString ArgText(double v) { return ZKString::FromDouble(v); }
    template <std::integral I>
    static ZKString ArgText(I v) {
        if constexpr (std::is_signed_v<I>) {
            return ZKString::FromInt(static_cast<long long>(v));
        } else {
            return ZKString(std::to_wstring(static_cast<unsigned long long>(v)));
        }
    }

    void ComposeWhat();

    unsigned long m_nNumber = 0;
    std::vector<ZKString> m_args;
    ZKString m_text;  // only for a text message
    std::string m_what;
    // The raising site belongs to the throw, not to the message, so it is set on a
    // const exception as it passes through prethrowProcess.
    mutable const wchar_t* m_pFile = nullptr;
    mutable int m_nLine = 0;
    mutable bool m_bPrethrown = false;
};

#define ZK_THROW(errorMessageExpr)                                                 \
    do {                                                                           \
        ErrorMessage zkErr_(errorMessageExpr);                                     \
        ErrorMessage::prethrowProcess(zkErr_, true, ZK_WIDEN(__FILE__), __LINE__); \
        throw zkErr_;                                                              \
    } while (0)
