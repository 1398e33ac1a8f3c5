// Equivalence of request-tree nodes, the orderings built on it, and the own-field
// comparisons of the node classes.

#include "Query/Optimizer/Request/SQORRqEquivalence.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <functional>
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
    return order < 0 ? -1 : (order > 0 ? 1 : 0);
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

}  // namespace

// ---- Own fields of the expression classes -------------------------------------------------

int RqExpr::CompareFields(const RqExpr&) const {
    return 0;
}

int RqTargetColumn::CompareFields(const RqExpr& other) const {
    const auto& o = static_cast<const RqTargetColumn&>(other);
    if (int c = Cmp(m_columnID, o.m_columnID))
        return c;
    if (int c = Cmp(m_tableNum, o.m_tableNum))
        return c;
    return Cmp(m_name, o.m_name);
}

int RqDerivedColumnReference::CompareFields(const RqExpr& other) const {
    return CmpPtr<RqDerivedColumn>(m_pColumn,
                                   static_cast<const RqDerivedColumnReference&>(other).m_pColumn);
}

#define RQ_COMPARE_TEXT_VALUE(cls)                                   \
    int cls::CompareFields(const RqExpr& other) const {              \
        return Cmp(m_value, static_cast<const cls&>(other).m_value); \
    }
RQ_COMPARE_TEXT_VALUE(RqExprStringLiteral)
RQ_COMPARE_TEXT_VALUE(RqExprDateLiteral)
RQ_COMPARE_TEXT_VALUE(RqExprTimeLiteral)
RQ_COMPARE_TEXT_VALUE(RqExprDateTimeLiteral)
RQ_COMPARE_TEXT_VALUE(RqExprIntervalLiteral)
RQ_COMPARE_TEXT_VALUE(RqExprNumberLiteral)
#undef RQ_COMPARE_TEXT_VALUE

int RqExprIntegerLiteral::CompareFields(const RqExpr& other) const {
    return Cmp(m_value, static_cast<const RqExprIntegerLiteral&>(other).m_value);
}

int RqExprFloatLiteral::CompareFields(const RqExpr& other) const {
    const double a = m_value;
    const double b = static_cast<const RqExprFloatLiteral&>(other).m_value;
    const bool aNaN = std::isnan(a);
    const bool bNaN = std::isnan(b);
    if (aNaN || bNaN)
        return Cmp(aNaN, bNaN);
    return Cmp(a, b);
}

#define RQ_COMPARE_NAME(cls)                                       \
    int cls::CompareFields(const RqExpr& other) const {            \
        return Cmp(m_name, static_cast<const cls&>(other).m_name); \
    }
RQ_COMPARE_NAME(RqExprParam)
RQ_COMPARE_NAME(RqExprSessionVar)
#undef RQ_COMPARE_NAME

#define RQ_COMPARE_METADATA(cls)                        \
    int cls::CompareFields(const RqExpr& other) const { \
        const auto& o = static_cast<const cls&>(other); \
        if (int c = Cmp(m_id, o.m_id))                  \
            return c;                                   \
        return Cmp(m_name, o.m_name);                   \
    }
RQ_COMPARE_METADATA(RqAttribute)
RQ_COMPARE_METADATA(RqExprDimension)
RQ_COMPARE_METADATA(RqExprLevel)
#undef RQ_COMPARE_METADATA

int RqExprCast::CompareFields(const RqExpr& other) const {
    return Cmp(m_typeName, static_cast<const RqExprCast&>(other).m_typeName);
}

int RqExprExternalData::CompareFields(const RqExpr& other) const {
    const auto& o = static_cast<const RqExprExternalData&>(other);
    if (int c = Cmp(static_cast<int>(m_form), static_cast<int>(o.m_form)))
        return c;
    return Cmp(m_data, o.m_data);
}

int RqExprAggr::CompareFields(const RqExpr& other) const {
    const auto& o = static_cast<const RqExprAggr&>(other);
    return FirstDiff(Cmp(m_bDistinct, o.m_bDistinct), Cmp(m_bSQL99, o.m_bSQL99),
                     Cmp(m_bDistinctComputeBreak, o.m_bDistinctComputeBreak),
                     Cmp(m_bExplicitGrain, o.m_bExplicitGrain), Cmp(m_bAnalytic, o.m_bAnalytic));
}

int RqExprSortDependentAggr::CompareFields(const RqExpr& other) const {
    if (int c = RqExprAggr::CompareFields(other))
        return c;
    const SortKeys& a = m_sortSpec;
    const SortKeys& b = static_cast<const RqExprSortDependentAggr&>(other).m_sortSpec;
    const size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        if (int c = Cmp(a[i].m_columnNumber, b[i].m_columnNumber))
            return c;
        if (int c = Cmp(static_cast<int>(a[i].m_direction), static_cast<int>(b[i].m_direction)))
            return c;
    }
    return Cmp(a.size(), b.size());
}

