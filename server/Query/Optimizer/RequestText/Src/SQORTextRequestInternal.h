#pragma once
// What the request writer and reader share: the names of node kinds in the text, the words
// of enumerated fields, and how a node of any kind is made before its fields are read.
// Both sides take their vocabulary from here so that what one prints the other reads.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Query/Optimizer/Request/SQORRqNodeType.h"

class RqNode;

namespace rqtext {

// Nesting beyond this many levels is refused by both sides: the reader and the writer
// recurse once per level, and a request this deep is a generator gone wrong, not a query.
inline constexpr int kMaxDepth = 2000;
// Stack that must remain free when entering one more level, so that a thread with a small
// stack fails cleanly before the depth limit is reached.
inline constexpr std::size_t kStackReserve = 128 * 1024;

// The name an expression kind prints with: its short alias (Eq, Sum, ...) when it has one,
// else its class name without the "RqExpr"/"Rq" prefix (Upper, AggrRank, Attribute).
std::string ExprKindName(RqNodeType_e kind);
// The name a node kind without a keyword of its own prints with (Write, NullNode, ...).
std::string NodeKindName(RqNodeType_e kind);
// Reads an alias, a class name without its prefix or a full class name. Only concrete
// kinds are found; false otherwise.
bool KindFromName(std::string_view name, RqNodeType_e& kind);
// The names expressions print with, for suggestions when a name is misspelt.
const std::vector<std::string>& ExprKindNames();

// A node of a concrete kind with its fields at their defaults and no children (constructors
// that make default children have them removed). Null for abstract kinds and markers.
RqNode* MakeBlankNode(RqNodeType_e kind);

// The name field of the node classes that carry one (write requests and the other named
// request nodes): false for a class without it. Expressions are not covered: their named
// fields have syntaxes of their own.
bool GetNodeName(const RqNode& node, std::string& utf8);
bool SetNodeName(RqNode& node, std::string_view utf8);

// The keyword of the node kinds that have a syntax of their own (list, where, table, ...);
// null for the others, which print under their kind name.
const char* NodeKeyword(RqNodeType_e kind);
// The node kind `word` starts: a keyword, or the name of a kind that is not an expression
// (an expression's name is followed by its operands in parentheses). False for other words.
bool NodeWordKind(std::string_view word, RqNodeType_e& kind);

// Enumerated fields: the word of a value and the value of a word (false when unknown).
struct EnumWord {
    int m_value;
    const char* m_word;
};
const char* WordOf(const EnumWord* table, std::size_t count, int value);
bool ValueOf(const EnumWord* table, std::size_t count, std::string_view word, int& value);

extern const EnumWord kJoinTypeWords[6];
extern const EnumWord kDrivingWords[2];
extern const EnumWord kDirectionWords[3];
extern const EnumWord kNullOrderWords[3];
extern const EnumWord kGroupByModeWords[3];
extern const EnumWord kExternalFormWords[2];
extern const EnumWord kBreakStatusWords[3];

}  // namespace rqtext
