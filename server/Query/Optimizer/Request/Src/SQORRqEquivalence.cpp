// Equivalence of request-tree nodes, the orderings built on it, and the own-field
// comparisons of the node classes.
//
// What each class adds to the meaning of its nodes is declared once, below, as OwnFields<T>:
// the fields compared by value and the links (non-owning pointers to other nodes) that the
// walk compares by where they lead. A table expanded from the kind table chains each kind's
// class with its bases. A class written by hand that declares nothing does not compile into
// that table, so a new kind can never be compared by its base's fields alone by oversight;
// generated classes hold nothing but their operands and need no declaration.

#include "Query/Optimizer/Request/SQORRqEquivalence.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <compare>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

int Sign(int value) {
    return (value > 0) - (value < 0);
}

template <class T>
int Cmp(const T& a, const T& b) {
    if (a < b)
        return -1;
    if (b < a)
        return 1;
    return 0;
}

int Cmp(const ZKString& a, const ZKString& b) {
    return Sign(a.compare(b));
}

int Cmp(const VoidID& a, const VoidID& b) {
    const std::strong_ordering order = a <=> b;
    return std::is_lt(order) ? -1 : (std::is_gt(order) ? 1 : 0);
}

template <class E>
requires std::is_enum_v<E>
int CmpEnum(E a, E b) {
    return Cmp(static_cast<int>(a), static_cast<int>(b));
}

// NaN cannot be ordered by value: compared with `<` it would tie with every number, and so
// be equivalent to all of them. Every NaN is the same value here (a literal NaN means "not a
// number", whatever its sign or payload), placed after every number, which keeps the order
// total. Zero and negative zero are one value, as every comparison in a query sees them.
int CmpDouble(double a, double b) {
    const bool aNaN = std::isnan(a);
    const bool bNaN = std::isnan(b);
    if (aNaN || bNaN)
        return Cmp(aNaN, bNaN);
    return Cmp(a, b);
}

template <class T>
int CmpPtr(const T* a, const T* b) {
    if (a == b)
        return 0;
    return std::less<const T*>()(a, b) ? -1 : 1;
}

// The first non-zero of a sequence of comparisons.
template <class... Ints>
int FirstDiff(Ints... results) {
    int out = 0;
    ((out = out != 0 ? out : results), ...);
    return out;
}

using LinkPair = std::pair<const RqNode*, const RqNode*>;
using LinkPairs = std::vector<LinkPair>;

// ---- What each class adds to the meaning of its nodes -------------------------------------
//
// OwnFields<T> describes what class T itself, not its bases, adds:
//   kNames     the names of the fields compared (ComparedFields reports them);
//   Compare    a three-way comparison of those fields of two nodes of the class;
//   kHasLinks  whether the class holds links, and Links, which appends them pairwise.
// Every class that the kind table marks as written by hand or abstract declares one; the
// fields it leaves out are named at its declaration with the reason.
template <class T>
struct OwnFields;

struct NoLinks {
    static constexpr bool kHasLinks = false;
    template <class T>
    static void Links(const T&, const T&, LinkPairs&) {}
};

// A class without data members: its nodes mean what its base's nodes mean. The size check
// stops a member added later from going unnoticed.
template <class T>
struct NoOwnFields : NoLinks {
    static_assert(sizeof(T) == sizeof(typename RqClassTraits<T>::Base),
                  "a class with data members must declare which of them the equivalence compares");
    static constexpr std::array<const char*, 0> kNames{};
    static int Compare(const T&, const T&) { return 0; }
};

// A class whose data members never change a result: execution choices and bookkeeping.
template <class T>
struct IgnoredFields : NoLinks {
    static constexpr std::array<const char*, 0> kNames{};
    static int Compare(const T&, const T&) { return 0; }
};

#define RQ_NO_OWN_FIELDS(cls) \
    template <>               \
    struct OwnFields<cls> : NoOwnFields<cls> {};