namespace {

// ---- Own fields of the other node classes --------------------------------------------------

int CompareListFields(const RqAbstractList& a, const RqAbstractList& b) {
    return FirstDiff(Cmp(a.GetRowOffset(), b.GetRowOffset()),
                     Cmp(a.GetRowLimit(), b.GetRowLimit()));
}

template <class T>
int CompareNamed(const RqNode& a, const RqNode& b) {
    return Cmp(static_cast<const T&>(a).GetName(), static_cast<const T&>(b).GetName());
}

template <class T>
int CompareSetOperation(const RqNode& a, const RqNode& b) {
    const auto& x = static_cast<const T&>(a);
    const auto& y = static_cast<const T&>(b);
    return FirstDiff(CompareListFields(x, y), Cmp(x.IsAll(), y.IsAll()));
}

int CompareTableFields(const RqNode& a, const RqNode& b) {
    const auto& x = static_cast<const RqAbstractTable&>(a);
    const auto& y = static_cast<const RqAbstractTable&>(b);
    if (int c = Cmp(x.GetTableNum(), y.GetTableNum()))
        return c;
    if (a.IsKindOf(kRqIdentifiedTable)) {
        return Cmp(static_cast<const RqIdentifiedTable&>(a).GetTableID(),
                   static_cast<const RqIdentifiedTable&>(b).GetTableID());
    }
    if (a.GetObjectType() == kRqExternalTable)
        return CompareNamed<RqExternalTable>(a, b);
    return 0;
}

// Own fields of two nodes of the same kind that is not an expression. Links to other nodes
// (join links, shared lists) are compared by the walk, not here. Execution choices (group-by
// mode, driving-table hints, sticky orders, labels) do not change a result and are ignored.
int CompareNodeFields(const RqNode& a, const RqNode& b) {
    switch (a.GetObjectType()) {
        case kRqDerivedColumn: {
            const auto& x = static_cast<const RqDerivedColumn&>(a);
            const auto& y = static_cast<const RqDerivedColumn&>(b);
            return FirstDiff(Cmp(x.GetColumnNum(), y.GetColumnNum()),
                             Cmp(x.GetBreakStatus(), y.GetBreakStatus()));
        }
        case kRqSortSpec: {
            const auto& x = static_cast<const RqSortSpec&>(a);
            const auto& y = static_cast<const RqSortSpec&>(b);
            return FirstDiff(
                Cmp(x.GetColumnNumber(), y.GetColumnNumber()),
                Cmp(static_cast<int>(x.GetSortDirection()), static_cast<int>(y.GetSortDirection())),
                Cmp(static_cast<int>(x.GetNullSortDirection()),
                    static_cast<int>(y.GetNullSortDirection())),
                Cmp(x.IsCaseInsensitive(), y.IsCaseInsensitive()));
        }
        case kRqTableReference: {
            const auto& x = static_cast<const RqTableReference&>(a);
            const auto& y = static_cast<const RqTableReference&>(b);
            return FirstDiff(
                Cmp(static_cast<int>(x.GetJoinType()), static_cast<int>(y.GetJoinType())),
                Cmp(x.GetLeftJoinColumnIndexes(), y.GetLeftJoinColumnIndexes()),
                Cmp(x.GetRightJoinColumnIndexes(), y.GetRightJoinColumnIndexes()));
        }
        case kRqJoinNode:
            return Cmp(static_cast<const RqJoinNode&>(a).IsPreserved(),
                       static_cast<const RqJoinNode&>(b).IsPreserved());
        case kRqAtomicTable:
        case kRqOpaqueTable:
        case kRqTransientOpaqueTable:
        case kRqXSACacheTable:
        case kRqVELDNativeTable:
        case kRqExternalTable:
        case kRqDerivedTable:
            return CompareTableFields(a, b);
        case kRqEntity: {
            const auto& x = static_cast<const RqEntity&>(a);
            const auto& y = static_cast<const RqEntity&>(b);
            return FirstDiff(Cmp(x.GetID(), y.GetID()), Cmp(x.GetName(), y.GetName()));
        }
        case kRqList: {
            const auto& x = static_cast<const RqList&>(a);
            const auto& y = static_cast<const RqList&>(b);
            return FirstDiff(CompareListFields(x, y), Cmp(x.IsDistinct(), y.IsDistinct()));
        }
        case kRqUnion:
            return CompareSetOperation<RqUnion>(a, b);
        case kRqIntersect:
            return CompareSetOperation<RqIntersect>(a, b);
        case kRqExcept:
            return CompareSetOperation<RqExcept>(a, b);
        case kRqSharedList:
        case kRqCacheList:
            return CompareListFields(static_cast<const RqAbstractList&>(a),
                                     static_cast<const RqAbstractList&>(b));
        case kRqBreakFilter: {
            const auto& x = static_cast<const RqBreakFilter&>(a);
            const auto& y = static_cast<const RqBreakFilter&>(b);
            return FirstDiff(CompareListFields(x, y),
                             Cmp(x.BreakColumnIndexes(), y.BreakColumnIndexes()));
        }
        case kRqCache:
        case kRqXSACache: {
            LogicalPlanBytes x;
            LogicalPlanBytes y;
            static_cast<const RqCache&>(a).GetLogicalPlan(x);
            static_cast<const RqCache&>(b).GetLogicalPlan(y);
            return Cmp(x, y);
        }
#define RQ_NAMED_NODE(cls) \
    case k##cls:           \
        return CompareNamed<cls>(a, b);
            RQ_NAMED_NODE(RqWrite)
            RQ_NAMED_NODE(RqDelete)
            RQ_NAMED_NODE(RqInsert)
            RQ_NAMED_NODE(RqDrop)
            RQ_NAMED_NODE(RqPopulate)
            RQ_NAMED_NODE(RqCreateIndex)
            RQ_NAMED_NODE(RqStats)
            RQ_NAMED_NODE(RqMolapStarJoin)
            RQ_NAMED_NODE(RqMolapFilterJoin)
            RQ_NAMED_NODE(RqSummaryAdvisorQuery)
            RQ_NAMED_NODE(RqExplainPlan)
            RQ_NAMED_NODE(RqDataMiningQuery)
            RQ_NAMED_NODE(RqXSAGrainCheck)
            RQ_NAMED_NODE(RqProbeQuery)
            RQ_NAMED_NODE(RqSummarize)
            RQ_NAMED_NODE(RqCanonicalMap)
            RQ_NAMED_NODE(RqDetectAnomalies)
#undef RQ_NAMED_NODE
        default:
            return 0;
    }
}

// ---- The walk ------------------------------------------------------------------------------

// A non-owning link of a compared node to another node: the column a reference reads, the
// ends of a join link, the list a shared list names.
using LinkPair = std::pair<const RqNode*, const RqNode*>;

// Appends the links of `a` and `b` (nodes of the same kind) to `links`.
void CollectLinks(const RqNode& a, const RqNode& b, std::vector<LinkPair>& links) {
    switch (a.GetObjectType()) {
        case kRqDerivedColumnReference:
            links.emplace_back(static_cast<const RqDerivedColumnReference&>(a).GetDerivedColumn(),
                               static_cast<const RqDerivedColumnReference&>(b).GetDerivedColumn());
            break;
        case kRqJoinLink:
            links.emplace_back(static_cast<const RqJoinLink&>(a).GetFrom(),
                               static_cast<const RqJoinLink&>(b).GetFrom());
            links.emplace_back(static_cast<const RqJoinLink&>(a).GetTo(),
                               static_cast<const RqJoinLink&>(b).GetTo());
            break;
        case kRqSharedList:
            links.emplace_back(static_cast<const RqSharedList&>(a).GetSharedRqList(),
                               static_cast<const RqSharedList&>(b).GetSharedRqList());
            break;
        default:
            break;
    }
}

bool HasLinks(RqNodeType_e kind) {
    return kind == kRqDerivedColumnReference || kind == kRqJoinLink || kind == kRqSharedList;
}

// Kinds that links point at; their positions in the walk are recorded.
bool IsLinkTarget(const RqNode& node) {
    const RqNodeType_e kind = node.GetObjectType();
    return kind == kRqDerivedColumn || kind == kRqJoinNode || node.IsKindOf(kRqAbstractList);
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

// Kind, then own fields, of two non-null nodes.
int CompareShallow(const RqNode& a, const RqNode& b) {
    if (int c = Cmp(static_cast<int>(a.GetObjectType()), static_cast<int>(b.GetObjectType())))
        return c;
    if (a.IsExpr()) {
        // A reference's column is compared as a link by the walk.
        if (a.GetObjectType() == kRqDerivedColumnReference)
            return 0;
        return Sign(static_cast<const RqExpr&>(a).CompareFields(static_cast<const RqExpr&>(b)));
    }
    return Sign(CompareNodeFields(a, b));
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

    std::vector<LinkPair> links;
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
        if (int c = CompareShallow(*x, *y))
            return c;
        if (HasLinks(x->GetObjectType()))
            CollectLinks(*x, *y, links);
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
    if (int c = Cmp(static_cast<int>(a->GetObjectType()), static_cast<int>(b->GetObjectType())))
        return c;
    return Sign(a->CompareFields(*b));
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
