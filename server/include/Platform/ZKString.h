#pragma once
// Wide text used throughout the server. Derives from std::wstring so that the whole
// standard string interface is available; adds UTF-8 conversion for the edges of the
// system (files, stderr, narrow APIs) where text leaves or enters as bytes.

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

class ZKString : public std::wstring {
public:
    using std::wstring::wstring;

    ZKString() = default;
    ZKString(const wchar_t* text) : std::wstring(text != nullptr ? text : L"") {}
    ZKString(const std::wstring& text) : std::wstring(text) {}
    ZKString(std::wstring&& text) noexcept : std::wstring(std::move(text)) {}
    ZKString(std::wstring_view text) : std::wstring(text) {}

    // Decodes UTF-8; malformed sequences become U+FFFD so that a bad byte never loses the rest.
    static ZKString FromUtf8(std::string_view utf8);
    std::string ToUtf8() const;

    static ZKString FromInt(long long value);
    // Shortest text that reads back as the same double.
    static ZKString FromDouble(double value);

    std::wstring_view View() const noexcept { return std::wstring_view(*this); }
};

// UTF-8 conversion for any wide text, without first building a ZKString.
std::string ZKToUtf8(std::wstring_view text);

template <>
struct std::hash<ZKString> {
    std::size_t operator()(const ZKString& text) const noexcept {
        return std::hash<std::wstring_view>{}(std::wstring_view(text));
    }
};