#define RQ_IGNORED_FIELDS(cls) \
    template <>                \
    struct OwnFields<cls> : IgnoredFields<cls> {};

// Told apart by their kind and their children alone.
RQ_NO_OWN_FIELDS(RqNullNode)
RQ_NO_OWN_FIELDS(RqHandleNode)
RQ_NO_OWN_FIELDS(RqDetailFilter)
RQ_NO_OWN_FIELDS(RqSummaryFilter)
RQ_NO_OWN_FIELDS(RqHaving)
RQ_NO_OWN_FIELDS(RqJoinSpec)
RQ_NO_OWN_FIELDS(RqAtomicTable)
RQ_NO_OWN_FIELDS(RqOpaqueTable)
RQ_NO_OWN_FIELDS(RqXSACacheTable)
RQ_NO_OWN_FIELDS(RqVELDNativeTable)
RQ_NO_OWN_FIELDS(RqXSACache)
RQ_NO_OWN_FIELDS(RqExpr)
RQ_NO_OWN_FIELDS(RqExprCond)
RQ_NO_OWN_FIELDS(RqExprCondEqualityOperator)
RQ_NO_OWN_FIELDS(RqExprCondConnective)
RQ_NO_OWN_FIELDS(RqExprCondAnd)
RQ_NO_OWN_FIELDS(RqExprCondOr)
RQ_NO_OWN_FIELDS(RqColumn)
RQ_NO_OWN_FIELDS(RqTargetCubeColumn)
RQ_NO_OWN_FIELDS(RqTargetCacheColumn)
RQ_NO_OWN_FIELDS(RqExprLiteral)
RQ_NO_OWN_FIELDS(RqExprNullLiteral)
RQ_NO_OWN_FIELDS(RqExprSubquery)
RQ_NO_OWN_FIELDS(RqExprLogicalSubquery)
RQ_NO_OWN_FIELDS(RqExprPhysicalSubquery)
RQ_NO_OWN_FIELDS(RqExprPersistSubquery)
RQ_NO_OWN_FIELDS(RqExprColumnListOrdered)
RQ_NO_OWN_FIELDS(RqExprAggrReport)
RQ_NO_OWN_FIELDS(RqExprAggrBiVariate)

// The projection's column-number generator only hands out fresh numbers.
RQ_IGNORED_FIELDS(RqProjection)
// The sticky flag and the planned column types say how the sort was chosen, not what it is.
RQ_IGNORED_FIELDS(RqOrderBy)
// The marker names the cache entry that the rows go to.
RQ_IGNORED_FIELDS(RqCacheList)
// The sorted flag says how members are kept; the members are compared in order anyway.
RQ_IGNORED_FIELDS(RqExprColumnList)
// Column types describe the transient table; its identifier names it.
RQ_IGNORED_FIELDS(RqTransientOpaqueTable)
// The nesting level is the derived table's depth in the request, not part of its rows.
RQ_IGNORED_FIELDS(RqDerivedTable)

#undef RQ_NO_OWN_FIELDS
#undef RQ_IGNORED_FIELDS

// A class with fields of its own: declared with the names of the fields it compares.
#define RQ_OWN_FIELDS(cls, ...)                          \
    template <>                                          \
    struct OwnFields<cls> : NoLinks {                    \
        static constexpr std::array kNames{__VA_ARGS__}; \
        static int Compare(const cls& a, const cls& b);  \
    };                                                   \
    int OwnFields<cls>::Compare(const cls& a, [[maybe_unused]] const cls& b)

// ---- Expressions ----

RQ_OWN_FIELDS(RqTargetColumn, "column id", "table number", "name") {
    return FirstDiff(Cmp(a.GetColumnID(), b.GetColumnID()), Cmp(a.GetTableNum(), b.GetTableNum()),
                     Cmp(a.GetName(), b.GetName()));
}

