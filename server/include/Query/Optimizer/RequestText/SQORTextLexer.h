#pragma once
// The lexical layer shared by the request and catalog text formats, and the small helpers
// both printers use. Texts are UTF-8; names and strings come out of the lexer as UTF-8 too
// and are widened where they enter the request tree or the repository.
//
// Tokens:
//   identifiers   [A-Za-z_][A-Za-z0-9_]*
//   integers      -?[0-9]+               (the minus only when a digit follows at once)
//   floats        -?[0-9]+.[0-9]+([eE][+-]?[0-9]+)?, or an integer with an exponent
//   identifiers   3:17                   (a repository identifier, no blanks inside)
//   strings       "..." with the escapes \" \\ \n \t \r and \u{hex}
//   labels        @name or @"any text"
//   anchors       $name                  (names an unlabelled block within one text)
//   punctuation   { } ( ) [ ] , = : ; . -> * -
//   comments      from # to the end of the line
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// A malformed text: where it went wrong and what was expected there. what() reads
// "file:line:column: message", the form editors and compilers use.
class RqTextError : public std::exception {
public:
    RqTextError(std::string file, int line, int column, std::string message);
    const std::string& GetFile() const { return m_file; }
    int GetLine() const { return m_line; }
    int GetColumn() const { return m_column; }
    const std::string& GetMessage() const { return m_message; }
    const char* what() const noexcept override { return m_what.c_str(); }

private:
    std::string m_file;
    int m_line;
    int m_column;
    std::string m_message;
    std::string m_what;
};

enum class RqTokenKind {
    kEnd,
    kIdentifier,
    kInteger,
    kFloat,
    kVoidID,
    kString,
    kLabel,
    kAnchor,
    kPunct,
};

struct RqToken {
    RqTokenKind m_kind = RqTokenKind::kEnd;
    // Identifier, punctuation, the label's name or the string's decoded content (UTF-8);
    // for numbers and identifiers of repository objects, the text as written.
    std::string m_text;
    int64_t m_int = 0;
    double m_float = 0;
    int m_line = 1;
    int m_column = 1;

    bool Is(RqTokenKind kind) const { return m_kind == kind; }
    bool IsPunct(std::string_view p) const { return m_kind == RqTokenKind::kPunct && m_text == p; }
    bool IsWord(std::string_view w) const {
        return m_kind == RqTokenKind::kIdentifier && m_text == w;
    }
    // How the token is named in an error message: `word`, "string", end of input, ...
    std::string Describe() const;
};

// The largest text either format reads. A text this large is not a request anybody wrote,
// and refusing it up front keeps a reader from holding an arbitrary amount of memory.
inline constexpr std::size_t kRqTextMaxInputBytes = std::size_t{256} * 1024 * 1024;

class RqTextScanner;

// Cuts the text into tokens as the parser asks for them, with one token of look-ahead and
// more on request. Only the tokens not yet consumed are held, so memory follows what has been
// parsed, and the first error in the text (of a token or of the grammar) ends the reading
// without the rest of the text being looked at. A leading UTF-8 byte-order mark is skipped.
class RqTextLexer {
public:
    // Throws RqTextError when the text is larger than kRqTextMaxInputBytes. A character or
    // an escape that no token can start with, an unterminated string or a number out of
    // range throws RqTextError when the parser reaches it.
    RqTextLexer(std::string_view text, std::string fileName);
    ~RqTextLexer();
    RqTextLexer(const RqTextLexer&) = delete;
    RqTextLexer& operator=(const RqTextLexer&) = delete;

    const std::string& GetFileName() const { return m_fileName; }
    // A copy, so that a token the parser keeps stays valid however far it reads on.
    RqToken Peek(int ahead = 0) const { return Ahead(ahead); }
    RqToken Next();
    bool AtEnd() const { return Ahead(0).Is(RqTokenKind::kEnd); }

    // Consume the token when it is this punctuation / this word.
    bool AcceptPunct(std::string_view p);
    bool AcceptWord(std::string_view w);
    // Consume the token or fail with "expected ...".
    void ExpectPunct(std::string_view p);
    void ExpectWord(std::string_view w);
    std::string ExpectIdentifier(std::string_view what);
    int64_t ExpectInteger(std::string_view what);
    std::string ExpectString(std::string_view what);
    // A name: an identifier or a string.
    std::string ExpectName(std::string_view what);

    // Fails at a token / at the next token: "expected <what>, found <token>".
    [[noreturn]] void Expected(std::string_view what) const;
    [[noreturn]] void Fail(const RqToken& at, const std::string& message) const;

private:
    // The token `ahead` places past the next one, scanned when first asked for.
    const RqToken& Ahead(int ahead) const;

    std::string m_fileName;
    std::unique_ptr<RqTextScanner> m_pScanner;
    // The tokens scanned but not consumed; the last is the end once the text is used up.
    mutable std::deque<RqToken> m_ahead;
};

// Printing helpers shared by the formats.
class RqTextOut {
public:
    // A string literal with the escapes the lexer reads.
    static std::string Quote(std::string_view utf8);
    // The name as an identifier when it is one, else as a quoted string.
    static std::string Name(std::string_view utf8);
    static bool IsIdentifier(std::string_view utf8);
    // A label token: @name or @"text".
    static std::string Label(std::string_view utf8);
    // The shortest text that reads back as the same double, always with a '.' or an
    // exponent so that it reads back as a float; nan and inf are words.
    static std::string Float(double value);
};
