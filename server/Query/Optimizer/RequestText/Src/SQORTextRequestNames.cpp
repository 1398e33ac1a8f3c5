// The vocabulary of the request text: kind names, keywords, enumerated words, and blank nodes
// of any kind for the reader to fill in. Expanded from the kind table, so that a kind added
// there prints and reads under its class name without a change here.

#include <array>
#include <concepts>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "Query/Optimizer/Request/SQORRqList.h"
#include "SQORTextRequestInternal.h"

namespace rqtext {

namespace {

// Short names for the kinds that requests use most; everything else prints under its class
// name without the prefix.
struct Alias {
    RqNodeType_e m_kind;
    const char* m_name;
};
constexpr Alias kAliases[] = {
    {kRqExprCondEquality, "Eq"},
    {kRqExprCondNotEqual, "Ne"},
    {kRqExprCondLess, "Lt"},
    {kRqExprCondLessEqual, "Le"},
    {kRqExprCondGreater, "Gt"},
    {kRqExprCondGreaterEqual, "Ge"},
    {kRqExprCondAnd, "And"},
    {kRqExprCondOr, "Or"},
    {kRqExprCondNot, "Not"},
    {kRqExprCondIsNull, "IsNull"},
    {kRqExprCondBetween, "Between"},
    {kRqExprCondLike, "Like"},
    {kRqExprCondIn, "In"},
    {kRqExprCondExists, "Exists"},
    {kRqExprSubtract, "Sub"},
    {kRqExprMultiply, "Mul"},
    {kRqExprDivide, "Div"},
    {kRqExprUnaryMinus, "Neg"},
    {kRqExprAggrSum, "Sum"},
    {kRqExprAggrCount, "Count"},
    {kRqExprAggrCountStar, "CountStar"},
    {kRqExprAggrAvg, "Avg"},
    {kRqExprAggrMin, "Min"},
    {kRqExprAggrMax, "Max"},
    {kRqExprAggrRank, "Rank"},
    {kRqExprAggrRowNum, "RowNum"},
    {kRqExprLogicalSubquery, "Subquery"},
};

// Node kinds with a syntax of their own.
struct Keyword {
    RqNodeType_e m_kind;
    const char* m_word;
};
constexpr Keyword kKeywords[] = {
    {kRqHandleNode, "request"},
    {kRqList, "list"},
    {kRqUnion, "union"},
    {kRqIntersect, "intersect"},
    {kRqExcept, "except"},
    {kRqSharedList, "shared"},
    {kRqBreakFilter, "breakfilter"},
    {kRqCacheList, "cachelist"},
    {kRqProjection, "select"},
    {kRqDerivedColumn, "column"},
    {kRqDetailFilter, "where"},
    {kRqSummaryFilter, "summary"},
    {kRqHaving, "having"},
    {kRqGroupBy, "groupby"},
    {kRqOrderBy, "orderby"},
    {kRqSortSpec, "key"},
    {kRqJoinSpec, "from"},
    {kRqJoinNode, "node"},
    {kRqTableReference, "join"},
    {kRqJoinLink, "link"},
    {kRqAtomicTable, "table"},
    {kRqOpaqueTable, "opaque"},
    {kRqTransientOpaqueTable, "transient"},
    {kRqXSACacheTable, "xsatable"},
    {kRqVELDNativeTable, "native"},
    {kRqExternalTable, "external"},
    {kRqDerivedTable, "derived"},
    {kRqEntity, "entity"},
    {kRqCache, "cache"},
    {kRqXSACache, "xsacache"},
};

std::string StripPrefix(std::string_view name) {
    if (name.starts_with("RqExpr") && name.size() > 6)
        return std::string(name.substr(6));
    if (name.starts_with("Rq") && name.size() > 2)
        return std::string(name.substr(2));
    return std::string(name);
}

// A blank node of class T. Generated expression classes have no default constructor (their
// constructors take operands); aggregates and subqueries take their first part.
template <class T>
RqNode* MakeBlankOf() {
    RqNode* node = nullptr;
    if constexpr (std::is_default_constructible_v<T>) {
        node = RQ_NEW T();
    } else if constexpr (std::is_constructible_v<T, std::initializer_list<RqExpr*>>) {
        node = RQ_NEW T(std::initializer_list<RqExpr*>{});
    } else {
        static_assert(std::is_constructible_v<T, std::nullptr_t>,
                      "a node class needs a constructor the text reader can call");
        node = RQ_NEW T(nullptr);
    }
    node->SetNumChildren(0);
    return node;
}

struct Names {
    std::array<std::string, kRqNodeTypeCount> m_printed;
    std::unordered_map<std::string, RqNodeType_e> m_byName;
    std::unordered_map<std::string, RqNodeType_e> m_nodeWords;