#define RQ_VALUE_FIELD(cls)                     \
    RQ_OWN_FIELDS(cls, "value") {               \
        return Cmp(a.GetValue(), b.GetValue()); \
    }
RQ_VALUE_FIELD(RqExprStringLiteral)
RQ_VALUE_FIELD(RqExprDateLiteral)
RQ_VALUE_FIELD(RqExprTimeLiteral)
RQ_VALUE_FIELD(RqExprDateTimeLiteral)
RQ_VALUE_FIELD(RqExprIntervalLiteral)
RQ_VALUE_FIELD(RqExprNumberLiteral)
RQ_VALUE_FIELD(RqExprIntegerLiteral)
#undef RQ_VALUE_FIELD

RQ_OWN_FIELDS(RqExprFloatLiteral, "value") {
    return CmpDouble(a.GetValue(), b.GetValue());
}

#define RQ_NAME_FIELD(cls)                    \
    RQ_OWN_FIELDS(cls, "name") {              \
        return Cmp(a.GetName(), b.GetName()); \
    }
RQ_NAME_FIELD(RqExprParam)
RQ_NAME_FIELD(RqExprSessionVar)

#define RQ_ID_AND_NAME_FIELDS(cls)                                                  \
    RQ_OWN_FIELDS(cls, "id", "name") {                                              \
        return FirstDiff(Cmp(a.GetID(), b.GetID()), Cmp(a.GetName(), b.GetName())); \
    }
RQ_ID_AND_NAME_FIELDS(RqAttribute)
RQ_ID_AND_NAME_FIELDS(RqExprDimension)
RQ_ID_AND_NAME_FIELDS(RqExprLevel)

RQ_OWN_FIELDS(RqExprCast, "type name") {
    return Cmp(a.GetTypeName(), b.GetTypeName());
}

RQ_OWN_FIELDS(RqExprExternalData, "form", "data") {
    return FirstDiff(CmpEnum(a.GetForm(), b.GetForm()), Cmp(a.GetData(), b.GetData()));
}

// Not compared: whether the aggregate is instantiated, a stage of planning it.
RQ_OWN_FIELDS(RqExprAggr, "distinct", "sql99", "distinct compute break", "explicit grain",
              "analytic") {
    return FirstDiff(Cmp(a.IsDistinctAggregation(), b.IsDistinctAggregation()),
                     Cmp(a.IsSQL99Aggregation(), b.IsSQL99Aggregation()),
                     Cmp(a.HasDistinctComputeBreak(), b.HasDistinctComputeBreak()),
                     Cmp(a.HasExplicitGrain(), b.HasExplicitGrain()),
                     Cmp(a.IsAnalytic(), b.IsAnalytic()));
}

RQ_OWN_FIELDS(RqExprSortDependentAggr, "sort keys") {
    const RqExprSortDependentAggr::SortKeys& x = a.GetSortSpec();
    const RqExprSortDependentAggr::SortKeys& y = b.GetSortSpec();
    const size_t n = std::min(x.size(), y.size());
    for (size_t i = 0; i < n; ++i) {
        if (int c = FirstDiff(Cmp(x[i].m_columnNumber, y[i].m_columnNumber),
                              CmpEnum(x[i].m_direction, y[i].m_direction)))
            return c;
    }
    return Cmp(x.size(), y.size());
}

// ---- Blocks, clauses and tables ----

// Not compared: the references that read the column (they are compared where they are).
RQ_OWN_FIELDS(RqDerivedColumn, "column number", "break status") {
    return FirstDiff(Cmp(a.GetColumnNum(), b.GetColumnNum()),
                     Cmp(a.GetBreakStatus(), b.GetBreakStatus()));
}

