// Query blocks and their parts: projections and derived columns, clauses, the FROM clause,
// lists, set operations, break filters, shared, cache and cache-request nodes.

#include "Query/Optimizer/Request/SQORRqList.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"

namespace {

// Child i of `node` as a T when it is one (or derives from one), else null.
template <class T>
T* ChildAs(const RqNode& node, int i) {
    if (i < 0 || i >= node.GetNumChildren())
        return nullptr;
    return RqDynCast<T>(node.GetIthChild(i));
}

// Puts `child` in slot i, growing the child list when needed, and destroys the old child.
void SetChildAt(RqNode& node, int i, RqNode* child) {
    if (node.GetNumChildren() <= i)
        node.SetNumChildren(i + 1);
    node.SetIthChild(i, child);
}

}  // namespace

// ---- RqDerivedColumn -----------------------------------------------------------------------

RqDerivedColumn::RqDerivedColumn(RqExpr* expr, int columnNum) : m_columnNum(columnNum) {
    AddChild(expr);
}

// References stay with the original; a deep copy re-points the copies of the references it
// copies along (RqDerivedColumnReference::FixUpCopy).
RqDerivedColumn::RqDerivedColumn(const RqDerivedColumn& other)
    : RqNode(other), m_columnNum(other.m_columnNum), m_breakStatus(other.m_breakStatus) {}

RqDerivedColumn::~RqDerivedColumn() {
    SwitchDerivedColumnReferences(nullptr);
}

RqExpr* RqDerivedColumn::GetExpr() const {
    return ChildAs<RqExpr>(*this, 0);
}

void RqDerivedColumn::SetExpr(RqExpr* expr) {
    SetChildAt(*this, 0, expr);
}

RqExpr* RqDerivedColumn::ReleaseExpr() {
    if (GetNumChildren() == 0)
        return nullptr;
    RqNode* expr = ReleaseIthChild(0);
    return expr != nullptr ? RqCast<RqExpr>(expr) : nullptr;
}

RqProjection* RqDerivedColumn::GetProjection() const {
    return RqDynCast<RqProjection>(GetParent());
}

RqAbstractList* RqDerivedColumn::GetRqAbstractListContainer() const {
    RqProjection* projection = GetProjection();
    if (projection == nullptr)
        return nullptr;
    return RqDynCast<RqAbstractList>(projection->GetParent());
}

void RqDerivedColumn::SwitchDerivedColumnReferences(RqDerivedColumn* target) {
    if (target == this)
        return;
    // Each switch unlinks the first reference, so the loop ends when none is left.
    while (m_pFirstRef != nullptr)
        m_pFirstRef->SetDerivedColumn(target);
}

void RqDerivedColumn::GetReferences(RqDerivedColumnReferenceVector& out) const {
    out.clear();
    for (RqDerivedColumnReference* ref = m_pFirstRef; ref != nullptr; ref = ref->m_pNextRef)
        out.push_back(ref);
}

int RqDerivedColumn::GetNumReferences() const {
    int count = 0;
    for (RqDerivedColumnReference* ref = m_pFirstRef; ref != nullptr; ref = ref->m_pNextRef)
        ++count;
    return count;
}

// ---- RqProjection --------------------------------------------------------------------------

RqProjection::RqProjection(int firstColumnNum) : m_nextColumnNum(firstColumnNum) {}

RqDerivedColumn* RqProjection::GetIthColumn(int i) const {
    return ChildAs<RqDerivedColumn>(*this, i);
}

int RqProjection::FindColumnIndex(const RqDerivedColumn* column) const {
    return GetChildIndex(column);
}

int RqProjection::FindColumnIndex(int columnNum) const {
    for (int i = 0; i < GetNumColumns(); ++i) {
        const RqDerivedColumn* column = GetIthColumn(i);
        if (column != nullptr && column->GetColumnNum() == columnNum)
            return i;
    }
    return -1;
}

uint32_t RqProjection::GetMatchingColumnIndex(const RqExpr* expr) const {
    if (expr == nullptr)
        return kNoMatch;
    const RqEquivalence equivalent;
    for (int i = 0; i < GetNumColumns(); ++i) {
        const RqDerivedColumn* column = GetIthColumn(i);
        if (column == nullptr)
            continue;
        const RqExpr* columnExpr = column->GetExpr();
        if (columnExpr != nullptr && equivalent(*columnExpr, *expr))
            return static_cast<uint32_t>(i);
    }
    return kNoMatch;
}

