#include "Query/Optimizer/RequestText/SQORTextLexer.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "Platform/ZKString.h"

RqTextError::RqTextError(std::string file, int line, int column, std::string message)
    : m_file(std::move(file)), m_line(line), m_column(column), m_message(std::move(message)) {
    m_what =
        m_file + ":" + std::to_string(m_line) + ":" + std::to_string(m_column) + ": " + m_message;
}

std::string RqToken::Describe() const {
    switch (m_kind) {
        case RqTokenKind::kEnd:
            return "end of input";
        case RqTokenKind::kString:
            return "string " + RqTextOut::Quote(m_text);
        case RqTokenKind::kLabel:
            return "label " + RqTextOut::Label(m_text);
        case RqTokenKind::kAnchor:
            return "anchor $" + m_text;
        case RqTokenKind::kIdentifier:
            return "'" + m_text + "'";
        case RqTokenKind::kPunct:
            return "'" + m_text + "'";
        default:
            return "'" + m_text + "'";
    }
}

namespace {

bool IsIdentStart(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool IsIdentChar(char c) {
    return IsIdentStart(c) || (c >= '0' && c <= '9');
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Walks the text keeping the line and column (columns count characters, not bytes).
class Cursor {
public:
    explicit Cursor(std::string_view text) : m_text(text) {}
    bool AtEnd() const { return m_pos >= m_text.size(); }
    char Peek(size_t ahead = 0) const {
        return m_pos + ahead < m_text.size() ? m_text[m_pos + ahead] : '\0';
    }
    char Get() {
        const char c = m_text[m_pos++];
        if (c == '\n') {
            ++m_line;
            m_column = 1;
        } else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) {
            ++m_column;
        }
        return c;
    }
    void SkipWhile(bool (*test)(char)) {
        while (test(Peek()))
            Get();
    }
    size_t Pos() const { return m_pos; }
    int Line() const { return m_line; }
    int Column() const { return m_column; }
    std::string_view Slice(size_t from) const { return m_text.substr(from, m_pos - from); }

private:
    std::string_view m_text;
    size_t m_pos = 0;
    int m_line = 1;
    int m_column = 1;
};

}  // namespace

// Cuts the text into tokens, one at a time and one kind of token per function.
class RqTextScanner {
public:
    RqTextScanner(std::string_view text, const std::string& fileName)
        : m_cur(text), m_fileName(fileName) {}

    // The next token; the end of input once the text is used up, as often as asked.
    RqToken Scan() {
        SkipBlanksAndComments();
        RqToken tok;
        tok.m_line = m_cur.Line();
        tok.m_column = m_cur.Column();
        if (!m_cur.AtEnd())
            ScanToken(tok);
        return tok;
    }

private:
    [[noreturn]] void Fail(int line, int column, const std::string& message) const {
        throw RqTextError(m_fileName, line, column, message);
    }

    void SkipBlanksAndComments() {
        while (!m_cur.AtEnd()) {
            const char c = m_cur.Peek();
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
                m_cur.Get();
            } else if (c == '#') {
                while (!m_cur.AtEnd() && m_cur.Peek() != '\n')
                    m_cur.Get();
            } else {
                break;
            }
        }
    }

    void ScanToken(RqToken& tok) {
        const char c = m_cur.Peek();
        const size_t start = m_cur.Pos();
        if (IsIdentStart(c)) {
            m_cur.SkipWhile(IsIdentChar);
            tok.m_kind = RqTokenKind::kIdentifier;
            tok.m_text = std::string(m_cur.Slice(start));
        } else if (IsDigit(c) || (c == '-' && IsDigit(m_cur.Peek(1)))) {
            ScanNumber(tok);
        } else if (c == '"' || (c == '@' && m_cur.Peek(1) == '"')) {
            tok.m_kind = c == '"' ? RqTokenKind::kString : RqTokenKind::kLabel;
            if (c == '@')
                m_cur.Get();
            tok.m_text = ScanString(tok);
        } else if (c == '@' || c == '$') {
            ScanName(tok);
        } else if (c == '-' && m_cur.Peek(1) == '>') {
            m_cur.Get();
            m_cur.Get();
            tok.m_kind = RqTokenKind::kPunct;
            tok.m_text = "->";
        } else if (std::string_view("{}()[],=:;.*-").find(c) != std::string_view::npos) {
            m_cur.Get();
            tok.m_kind = RqTokenKind::kPunct;
            tok.m_text = std::string(1, c);
        } else {
            const unsigned char uc = static_cast<unsigned char>(c);
            char shown[16];
            if (uc >= 0x20 && uc < 0x7F)
                std::snprintf(shown, sizeof shown, "'%c'", c);
            else
                std::snprintf(shown, sizeof shown, "byte 0x%02X", uc);
            Fail(tok.m_line, tok.m_column, std::string("unexpected character ") + shown);
        }
    }