// Not compared: whether the column is one of the user's select list.
RQ_OWN_FIELDS(RqSortSpec, "column number", "direction", "null order", "case insensitive") {
    return FirstDiff(Cmp(a.GetColumnNumber(), b.GetColumnNumber()),
                     CmpEnum(a.GetSortDirection(), b.GetSortDirection()),
                     CmpEnum(a.GetNullSortDirection(), b.GetNullSortDirection()),
                     Cmp(a.IsCaseInsensitive(), b.IsCaseInsensitive()));
}

// The grouping sets as a bag of sets: each set's positions sorted without repeats (a
// position named twice adds nothing to a set), and the sets sorted, since the order in
// which a GROUP BY lists its sets does not change the rows it stacks. A set listed twice
// stacks its rows twice, so repeated sets count. A GROUP BY without sets differs from one
// with the single set of all its columns: the rules treat the two forms differently.
std::vector<std::vector<uint16_t>> CanonicalGroupingSets(const RqGroupBy& groupBy) {
    std::vector<std::vector<uint16_t>> sets;
    for (int i = 0; i < groupBy.GetNumGroupingSets(); ++i) {
        const UInt16Vector& set = groupBy.GetIthGroupingSet(i);
        std::vector<uint16_t> positions(set.begin(), set.end());
        std::sort(positions.begin(), positions.end());
        positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
        sets.push_back(std::move(positions));
    }
    std::sort(sets.begin(), sets.end());
    return sets;
}

// Not compared: the execution mode (hash or sort) chosen for the grouping.
RQ_OWN_FIELDS(RqGroupBy, "grouping sets") {
    if (!a.IsGroupingSets() && !b.IsGroupingSets())
        return 0;
    return Cmp(CanonicalGroupingSets(a), CanonicalGroupingSets(b));
}

// Not compared: the driving-table hint, a choice of join order.
RQ_OWN_FIELDS(RqTableReference, "join type", "left join columns", "right join columns") {
    return FirstDiff(CmpEnum(a.GetJoinType(), b.GetJoinType()),
                     Cmp(a.GetLeftJoinColumnIndexes(), b.GetLeftJoinColumnIndexes()),
                     Cmp(a.GetRightJoinColumnIndexes(), b.GetRightJoinColumnIndexes()));
}

RQ_OWN_FIELDS(RqJoinNode, "preserved") {
    return Cmp(a.IsPreserved(), b.IsPreserved());
}

RQ_OWN_FIELDS(RqAbstractTable, "table number") {
    return Cmp(a.GetTableNum(), b.GetTableNum());
}

RQ_OWN_FIELDS(RqIdentifiedTable, "table id") {
    return Cmp(a.GetTableID(), b.GetTableID());
}

RQ_NAME_FIELD(RqExternalTable)
RQ_ID_AND_NAME_FIELDS(RqEntity)

// Not compared: the label, and the shared and WITH flags, which say how the list is
// produced and named, not which rows it has.
RQ_OWN_FIELDS(RqAbstractList, "row offset", "row limit") {
    return FirstDiff(Cmp(a.GetRowOffset(), b.GetRowOffset()),
                     Cmp(a.GetRowLimit(), b.GetRowLimit()));
}

// Not compared: the artifact flag, which marks how the block came about.
RQ_OWN_FIELDS(RqList, "distinct") {
    return Cmp(a.IsDistinct(), b.IsDistinct());
}

#define RQ_ALL_FIELD(cls)                 \
    RQ_OWN_FIELDS(cls, "all") {           \
        return Cmp(a.IsAll(), b.IsAll()); \
    }
RQ_ALL_FIELD(RqUnion)
RQ_ALL_FIELD(RqIntersect)
RQ_ALL_FIELD(RqExcept)
#undef RQ_ALL_FIELD

RQ_OWN_FIELDS(RqBreakFilter, "break columns") {
    return Cmp(a.BreakColumnIndexes(), b.BreakColumnIndexes());
}

RQ_OWN_FIELDS(RqCache, "logical plan") {
    LogicalPlanBytes x;
    LogicalPlanBytes y;
    a.GetLogicalPlan(x);
    b.GetLogicalPlan(y);
    return Cmp(x, y);
}

