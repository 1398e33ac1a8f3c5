#pragma once
// What the request writer, reader and comparison share: how each node kind is written (its
// form), the names of node kinds in the text, the words of enumerated fields, and how a node
// of any kind is made before its fields are read. Every side takes its vocabulary from here
// so that what one prints the other reads.
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Query/Optimizer/Request/SQORRqList.h"

namespace rqtext {

// Nesting beyond this many levels of the text is refused by the reader, the one place that
// limits depth: the writer, the verifier and the rules take any tree the reader accepted,
// and at this depth (about 1,000 nested derived tables) they all fit in a main thread's
// stack with room to spare. A request this deep is a generator gone wrong, not a query.
inline constexpr int kMaxDepth = 4000;
// Stack that must remain free when entering one more level, so that a thread with a small
// stack fails cleanly before the depth limit is reached.
inline constexpr std::size_t kStackReserve = 128 * 1024;

// ---- Forms ---------------------------------------------------------------------------------
// The kinds with a syntax of their own are listed once, with their form and keyword, in the
// tables of SQORTextRequestNames.cpp. Every other node kind has the generic form and every
// other expression kind the call form, both taken from the kind table, so that a kind added
// there reads and prints without a change to the format. The writer and the reader switch
// over these enumerations without a default, so a new form cannot be forgotten by either.

enum class NodeForm {
    kGeneric,   // KindName ["name"] [annotation] { children }
    kRequest,   // request
    kList,      // list, union, intersect, except, breakfilter, cachelist, shared
    kSelect,    // select
    kColumn,    // column: a derived column outside a select list
    kFilter,    // where, summary, having
    kGroupBy,   // groupby
    kOrderBy,   // orderby
    kSortKey,   // key: a sort key outside an order-by
    kFrom,      // from
    kJoinNode,  // node
    kJoin,      // join: a table reference
    kLink,      // link
    kTable,     // table, opaque, transient, xsatable, native, external, derived
    kEntity,    // entity
    kCache,     // cache, xsacache
};

enum class ExprForm {
    kCall,          // Name(operands): every expression kind not listed
    kAggregate,     // every kind below RqExprAggr: measure, parameters, by=, compute=, flags
    kNamed,         // Param(name=P), SessionVar(name=V)
    kMetadata,      // Attribute(id=, name=), Dimension(...), Level(...)
    kCast,          // Cast(x, type=T)
    kExternalData,  // ExternalData(form=, data=)
    kColumnList,    // (a, b), or ColumnList(a, b, sorted)
    kInteger,       // 42
    kFloat,         // 1.5, nan, inf, -inf
    kString,        // "text"
    kTypedText,     // date "...", time, datetime, interval, number
    kNull,          // null
    kTargetColumn,  // t1.NAME, cubecol t1.NAME, cachecol t1.NAME
    kReference,     // @label.N, $1.N, ref(none)
};

NodeForm NodeFormOf(RqNodeType_e kind);
ExprForm ExprFormOf(RqNodeType_e kind);
// The keyword of a node kind with a form of its own (list, where, table, ...), or the word
// that begins a leaf expression (date, cubecol, ...); null for the other kinds.
const char* FormWord(RqNodeType_e kind);
// The node kind `word` starts: a keyword, or the name of a kind that is not an expression
// (an expression's name is followed by its operands in parentheses). False for other words.
bool NodeWordKind(std::string_view word, RqNodeType_e& kind);
// The leaf expression kind that `word` begins (date, time, ..., cubecol, cachecol).
bool LeafWordKind(std::string_view word, RqNodeType_e& kind);
// The child slot of a block (RqList) that holds a clause of `kind`; -1 for other kinds.
int ClauseSlot(RqNodeType_e kind);

// ---- Kind names ----------------------------------------------------------------------------

// The name an expression kind prints with: its short alias (Eq, Sum, ...) when it has one,
// else its class name without the "RqExpr"/"Rq" prefix (Upper, AggrRank, Attribute). Node
// kinds of the generic form print with the same names (Write, NullNode).
std::string KindName(RqNodeType_e kind);
// Reads an alias, a class name without its prefix or a full class name. Only concrete
// kinds are found; false otherwise.
bool KindFromName(std::string_view name, RqNodeType_e& kind);
// The names expressions print with, for suggestions when a name is misspelt.
const std::vector<std::string>& ExprKindNames();

// ---- Nodes of any kind ---------------------------------------------------------------------

// A node of a concrete kind with its fields at their defaults and no children (constructors
// that make default children have them removed). Null for abstract kinds and markers.
RqNode* MakeBlankNode(RqNodeType_e kind);

// Calls `action` with the node as the class of its kind, so that a field that several classes
// carry without a common base (the name of write requests, the `all` flag of set operations,
// the value of text literals) is reached through the class's own interface, without a list
// of those classes. A node's kind is always concrete, so every kind it can have has a case.
template <class N, class F>
void WithNodeClass(N& node, F&& action) {
    switch (node.GetObjectType()) {
#define RQ_WITH_G(kind, cls)                                              \
    case kind: {                                                          \
        using C = std::conditional_t<std::is_const_v<N>, const cls, cls>; \
        action(static_cast<C&>(node));                                    \
        return;                                                           \
    }
#define RQ_WITH_H(kind, cls) RQ_WITH_G(kind, cls)
#define RQ_WITH_A(kind, cls)
#define RQ_WITH_N(kind, cls)
#define RQ_WITH_ROW_K(kind, cls, decl) RQ_WITH_##decl(kind, cls)
#define RQ_WITH_ROW_C(kind, cls, decl)
#define RQ_WITH_ROW_M(kind, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_WITH_ROW_##row(kind, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_WITH_ROW_K
#undef RQ_WITH_ROW_C
#undef RQ_WITH_ROW_M
#undef RQ_WITH_G
#undef RQ_WITH_H
#undef RQ_WITH_A
#undef RQ_WITH_N
        default:
            ZK_LOGIC_ERROR(L"a node whose kind has no class");
    }
}

// The name field of the classes that carry one: write requests and the other named request
// nodes, parameters and session variables. False for a class without it.
bool GetNameField(const RqNode& node, std::string& utf8);
bool SetNameField(RqNode& node, std::string_view utf8);
// The text value of the literals kept as text (strings, dates, times, intervals, decimals).
bool GetTextValue(const RqNode& node, ZKString& value);
bool SetTextValue(RqNode& node, const ZKString& value);
// The `all` flag of the set operations.
bool GetAllFlag(const RqNode& node, bool& value);
bool SetAllFlag(RqNode& node, bool value);
// The metadata references (attributes, dimensions, levels, entities): an identifier and a
// name, which their classes take through their constructors only.
bool GetMetadata(const RqNode& node, VoidID& id, ZKString& name);
RqNode* MakeMetadataNode(RqNodeType_e kind, const VoidID& id, const ZKString& name);

// The node's own fields as the writer prints them, with its children, its annotation and
// whatever depends on the rest of the tree (anchors, where references point) left out:
// what the comparison of two trees checks besides the nodes' getters.
std::string OwnFieldsText(const RqNode& node);

// ---- Enumerated fields ---------------------------------------------------------------------

// The word of a value and the value of a word (false when unknown).
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
extern const EnumWord kAggrFlagWords[6];

// The flags of an aggregate, as bits of one word each.
enum AggrFlag {
    kAggrDistinct = 1,
    kAggrSQL99 = 2,
    kAggrDistinctCompute = 4,
    kAggrGrain = 8,
    kAggrAnalytic = 16,
    kAggrUninstantiated = 32,
};
int GetAggrFlags(const RqExprAggr& aggr);
void SetAggrFlags(RqExprAggr& aggr, int flags);

}  // namespace rqtext