RqDerivedColumn* RqProjection::GetMatchingColumn(const RqExpr* expr) const {
    const uint32_t index = GetMatchingColumnIndex(expr);
    return index == kNoMatch ? nullptr : GetIthColumn(static_cast<int>(index));
}

RqDerivedColumn* RqProjection::GetMatchingColumn(int columnNum) const {
    const int index = FindColumnIndex(columnNum);
    return index < 0 ? nullptr : GetIthColumn(index);
}

void RqProjection::GetMatchingColumnReferences(const RqExpr* expr,
                                               RqDerivedColumnReferenceVector& out,
                                               const RqEquivalence& equivalence) const {
    if (expr == nullptr)
        return;
    std::vector<RqNode*> work;
    for (int i = GetNumChildren() - 1; i >= 0; --i) {
        if (RqNode* column = GetIthChild(i))
            work.push_back(column);
    }
    // Pre-order, so that references come out in the order they appear in the projection.
    while (!work.empty()) {
        RqNode* node = work.back();
        work.pop_back();
        if (auto* ref = RqDynCast<RqDerivedColumnReference>(node)) {
            if (equivalence(*ref, *expr))
                out.push_back(ref);
        }
        for (int i = node->GetNumChildren() - 1; i >= 0; --i) {
            if (RqNode* child = node->GetIthChild(i))
                work.push_back(child);
        }
    }
}

void RqProjection::AddColumn(RqDerivedColumn* column) {
    ZK_ASSERT(column != nullptr);
    if (column->GetColumnNum() == RqDerivedColumn::kUnknownColumnNum) {
        column->SetColumnNum(GetNextColumnNum());
    } else {
        ReSyncColumnNumGenerator(column->GetColumnNum());
    }
    AddChild(column);
}

void RqProjection::InsertColumn(int index, RqDerivedColumn* column) {
    ZK_ASSERT(column != nullptr);
    if (column->GetColumnNum() == RqDerivedColumn::kUnknownColumnNum) {
        column->SetColumnNum(GetNextColumnNum());
    } else {
        ReSyncColumnNumGenerator(column->GetColumnNum());
    }
    InsertChild(index, column);
}

RqDerivedColumn* RqProjection::InsertColumnExpr(const RqExpr* expr) {
    ZK_ASSERT(expr != nullptr);
    if (RqDerivedColumn* existing = GetMatchingColumn(expr))
        return existing;
    auto* column = RQ_NEW RqDerivedColumn(expr->DeepExprCopy(false));
    AddColumn(column);
    return column;
}

RqDerivedColumn* RqProjection::InsertDonatedColumnExpr(RqExpr* expr) {
    ZK_ASSERT(expr != nullptr);
    if (RqDerivedColumn* existing = GetMatchingColumn(expr)) {
        delete expr;
        return existing;
    }
    auto* column = RQ_NEW RqDerivedColumn(expr);
    AddColumn(column);
    return column;
}

void RqProjection::DeleteColumn(RqDerivedColumn* column, RqNode* replacement) {
    const int index = FindColumnIndex(column);
    ZK_ASSERT(index >= 0);
    ZK_ASSERT(replacement != column);
    if (replacement != nullptr)
        column->SwitchDerivedColumnReferences(RqCast<RqDerivedColumn>(replacement));
    EraseIthChild(index);
}

RqDerivedColumn* RqProjection::RemoveColumn(RqDerivedColumn* column) {
    const int index = FindColumnIndex(column);
    ZK_ASSERT(index >= 0);
    return RqCast<RqDerivedColumn>(RemoveIthChild(index));
}

int RqProjection::GetNextColumnNum() {
    // A projection whose numbers reach the top of the range has none left to hand out.
    ZK_ASSERT(m_nextColumnNum != std::numeric_limits<int>::max());
    return m_nextColumnNum++;
}

// Only ever moves the generator forward: a number already handed out is never handed out again.
// A column numbered at the top of the range leaves the generator there (it saturates rather
// than overflows); asking it for a number then is the broken invariant.
void RqProjection::ReSyncColumnNumGenerator(int columnNum) {
    if (columnNum >= m_nextColumnNum) {
        m_nextColumnNum = columnNum == std::numeric_limits<int>::max() ? columnNum : columnNum + 1;
    }
}