// Write requests and the request kinds that the rules pass through: their name.
RQ_NAME_FIELD(RqWrite)
RQ_NAME_FIELD(RqDelete)
RQ_NAME_FIELD(RqInsert)
RQ_NAME_FIELD(RqDrop)
RQ_NAME_FIELD(RqPopulate)
RQ_NAME_FIELD(RqCreateIndex)
RQ_NAME_FIELD(RqStats)
RQ_NAME_FIELD(RqMolapStarJoin)
RQ_NAME_FIELD(RqMolapFilterJoin)
RQ_NAME_FIELD(RqSummaryAdvisorQuery)
RQ_NAME_FIELD(RqExplainPlan)
RQ_NAME_FIELD(RqDataMiningQuery)
RQ_NAME_FIELD(RqXSAGrainCheck)
RQ_NAME_FIELD(RqProbeQuery)
RQ_NAME_FIELD(RqSummarize)
RQ_NAME_FIELD(RqCanonicalMap)
RQ_NAME_FIELD(RqDetectAnomalies)
#undef RQ_NAME_FIELD
#undef RQ_ID_AND_NAME_FIELDS
#undef RQ_OWN_FIELDS

// ---- Links ----

// A class whose fields are links only, compared by where they lead.
#define RQ_LINK_FIELDS(cls, ...)                                         \
    template <>                                                          \
    struct OwnFields<cls> {                                              \
        static constexpr std::array kNames{__VA_ARGS__};                 \
        static constexpr bool kHasLinks = true;                          \
        static int Compare(const cls&, const cls&) { return 0; }         \
        static void Links(const cls& a, const cls& b, LinkPairs& links); \
    };                                                                   \
    void OwnFields<cls>::Links(const cls& a, const cls& b, LinkPairs& links)

// Not compared: the chain of references that read the same column, bookkeeping.
RQ_LINK_FIELDS(RqDerivedColumnReference, "column") {
    links.emplace_back(a.GetDerivedColumn(), b.GetDerivedColumn());
}

RQ_LINK_FIELDS(RqJoinLink, "from", "to") {
    links.emplace_back(a.GetFrom(), b.GetFrom());
    links.emplace_back(a.GetTo(), b.GetTo());
}

RQ_LINK_FIELDS(RqSharedList, "shared list") {
    links.emplace_back(a.GetSharedRqList(), b.GetSharedRqList());
}
#undef RQ_LINK_FIELDS

// ---- The per-kind table --------------------------------------------------------------------

// The kind table's declaration letter of each class: 'G' for a generated class, whose only
// state is its operands.
template <class T>
inline constexpr char kDecl = '?';
#define RQ_DECL_K(cls, decl) \
    template <>              \
    inline constexpr char kDecl<cls> = #decl[0];
#define RQ_DECL_C(cls, decl) RQ_DECL_K(cls, decl)
#define RQ_DECL_M(cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_DECL_##row(cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_DECL_K
#undef RQ_DECL_C
#undef RQ_DECL_M

template <class T>
constexpr bool kIsGenerated = kDecl<T> == 'G';

template <class T>
using BaseOf = typename RqClassTraits<T>::Base;

// The fields of T and of its bases, bases first.
template <class T>
int CompareChain(const T& a, const T& b) {
    static_assert(kDecl<T> != '?', "every node class has a row in the kind table");
    if constexpr (!std::is_same_v<BaseOf<T>, RqNode>) {
        if (int c = CompareChain<BaseOf<T>>(a, b))
            return c;
    }
    if constexpr (kIsGenerated<T>)
        return 0;
    else
        return OwnFields<T>::Compare(a, b);
}

template <class T>
void LinksChain(const T& a, const T& b, LinkPairs& links) {
    if constexpr (!std::is_same_v<BaseOf<T>, RqNode>)
        LinksChain<BaseOf<T>>(a, b, links);
    if constexpr (!kIsGenerated<T>)
        OwnFields<T>::Links(a, b, links);
}

