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

RqTextLexer::RqTextLexer(std::string_view text, std::string fileName)
    : m_fileName(std::move(fileName)) {
    Tokenize(text);
}

void RqTextLexer::Tokenize(std::string_view text) {
    Cursor cur(text);
    auto fail = [&](int line, int column, const std::string& message) {
        throw RqTextError(m_fileName, line, column, message);
    };
    while (true) {
        // Blanks and comments.
        while (!cur.AtEnd()) {
            const char c = cur.Peek();
            if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
                cur.Get();
            } else if (c == '#') {
                while (!cur.AtEnd() && cur.Peek() != '\n')
                    cur.Get();
            } else {
                break;
            }
        }
        RqToken tok;
        tok.m_line = cur.Line();
        tok.m_column = cur.Column();
        if (cur.AtEnd()) {
            m_tokens.push_back(tok);
            return;
        }
        const char c = cur.Peek();
        const size_t start = cur.Pos();
        if (IsIdentStart(c)) {
            while (IsIdentChar(cur.Peek()))
                cur.Get();
            tok.m_kind = RqTokenKind::kIdentifier;
            tok.m_text = std::string(cur.Slice(start));
        } else if (IsDigit(c) || (c == '-' && IsDigit(cur.Peek(1)))) {
            cur.Get();
            while (IsDigit(cur.Peek()))
                cur.Get();
            bool isFloat = false;
            if (cur.Peek() == ':' && IsDigit(cur.Peek(1)) && c != '-') {
                cur.Get();
                while (IsDigit(cur.Peek()))
                    cur.Get();
                tok.m_kind = RqTokenKind::kVoidID;
                tok.m_text = std::string(cur.Slice(start));
                m_tokens.push_back(std::move(tok));
                continue;
            }
            if (cur.Peek() == '.' && IsDigit(cur.Peek(1))) {
                isFloat = true;
                cur.Get();
                while (IsDigit(cur.Peek()))
                    cur.Get();
            }
            if ((cur.Peek() == 'e' || cur.Peek() == 'E') &&
                (IsDigit(cur.Peek(1)) ||
                 ((cur.Peek(1) == '+' || cur.Peek(1) == '-') && IsDigit(cur.Peek(2))))) {
                isFloat = true;
                cur.Get();
                if (cur.Peek() == '+' || cur.Peek() == '-')
                    cur.Get();
                while (IsDigit(cur.Peek()))
                    cur.Get();
            }
            if (IsIdentStart(cur.Peek()))
                fail(cur.Line(), cur.Column(), "unexpected character after a number");
            tok.m_text = std::string(cur.Slice(start));
            if (isFloat) {
                tok.m_kind = RqTokenKind::kFloat;
                errno = 0;
                tok.m_float = std::strtod(tok.m_text.c_str(), nullptr);
                if (errno == ERANGE && std::isinf(tok.m_float))
                    fail(tok.m_line, tok.m_column, "number out of range: " + tok.m_text);
            } else {
                tok.m_kind = RqTokenKind::kInteger;
                const char* first = tok.m_text.data();
                const auto [ptr, ec] = std::from_chars(first, first + tok.m_text.size(), tok.m_int);
                if (ec != std::errc() || ptr != first + tok.m_text.size())
                    fail(tok.m_line, tok.m_column, "integer out of range: " + tok.m_text);
            }
        } else if (c == '"' || (c == '@' && cur.Peek(1) == '"')) {
            tok.m_kind = c == '"' ? RqTokenKind::kString : RqTokenKind::kLabel;
            if (c == '@')
                cur.Get();
            cur.Get();
            std::string value;
            while (true) {
                if (cur.AtEnd() || cur.Peek() == '\n')
                    fail(tok.m_line, tok.m_column, "unterminated string");
                const char ch = cur.Get();
                if (ch == '"')
                    break;
                if (ch != '\\') {
                    value += ch;
                    continue;
                }
                const int escLine = cur.Line();
                const int escColumn = cur.Column() - 1;
                const char esc = cur.AtEnd() ? '\0' : cur.Get();
                switch (esc) {
                    case '"':
                        value += '"';
                        break;
                    case '\\':
                        value += '\\';
                        break;
                    case 'n':
                        value += '\n';
                        break;
                    case 't':
                        value += '\t';
                        break;
                    case 'r':
                        value += '\r';
                        break;
                    case 'u': {
                        if (cur.Peek() != '{')
                            fail(escLine, escColumn, "expected '{' after \\u");
                        cur.Get();
                        uint32_t cp = 0;
                        int digits = 0;
                        while (std::isxdigit(static_cast<unsigned char>(cur.Peek())) &&
                               digits < 6) {
                            const char h = cur.Get();
                            cp = cp * 16 + static_cast<uint32_t>(
                                               IsDigit(h) ? h - '0' : (h | 0x20) - 'a' + 10);
                            ++digits;
                        }
                        if (digits == 0 || cur.Peek() != '}' || cp > 0x10FFFF ||
                            (cp >= 0xD800 && cp <= 0xDFFF))
                            fail(escLine, escColumn, "bad \\u{...} escape");
                        cur.Get();
                        AppendUtf8(value, cp);
                        break;
                    }
                    default:
                        fail(escLine, escColumn, "unknown escape in string");
                }
            }
            tok.m_text = std::move(value);
        } else if (c == '@') {
            cur.Get();
            if (!IsIdentStart(cur.Peek()) && !IsDigit(cur.Peek()))
                fail(tok.m_line, tok.m_column, "expected a label name after '@'");
            const size_t nameStart = cur.Pos();
            while (IsIdentChar(cur.Peek()))
                cur.Get();
            tok.m_kind = RqTokenKind::kLabel;
            tok.m_text = std::string(cur.Slice(nameStart));
        } else if (c == '$') {
            cur.Get();
            if (!IsIdentChar(cur.Peek()))
                fail(tok.m_line, tok.m_column, "expected an anchor name after '$'");
            const size_t nameStart = cur.Pos();
            while (IsIdentChar(cur.Peek()))
                cur.Get();
            tok.m_kind = RqTokenKind::kAnchor;
            tok.m_text = std::string(cur.Slice(nameStart));
        } else if (c == '-' && cur.Peek(1) == '>') {
            cur.Get();
            cur.Get();
            tok.m_kind = RqTokenKind::kPunct;
            tok.m_text = "->";
        } else if (std::string_view("{}()[],=:;.*-").find(c) != std::string_view::npos) {
            cur.Get();
            tok.m_kind = RqTokenKind::kPunct;
            tok.m_text = std::string(1, c);
        } else {
            const unsigned char uc = static_cast<unsigned char>(c);
            char shown[16];
            if (uc >= 0x20 && uc < 0x7F)
                std::snprintf(shown, sizeof shown, "'%c'", c);
            else
                std::snprintf(shown, sizeof shown, "byte 0x%02X", uc);
            fail(tok.m_line, tok.m_column, std::string("unexpected character ") + shown);
        }
        m_tokens.push_back(std::move(tok));
    }
}

