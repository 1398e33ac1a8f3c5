// Expressions: operand access and traversal, the constant and value tests, conditions,
// derived column references, column lists, sort keys and aggregates.

#include "Query/Optimizer/Request/SQORRqExpr.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORAVisitorRqExpr.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqList.h"

namespace {

RqNodeTypeSet MakeKindSet(std::initializer_list<RqNodeType_e> kinds) {
    RqNodeTypeSet set;
    for (RqNodeType_e kind : kinds)
        set.set(static_cast<size_t>(kind));
    return set;
}

// Expressions whose value is fixed for the whole request: literals, bound values and the
// functions without operands that do not depend on a row.
const RqNodeTypeSet& ConstantLeafKinds() {
    static const RqNodeTypeSet kinds =
        MakeKindSet({kRqExprStringLiteral, kRqExprIntegerLiteral, kRqExprFloatLiteral,
                     kRqExprDateLiteral, kRqExprTimeLiteral, kRqExprDateTimeLiteral,
                     kRqExprIntervalLiteral, kRqExprNullLiteral, kRqExprNumberLiteral, kRqExprParam,
                     kRqExprSessionVar, kRqExprPi, kRqExprDatabase, kRqExprUser});
    return kinds;
}

// Expressions that are never constant whatever their operands: they read rows or tables,
// depend on the grouping level, are not deterministic, or name metadata rather than values.
// Columns, aggregates, subqueries and column lists are excluded by their base kinds.
const RqNodeTypeSet& NeverConstantKinds() {
    static const RqNodeTypeSet kinds = MakeKindSet({
        kRqExprRand,
        kRqExprRowID,
        kRqExprGroupingId,
        kRqAttribute,
        kRqExprDimension,
        kRqExprLevel,
        kRqExprMemberReference,
        kRqExprCalculatedMember,
        kRqExprQualify,
        kRqExprCondGroupByContent,
        kRqExprIsAncestor,
        kRqExprIsLeaf,
        kRqExprIsRoot,
        kRqExprIsSibling,
        kRqExprDepth,
        kRqExprAllValues,
        kRqExprIDOf,
        kRqExprLookup,
        kRqExprXSALookup,
        kRqExprDictLookup,
        kRqExprIndexCol,
        kRqExprEvaluate,
        kRqExprEvaluatePredicate,
        kRqExprPredict,
        kRqExprExternalData,
        kRqExprBinPlaceHolder,
        kRqExprTimeDimSeqNum,
        kRqExprGrainCheckDisplay,
        kRqExprMashupsNoAggregate,
        kRqExprVariableReplace,
        kRqExprCondOuterJoinFilter,
    });
    return kinds;
}

bool IsNeverConstant(const RqNode& node) {
    if (!node.IsExpr())
        return true;
    if (node.IsKindOf(kRqColumn) || node.IsKindOf(kRqExprAggr) || node.IsKindOf(kRqExprSubquery) ||
        node.IsKindOf(kRqExprColumnListOrdered)) {
        return true;
    }
    return NeverConstantKinds().test(static_cast<size_t>(node.GetObjectType()));
}

// Expressions that do not stand for one value per row.
const RqNodeTypeSet& NonValueKinds() {
    static const RqNodeTypeSet kinds =
        MakeKindSet({kRqExprColumnListOrdered, kRqExprColumnList, kRqAttribute, kRqExprDimension,
                     kRqExprLevel, kRqExprAllValues, kRqExprBinPlaceHolder, kRqExprExternalData});
    return kinds;
}

// Puts `operand` at position i of `expr`, growing the operand list when needed.
void SetOperandAt(RqExpr& expr, int i, RqExpr* operand) {
    if (expr.GetNumOperands() <= i)
        expr.SetNumOperands(i + 1);
    expr.SetIthOperand(i, operand);
}

}  // namespace

// ---- RqExpr --------------------------------------------------------------------------------

void RqExpr::AdoptOperands(std::initializer_list<RqExpr*> operands) {
    for (RqExpr* operand : operands)
        AddChild(operand);
}

RqExpr* RqExpr::GetIthOperand(int i) const {
    return RqDynCast<RqExpr>(GetIthChild(i));
}

RqExpr* RqExpr::ReplaceIthOperand(int i, RqExpr* operand) {
    // The slot of a subquery's block is not an operand: handing the block back as an
    // expression would be a type confusion.
    ZK_ASSERT(GetIthChild(i) == nullptr || GetIthChild(i)->IsExpr());
    return RqDynCast<RqExpr>(ReplaceIthChild(i, operand));
}

