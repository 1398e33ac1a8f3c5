#pragma once
// Small services of the host system and text parsing shared by configuration readers.

#include <mutex>
#include <string_view>

#include "Platform/ZKString.h"

class SystemUtility {
public:
    // At least 1.
    static unsigned GetNumberOfProcessors();
    // False when the variable is not set; its UTF-8 value otherwise.
    static bool Getenv(const char* name, ZKString& value);
    static bool Getenv(std::wstring_view name, ZKString& value);
};

class BaseStringUtil {
public:
    // true/false, yes/no, on/off, 1/0 in any letter case, surrounding blanks ignored.
    static bool BooleanFrom(std::wstring_view text, bool& value);
    // Decimal with an optional sign, surrounding blanks ignored; false on overflow.
    static bool IntFrom(std::wstring_view text, long long& value);
    static bool IsInteger(std::wstring_view text);
    static std::wstring_view Trim(std::wstring_view text);
    // ASCII letters only: names in configuration are ASCII.
    static bool EqualsNoCase(std::wstring_view a, std::wstring_view b);
};

// A property value as the user gave it: text that may stand for an integer.
class PropertyValue {
public:
    PropertyValue() = default;
    explicit PropertyValue(ZKString text) : m_text(std::move(text)) {}
    explicit PropertyValue(long long value) : m_text(ZKString::FromInt(value)) {}

    const ZKString& GetText() const { return m_text; }
    bool IsInteger() const { return BaseStringUtil::IsInteger(m_text); }
    bool ToIntegerValue(long long& value) const { return BaseStringUtil::IntFrom(m_text, value); }
    // Raises an ErrorMessage when the text is not an integer.
    long long GetInteger() const;

private:
    ZKString m_text;
};

// The name of a session property, replaceable server-wide while any thread reads it.
class GlobalPropertyName {
public:
    explicit GlobalPropertyName(const wchar_t* defaultName) : m_name(defaultName) {}
    GlobalPropertyName(const GlobalPropertyName&) = delete;
    GlobalPropertyName& operator=(const GlobalPropertyName&) = delete;

    // A copy: a reader keeps a whole name even while another thread replaces it.
    ZKString Get() const;
    void Set(const ZKString& name);

private:
    mutable std::mutex m_mutex;
    ZKString m_name;
};

// The session properties that switch diagnostic output on. Each variable names its
// property, so that a server can let another property carry the switch; a session turns the
// output on by setting that property.
class GlobalRpVariables {
public:
    // Names the integer session property of the aggregation diagnostics level.
    static inline GlobalPropertyName global_External_zK_EnableAggrDiagnostics{L"AGGR_DIAGNOSTICS"};
    // Names the string session property of the cache diagnostics, read as an integer level.
    static inline GlobalPropertyName global_External_zK_EnableCacheDiagnostics{
        L"CACHE_DIAGNOSTICS"};
};