// ---- Filter clauses ------------------------------------------------------------------------

#define RQ_DEFINE_FILTER_CLAUSE(cls)                                         \
    cls::cls(RqExprCond* cond) {                                             \
        AddChild(cond);                                                      \
    }                                                                        \
    RqExprCond* cls::GetCond() const {                                       \
        return ChildAs<RqExprCond>(*this, 0);                                \
    }                                                                        \
    RqExpr* cls::GetCondExpr() const {                                       \
        return ChildAs<RqExpr>(*this, 0);                                    \
    }                                                                        \
    void cls::SetCond(RqExprCond* cond) {                                    \
        SetChildAt(*this, 0, cond);                                          \
    }                                                                        \
    RqExprCond* cls::ReleaseCond() {                                         \
        RqNode* cond = GetNumChildren() == 0 ? nullptr : ReleaseIthChild(0); \
        return cond != nullptr ? RqCast<RqExprCond>(cond) : nullptr;         \
    }
RQ_DEFINE_FILTER_CLAUSE(RqDetailFilter)
RQ_DEFINE_FILTER_CLAUSE(RqSummaryFilter)
RQ_DEFINE_FILTER_CLAUSE(RqHaving)
#undef RQ_DEFINE_FILTER_CLAUSE

// ---- RqGroupBy -----------------------------------------------------------------------------

RqGroupBy::RqGroupBy() : RqGroupBy(RQ_NEW RqExprColumnListOrdered(), kUnknown) {}

RqGroupBy::RqGroupBy(const RqExprVector& columns, InternalExecutionMode mode)
    : RqGroupBy(RQ_NEW RqExprColumnListOrdered(columns, true), mode) {}

RqGroupBy::RqGroupBy(const RqExprVector& columns, const RqExprVector& granularity,
                     InternalExecutionMode mode)
    : RqGroupBy(RQ_NEW RqExprColumnListOrdered(columns, true), mode) {
    if (!granularity.empty())
        SetGranularity(RQ_NEW RqExprColumnListOrdered(granularity, true));
}

RqGroupBy::RqGroupBy(RqExprColumnListOrdered* columns, InternalExecutionMode mode) : m_mode(mode) {
    AddChild(columns != nullptr ? columns : RQ_NEW RqExprColumnListOrdered());
    AddChild(nullptr);
}

RqExprColumnListOrdered* RqGroupBy::GetColumnList() const {
    return ChildAs<RqExprColumnListOrdered>(*this, 0);
}

RqExprColumnListOrdered* RqGroupBy::GetGranularity() const {
    return ChildAs<RqExprColumnListOrdered>(*this, 1);
}

void RqGroupBy::SetGranularity(RqExprColumnListOrdered* granularity) {
    SetChildAt(*this, 1, granularity);
}

int RqGroupBy::GetNumColumns() const {
    const RqExprColumnListOrdered* list = GetColumnList();
    return list != nullptr ? list->GetNumColumns() : 0;
}

RqExpr* RqGroupBy::GetIthColumn(int i) const {
    const RqExprColumnListOrdered* list = GetColumnList();
    ZK_ASSERT(list != nullptr);
    return list->GetIthColumn(i);
}

void RqGroupBy::SetIthColumn(int i, RqExpr* column) {
    if (GetColumnList() == nullptr)
        SetChildAt(*this, 0, RQ_NEW RqExprColumnListOrdered());
    GetColumnList()->SetIthColumn(i, column);
}

void RqGroupBy::SetNumColumns(int n) {
    if (GetColumnList() == nullptr)
        SetChildAt(*this, 0, RQ_NEW RqExprColumnListOrdered());
    GetColumnList()->SetNumColumns(n);
}

void RqGroupBy::AppendColumn(RqExpr* column) {
    if (GetColumnList() == nullptr)
        SetChildAt(*this, 0, RQ_NEW RqExprColumnListOrdered());
    GetColumnList()->AppendColumn(column);
}

// A missing column list is an empty one: a subset and a prefix of anything, holding nothing.
bool RqGroupBy::IsSubsetOf(const RqExprColumnListOrdered& other) const {
    const RqExprColumnListOrdered* list = GetColumnList();
    return list == nullptr || list->IsSubsetOf(other);
}