RqExpr* RqExpr::DeepExprCopy(bool keepIdentity) const {
    return RqCast<RqExpr>(DeepCopy(keepIdentity));
}

// Pre-order with an explicit stack, so that long chains of operands do not deepen the call
// stack. Each entry remembers the next operand to enter; the operand count is read afresh at
// every step because a Visit may rewrite the operands of the expression it is given. A
// visitor that walks operands itself calls Accept from inside Visit, which nests on the call
// stack: every entry checks the stack first, so such a walk ends with the stack error.
void RqExpr::Accept(AVisitorRqExpr& visitor) {
    ZKThread::LowStackCheck(0);
    if (DispatchExprVisit(visitor))
        return;
    std::vector<std::pair<RqExpr*, int>> work;
    work.emplace_back(this, 0);
    while (!work.empty()) {
        auto& [expr, next] = work.back();
        if (next >= expr->GetNumChildren()) {
            work.pop_back();
            continue;
        }
        RqExpr* operand = RqDynCast<RqExpr>(expr->GetIthChild(next++));
        if (operand == nullptr)
            continue;
        if (!operand->DispatchExprVisit(visitor))
            work.emplace_back(operand, 0);
    }
}

bool RqExpr::IsConstant() const {
    std::vector<const RqNode*> work{this};
    while (!work.empty()) {
        const RqNode* node = work.back();
        work.pop_back();
        if (ConstantLeafKinds().test(static_cast<size_t>(node->GetObjectType())))
            continue;
        if (IsNeverConstant(*node))
            return false;
        // A function is constant when its operands are; one without any operand that is not
        // known to be constant is not assumed to be.
        bool bHasOperand = false;
        for (int i = 0; i < node->GetNumChildren(); ++i) {
            if (const RqNode* child = node->GetIthChild(i)) {
                work.push_back(child);
                bHasOperand = true;
            }
        }
        if (!bHasOperand)
            return false;
    }
    return true;
}

bool RqExpr::IsValueExpr() const {
    return !NonValueKinds().test(static_cast<size_t>(GetObjectType()));
}

bool RqExpr::IsInnerProjectable() const {
    return IsKindOf(kRqColumn) || GetObjectType() == kRqExprRowID;
}

bool RqExpr::IsInnerProjectable(const RqProjection& inner) const {
    if (const auto* ref = RqDynCast<RqDerivedColumnReference>(this)) {
        const RqDerivedColumn* column = ref->GetDerivedColumn();
        return column != nullptr && column->GetProjection() == &inner;
    }
    return IsInnerProjectable();
}

// ---- Conditions ----------------------------------------------------------------------------

RqExprCond* RqExprCondConnective::GetLeftCond() const {
    return RqDynCast<RqExprCond>(GetNumOperands() > 0 ? GetIthOperand(0) : nullptr);
}

RqExprCond* RqExprCondConnective::GetRightCond() const {
    return RqDynCast<RqExprCond>(GetNumOperands() > 1 ? GetIthOperand(1) : nullptr);
}

RqExprCond* RqExprCondAnd::Concatenate(RqExprCond* left, RqExprCond* right) {
    if (left == nullptr)
        return right;
    if (right == nullptr)
        return left;
    return RQ_NEW RqExprCondAnd(left, right);
}

RqExprCond* RqExprCondAnd::ConcatenateCopy(RqExprCond* left, const RqExprCond* right) {
    return Concatenate(left,
                       right != nullptr ? RqCast<RqExprCond>(right->DeepExprCopy(false)) : nullptr);
}

RqExprCond* RqExprCondOr::Concatenate(RqExprCond* left, RqExprCond* right) {
    if (left == nullptr)
        return right;
    if (right == nullptr)
        return left;
    return RQ_NEW RqExprCondOr(left, right);
}

RqExprCond* RqExprCondOr::ConcatenateCopy(RqExprCond* left, const RqExprCond* right) {
    return Concatenate(left,
                       right != nullptr ? RqCast<RqExprCond>(right->DeepExprCopy(false)) : nullptr);
}

// ---- Derived column references -------------------------------------------------------------

RqDerivedColumnReference::RqDerivedColumnReference(RqDerivedColumn* column) {
    SetDerivedColumn(column);
}

// The copy reads the same column; a deep copy that also copies the column re-points it in
// FixUpCopy.
RqDerivedColumnReference::RqDerivedColumnReference(const RqDerivedColumnReference& other)
    : RqColumn(other) {
    SetDerivedColumn(other.m_pColumn);
}