    Names() {
        std::array<bool, kRqNodeTypeCount> concrete{};
#define RQ_CONCRETE_G(kind) concrete[kind] = true;
#define RQ_CONCRETE_H(kind) concrete[kind] = true;
#define RQ_CONCRETE_A(kind)
#define RQ_CONCRETE_N(kind)
#define RQ_ROW_K(kind, decl) RQ_CONCRETE_##decl(kind)
#define RQ_ROW_C(kind, decl)
#define RQ_ROW_M(kind, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_ROW_##row(kind, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_ROW_K
#undef RQ_ROW_C
#undef RQ_ROW_M
#undef RQ_CONCRETE_G
#undef RQ_CONCRETE_H
#undef RQ_CONCRETE_A
#undef RQ_CONCRETE_N
        // Full class names always read; the short forms only where they are unambiguous.
        std::unordered_map<std::string, int> shortCount;
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            if (!concrete[value])
                continue;
            const auto kind = static_cast<RqNodeType_e>(value);
            m_byName.emplace(RqNodeTypeName(kind), kind);
            ++shortCount[StripPrefix(RqNodeTypeName(kind))];
        }
        for (const Alias& alias : kAliases)
            ++shortCount[alias.m_name];
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            if (!concrete[value])
                continue;
            const auto kind = static_cast<RqNodeType_e>(value);
            const std::string shortName = StripPrefix(RqNodeTypeName(kind));
            if (shortCount[shortName] == 1) {
                m_printed[value] = shortName;
                m_byName.emplace(shortName, kind);
            } else {
                m_printed[value] = RqNodeTypeName(kind);
            }
            if (!RqIsExprType(kind) && NodeKeyword(kind) == nullptr) {
                m_nodeWords.emplace(m_printed[value], kind);
                m_nodeWords.emplace(RqNodeTypeName(kind), kind);
            }
        }
        for (const Alias& alias : kAliases) {
            m_printed[alias.m_kind] = alias.m_name;
            m_byName.emplace(alias.m_name, alias.m_kind);
        }
        for (const Keyword& keyword : kKeywords)
            m_nodeWords.emplace(keyword.m_word, keyword.m_kind);
    }
};

const Names& GetNames() {
    static const Names names;
    return names;
}

}  // namespace

std::string ExprKindName(RqNodeType_e kind) {
    const std::string& name = GetNames().m_printed[static_cast<size_t>(kind)];
    return name.empty() ? std::string(RqNodeTypeName(kind)) : name;
}

std::string NodeKindName(RqNodeType_e kind) {
    return ExprKindName(kind);
}

bool KindFromName(std::string_view name, RqNodeType_e& kind) {
    const auto& byName = GetNames().m_byName;
    const auto it = byName.find(std::string(name));
    if (it == byName.end())
        return false;
    kind = it->second;
    return true;
}

const std::vector<std::string>& ExprKindNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            const auto kind = static_cast<RqNodeType_e>(value);
            if (RqIsNodeTypeValue(value) && RqIsExprType(kind) && !RqIsAbstractNodeType(kind))
                out.push_back(ExprKindName(kind));
        }
        return out;
    }();
    return names;
}

RqNode* MakeBlankNode(RqNodeType_e kind) {
    switch (kind) {
#define RQ_MAKE_G(kind, cls) \
    case kind:               \
        return MakeBlankOf<cls>();
#define RQ_MAKE_H(kind, cls) RQ_MAKE_G(kind, cls)
#define RQ_MAKE_A(kind, cls)
#define RQ_MAKE_N(kind, cls)
#define RQ_MAKE_ROW_K(kind, cls, decl) RQ_MAKE_##decl(kind, cls)
#define RQ_MAKE_ROW_C(kind, cls, decl)
#define RQ_MAKE_ROW_M(kind, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_MAKE_ROW_##row(kind, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_MAKE_ROW_K
#undef RQ_MAKE_ROW_C
#undef RQ_MAKE_ROW_M
#undef RQ_MAKE_G
#undef RQ_MAKE_H
#undef RQ_MAKE_A
#undef RQ_MAKE_N
        default:
            return nullptr;
    }
}