template <class T>
constexpr bool HasLinks() {
    bool bHas = false;
    if constexpr (!std::is_same_v<BaseOf<T>, RqNode>)
        bHas = HasLinks<BaseOf<T>>();
    if constexpr (!kIsGenerated<T>)
        bHas = bHas || OwnFields<T>::kHasLinks;
    return bHas;
}

template <class T>
void NamesChain(std::vector<const char*>& out) {
    if constexpr (!std::is_same_v<BaseOf<T>, RqNode>)
        NamesChain<BaseOf<T>>(out);
    if constexpr (!kIsGenerated<T>)
        out.insert(out.end(), OwnFields<T>::kNames.begin(), OwnFields<T>::kNames.end());
}

// What the equivalence compares on the nodes of one concrete kind.
struct KindFields {
    int (*m_pCompare)(const RqNode&, const RqNode&) = nullptr;
    // Null for the kinds without links.
    void (*m_pLinks)(const RqNode&, const RqNode&, LinkPairs&) = nullptr;
    void (*m_pNames)(std::vector<const char*>&) = nullptr;
};

template <class T>
constexpr KindFields FieldsOf() {
    KindFields fields;
    fields.m_pCompare = [](const RqNode& a, const RqNode& b) {
        return CompareChain<T>(*RqCast<T>(&a), *RqCast<T>(&b));
    };
    if constexpr (HasLinks<T>()) {
        fields.m_pLinks = [](const RqNode& a, const RqNode& b, LinkPairs& links) {
            LinksChain<T>(*RqCast<T>(&a), *RqCast<T>(&b), links);
        };
    }
    fields.m_pNames = [](std::vector<const char*>& out) { NamesChain<T>(out); };
    return fields;
}

constexpr std::array<KindFields, kRqNodeTypeCount> MakeKindFieldsTable() {
    std::array<KindFields, kRqNodeTypeCount> table{};
#define RQ_FIELDS_G(value, cls) table[value] = FieldsOf<cls>();
#define RQ_FIELDS_H(value, cls) table[value] = FieldsOf<cls>();
// An abstract class has no nodes, but what it declares is part of its subclasses' nodes.
#define RQ_FIELDS_A(value, cls) static_assert(requires { sizeof(OwnFields<cls>); });
#define RQ_FIELDS_N(value, cls)
#define RQ_FIELDS_K(value, cls, decl) RQ_FIELDS_##decl(value, cls)
#define RQ_FIELDS_C(value, cls, decl) RQ_FIELDS_##decl(value, cls)
#define RQ_FIELDS_M(value, cls, decl)
#define RQ_NODE_KIND(row, kind, value, cls, base, nv, ev, decl, minOps, maxOps) \
    RQ_FIELDS_##row(value, cls, decl)
#include "Query/Optimizer/Request/SQORRqNodeKinds.def"
#undef RQ_NODE_KIND
#undef RQ_FIELDS_K
#undef RQ_FIELDS_C
#undef RQ_FIELDS_M
#undef RQ_FIELDS_G
#undef RQ_FIELDS_H
#undef RQ_FIELDS_A
#undef RQ_FIELDS_N
    return table;
}

constexpr std::array<KindFields, kRqNodeTypeCount> kKindFields = MakeKindFieldsTable();

const KindFields& FieldsOfKind(RqNodeType_e kind) {
    const KindFields& fields = kKindFields[static_cast<size_t>(kind)];
    ZK_ASSERT(fields.m_pCompare != nullptr);
    return fields;
}