bool RqGroupBy::IsPrefixSubsetOf(const RqExprColumnListOrdered& other) const {
    const RqExprColumnListOrdered* list = GetColumnList();
    return list == nullptr || list->IsPrefixSubsetOf(other);
}

bool RqGroupBy::HasEquivalentMember(const RqExpr& expr) const {
    const RqExprColumnListOrdered* list = GetColumnList();
    return list != nullptr && list->HasEquivalentMember(expr);
}

bool RqGroupBy::IsSubsetOf(const RqGroupBy& other) const {
    const RqExprColumnListOrdered* list = GetColumnList();
    if (list == nullptr || list->GetNumColumns() == 0)
        return true;
    const RqExprColumnListOrdered* otherList = other.GetColumnList();
    return otherList != nullptr && list->IsSubsetOf(*otherList);
}

bool RqGroupBy::IsPrefixSubsetOf(const RqGroupBy& other) const {
    const RqExprColumnListOrdered* list = GetColumnList();
    if (list == nullptr || list->GetNumColumns() == 0)
        return true;
    const RqExprColumnListOrdered* otherList = other.GetColumnList();
    return otherList != nullptr && list->IsPrefixSubsetOf(*otherList);
}

bool RqGroupBy::HasSameColumns(const RqGroupBy& other) const {
    return IsSubsetOf(other) && other.IsSubsetOf(*this);
}

const UInt16Vector& RqGroupBy::GetIthGroupingSet(int i) const {
    ZK_ASSERT(i >= 0 && i < GetNumGroupingSets());
    return m_groupingSets[static_cast<size_t>(i)];
}

void RqGroupBy::AddGroupingSet(const UInt16Vector& columnIndexes) {
    m_groupingSets.push_back(columnIndexes);
}

namespace {
// A grouping set as the set of positions it names: order and repetitions do not matter.
UInt16Vector AsPositionSet(const UInt16Vector& positions) {
    UInt16Vector set(positions);
    std::sort(set.begin(), set.end());
    set.erase(std::unique(set.begin(), set.end()), set.end());
    return set;
}
}  // namespace

int RqGroupBy::FindGroupingSet(const UInt16Vector& columnIndexes) const {
    const UInt16Vector wanted = AsPositionSet(columnIndexes);
    for (size_t i = 0; i < m_groupingSets.size(); ++i) {
        if (AsPositionSet(m_groupingSets[i]) == wanted)
            return static_cast<int>(i);
    }
    return -1;
}

// ---- RqOrderBy -----------------------------------------------------------------------------

RqOrderBy::RqOrderBy(const SortSpecVector& specs, bool bSticky) : m_bSticky(bSticky) {
    for (RqSortSpec* spec : specs)
        AddChild(spec);
}

RqOrderBy::RqOrderBy(const SortSpecVector& specs, const std::vector<ZKString>& typeInfos,
                     bool bSticky)
    : RqOrderBy(specs, bSticky) {
    m_typeInfos.assign(typeInfos.begin(), typeInfos.end());
}

int RqOrderBy::GetNumSortSpecs() const {
    for (int i = 0; i < GetNumChildren(); ++i) {
        const RqNode* child = GetIthChild(i);
        if (child != nullptr && child->IsExpr())
            return i;
    }
    return GetNumChildren();
}

RqSortSpec* RqOrderBy::GetIthSortSpec(int i) const {
    ZK_ASSERT(i >= 0 && i < GetNumSortSpecs());
    return ChildAs<RqSortSpec>(*this, i);
}

void RqOrderBy::AppendSortSpec(RqSortSpec* spec) {
    InsertChild(GetNumSortSpecs(), spec);
}

RqExpr* RqOrderBy::GetIthPushDownAggr(int i) const {
    ZK_ASSERT(i >= 0 && i < GetNumPushDownAggrs());
    return ChildAs<RqExpr>(*this, GetNumSortSpecs() + i);
}

void RqOrderBy::AppendPushDownAggr(const RqExpr* aggr) {
    ZK_ASSERT(aggr != nullptr);
    AddChild(aggr->DeepExprCopy(false));
}

// ---- Tables and joins ----------------------------------------------------------------------

RefAComplexJoin RqAtomicTable::GetCommonComplexJoin(ARpGateway* rp, RqAtomicTable* other) const {
    if (rp == nullptr || other == nullptr)
        return RefAComplexJoin();
    return rp->GetRepository().FindComplexJoinBetween(GetTableID(), other->GetTableID());
}

