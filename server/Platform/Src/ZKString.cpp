// UTF-8 conversion and number formatting for ZKString.

#include "Platform/ZKString.h"

#include <charconv>
#include <cmath>

static_assert(sizeof(wchar_t) == 4, "ZKString holds one code point per wchar_t");

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsScalarValue(char32_t c) {
    return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

}  // namespace

ZKString ZKString::FromUtf8(std::string_view utf8) {
    ZKString out;
    out.reserve(utf8.size());
    std::size_t i = 0;
    const std::size_t n = utf8.size();
    while (i < n) {
        const unsigned char lead = static_cast<unsigned char>(utf8[i]);
        if (lead < 0x80) {
            out.push_back(static_cast<wchar_t>(lead));
            ++i;
            continue;
        }
        int length = 0;
        char32_t c = 0;
        if ((lead & 0xE0) == 0xC0) {
            length = 2;
            c = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            c = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            c = lead & 0x07;
        } else {
            out.push_back(static_cast<wchar_t>(kReplacement));
            ++i;
            continue;
        }
        // A truncated or broken sequence is replaced as a whole up to the first byte that
        // cannot continue it; that byte starts the next character.
        int consumed = 1;
        bool ok = true;
        for (; consumed < length; ++consumed) {
            if (i + consumed >= n) {
                ok = false;
                break;
            }
            const unsigned char next = static_cast<unsigned char>(utf8[i + consumed]);
            if ((next & 0xC0) != 0x80) {
                ok = false;
                break;
            }
            c = (c << 6) | (next & 0x3F);
        }
        static constexpr char32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
        if (!ok || c < kMinimum[length] || !IsScalarValue(c)) {
            out.push_back(static_cast<wchar_t>(kReplacement));
        } else {
            out.push_back(static_cast<wchar_t>(c));
        }
        i += consumed;
    }
    return out;
}

std::string ZKToUtf8(std::wstring_view text) {
    std::string out;
    out.reserve(text.size());
    for (const wchar_t wc : text) {
        char32_t c = static_cast<char32_t>(wc);
        if (!IsScalarValue(c)) {
            c = kReplacement;
        }
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

std::string ZKString::ToUtf8() const {
    return ZKToUtf8(*this);
}

ZKString ZKString::FromInt(long long value) {
    return ZKString(std::to_wstring(value));
}

ZKString ZKString::FromDouble(double value) {
    if (std::isnan(value)) {
        return ZKString(L"nan");
    }
    if (std::isinf(value)) {
        return ZKString(value < 0 ? L"-inf" : L"inf");
    }
    char buffer[64];
    const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    return FromUtf8(std::string_view(buffer, static_cast<std::size_t>(result.ptr - buffer)));
}
