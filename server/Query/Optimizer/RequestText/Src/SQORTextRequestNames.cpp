// The vocabulary of the request text: the forms of the kinds with a syntax of their own, kind
// names, keywords, enumerated words, blank nodes of any kind for the reader to fill in, and
// the fields that several classes share. Expanded from the kind table, so that a kind added
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

// The node kinds with a syntax of their own, with their keywords.
struct NodeFormRow {
    RqNodeType_e m_kind;
    NodeForm m_form;
    const char* m_word;
};
constexpr NodeFormRow kNodeForms[] = {
    {kRqHandleNode, NodeForm::kRequest, "request"},
    {kRqList, NodeForm::kList, "list"},
    {kRqUnion, NodeForm::kList, "union"},
    {kRqIntersect, NodeForm::kList, "intersect"},
    {kRqExcept, NodeForm::kList, "except"},
    {kRqSharedList, NodeForm::kList, "shared"},
    {kRqBreakFilter, NodeForm::kList, "breakfilter"},
    {kRqCacheList, NodeForm::kList, "cachelist"},
    {kRqProjection, NodeForm::kSelect, "select"},
    {kRqDerivedColumn, NodeForm::kColumn, "column"},
    {kRqDetailFilter, NodeForm::kFilter, "where"},
    {kRqSummaryFilter, NodeForm::kFilter, "summary"},
    {kRqHaving, NodeForm::kFilter, "having"},
    {kRqGroupBy, NodeForm::kGroupBy, "groupby"},
    {kRqOrderBy, NodeForm::kOrderBy, "orderby"},
    {kRqSortSpec, NodeForm::kSortKey, "key"},
    {kRqJoinSpec, NodeForm::kFrom, "from"},
    {kRqJoinNode, NodeForm::kJoinNode, "node"},
    {kRqTableReference, NodeForm::kJoin, "join"},
    {kRqJoinLink, NodeForm::kLink, "link"},
    {kRqAtomicTable, NodeForm::kTable, "table"},
    {kRqOpaqueTable, NodeForm::kTable, "opaque"},
    {kRqTransientOpaqueTable, NodeForm::kTable, "transient"},
    {kRqXSACacheTable, NodeForm::kTable, "xsatable"},
    {kRqVELDNativeTable, NodeForm::kTable, "native"},
    {kRqExternalTable, NodeForm::kTable, "external"},
    {kRqDerivedTable, NodeForm::kTable, "derived"},
    {kRqEntity, NodeForm::kEntity, "entity"},
    {kRqCache, NodeForm::kCache, "cache"},
    {kRqXSACache, NodeForm::kCache, "xsacache"},
};

// The clauses of a block and their slots.
constexpr std::pair<RqNodeType_e, int> kClauseSlots[] = {
    {kRqProjection, RqList::kProjectionChild},     {kRqJoinSpec, RqList::kJoinSpecChild},
    {kRqDetailFilter, RqList::kDetailFilterChild}, {kRqSummaryFilter, RqList::kSummaryFilterChild},
    {kRqGroupBy, RqList::kGroupByChild},           {kRqHaving, RqList::kHavingChild},
    {kRqOrderBy, RqList::kOrderByChild},
};

// The expression kinds with a syntax or fields of their own; the word begins a leaf.
struct ExprFormRow {
    RqNodeType_e m_kind;
    ExprForm m_form;
    const char* m_word;
};
constexpr ExprFormRow kExprForms[] = {
    {kRqExprParam, ExprForm::kNamed, nullptr},
    {kRqExprSessionVar, ExprForm::kNamed, nullptr},
    {kRqAttribute, ExprForm::kMetadata, nullptr},
    {kRqExprDimension, ExprForm::kMetadata, nullptr},
    {kRqExprLevel, ExprForm::kMetadata, nullptr},
    {kRqExprCast, ExprForm::kCast, nullptr},
    {kRqExprExternalData, ExprForm::kExternalData, nullptr},
    {kRqExprColumnList, ExprForm::kColumnList, nullptr},
    {kRqExprIntegerLiteral, ExprForm::kInteger, nullptr},
    {kRqExprFloatLiteral, ExprForm::kFloat, nullptr},
    {kRqExprStringLiteral, ExprForm::kString, nullptr},
    {kRqExprDateLiteral, ExprForm::kTypedText, "date"},
    {kRqExprTimeLiteral, ExprForm::kTypedText, "time"},
    {kRqExprDateTimeLiteral, ExprForm::kTypedText, "datetime"},
    {kRqExprIntervalLiteral, ExprForm::kTypedText, "interval"},
    {kRqExprNumberLiteral, ExprForm::kTypedText, "number"},
    {kRqExprNullLiteral, ExprForm::kNull, nullptr},
    {kRqTargetColumn, ExprForm::kTargetColumn, nullptr},
    {kRqTargetCubeColumn, ExprForm::kTargetColumn, "cubecol"},
    {kRqTargetCacheColumn, ExprForm::kTargetColumn, "cachecol"},
    {kRqDerivedColumnReference, ExprForm::kReference, nullptr},
};