void RqTransientOpaqueTable::AddColumnTypeInfos(const std::vector<ZKString>& typeInfos) {
    m_typeInfos.insert(m_typeInfos.end(), typeInfos.begin(), typeInfos.end());
}

RqDerivedTable::RqDerivedTable(RqAbstractList* inner, int nestingLevel)
    : m_nestingLevel(nestingLevel) {
    AddChild(inner);
}

RqAbstractList* RqDerivedTable::GetInnerList() const {
    return ChildAs<RqAbstractList>(*this, 0);
}

void RqDerivedTable::SetInnerList(RqAbstractList* inner) {
    SetChildAt(*this, 0, inner);
}

RqTableReference::RqTableReference(SqlTableRef::JoinType joinType, RqNode* left, RqExpr* searchCond,
                                   RqNode* right, DrivingTableHint hint)
    : m_joinType(joinType), m_hint(hint) {
    AddChild(left);
    AddChild(right);
    AddChild(searchCond);
}

RqAbstractTable* RqTableReference::GetLeftTable() const {
    return ChildAs<RqAbstractTable>(*this, kLeftChild);
}

RqAbstractTable* RqTableReference::GetRightTable() const {
    return ChildAs<RqAbstractTable>(*this, kRightChild);
}

RqExprCond* RqTableReference::GetSearchCond() const {
    return ChildAs<RqExprCond>(*this, kCondChild);
}

RqDerivedTable* RqTableReference::GetDerivedTable() const {
    return ChildAs<RqDerivedTable>(*this, kLeftChild);
}

// Every table the reference joins, through nested references, is a repository table.
bool RqTableReference::IsDeclarativeTableReference() const {
    const RqNode* left = GetLeftNode();
    if (left == nullptr)
        return false;
    std::vector<const RqNode*> work{left};
    if (const RqNode* right = GetRightNode())
        work.push_back(right);
    while (!work.empty()) {
        const RqNode* side = work.back();
        work.pop_back();
        if (const auto* nested = RqDynCast<RqTableReference>(side)) {
            if (nested->GetLeftNode() == nullptr)
                return false;
            work.push_back(nested->GetLeftNode());
            if (nested->GetRightNode() != nullptr)
                work.push_back(nested->GetRightNode());
        } else if (!side->IsKindOf(kRqIdentifiedTable)) {
            return false;
        }
    }
    return true;
}

void RqJoinLink::FixUpCopy(const CopyMap& map) {
    if (RqNode* from = map.Find(m_pFrom))
        m_pFrom = RqCast<RqJoinNode>(from);
    if (RqNode* to = map.Find(m_pTo))
        m_pTo = RqCast<RqJoinNode>(to);
}

RqJoinNode::RqJoinNode(RqTableReference* reference, bool bPreserved) : m_bPreserved(bPreserved) {
    AddChild(reference);
}

RqTableReference* RqJoinNode::GetTableReference() const {
    return ChildAs<RqTableReference>(*this, 0);
}

void RqJoinNode::GetIncidentLinks(std::vector<RqJoinLink*>& out) const {
    out.clear();
    const RqNode* spec = GetParent();
    if (spec == nullptr)
        return;
    for (int i = 0; i < spec->GetNumChildren(); ++i) {
        auto* link = RqDynCast<RqJoinLink>(spec->GetIthChild(i));
        if (link != nullptr && (link->GetFrom() == this || link->GetTo() == this))
            out.push_back(link);
    }
}

RqJoinSpec::RqJoinSpec(const std::vector<RqJoinNode*>& nodes) {
    for (RqJoinNode* node : nodes)
        AddChild(node);
}

int RqJoinSpec::GetNumJoinNodes() const {
    for (int i = 0; i < GetNumChildren(); ++i) {
        const RqNode* child = GetIthChild(i);
        if (child != nullptr && child->GetObjectType() == kRqJoinLink)
            return i;
    }
    return GetNumChildren();
}

RqJoinNode* RqJoinSpec::GetIthJoinNode(int i) const {
    ZK_ASSERT(i >= 0 && i < GetNumJoinNodes());
    return ChildAs<RqJoinNode>(*this, i);
}

int RqJoinSpec::GetNumTableReferences() const {
    return GetNumJoinNodes();
}