// Fields of two nodes of the same kind by value, then their links by the identity of the
// nodes they lead to.
int CompareFieldsAndLinkIdentities(const RqNode& a, const RqNode& b) {
    const KindFields& fields = FieldsOfKind(a.GetObjectType());
    if (int c = Sign(fields.m_pCompare(a, b)))
        return c;
    if (fields.m_pLinks == nullptr)
        return 0;
    LinkPairs links;
    fields.m_pLinks(a, b, links);
    for (const auto& [x, y] : links) {
        if (int c = CmpPtr(x, y))
            return c;
    }
    return 0;
}

// ---- The walk ------------------------------------------------------------------------------

// Kinds that links point at; their positions in the walk are recorded.
bool IsLinkTarget(const RqNode& node) {
    return RqDynCast<RqDerivedColumn>(&node) != nullptr ||
           RqDynCast<RqJoinNode>(&node) != nullptr || RqDynCast<RqAbstractList>(&node) != nullptr;
}

// Positions (pre-order) of the link targets met in one side of the walk.
class TargetPositions {
public:
    void Add(const RqNode* node, size_t position) { m_entries.emplace_back(node, position); }
    void Seal() { std::sort(m_entries.begin(), m_entries.end()); }
    // The position of `node` inside the walked subtree, or false when it lies outside.
    bool Find(const RqNode* node, size_t& position) const {
        auto it =
            std::lower_bound(m_entries.begin(), m_entries.end(), std::make_pair(node, size_t{0}));
        if (it == m_entries.end() || it->first != node)
            return false;
        position = it->second;
        return true;
    }

private:
    std::vector<std::pair<const RqNode*, size_t>> m_entries;
};

// A link target inside the subtree orders by its position there, before any target outside,
// which orders by identity; a missing target orders first.
int CompareLinkTargets(const RqNode* a, const TargetPositions& aPositions, const RqNode* b,
                       const TargetPositions& bPositions) {
    if (a == nullptr || b == nullptr)
        return Cmp(a != nullptr, b != nullptr);
    size_t aPos = 0;
    size_t bPos = 0;
    const bool aInside = aPositions.Find(a, aPos);
    const bool bInside = bPositions.Find(b, bPos);
    if (aInside != bInside)
        return aInside ? -1 : 1;
    if (aInside)
        return Cmp(aPos, bPos);
    return CmpPtr(a, b);
}

}  // namespace

// The two subtrees are compared as the sequences of their nodes in pre-order, each node by
// kind, own fields and number of children (absent children are null tokens that order
// first); when those agree, the links of the nodes are compared in the same order. Each
// side's sequence depends on that side alone, so the result is a lexicographic order and
// hence a strict weak order, and zero exactly for equivalent subtrees.
int RqEquivalence::Compare(const RqNode* a, const RqNode* b) {
    if (a == b)
        return 0;
    if (a == nullptr || b == nullptr)
        return a == nullptr ? -1 : 1;

    LinkPairs links;
    TargetPositions aTargets;
    TargetPositions bTargets;
    bool bHasTargets = false;
    size_t position = 0;
    std::vector<LinkPair> work;
    work.emplace_back(a, b);
    while (!work.empty()) {
        const auto [x, y] = work.back();
        work.pop_back();
        if (x == nullptr || y == nullptr) {
            if (x != y)
                return x == nullptr ? -1 : 1;
            ++position;
            continue;
        }
        if (int c = CmpEnum(x->GetObjectType(), y->GetObjectType()))
            return c;
        const KindFields& fields = FieldsOfKind(x->GetObjectType());
        if (int c = Sign(fields.m_pCompare(*x, *y)))
            return c;
        if (fields.m_pLinks != nullptr)
            fields.m_pLinks(*x, *y, links);
        if (IsLinkTarget(*x)) {
            aTargets.Add(x, position);
            bTargets.Add(y, position);
            bHasTargets = true;
        }
        ++position;
        const int n = x->GetNumChildren();
        if (int c = Cmp(n, y->GetNumChildren()))
            return c;
        for (int i = n - 1; i >= 0; --i) {
            work.emplace_back(x->GetIthChild(i), y->GetIthChild(i));
        }
    }
    if (bHasTargets) {
        aTargets.Seal();
        bTargets.Seal();
    }
    for (const auto& [x, y] : links) {
        if (int c = CompareLinkTargets(x, aTargets, y, bTargets))
            return c;
    }
    return 0;
}