    // An integer, a float, or the identifier of a repository object (3:17).
    void ScanNumber(RqToken& tok) {
        const size_t start = m_cur.Pos();
        const bool negative = m_cur.Get() == '-';
        m_cur.SkipWhile(IsDigit);
        if (m_cur.Peek() == ':' && IsDigit(m_cur.Peek(1)) && !negative) {
            m_cur.Get();
            m_cur.SkipWhile(IsDigit);
            tok.m_kind = RqTokenKind::kVoidID;
            tok.m_text = std::string(m_cur.Slice(start));
            return;
        }
        bool isFloat = false;
        if (m_cur.Peek() == '.' && IsDigit(m_cur.Peek(1))) {
            isFloat = true;
            m_cur.Get();
            m_cur.SkipWhile(IsDigit);
        }
        const char sign = m_cur.Peek(1);
        if ((m_cur.Peek() == 'e' || m_cur.Peek() == 'E') &&
            (IsDigit(sign) || ((sign == '+' || sign == '-') && IsDigit(m_cur.Peek(2))))) {
            isFloat = true;
            m_cur.Get();
            if (m_cur.Peek() == '+' || m_cur.Peek() == '-')
                m_cur.Get();
            m_cur.SkipWhile(IsDigit);
        }
        if (IsIdentStart(m_cur.Peek()))
            Fail(m_cur.Line(), m_cur.Column(), "unexpected character after a number");
        tok.m_text = std::string(m_cur.Slice(start));
        if (isFloat) {
            tok.m_kind = RqTokenKind::kFloat;
            errno = 0;
            tok.m_float = std::strtod(tok.m_text.c_str(), nullptr);
            if (errno == ERANGE && std::isinf(tok.m_float))
                Fail(tok.m_line, tok.m_column, "number out of range: " + tok.m_text);
        } else {
            tok.m_kind = RqTokenKind::kInteger;
            const char* first = tok.m_text.data();
            const auto [ptr, ec] = std::from_chars(first, first + tok.m_text.size(), tok.m_int);
            if (ec != std::errc() || ptr != first + tok.m_text.size())
                Fail(tok.m_line, tok.m_column, "integer out of range: " + tok.m_text);
        }
    }

    // The decoded content of a string that starts at the cursor's quote.
    std::string ScanString(const RqToken& tok) {
        m_cur.Get();
        std::string value;
        while (true) {
            if (m_cur.AtEnd() || m_cur.Peek() == '\n')
                Fail(tok.m_line, tok.m_column, "unterminated string");
            const char ch = m_cur.Get();
            if (ch == '"')
                return value;
            if (ch == '\\')
                ScanEscape(value);
            else
                value += ch;
        }
    }