RqDerivedColumnReference::~RqDerivedColumnReference() {
    SetDerivedColumn(nullptr);
}

void RqDerivedColumnReference::SetDerivedColumn(RqDerivedColumn* column) {
    if (column == m_pColumn)
        return;
    if (m_pColumn != nullptr) {
        if (m_pPrevRef != nullptr) {
            m_pPrevRef->m_pNextRef = m_pNextRef;
        } else {
            m_pColumn->m_pFirstRef = m_pNextRef;
        }
        if (m_pNextRef != nullptr) {
            m_pNextRef->m_pPrevRef = m_pPrevRef;
        } else {
            m_pColumn->m_pLastRef = m_pPrevRef;
        }
        m_pPrevRef = m_pNextRef = nullptr;
    }
    m_pColumn = column;
    if (column != nullptr) {
        m_pPrevRef = column->m_pLastRef;
        if (m_pPrevRef != nullptr) {
            m_pPrevRef->m_pNextRef = this;
        } else {
            column->m_pFirstRef = this;
        }
        column->m_pLastRef = this;
    }
}

void RqDerivedColumnReference::FixUpCopy(const CopyMap& map) {
    if (m_pColumn == nullptr)
        return;
    if (RqNode* copy = map.Find(m_pColumn))
        SetDerivedColumn(RqCast<RqDerivedColumn>(copy));
}

// ---- Subqueries ----------------------------------------------------------------------------

RqExprSubquery::RqExprSubquery(RqAbstractList* query) {
    AddChild(query);
}

RqAbstractList* RqExprSubquery::GetQuery() const {
    if (GetNumChildren() == 0)
        return nullptr;
    return RqDynCast<RqAbstractList>(GetIthChild(0));
}

// ---- Column lists --------------------------------------------------------------------------

RqExprColumnListOrdered::RqExprColumnListOrdered(const RqExprVector& members, bool bOwnsMembers) {
    for (RqExpr* member : members) {
        AddOperand((bOwnsMembers || member == nullptr) ? member : member->DeepExprCopy(false));
    }
}

void RqExprColumnListOrdered::SetIthColumn(int i, RqExpr* column) {
    ZK_ASSERT(i >= 0);
    SetOperandAt(*this, i, column);
}

void RqExprColumnListOrdered::GetColumns(RqExprVector& out) const {
    out.clear();
    out.reserve(static_cast<size_t>(GetNumColumns()));
    for (int i = 0; i < GetNumColumns(); ++i)
        out.push_back(GetIthColumn(i));
}

bool RqExprColumnListOrdered::IsSubsetOf(const RqExprColumnListOrdered& other) const {
    for (int i = 0; i < GetNumColumns(); ++i) {
        const RqExpr* member = GetIthColumn(i);
        if (member != nullptr && !other.HasEquivalentMember(*member))
            return false;
    }
    return true;
}

bool RqExprColumnListOrdered::IsPrefixSubsetOf(const RqExprColumnListOrdered& other) const {
    if (GetNumColumns() > other.GetNumColumns())
        return false;
    const RqEquivalence equivalent;
    for (int i = 0; i < GetNumColumns(); ++i) {
        if (!equivalent(GetIthColumn(i), other.GetIthColumn(i)))
            return false;
    }
    return true;
}

bool RqExprColumnListOrdered::HasEquivalentMember(const RqExpr& expr) const {
    const RqEquivalence equivalent;
    for (int i = 0; i < GetNumColumns(); ++i) {
        const RqExpr* member = GetIthColumn(i);
        if (member != nullptr && equivalent(*member, expr))
            return true;
    }
    return false;
}

RqExprColumnList::RqExprColumnList(const RqExprVector& members, bool bSorted, bool bOwnsMembers)
    : m_bSorted(bSorted) {
    for (RqExpr* member : members) {
        AddMember((bOwnsMembers || member == nullptr) ? member : member->DeepExprCopy(false));
    }
}

void RqExprColumnList::AddMember(RqExpr* column) {
    if (!m_bSorted) {
        AddOperand(column);
        return;
    }
    // After every member that does not order after it: equivalent members keep the order in
    // which they were added.
    const LessEquivalentRqExpr less;
    int position = GetNumOperands();
    while (position > 0 && less(column, GetIthOperand(position - 1)))
        --position;
    InsertChild(position, column);
}