template <class Row, size_t N>
const Row* FindRow(const Row (&rows)[N], RqNodeType_e kind) {
    for (const Row& row : rows) {
        if (row.m_kind == kind)
            return &row;
    }
    return nullptr;
}

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
    std::unordered_map<std::string, RqNodeType_e> m_leafWords;

    Names() {
        // Full class names always read; the short forms only where they are unambiguous.
        std::unordered_map<std::string, int> shortCount;
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            const auto kind = static_cast<RqNodeType_e>(value);
            if (RqIsAbstractNodeType(kind))
                continue;
            m_byName.emplace(RqNodeTypeName(kind), kind);
            ++shortCount[StripPrefix(RqNodeTypeName(kind))];
        }
        for (const Alias& alias : kAliases)
            ++shortCount[alias.m_name];
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            const auto kind = static_cast<RqNodeType_e>(value);
            if (RqIsAbstractNodeType(kind))
                continue;
            const std::string shortName = StripPrefix(RqNodeTypeName(kind));
            if (shortCount[shortName] == 1) {
                m_printed[value] = shortName;
                m_byName.emplace(shortName, kind);
            } else {
                m_printed[value] = RqNodeTypeName(kind);
            }
            if (!RqIsExprType(kind) && NodeFormOf(kind) == NodeForm::kGeneric) {
                m_nodeWords.emplace(m_printed[value], kind);
                m_nodeWords.emplace(RqNodeTypeName(kind), kind);
            }
        }
        for (const Alias& alias : kAliases) {
            m_printed[alias.m_kind] = alias.m_name;
            m_byName.emplace(alias.m_name, alias.m_kind);
        }
        for (const NodeFormRow& row : kNodeForms)
            m_nodeWords.emplace(row.m_word, row.m_kind);
        for (const ExprFormRow& row : kExprForms) {
            if (row.m_word != nullptr)
                m_leafWords.emplace(row.m_word, row.m_kind);
        }
    }
};

const Names& GetNames() {
    static const Names names;
    return names;
}

bool Find(const std::unordered_map<std::string, RqNodeType_e>& map, std::string_view name,
          RqNodeType_e& kind) {
    const auto it = map.find(std::string(name));
    if (it == map.end())
        return false;
    kind = it->second;
    return true;
}

// Fields that several classes carry without a common base, found by the class's interface.
template <class T>
concept HasNameField = requires(T& node, const ZKString& name) {
    { node.GetName() } -> std::convertible_to<const ZKString&>;
    node.SetName(name);
};
template <class T>
concept HasTextValue = requires(T& node, const ZKString& value) {
    { node.GetValue() } -> std::convertible_to<const ZKString&>;
    node.SetValue(value);
};
template <class T>
concept HasAllFlag = requires(T& node) {
    { node.IsAll() } -> std::convertible_to<bool>;
    node.SetAll(true);
};
template <class T>
concept HasMetadata = requires(const T& node) {
    { node.GetID() } -> std::convertible_to<const VoidID&>;
    { node.GetName() } -> std::convertible_to<const ZKString&>;
}
&&std::is_constructible_v<T, const VoidID&, const ZKString&>;

}  // namespace

NodeForm NodeFormOf(RqNodeType_e kind) {
    const NodeFormRow* row = FindRow(kNodeForms, kind);
    return row != nullptr ? row->m_form : NodeForm::kGeneric;
}

ExprForm ExprFormOf(RqNodeType_e kind) {
    if (const ExprFormRow* row = FindRow(kExprForms, kind))
        return row->m_form;
    return RqIsKindOf(kind, kRqExprAggr) ? ExprForm::kAggregate : ExprForm::kCall;
}

const char* FormWord(RqNodeType_e kind) {
    if (const NodeFormRow* row = FindRow(kNodeForms, kind))
        return row->m_word;
    const ExprFormRow* row = FindRow(kExprForms, kind);
    return row != nullptr ? row->m_word : nullptr;
}

bool NodeWordKind(std::string_view word, RqNodeType_e& kind) {
    return Find(GetNames().m_nodeWords, word, kind);
}

bool LeafWordKind(std::string_view word, RqNodeType_e& kind) {
    return Find(GetNames().m_leafWords, word, kind);
}

int ClauseSlot(RqNodeType_e kind) {
    for (const auto& [clause, slot] : kClauseSlots) {
        if (clause == kind)
            return slot;
    }
    return -1;
}

std::string KindName(RqNodeType_e kind) {
    const std::string& name = GetNames().m_printed[static_cast<size_t>(kind)];
    return name.empty() ? std::string(RqNodeTypeName(kind)) : name;
}