std::vector<const char*> RqEquivalence::ComparedFields(RqNodeType_e kind) {
    std::vector<const char*> names;
    if (RqIsNodeTypeValue(kind) && !RqIsAbstractNodeType(kind))
        FieldsOfKind(kind).m_pNames(names);
    return names;
}

bool RqEquivalence::operator()(const RqExpr& a, const RqExpr& b) const {
    return Compare(&a, &b) == 0;
}
bool RqEquivalence::operator()(const RqExpr* a, const RqExpr* b) const {
    return Compare(a, b) == 0;
}
bool RqEquivalence::operator()(const RqNode& a, const RqNode& b) const {
    return Compare(&a, &b) == 0;
}
bool RqEquivalence::operator()(const RqNode* a, const RqNode* b) const {
    return Compare(a, b) == 0;
}

int RqShallowLessThan::Compare(const RqExpr* a, const RqExpr* b) {
    if (a == nullptr || b == nullptr)
        return Cmp(a != nullptr, b != nullptr);
    if (int c = CmpEnum(a->GetObjectType(), b->GetObjectType()))
        return c;
    return CompareFieldsAndLinkIdentities(*a, *b);
}

bool RqShallowLessThan::operator()(const RqExpr* a, const RqExpr* b) const {
    return Compare(a, b) < 0;
}

bool EquivalentVectorExprs(const RqExprVector& a, const RqExprVector& b,
                           const RqEquivalence& equivalence) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (!equivalence(a[i], b[i]))
            return false;
    }
    return true;
}

bool RqExpr::IsEquivalent(const RqExpr& other) const {
    return RqEquivalence()(*this, other);
}

bool RqExpr::IsEquivalent(const RqExpr& other, const RqEquivalence& equivalence) const {
    return equivalence(*this, other);
}

// The expression classes' own-field comparison is the kind table's, whichever class the
// call lands in: the overrides declared by the classes all answer the same way.
int RqExpr::CompareFields(const RqExpr& other) const {
    if (int c = CmpEnum(GetObjectType(), other.GetObjectType()))
        return c;
    return CompareFieldsAndLinkIdentities(*this, other);
}

#define RQ_COMPARE_FIELDS_OF_KIND(cls)                  \
    int cls::CompareFields(const RqExpr& other) const { \
        return RqExpr::CompareFields(other);            \
    }
RQ_COMPARE_FIELDS_OF_KIND(RqTargetColumn)
RQ_COMPARE_FIELDS_OF_KIND(RqDerivedColumnReference)
RQ_COMPARE_FIELDS_OF_KIND(RqExprStringLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprDateLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprTimeLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprDateTimeLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprIntervalLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprNumberLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprIntegerLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprFloatLiteral)
RQ_COMPARE_FIELDS_OF_KIND(RqExprParam)
RQ_COMPARE_FIELDS_OF_KIND(RqExprSessionVar)
RQ_COMPARE_FIELDS_OF_KIND(RqAttribute)
RQ_COMPARE_FIELDS_OF_KIND(RqExprDimension)
RQ_COMPARE_FIELDS_OF_KIND(RqExprLevel)
RQ_COMPARE_FIELDS_OF_KIND(RqExprCast)
RQ_COMPARE_FIELDS_OF_KIND(RqExprExternalData)
RQ_COMPARE_FIELDS_OF_KIND(RqExprAggr)
#undef RQ_COMPARE_FIELDS_OF_KIND
// Through its parent's override, so that no override on the way is skipped.
int RqExprSortDependentAggr::CompareFields(const RqExpr& other) const {
    return RqExprAggr::CompareFields(other);
}