// ---- Sort keys -----------------------------------------------------------------------------

RqSortSpec::RqSortSpec(int columnNumber, SortDirection direction, bool bLogicalSelectList,
                       bool bCaseInsensitive, NullSortDirection nullDirection)
    : m_columnNumber(columnNumber),
      m_direction(direction),
      m_bLogicalSelectList(bLogicalSelectList),
      m_bCaseInsensitive(bCaseInsensitive),
      m_nullDirection(nullDirection) {}

RqSortSpec::RqSortSpec(const RqSortSpec& other, bool keepIdentity)
    : RqNode(other),
      m_columnNumber(other.m_columnNumber),
      m_direction(other.m_direction),
      m_bLogicalSelectList(other.m_bLogicalSelectList),
      m_bCaseInsensitive(other.m_bCaseInsensitive),
      m_nullDirection(other.m_nullDirection) {
    if (!keepIdentity)
        SetUniqueID();
}

// ---- Aggregates ----------------------------------------------------------------------------

RqExprAggr::RqExprAggr(RqExpr* measure, RqExprColumnList* byList, RqExprColumnList* computeBreak,
                       int flags)
    : RqExpr({measure, byList, computeBreak}), m_bDistinct((flags & kDistinct) != 0) {}

RqExpr* RqExprAggr::ReleaseMeasure() {
    if (GetNumOperands() <= kMeasure)
        return nullptr;
    return ReplaceIthOperand(kMeasure, nullptr);
}

RqExprColumnList* RqExprAggr::GetByList() const {
    return RqDynCast<RqExprColumnList>(GetNumOperands() > kByList ? GetIthOperand(kByList)
                                                                  : nullptr);
}

void RqExprAggr::SetByList(RqExprColumnList* list) {
    SetOperandAt(*this, kByList, list);
}

RqExprColumnList* RqExprAggr::GetComputeBreak() const {
    return RqDynCast<RqExprColumnList>(
        GetNumOperands() > kComputeBreak ? GetIthOperand(kComputeBreak) : nullptr);
}

void RqExprAggr::SetComputeBreak(RqExprColumnList* list) {
    SetOperandAt(*this, kComputeBreak, list);
}

// Functional aggregates are computed from the results of other aggregates at a level: every
// sort-dependent aggregate (ranks, tiles, top and bottom N, running and moving aggregates,
// row numbers, percentiles) and the report family, read off the class hierarchy, and the
// aggregates of the list below. Every other aggregate is computed from detail rows.
bool RqExprAggr::IsFunctionalAggr() const {
    static const RqNodeTypeSet kinds = MakeKindSet(
        {kRqExprAggrSubtotal, kRqExprAggrTrendline, kRqExprAggrBin, kRqExprAggrWidthBucket});
    return IsSortDependent() || IsKindOf(kRqExprAggrReport) ||
           kinds.test(static_cast<size_t>(GetObjectType()));
}

// Wrappers mark an aggregation that happens elsewhere: the no-aggregate marker, the
// aggregates evaluated by the database (physical and logical) and external aggregates.
// Every other aggregate aggregates by itself.
bool RqExprAggr::IsAggrWrapper() const {
    static const RqNodeTypeSet kinds = MakeKindSet(
        {kRqExprNoAggregate, kRqExprEvaluateAggr, kRqExprEvaluateAggrLogical, kRqExprAggrExternal});
    return kinds.test(static_cast<size_t>(GetObjectType()));
}

// A hash group-by sees the rows of a group in no particular order and keeps one running
// state per group. That rules out aggregates that need the rows ordered (sort-dependent
// ones, and the kinds below that order the group's values: median, percentile, list
// aggregation), the ones that must see every value of the group before answering
// (null-if-not-unique), and those whose compute break de-duplicates its rows first. Every
// other aggregate keeps a running state.
bool RqExprAggr::IsHashable() const {
    static const RqNodeTypeSet kinds = MakeKindSet(
        {kRqExprAggrMedian, kRqExprAggrPercentile, kRqExprAggrListAgg, kRqExprAggrNullIfNotUnique});
    return !IsSortDependent() && !HasDistinctComputeBreak() &&
           !kinds.test(static_cast<size_t>(GetObjectType()));
}

void RqExprSortDependentAggr::GetSortDirections(std::vector<RqSortSpec::SortDirection>& out) const {
    out.clear();
    out.reserve(m_sortSpec.size());
    for (const SortKey& key : m_sortSpec)
        out.push_back(key.m_direction);
}