    // The escape after a backslash.
    void ScanEscape(std::string& value) {
        const int line = m_cur.Line();
        const int column = m_cur.Column() - 1;
        const char esc = m_cur.AtEnd() ? '\0' : m_cur.Get();
        const char* const plain = "\"\"\\\\n\nt\tr\r";
        for (const char* p = plain; *p != '\0'; p += 2) {
            if (esc == p[0]) {
                value += p[1];
                return;
            }
        }
        if (esc != 'u')
            Fail(line, column, "unknown escape in string");
        if (m_cur.Peek() != '{')
            Fail(line, column, "expected '{' after \\u");
        m_cur.Get();
        uint32_t cp = 0;
        int digits = 0;
        while (std::isxdigit(static_cast<unsigned char>(m_cur.Peek())) && digits < 6) {
            const char h = m_cur.Get();
            cp = cp * 16 + static_cast<uint32_t>(IsDigit(h) ? h - '0' : (h | 0x20) - 'a' + 10);
            ++digits;
        }
        if (digits == 0 || m_cur.Peek() != '}' || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            Fail(line, column, "bad \\u{...} escape");
        m_cur.Get();
        AppendUtf8(value, cp);
    }

    // A label (@name) or an anchor ($name).
    void ScanName(RqToken& tok) {
        const bool label = m_cur.Get() == '@';
        const bool starts =
            label ? IsIdentStart(m_cur.Peek()) || IsDigit(m_cur.Peek()) : IsIdentChar(m_cur.Peek());
        if (!starts)
            Fail(tok.m_line, tok.m_column,
                 label ? "expected a label name after '@'" : "expected an anchor name after '$'");
        const size_t nameStart = m_cur.Pos();
        m_cur.SkipWhile(IsIdentChar);
        tok.m_kind = label ? RqTokenKind::kLabel : RqTokenKind::kAnchor;
        tok.m_text = std::string(m_cur.Slice(nameStart));
    }

    Cursor m_cur;
    const std::string& m_fileName;
};

namespace {

// The encoding signature some editors put at the start of a UTF-8 file.
constexpr std::string_view kUtf8ByteOrderMark = "\xEF\xBB\xBF";

std::string_view WithoutByteOrderMark(std::string_view text) {
    if (text.substr(0, kUtf8ByteOrderMark.size()) == kUtf8ByteOrderMark)
        text.remove_prefix(kUtf8ByteOrderMark.size());
    return text;
}

}  // namespace

RqTextLexer::RqTextLexer(std::string_view text, std::string fileName)
    : m_fileName(std::move(fileName)) {
    if (text.size() > kRqTextMaxInputBytes)
        throw RqTextError(m_fileName, 1, 1,
                          "the text is larger than the " +
                              std::to_string(kRqTextMaxInputBytes / (std::size_t{1024} * 1024)) +
                              " MiB a request or catalog may have");
    m_pScanner = std::make_unique<RqTextScanner>(WithoutByteOrderMark(text), m_fileName);
}

RqTextLexer::~RqTextLexer() = default;

const RqToken& RqTextLexer::Ahead(int ahead) const {
    const size_t want = static_cast<size_t>(ahead < 0 ? 0 : ahead) + 1;
    while (m_ahead.size() < want) {
        if (!m_ahead.empty() && m_ahead.back().Is(RqTokenKind::kEnd))
            return m_ahead.back();
        m_ahead.push_back(m_pScanner->Scan());
    }
    return m_ahead[want - 1];
}

RqToken RqTextLexer::Next() {
    RqToken tok = Ahead(0);
    // The end stays in place: reading past it goes on returning the end.
    if (!tok.Is(RqTokenKind::kEnd))
        m_ahead.pop_front();
    return tok;
}

bool RqTextLexer::AcceptPunct(std::string_view p) {
    if (!Ahead(0).IsPunct(p))
        return false;
    Next();
    return true;
}

bool RqTextLexer::AcceptWord(std::string_view w) {
    if (!Ahead(0).IsWord(w))
        return false;
    Next();
    return true;
}

void RqTextLexer::ExpectPunct(std::string_view p) {
    if (!AcceptPunct(p))
        Expected("'" + std::string(p) + "'");
}

void RqTextLexer::ExpectWord(std::string_view w) {
    if (!AcceptWord(w))
        Expected("'" + std::string(w) + "'");
}

std::string RqTextLexer::ExpectIdentifier(std::string_view what) {
    if (!Ahead(0).Is(RqTokenKind::kIdentifier))
        Expected(what);
    return Next().m_text;
}

int64_t RqTextLexer::ExpectInteger(std::string_view what) {
    if (!Ahead(0).Is(RqTokenKind::kInteger))
        Expected(what);
    return Next().m_int;
}

std::string RqTextLexer::ExpectString(std::string_view what) {
    if (!Ahead(0).Is(RqTokenKind::kString))
        Expected(what);
    return Next().m_text;
}

std::string RqTextLexer::ExpectName(std::string_view what) {
    if (!Ahead(0).Is(RqTokenKind::kIdentifier) && !Ahead(0).Is(RqTokenKind::kString))
        Expected(what);
    return Next().m_text;
}

void RqTextLexer::Expected(std::string_view what) const {
    const RqToken& at = Ahead(0);
    Fail(at, "expected " + std::string(what) + ", found " + at.Describe());
}

void RqTextLexer::Fail(const RqToken& at, const std::string& message) const {
    throw RqTextError(m_fileName, at.m_line, at.m_column, message);
}

std::string RqTextOut::Quote(std::string_view utf8) {
    std::string out = "\"";
    for (const char c : utf8) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char buf[12];
                    std::snprintf(buf, sizeof buf, "\\u{%x}", static_cast<unsigned>(c));
                    out += buf;
                } else {
                    out += c;
                }
        }
    }
    out += '"';
    return out;
}

bool RqTextOut::IsIdentifier(std::string_view utf8) {
    if (utf8.empty() || !IsIdentStart(utf8[0]))
        return false;
    for (const char c : utf8)
        if (!IsIdentChar(c))
            return false;
    return true;
}

std::string RqTextOut::Name(std::string_view utf8) {
    return IsIdentifier(utf8) ? std::string(utf8) : Quote(utf8);
}

std::string RqTextOut::Label(std::string_view utf8) {
    bool plain = !utf8.empty();
    for (const char c : utf8)
        plain = plain && IsIdentChar(c);
    return plain ? "@" + std::string(utf8) : "@" + Quote(utf8);
}

std::string RqTextOut::Float(double value) {
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value < 0 ? "-inf" : "inf";
    std::string text = ZKString::FromDouble(value).ToUtf8();
    if (text.find_first_of(".eE") == std::string::npos)
        text += ".0";
    return text;
}