bool KindFromName(std::string_view name, RqNodeType_e& kind) {
    return Find(GetNames().m_byName, name, kind);
}

const std::vector<std::string>& ExprKindNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            const auto kind = static_cast<RqNodeType_e>(value);
            if (RqIsExprType(kind) && !RqIsAbstractNodeType(kind))
                out.push_back(KindName(kind));
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
            // Abstract kinds and markers have no node.
            return nullptr;
    }
}

bool GetNameField(const RqNode& node, std::string& utf8) {
    bool has = false;
    WithNodeClass(node, [&](const auto& named) {
        if constexpr (HasNameField<std::remove_const_t<std::remove_reference_t<decltype(named)>>>) {
            utf8 = named.GetName().ToUtf8();
            has = true;
        }
    });
    return has;
}

bool SetNameField(RqNode& node, std::string_view utf8) {
    bool has = false;
    WithNodeClass(node, [&](auto& named) {
        if constexpr (HasNameField<std::remove_reference_t<decltype(named)>>) {
            named.SetName(ZKString::FromUtf8(utf8));
            has = true;
        }
    });
    return has;
}

bool GetTextValue(const RqNode& node, ZKString& value) {
    bool has = false;
    WithNodeClass(node, [&](const auto& literal) {
        if constexpr (HasTextValue<
                          std::remove_const_t<std::remove_reference_t<decltype(literal)>>>) {
            value = literal.GetValue();
            has = true;
        }
    });
    return has;
}

bool SetTextValue(RqNode& node, const ZKString& value) {
    bool has = false;
    WithNodeClass(node, [&](auto& literal) {
        if constexpr (HasTextValue<std::remove_reference_t<decltype(literal)>>) {
            literal.SetValue(value);
            has = true;
        }
    });
    return has;
}

bool GetAllFlag(const RqNode& node, bool& value) {
    bool has = false;
    WithNodeClass(node, [&](const auto& setOperation) {
        if constexpr (HasAllFlag<
                          std::remove_const_t<std::remove_reference_t<decltype(setOperation)>>>) {
            value = setOperation.IsAll();
            has = true;
        }
    });
    return has;
}

bool SetAllFlag(RqNode& node, bool value) {
    bool has = false;
    WithNodeClass(node, [&](auto& setOperation) {
        if constexpr (HasAllFlag<std::remove_reference_t<decltype(setOperation)>>) {
            setOperation.SetAll(value);
            has = true;
        }
    });
    return has;
}

bool GetMetadata(const RqNode& node, VoidID& id, ZKString& name) {
    bool has = false;
    WithNodeClass(node, [&](const auto& reference) {
        if constexpr (HasMetadata<
                          std::remove_const_t<std::remove_reference_t<decltype(reference)>>>) {
            id = reference.GetID();
            name = reference.GetName();
            has = true;
        }
    });
    return has;
}

RqNode* MakeMetadataNode(RqNodeType_e kind, const VoidID& id, const ZKString& name) {
    Heap<RqNode> blank(MakeBlankNode(kind));
    if (!blank)
        return nullptr;
    RqNode* made = nullptr;
    WithNodeClass(*blank, [&](auto& reference) {
        using C = std::remove_reference_t<decltype(reference)>;
        if constexpr (HasMetadata<C>)
            made = RQ_NEW C(id, name);
    });
    return made;
}

int GetAggrFlags(const RqExprAggr& aggr) {
    return (aggr.IsDistinctAggregation() ? kAggrDistinct : 0) |
           (aggr.IsSQL99Aggregation() ? kAggrSQL99 : 0) |
           (aggr.HasDistinctComputeBreak() ? kAggrDistinctCompute : 0) |
           (aggr.HasExplicitGrain() ? kAggrGrain : 0) | (aggr.IsAnalytic() ? kAggrAnalytic : 0) |
           (aggr.IsInstantiated() ? 0 : kAggrUninstantiated);
}

void SetAggrFlags(RqExprAggr& aggr, int flags) {
    aggr.SetDistinctAggregation((flags & kAggrDistinct) != 0);
    aggr.SetSQL99Aggregation((flags & kAggrSQL99) != 0);
    aggr.SetDistinctComputeBreak((flags & kAggrDistinctCompute) != 0);
    aggr.SetExplicitGrain((flags & kAggrGrain) != 0);
    aggr.SetAnalytic((flags & kAggrAnalytic) != 0);
    aggr.SetInstantiated((flags & kAggrUninstantiated) == 0);
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
const EnumWord kAggrFlagWords[6] = {
    {kAggrDistinct, "distinct"},
    {kAggrSQL99, "sql99"},
    {kAggrDistinctCompute, "distinctcompute"},
    {kAggrGrain, "grain"},
    {kAggrAnalytic, "analytic"},
    {kAggrUninstantiated, "uninstantiated"},
};

}  // namespace rqtext