namespace {

template <class T>
concept NamedNodeClass = !std::is_base_of_v<RqExpr, T> && requires(T & node, const ZKString& name) {
    { node.GetName() } -> std::convertible_to<const ZKString&>;
    node.SetName(name);
};

// Calls `action` with the node as its class when the class carries a name field.
template <class N, class F>
bool WithNamedNode(N& node, F&& action) {
    switch (node.GetObjectType()) {
#define RQ_NAMED_G(kind, cls)                                                 \
    case kind:                                                                \
        if constexpr (NamedNodeClass<cls>) {                                  \
            using C = std::conditional_t<std::is_const_v<N>, const cls, cls>; \
            action(static_cast<C&>(node));                                    \
            return true;                                                      \
        } else {                                                              \
            return false;                                                     \
        }
#define RQ_NAMED_H(kind, cls) RQ_NAMED_G(kind, cls)
#define RQ_NAMED_A(kind, cls)
#define RQ_NAMED_N(kind, cls)
#define RQ_NAMED_ROW_K(kind, cls, decl) RQ_NAMED_##decl(kind, cls)
#define RQ_NAMED_ROW_C(kind, cls, decl)
#define RQ_NAMED_ROW_M(kind, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_NAMED_ROW_##row(kind, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_NAMED_ROW_K
#undef RQ_NAMED_ROW_C
#undef RQ_NAMED_ROW_M
#undef RQ_NAMED_G
#undef RQ_NAMED_H
#undef RQ_NAMED_A
#undef RQ_NAMED_N
        default:
            return false;
    }
}

}  // namespace

bool GetNodeName(const RqNode& node, std::string& utf8) {
    return WithNamedNode(node, [&](const auto& named) { utf8 = named.GetName().ToUtf8(); });
}

bool SetNodeName(RqNode& node, std::string_view utf8) {
    return WithNamedNode(node, [&](auto& named) { named.SetName(ZKString::FromUtf8(utf8)); });
}

const char* NodeKeyword(RqNodeType_e kind) {
    for (const Keyword& keyword : kKeywords) {
        if (keyword.m_kind == kind)
            return keyword.m_word;
    }
    return nullptr;
}

bool NodeWordKind(std::string_view word, RqNodeType_e& kind) {
    const auto& words = GetNames().m_nodeWords;
    const auto it = words.find(std::string(word));
    if (it == words.end())
        return false;
    kind = it->second;
    return true;
}

const char* WordOf(const EnumWord* table, std::size_t count, int value) {
    for (std::size_t i = 0; i < count; ++i) {
        if (table[i].m_value == value)
            return table[i].m_word;
    }
    return nullptr;
}

bool ValueOf(const EnumWord* table, std::size_t count, std::string_view word, int& value) {
    for (std::size_t i = 0; i < count; ++i) {
        if (word == table[i].m_word) {
            value = table[i].m_value;
            return true;
        }
    }
    return false;
}

const EnumWord kJoinTypeWords[6] = {
    {SqlTableRef::kInnerJoin, "inner"},
    {SqlTableRef::kLeftOuterJoin, "left"},
    {SqlTableRef::kRightOuterJoin, "right"},
    {SqlTableRef::kFullOuterJoin, "full"},
    {SqlTableRef::kFullOuterStitchJoin, "fullstitch"},
    {SqlTableRef::kNaturalJoin, "natural"},
};
const EnumWord kDrivingWords[2] = {
    {RqTableReference::kDriving_LeftTable, "left"},
    {RqTableReference::kDriving_RightTable, "right"},
};
const EnumWord kDirectionWords[3] = {
    {RqSortSpec::kAsc, "asc"},
    {RqSortSpec::kDesc, "desc"},
    {RqSortSpec::kEitherDirection, "either"},
};
const EnumWord kNullOrderWords[3] = {
    {RqSortSpec::kFirst, "first"},
    {RqSortSpec::kLast, "last"},
    {RqSortSpec::kNoCare, "any"},
};
const EnumWord kGroupByModeWords[3] = {
    {RqGroupBy::kUnknown, "unknown"},
    {RqGroupBy::kHash, "hash"},
    {RqGroupBy::kSort, "sort"},
};
const EnumWord kExternalFormWords[2] = {
    {RqExprExternalData::kCSVData, "csv"},
    {RqExprExternalData::kUnknownData, "unknown"},
};
const EnumWord kBreakStatusWords[3] = {
    {RqDerivedColumn::kNoDuplicates, "nodup"},
    {RqDerivedColumn::kAllowDuplicates, "dup"},
    {RqDerivedColumn::kLobData, "lob"},
};

}  // namespace rqtext