RqTableReference* RqJoinSpec::GetIthTableReference(int i) const {
    const RqJoinNode* node = GetIthJoinNode(i);
    return node != nullptr ? node->GetTableReference() : nullptr;
}

void RqJoinSpec::AddJoinNode(RqJoinNode* node) {
    InsertChild(GetNumJoinNodes(), node);
}

void RqJoinSpec::AddJoinLink(RqJoinLink* link) {
    ZK_ASSERT(link != nullptr);
    AddChild(link);
}

// ---- RqList --------------------------------------------------------------------------------

RqList::RqList(int firstColumnNum) {
    SetNumChildren(kNumClauses);
    SetIthChild(kProjectionChild, RQ_NEW RqProjection(firstColumnNum));
}

RqProjection* RqList::GetProjection() const {
    return ChildAs<RqProjection>(*this, kProjectionChild);
}
RqJoinSpec* RqList::GetJoinSpec() const {
    return ChildAs<RqJoinSpec>(*this, kJoinSpecChild);
}
RqDetailFilter* RqList::GetDetailFilter() const {
    return ChildAs<RqDetailFilter>(*this, kDetailFilterChild);
}
RqSummaryFilter* RqList::GetSummaryFilter() const {
    return ChildAs<RqSummaryFilter>(*this, kSummaryFilterChild);
}
RqGroupBy* RqList::GetGroupBy() const {
    return ChildAs<RqGroupBy>(*this, kGroupByChild);
}
RqHaving* RqList::GetHaving() const {
    return ChildAs<RqHaving>(*this, kHavingChild);
}
RqOrderBy* RqList::GetOrderBy() const {
    return ChildAs<RqOrderBy>(*this, kOrderByChild);
}

void RqList::SetProjection(RqProjection* projection) {
    SetChildAt(*this, kProjectionChild, projection);
}
void RqList::SetJoinSpec(RqJoinSpec* joinSpec) {
    SetChildAt(*this, kJoinSpecChild, joinSpec);
}
void RqList::SetDetailFilter(RqDetailFilter* filter) {
    SetChildAt(*this, kDetailFilterChild, filter);
}
void RqList::SetSummaryFilter(RqSummaryFilter* filter) {
    SetChildAt(*this, kSummaryFilterChild, filter);
}
void RqList::SetGroupBy(RqGroupBy* groupBy) {
    SetChildAt(*this, kGroupByChild, groupBy);
}
void RqList::SetHaving(RqHaving* having) {
    SetChildAt(*this, kHavingChild, having);
}
void RqList::SetOrderBy(RqOrderBy* orderBy) {
    SetChildAt(*this, kOrderByChild, orderBy);
}

// A block's row limit and offset apply to its final rows, after grouping, DISTINCT and
// ordering, so a consumer that reads the block row for row can hand its own limit and offset
// down to it. A shared block is read by several consumers, none of which may cut it alone.
bool RqList::IsFoldableList() const {
    return !IsShared();
}

// ---- Set operations ------------------------------------------------------------------------

#define RQ_DEFINE_SET_OPERATION(cls)                                               \
    cls::cls(const RqAbstractListVector& lists, bool bAll) : m_bAll(bAll) {        \
        for (auto* list : lists)                                                   \
            AddChild(list);                                                        \
    }                                                                              \
    RqAbstractList* cls::GetIthList(int i) const {                                 \
        return ChildAs<RqAbstractList>(*this, i);                                  \
    }                                                                              \
    void cls::SetIthList(int i, RqAbstractList* list) {                            \
        SetChildAt(*this, i, list);                                                \
    }                                                                              \
    RqProjection* cls::GetProjection() const {                                     \
        const RqAbstractList* first = GetNumLists() > 0 ? GetIthList(0) : nullptr; \
        return first != nullptr ? first->GetProjection() : nullptr;                \
    }
RQ_DEFINE_SET_OPERATION(RqUnion)
RQ_DEFINE_SET_OPERATION(RqIntersect)
RQ_DEFINE_SET_OPERATION(RqExcept)
#undef RQ_DEFINE_SET_OPERATION

// ---- Shared and cache lists ----------------------------------------------------------------

RqProjection* RqSharedList::GetProjection() const {
    return m_pShared != nullptr ? m_pShared->GetProjection() : nullptr;
}

