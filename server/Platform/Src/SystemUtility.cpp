// Host services and configuration text parsing.

#include "Platform/SystemUtility.h"

#include <unistd.h>

#include <cstdlib>
#include <limits>
#include <thread>

#include "Platform/ErrorMessage.h"

namespace {

wchar_t AsciiLower(wchar_t c) {
    return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

bool IsBlank(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\n' || c == L'\r' || c == L'\f' || c == L'\v';
}

}  // namespace

unsigned SystemUtility::GetNumberOfProcessors() {
    const unsigned fromLibrary = std::thread::hardware_concurrency();
    if (fromLibrary > 0) {
        return fromLibrary;
    }
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<unsigned>(online) : 1u;
}

bool SystemUtility::Getenv(const char* name, ZKString& value) {
    // getenv is safe against concurrent readers; the server never changes its environment.
    const char* raw = name != nullptr ? std::getenv(name) : nullptr;
    if (raw == nullptr) {
        return false;
    }
    value = ZKString::FromUtf8(raw);
    return true;
}

bool SystemUtility::Getenv(std::wstring_view name, ZKString& value) {
    return Getenv(ZKToUtf8(name).c_str(), value);
}

std::wstring_view BaseStringUtil::Trim(std::wstring_view text) {
    while (!text.empty() && IsBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool BaseStringUtil::EqualsNoCase(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (AsciiLower(a[i]) != AsciiLower(b[i])) {
            return false;
        }
    }
    return true;
}

bool BaseStringUtil::BooleanFrom(std::wstring_view text, bool& value) {
    text = Trim(text);
    static constexpr const wchar_t* kTrue[] = {L"true", L"yes", L"on", L"1"};
    static constexpr const wchar_t* kFalse[] = {L"false", L"no", L"off", L"0"};
    for (const wchar_t* word : kTrue) {
        if (EqualsNoCase(text, word)) {
            value = true;
            return true;
        }
    }
    for (const wchar_t* word : kFalse) {
        if (EqualsNoCase(text, word)) {
            value = false;
            return true;
        }
    }
    return false;
}

bool BaseStringUtil::IntFrom(std::wstring_view text, long long& value) {
    text = Trim(text);
    bool negative = false;
    if (!text.empty() && (text.front() == L'-' || text.front() == L'+')) {
        negative = text.front() == L'-';
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return false;
    }
    // Accumulate as a negative number: its range is one larger than the positive one.
    long long result = 0;
    constexpr long long kMin = std::numeric_limits<long long>::min();
    for (const wchar_t c : text) {
        if (c < L'0' || c > L'9') {
            return false;
        }
        const int digit = static_cast<int>(c - L'0');
        if (result < (kMin + digit) / 10) {
            return false;
        }
        result = result * 10 - digit;
    }
    if (!negative) {
        if (result == kMin) {
            return false;
        }
        result = -result;
    }
    value = result;
    return true;
}

bool BaseStringUtil::IsInteger(std::wstring_view text) {
    long long ignored = 0;
    return IntFrom(text, ignored);
}

long long PropertyValue::GetInteger() const {
    long long value = 0;
    if (!ToIntegerValue(value)) {
        ZK_THROW(ErrorMessage(kErr_PropertyNotInteger, m_text));
    }
    return value;
}

ZKString GlobalPropertyName::Get() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_name;
}

void GlobalPropertyName::Set(const ZKString& name) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_name = name;
}