const RqToken& RqTextLexer::Peek(int ahead) const {
    const size_t i = m_pos + static_cast<size_t>(ahead);
    return i < m_tokens.size() ? m_tokens[i] : m_tokens.back();
}

RqToken RqTextLexer::Next() {
    RqToken tok = Peek();
    if (m_pos + 1 < m_tokens.size())
        ++m_pos;
    else
        m_pos = m_tokens.size() - 1;
    return tok;
}

bool RqTextLexer::AcceptPunct(std::string_view p) {
    if (!Peek().IsPunct(p))
        return false;
    Next();
    return true;
}

bool RqTextLexer::AcceptWord(std::string_view w) {
    if (!Peek().IsWord(w))
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
    if (!Peek().Is(RqTokenKind::kIdentifier))
        Expected(what);
    return Next().m_text;
}

int64_t RqTextLexer::ExpectInteger(std::string_view what) {
    if (!Peek().Is(RqTokenKind::kInteger))
        Expected(what);
    return Next().m_int;
}

std::string RqTextLexer::ExpectString(std::string_view what) {
    if (!Peek().Is(RqTokenKind::kString))
        Expected(what);
    return Next().m_text;
}

std::string RqTextLexer::ExpectName(std::string_view what) {
    if (!Peek().Is(RqTokenKind::kIdentifier) && !Peek().Is(RqTokenKind::kString))
        Expected(what);
    return Next().m_text;
}

void RqTextLexer::Expected(std::string_view what) const {
    Fail(Peek(), "expected " + std::string(what) + ", found " + Peek().Describe());
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