void RqSharedList::FixUpCopy(const CopyMap& map) {
    if (RqNode* copy = map.Find(m_pShared))
        m_pShared = RqCast<RqAbstractList>(copy);
}

RqCacheList::RqCacheList(RqAbstractList* list) {
    AddChild(list);
}

RqAbstractList* RqCacheList::GetList() const {
    return ChildAs<RqAbstractList>(*this, 0);
}

RqProjection* RqCacheList::GetProjection() const {
    const RqAbstractList* list = GetList();
    return list != nullptr ? list->GetProjection() : nullptr;
}

// ---- RqBreakFilter -------------------------------------------------------------------------

RqBreakFilter::RqBreakFilter(RqAbstractList* inner, const UInt16Vector& breakColumnIndexes)
    : m_breakIndexes(breakColumnIndexes) {
    AddChild(inner);
}

RqAbstractList* RqBreakFilter::GetInnerList() const {
    return ChildAs<RqAbstractList>(*this, 0);
}

void RqBreakFilter::SetInnerList(RqAbstractList* inner) {
    SetChildAt(*this, 0, inner);
}

RqProjection* RqBreakFilter::GetProjection() const {
    const RqAbstractList* inner = GetInnerList();
    return inner != nullptr ? inner->GetProjection() : nullptr;
}

void RqBreakFilter::GetBreakColumnIndexes(UInt16Vector& out, bool bSorted) const {
    out = m_breakIndexes;
    if (bSorted)
        std::sort(out.begin(), out.end());
}

void RqBreakFilter::GetBreakColumnIndexesAccountForNoOrderBy(UInt16Vector& out,
                                                             bool bSorted) const {
    const RqAbstractList* inner = GetInnerList();
    const RqList* block = RqDynCast<RqList>(inner);
    const bool bUnorderedBlock = block != nullptr && block->GetOrderBy() == nullptr;
    GetBreakColumnIndexes(out, bSorted || bUnorderedBlock);
}

void RqBreakFilter::GetBreakColumnNumbers(UInt16Vector& out) const {
    out.clear();
    const RqProjection* projection = GetProjection();
    ZK_ASSERT(projection != nullptr);
    for (uint16_t index : m_breakIndexes) {
        const RqDerivedColumn* column = projection->GetIthColumn(index);
        ZK_ASSERT(column != nullptr);
        out.push_back(static_cast<uint16_t>(column->GetColumnNum()));
    }
}

// ---- RqCache -------------------------------------------------------------------------------

RqCache::RqCache(RqAbstractList* list) {
    AddChild(list);
}

RqAbstractList* RqCache::GetList() const {
    return ChildAs<RqAbstractList>(*this, 0);
}

RqProjection* RqCache::GetProjection() const {
    const RqAbstractList* list = GetList();
    return list != nullptr ? list->GetProjection() : nullptr;
}

namespace {

// The first entry of a logical plan: three little-endian unsigned 32-bit words, the row
// limit, the row offset and the flags. Later bytes belong to further entries.
constexpr size_t kPlanEntryBytes = 12;

uint32_t ReadWord(const LogicalPlanBytes& bytes, size_t at) {
    return static_cast<uint32_t>(bytes[at]) | (static_cast<uint32_t>(bytes[at + 1]) << 8) |
           (static_cast<uint32_t>(bytes[at + 2]) << 16) |
           (static_cast<uint32_t>(bytes[at + 3]) << 24);
}

void WriteWord(LogicalPlanBytes& bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace

LogicalPlanEntry RqCache::GetLogicalPlanEntry() const {
    LogicalPlanEntry entry;
    if (m_logicalPlan.size() < kPlanEntryBytes)
        return entry;
    entry.m_rowLimit = ReadWord(m_logicalPlan, 0);
    entry.m_rowOffset = ReadWord(m_logicalPlan, 4);
    entry.m_flags = ReadWord(m_logicalPlan, 8);
    return entry;
}

void RqCache::SetLogicalPlanEntry(const LogicalPlanEntry& entry) {
    if (m_logicalPlan.size() < kPlanEntryBytes)
        m_logicalPlan.resize(kPlanEntryBytes, 0);
    WriteWord(m_logicalPlan, 0, entry.m_rowLimit);
    WriteWord(m_logicalPlan, 4, entry.m_rowOffset);
    WriteWord(m_logicalPlan, 8, entry.m_flags);
}
