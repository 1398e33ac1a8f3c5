#include "Query/Optimizer/SmartScheduler/Utility/SQOSUDeleteOrphanCols.h"

#include <algorithm>

#include "Platform/CompatFlags.h"
#include "Platform/ServerInfo.h"
#include "Platform/ZKAssert.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAggrFinder.h"

namespace DeleteOrphanColsLocal {

// The join column positions after the columns at `deletedIndexes` (positions before the
// deletion) are gone: each position moves down by the number of deleted positions below it.
// The order of the positions is kept.
void ComputeNewJoinIndexes(const UInt16Vector& joinIndexes, const Int32Vector& deletedIndexes,
                           UInt16Vector& newIndexes) {
    Int32Vector sorted(deletedIndexes);
    std::sort(sorted.begin(), sorted.end());
    newIndexes.clear();
    newIndexes.reserve(joinIndexes.size());
    for (const uint16_t index : joinIndexes) {
        const auto below = std::lower_bound(sorted.begin(), sorted.end(), int32_t{index});
        newIndexes.push_back(static_cast<uint16_t>(index - (below - sorted.begin())));
    }
}

}  // namespace DeleteOrphanColsLocal

namespace {

using DeleteOrphanColsLocal::ComputeNewJoinIndexes;

bool ContainsKind(const RqNode* root, RqNodeType_e kind) {
    return FoundNodes(root, RqNode::IsObjectType(kind));
}

// Follows an expression through derived column references down to the expression of the
// column that computes it (the expression itself when it is not a reference).
RqExpr* GetPointerToLeaf(RqExpr* expr) {
    while (RqDerivedColumnReference* reference = RqDynCast<RqDerivedColumnReference>(expr)) {
        RqDerivedColumn* column = reference->GetDerivedColumn();
        if (column == nullptr || column->GetExpr() == nullptr)
            break;
        expr = column->GetExpr();
    }
    return expr;
}

// A grain check in the expression itself, or in a column that one of its derived column
// references reads: such a column shows whether its block's rows are at the grain a
// consumer expects, and that answer needs the inputs it checks.
bool HasGrainCheckExpr(RqExpr* expr) {
    if (ContainsKind(expr, kRqExprGrainCheckDisplay))
        return true;
    RqNodeVector references;
    FindNodes(expr, RqNode::IsObjectType(kRqDerivedColumnReference), references);
    for (RqNode* node : references) {
        const RqDerivedColumn* column = RqCast<RqDerivedColumnReference>(node)->GetDerivedColumn();
        if (column != nullptr && ContainsKind(column->GetExpr(), kRqExprGrainCheckDisplay))
            return true;
    }
    return false;
}

// Adds the column of every derived column reference below `root`.
void AddReferencedColumns(RqNode* root, RqDerivedColumnSet& columnRefs) {
    RqNodeVector references;
    FindNodes(root, RqNode::IsObjectType(kRqDerivedColumnReference), references);
    for (RqNode* node : references) {
        if (RqDerivedColumn* column = RqCast<RqDerivedColumnReference>(node)->GetDerivedColumn())
            columnRefs.insert(column);
    }
}

// The search conditions of a table reference and of the references nested in its sides.
void AddJoinConditionReferences(RqTableReference* reference, RqDerivedColumnSet& columnRefs) {
    if (reference == nullptr)
        return;
    if (reference->GetLeftNode() != nullptr)
        AddReferencedColumns(reference->GetIthChild(RqTableReference::kCondChild), columnRefs);
    AddJoinConditionReferences(RqDynCast<RqTableReference>(reference->GetLeftNode()), columnRefs);
    AddJoinConditionReferences(RqDynCast<RqTableReference>(reference->GetRightNode()), columnRefs);
}

void AddProjectionColumns(const RqProjection* projection, RqDerivedColumnSet& columnRefs) {
    if (projection == nullptr)
        return;
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        if (RqDerivedColumn* column = projection->GetIthColumn(i))
            columnRefs.insert(column);
    }
}

// A column that carries a value of its own: one that is not constant, or one that a remote
// source computes (a source may not accept a block that selects constants only).
bool IsRealColumn(const RqDerivedColumn* column) {
    const RqExpr* expr = column->GetExpr();
    return (expr != nullptr && !expr->IsConstant()) ||
           ServerInfo::IsRemoteTargetType(column->GetTargetType());
}

// The aggregate's by-list when it has members: the level it breaks at.
const RqExprColumnList* OrderedColumnList(const RqExpr* expr) {
    const RqExprAggr* aggr = RqDynCast<RqExprAggr>(expr);
    const RqExprColumnList* list = aggr != nullptr ? aggr->GetByList() : nullptr;
    return list != nullptr && list->GetNumColumns() > 0 ? list : nullptr;
}

// What decides the number of rows of a block without GROUP BY: some projected value reads a
// row outside any aggregate (one row per detail row), or only aggregates do (one row per
// aggregate level). Deleting columns must not move a block from one to the other.
struct GrainShape {
    bool m_bHasAggr = false;
    bool m_bHasPlain = false;
    void Add(const RqDerivedColumn* column) {
        const RqExpr* expr = column->GetExpr();
        if (expr == nullptr || expr->IsConstant())
            return;
        if (AggrFinder::FindAggr(expr))
            m_bHasAggr = true;
        else
            m_bHasPlain = true;
    }
    bool IsDetailsLevel() const { return m_bHasPlain || !m_bHasAggr; }
};

bool IsPlainColumn(const RqDerivedColumn* column) {
    GrainShape shape;
    shape.Add(column);
    return shape.m_bHasPlain;
}

bool IsAggrColumn(const RqDerivedColumn* column) {
    GrainShape shape;
    shape.Add(column);
    return shape.m_bHasAggr;
}

// When deleting `doomed` from the projection of a block without GROUP BY would change its
// level, the first doomed column that restores it; otherwise null.
RqDerivedColumn* ColumnThatKeepsGrain(const RqList& listNode, const RqDerivedColumnVector& doomed) {
    const RqProjection* projection = listNode.GetProjection();
    if (listNode.GetGroupBy() != nullptr || projection == nullptr || doomed.empty())
        return nullptr;
    GrainShape before;
    GrainShape after;
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column == nullptr)
            continue;
        before.Add(column);
        if (std::find(doomed.begin(), doomed.end(), column) == doomed.end())
            after.Add(column);
    }
    if (before.IsDetailsLevel() == after.IsDetailsLevel())
        return nullptr;
    const auto needed = before.IsDetailsLevel() ? IsPlainColumn : IsAggrColumn;
    const auto found = std::find_if(doomed.begin(), doomed.end(), needed);
    return found != doomed.end() ? *found : nullptr;
}

// Whether a block whose aggregates are all gone may trade its GROUP BY for DISTINCT and keep
// its rows: every grouping column is still projected (so DISTINCT separates the groups), the
// block is grouped once (stacked grouping sets would merge), and no filter on aggregated rows
// would lose the grouping it is evaluated at.
bool GroupByBecomesDistinct(const RqList& listNode, const RqDerivedColumnVector& doomed) {
    const RqGroupBy* groupBy = listNode.GetGroupBy();
    if (groupBy->IsGroupingSets() || listNode.GetSummaryFilter() != nullptr ||
        FoundNodes(listNode.GetDetailFilter(), RqNode::IsAggrNode))
        return false;
    const RqProjection* projection = listNode.GetProjection();
    const RqEquivalence equivalent;
    for (int g = 0; g < groupBy->GetNumColumns(); ++g) {
        const RqExpr* grouped = groupBy->GetIthColumn(g);
        bool bProjected = false;
        for (int i = 0; i < projection->GetNumColumns() && !bProjected; ++i) {
            const RqDerivedColumn* column = projection->GetIthColumn(i);
            bProjected = column != nullptr &&
                         std::find(doomed.begin(), doomed.end(), column) == doomed.end() &&
                         equivalent(column->GetExpr(), grouped);
        }
        if (!bProjected)
            return false;
    }
    return true;
}

void EraseColumn(RqDerivedColumnVector& columns, const RqDerivedColumn* column) {
    columns.erase(std::remove(columns.begin(), columns.end(), column), columns.end());
}

// Deletes the columns at `positions` (ascending) from a list's projection, from the highest
// down so that lower positions stay valid. A break filter's break indexes follow its columns.
void DeleteColumnsAt(RqAbstractList* list, const Int32Vector& positions) {
    RqProjection* projection = list->GetProjection();
    for (auto it = positions.rbegin(); it != positions.rend(); ++it) {
        if (*it < projection->GetNumColumns())
            projection->DeleteColumn(projection->GetIthColumn(*it));
    }
    if (RqBreakFilter* breakFilter = RqDynCast<RqBreakFilter>(list)) {
        UInt16Vector renumbered;
        ComputeNewJoinIndexes(breakFilter->BreakColumnIndexes(), positions, renumbered);
        breakFilter->SetBreakColumnIndexes(renumbered);
    }
}

// A union branch whose columns may go: an unshared block without DISTINCT.
RqList* ReducibleBlock(RqAbstractList* list) {
    RqList* block = RqDynCast<RqList>(list);
    return block != nullptr && !block->IsShared() && !block->IsDistinct() ? block : nullptr;
}

// The block that computes a union branch: the branch itself, or the block below a break
// filter.
RqList* BranchBlock(RqAbstractList* branch) {
    if (RqBreakFilter* breakFilter = RqDynCast<RqBreakFilter>(branch))
        return breakFilter->IsShared() ? nullptr : ReducibleBlock(breakFilter->GetInnerList());
    return ReducibleBlock(branch);
}

}  // namespace

// ---- Construction ------------------------------------------------------------------------------

DeleteOrphanCols::DeleteOrphanCols(ARpGateway* rp)
    : m_visitedRootRqlist(false),
      m_pColumnRefs(nullptr),
      m_numColumns(0),
      m_pRp(rp),
      m_bCreatedColumnRefSetInternally(false) {
    InitColumnRefs();
}

DeleteOrphanCols::DeleteOrphanCols(RqDerivedColumnSet* pColumnRefs, ARpGateway* rp)
    : m_visitedRootRqlist(true),
      m_pColumnRefs(pColumnRefs),
      m_numColumns(0),
      m_pRp(rp),
      m_bCreatedColumnRefSetInternally(false) {
    ZK_ASSERT(pColumnRefs);
}

DeleteOrphanCols::~DeleteOrphanCols() {
    if (m_bCreatedColumnRefSetInternally)
        delete m_pColumnRefs;
}

void DeleteOrphanCols::InitColumnRefs() {
    m_pColumnRefs = new RqDerivedColumnSet();
    m_bCreatedColumnRefSetInternally = true;
}

Int32Vector DeleteOrphanCols::VisitWithSubVisitor(RqNode* node) {
    if (node == nullptr)
        return {};
    DeleteOrphanCols subVisitor(m_pColumnRefs, m_pRp);
    node->Accept(subVisitor);
    return std::move(subVisitor.m_deletedColIndexes);
}

// ---- Blocks ------------------------------------------------------------------------------------

bool DeleteOrphanCols::Visit(RqList& node) {
    if (!m_visitedRootRqlist) {
        VisitTopMostList(node);
        return false;
    }
    DeleteOrphansOfNestedList(node);
    return false;
}

void DeleteOrphanCols::VisitTopMostList(RqList& listNode) {
    // The request's result: its columns are what the user asked for, read or not.
    m_visitedRootRqlist = true;
    CollectChildReferences(listNode);
    AddOrderByReferences(listNode.GetOrderBy(), listNode.GetProjection(), *m_pColumnRefs);
    if (m_pColumnRefs->empty())
        AddCountStarReference(listNode, *m_pColumnRefs);
}

void DeleteOrphanCols::CollectChildReferences(RqList& listNode) {
    RqDerivedColumnSet& columnRefs = *m_pColumnRefs;
    AddReferencedColumns(listNode.GetProjection(), columnRefs);
    AddReferencedColumns(listNode.GetDetailFilter(), columnRefs);
    AddReferencedColumns(listNode.GetSummaryFilter(), columnRefs);
    // The grouping columns, HAVING and the aggregates an ORDER BY computes read the children
    // too: a column they read must stay, or they would read nothing.
    AddReferencedColumns(listNode.GetGroupBy(), columnRefs);
    AddReferencedColumns(listNode.GetHaving(), columnRefs);
    AddReferencedColumns(listNode.GetOrderBy(), columnRefs);
    if (RqJoinSpec* joinSpec = listNode.GetJoinSpec()) {
        for (int i = 0; i < joinSpec->GetNumTableReferences(); ++i)
            AddJoinConditionReferences(joinSpec->GetIthTableReference(i), columnRefs);
    }
    LoadJoinColumns(listNode.GetJoinSpec(), columnRefs);
}

void DeleteOrphanCols::DeleteOrphansOfNestedList(RqList& listNode) {
    RqDerivedColumnSet& columnRefs = *m_pColumnRefs;
    RqProjection* projection = listNode.GetProjection();
    AddOrderByReferences(listNode.GetOrderBy(), projection, columnRefs);
    AddControlBreakReferences(projection, columnRefs);
    LoadJoinColumns(listNode.GetJoinSpec(), columnRefs);
    RqNodeVector havingAggrs;
    FindNodes(listNode.GetHaving(), RqNode::IsAggrNode, havingAggrs);

    // DISTINCT rows are decided by every column, a random value would be drawn again, and a
    // shared list has other consumers this walk does not see.
    const bool bSkip = projection == nullptr || listNode.IsDistinct() || listNode.IsShared() ||
                       ContainsKind(projection, kRqExprRand);
    RqDerivedColumnVector candidates;
    m_numColumns = projection != nullptr ? projection->GetNumColumns() : 0;
    if (!bSkip) {
        RemoveGrainCheckColumnsFromDeleteOrphans(listNode, columnRefs);
        const bool bUndo = SUCompatFlag::GetBool(L"VELD_UNDO_16038091");
        const bool bKeepDerivedAggrs =
            SOCompatFlag::GetBool(L"VELD_DISABLE_DELETEORPHAN_IN_DERIVEDTABLE", m_pRp);
        const RqEquivalence equivalent;
        RqDerivedColumnVector keptAggrs;
        RqDerivedColumnVector orphanAggrs;
        bool bConstantsOnly = !ContainsKind(projection, kRqDerivedColumnReference);
        for (int i = 0; i < projection->GetNumColumns(); ++i) {
            RqDerivedColumn* column = projection->GetIthColumn(i);
            if (column == nullptr)
                continue;
            RqExpr* expr = column->GetExpr();
            bool bKeep =
                columnRefs.count(column) > 0 ||
                FoundNodes(expr, RqNode::IsObjectType({kRqExprAggrTopN, kRqExprAggrBottomN}));
            if (!bKeep && bKeepDerivedAggrs) {
                // Functional aggregates are not looked for; time-series ones are.
                AggrFinder finder(false, false, true, false, false);
                if (RqExpr* leaf = GetPointerToLeaf(expr))
                    leaf->Accept(finder);
                bKeep = finder.FoundAggr();
            }
            const bool bIsAggr = !bUndo && expr != nullptr && expr->IsAggr();
            if (!bKeep && bIsAggr) {
                bKeep = std::any_of(havingAggrs.begin(), havingAggrs.end(), [&](RqNode* aggr) {
                    return equivalent(static_cast<const RqNode*>(expr), aggr);
                });
            }
            if (bIsAggr)
                (bKeep ? keptAggrs : orphanAggrs).push_back(column);
            if (!bKeep)
                candidates.push_back(column);
            else if (IsRealColumn(column))
                bConstantsOnly = false;
        }

        if (!bUndo && !orphanAggrs.empty()) {
            // An aggregate with a by-list of its own sets a level of the block; it goes only
            // when a kept aggregate stands for the same level.
            for (RqDerivedColumn* orphan : orphanAggrs) {
                const RqExprColumnList* list = OrderedColumnList(orphan->GetExpr());
                if (list == nullptr)
                    continue;
                const bool bSameLevelKept =
                    std::any_of(keptAggrs.begin(), keptAggrs.end(), [&](RqDerivedColumn* kept) {
                        const RqExprColumnList* keptList = OrderedColumnList(kept->GetExpr());
                        return keptList != nullptr && equivalent(*keptList, *list);
                    });
                if (!bSameLevelKept)
                    EraseColumn(candidates, orphan);
            }
            // A multidimensional source computes its aggregates together; they stay.
            if (ServerInfo::IsTargetTypeMDXBased(listNode.GetTargetType())) {
                for (RqDerivedColumn* orphan : orphanAggrs)
                    EraseColumn(candidates, orphan);
            }
            const bool bOrphansLeft =
                std::any_of(orphanAggrs.begin(), orphanAggrs.end(), [&](RqDerivedColumn* c) {
                    return std::find(candidates.begin(), candidates.end(), c) != candidates.end();
                });
            if (bOrphansLeft && keptAggrs.empty() && listNode.GetGroupBy() != nullptr &&
                listNode.GetHaving() == nullptr && GroupByBecomesDistinct(listNode, candidates)) {
                listNode.SetGroupBy(nullptr);
                listNode.SetDistinct(true);
            }
        }

        if (bConstantsOnly) {
            const auto real = std::find_if(candidates.begin(), candidates.end(), IsRealColumn);
            if (real != candidates.end())
                candidates.erase(real);
        }
        // A block never loses its last column.
        if (m_numColumns > 0 && static_cast<int>(candidates.size()) >= m_numColumns)
            candidates.resize(m_numColumns - 1);
        if (RqDerivedColumn* keep = ColumnThatKeepsGrain(listNode, candidates))
            EraseColumn(candidates, keep);
    }

    int numRecorded = 0;
    for (RqDerivedColumn* column : candidates) {
        if (numRecorded + 1 >= m_numColumns)
            break;
        m_deletedColIndexes.push_back(projection->FindColumnIndex(column));
        ++numRecorded;
    }
    for (RqDerivedColumn* column : candidates) {
        if (projection->GetNumColumns() <= 1)
            break;
        projection->DeleteColumn(column);
    }

    CollectChildReferences(listNode);
    if (columnRefs.empty())
        AddCountStarReference(listNode, columnRefs);
}

// ---- Set operations and other lists ------------------------------------------------------------

bool DeleteOrphanCols::Visit(RqUnion& node) {
    RqDerivedColumnSet& columnRefs = *m_pColumnRefs;
    if (!CheckUnionRemovability(node, columnRefs)) {
        MarkAllColumnsAsReferenced(node, columnRefs);
        return false;
    }
    const int numColumns =
        node.GetProjection() != nullptr ? node.GetProjection()->GetNumColumns() : 0;
    Int32Vector removable;
    for (int p = 0; p < numColumns; ++p) {
        bool bRead = false;
        for (int b = 0; b < node.GetNumLists() && !bRead; ++b) {
            const RqProjection* projection = node.GetIthList(b)->GetProjection();
            const RqDerivedColumn* column =
                p < projection->GetNumColumns() ? projection->GetIthColumn(p) : nullptr;
            bRead = column == nullptr || columnRefs.count(const_cast<RqDerivedColumn*>(column));
        }
        if (!bRead)
            removable.push_back(p);
    }

    const auto isRemovable = [&](int p) {
        return std::binary_search(removable.begin(), removable.end(), p);
    };
    const auto takeOff = [&](int p) {
        removable.erase(std::find(removable.begin(), removable.end(), p));
    };
    // Each branch keeps one real column when it has one.
    for (int b = 0; b < node.GetNumLists(); ++b) {
        const RqProjection* projection = node.GetIthList(b)->GetProjection();
        bool bHasReal = false;
        for (int p = 0; p < projection->GetNumColumns() && !bHasReal; ++p)
            bHasReal = !isRemovable(p) && projection->GetIthColumn(p) != nullptr &&
                       IsRealColumn(projection->GetIthColumn(p));
        if (bHasReal)
            continue;
        for (const int p : removable) {
            if (IsRealColumn(projection->GetIthColumn(p))) {
                takeOff(p);
                break;
            }
        }
    }
    // Nor does a branch change its level, nor does the union lose every column.
    for (int b = 0; b < node.GetNumLists(); ++b) {
        RqList* block = BranchBlock(node.GetIthList(b));
        const RqProjection* projection = node.GetIthList(b)->GetProjection();
        RqDerivedColumnVector doomed;
        for (const int p : removable)
            doomed.push_back(projection->GetIthColumn(p));
        if (const RqDerivedColumn* keep = ColumnThatKeepsGrain(*block, doomed))
            takeOff(projection->FindColumnIndex(keep));
    }
    if (numColumns > 0 && static_cast<int>(removable.size()) == numColumns)
        removable.erase(removable.begin());

    m_deletedColIndexes.insert(m_deletedColIndexes.end(), removable.begin(), removable.end());
    m_numColumns = numColumns;
    for (int b = node.GetNumLists() - 1; b >= 0; --b)
        DeleteColumnsAt(node.GetIthList(b), removable);
    MarkAllColumnsAsReferenced(node, columnRefs);
    return false;
}

bool DeleteOrphanCols::CheckUnionRemovability(RqUnion& unionNode, RqDerivedColumnSet& columnRefs) {
    if (!m_visitedRootRqlist) {
        // The request's result: the union keeps every column.
        m_visitedRootRqlist = true;
        return false;
    }
    if (!unionNode.IsUnionAll() || unionNode.IsShared() || unionNode.GetNumLists() == 0)
        return false;
    for (int b = 0; b < unionNode.GetNumLists(); ++b) {
        RqAbstractList* branch = unionNode.GetIthList(b);
        RqList* block = BranchBlock(branch);
        if (block == nullptr || block->GetProjection() == nullptr)
            return false;
        AddOrderByReferences(block->GetOrderBy(), block->GetProjection(), columnRefs);
        if (RqBreakFilter* breakFilter = RqDynCast<RqBreakFilter>(branch))
            AddBreakFilterReferences(*breakFilter, columnRefs);
    }
    return true;
}

void DeleteOrphanCols::MarkAllColumnsAsReferenced(RqUnion& unionNode,
                                                  RqDerivedColumnSet& columnRefs) {
    for (int b = 0; b < unionNode.GetNumLists(); ++b) {
        if (const RqAbstractList* branch = unionNode.GetIthList(b))
            AddProjectionColumns(branch->GetProjection(), columnRefs);
    }
}

bool DeleteOrphanCols::Visit(RqIntersect& node) {
    // Which rows match is decided by every column: no branch loses one.
    m_visitedRootRqlist = true;
    for (int b = 0; b < node.GetNumLists(); ++b) {
        if (const RqAbstractList* branch = node.GetIthList(b))
            AddProjectionColumns(branch->GetProjection(), *m_pColumnRefs);
    }
    return false;
}

bool DeleteOrphanCols::Visit(RqExcept& node) {
    m_visitedRootRqlist = true;
    for (int b = 0; b < node.GetNumLists(); ++b) {
        if (const RqAbstractList* branch = node.GetIthList(b))
            AddProjectionColumns(branch->GetProjection(), *m_pColumnRefs);
    }
    return false;
}

bool DeleteOrphanCols::Visit(RqBreakFilter& node) {
    AddBreakFilterReferences(node, *m_pColumnRefs);
    if (!m_visitedRootRqlist) {
        // The request's result.
        m_visitedRootRqlist = true;
        AddProjectionColumns(node.GetProjection(), *m_pColumnRefs);
    }
    // The inner list is walked here so that the break indexes can follow its deleted
    // columns; the filter's projection is the inner one, so its consumers see the same.
    const Int32Vector deleted = VisitWithSubVisitor(node.GetInnerList());
    if (!deleted.empty()) {
        UInt16Vector renumbered;
        ComputeNewJoinIndexes(node.BreakColumnIndexes(), deleted, renumbered);
        node.SetBreakColumnIndexes(renumbered);
    }
    m_deletedColIndexes.insert(m_deletedColIndexes.end(), deleted.begin(), deleted.end());
    return true;
}

bool DeleteOrphanCols::Visit(RqSharedList& node) {
    if (const RqAbstractList* shared = node.GetSharedRqList())
        AddProjectionColumns(shared->GetProjection(), *m_pColumnRefs);
    return false;
}

bool DeleteOrphanCols::Visit(RqCache& node) {
    AddProjectionColumns(node.GetProjection(), *m_pColumnRefs);
    return false;
}

bool DeleteOrphanCols::Visit(RqXSACache& node) {
    AddProjectionColumns(node.GetProjection(), *m_pColumnRefs);
    return false;
}

bool DeleteOrphanCols::Visit(RqCacheList& node) {
    AddProjectionColumns(node.GetProjection(), *m_pColumnRefs);
    return false;
}

// ---- Joins -------------------------------------------------------------------------------------

bool DeleteOrphanCols::Visit(RqJoinSpec& node) {
    for (int i = 0; i < node.GetNumTableReferences(); ++i)
        VisitWithSubVisitor(node.GetIthTableReference(i));
    // The sub-visitors have walked everything below; walking it again would visit every
    // nested block once more per level above it.
    return true;
}

bool DeleteOrphanCols::Visit(RqTableReference& node) {
    const Int32Vector leftDeleted = VisitWithSubVisitor(node.GetLeftNode());
    const Int32Vector rightDeleted = VisitWithSubVisitor(node.GetRightNode());
    UInt16Vector renumbered;
    ComputeNewJoinIndexes(node.GetLeftJoinColumnIndexes(), leftDeleted, renumbered);
    node.SetLeftJoinColumnIndexes(renumbered);
    ComputeNewJoinIndexes(node.GetRightJoinColumnIndexes(), rightDeleted, renumbered);
    node.SetRightJoinColumnIndexes(renumbered);
    // The sides are done, and the search condition holds no block this rule changes.
    return true;
}

// ---- Nodes with nothing to do ------------------------------------------------------------------

// Clauses: what they read was collected with their block.
bool DeleteOrphanCols::Visit(RqProjection&) {
    return true;
}
bool DeleteOrphanCols::Visit(RqDetailFilter&) {
    return true;
}
bool DeleteOrphanCols::Visit(RqSummaryFilter&) {
    return true;
}
bool DeleteOrphanCols::Visit(RqGroupBy&) {
    return true;
}
bool DeleteOrphanCols::Visit(RqHaving&) {
    return true;
}
bool DeleteOrphanCols::Visit(RqOrderBy&) {
    return true;
}

bool DeleteOrphanCols::Visit(RqStats&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqHandleNode&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqDerivedColumn&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqJoinNode&) {
    return false;
}
bool DeleteOrphanCols::VisitAny(RqAbstractTable&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqEntity&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqExpr&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqSortSpec&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqDelete&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqInsert&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqDrop&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqPopulate&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqCreateIndex&) {
    return false;
}
bool DeleteOrphanCols::Visit(RqCanonicalMap&) {
    return false;
}

// ---- Helpers -----------------------------------------------------------------------------------

void DeleteOrphanCols::AddOrderByReferences(RqOrderBy* orderBy, RqProjection* projection,
                                            RqDerivedColumnSet& columnRefs) {
    if (orderBy == nullptr || projection == nullptr)
        return;
    for (int i = 0; i < orderBy->GetNumSortSpecs(); ++i) {
        const RqSortSpec* spec = orderBy->GetIthSortSpec(i);
        if (spec == nullptr)
            continue;
        RqDerivedColumn* pSortCol = projection->GetMatchingColumn(spec->GetColumnNumber());
        ZK_ASSERT(pSortCol);
        columnRefs.insert(pSortCol);
    }
}

void DeleteOrphanCols::AddControlBreakReferences(RqProjection* projection,
                                                 RqDerivedColumnSet& columnRefs) {
    if (projection == nullptr)
        return;
    RqNodeVector aggrs;
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        if (const RqDerivedColumn* column = projection->GetIthColumn(i))
            FindNodes(column->GetExpr(), RqNode::IsAggrNode, aggrs);
    }
    for (RqNode* node : aggrs) {
        const RqExprAggr* aggr = RqCast<RqExprAggr>(node);
        if (const RqExprColumnList* byList = aggr->GetByList()) {
            for (int i = 0; i < byList->GetNumColumns(); ++i) {
                if (RqDerivedColumn* column =
                        projection->GetMatchingColumn(byList->GetIthColumn(i)))
                    columnRefs.insert(column);
            }
        }
        // A sort-dependent aggregate orders its rows by columns of the projection.
        if (const RqExprSortDependentAggr* sorted = RqDynCast<RqExprSortDependentAggr>(node)) {
            for (const RqExprSortDependentAggr::SortKey& key : sorted->GetSortSpec()) {
                if (RqDerivedColumn* column = projection->GetMatchingColumn(key.m_columnNumber))
                    columnRefs.insert(column);
            }
        }
    }
}

void DeleteOrphanCols::AddBreakFilterReferences(RqBreakFilter& breakFilter,
                                                RqDerivedColumnSet& columnRefs) {
    const RqAbstractList* inner = breakFilter.GetInnerList();
    const RqProjection* projection = inner != nullptr ? inner->GetProjection() : nullptr;
    if (projection == nullptr)
        return;
    for (const uint16_t index : breakFilter.BreakColumnIndexes()) {
        if (index < projection->GetNumColumns()) {
            if (RqDerivedColumn* column = projection->GetIthColumn(index))
                columnRefs.insert(column);
        }
    }
}

void DeleteOrphanCols::AddCountStarReference(RqList& listNode, RqDerivedColumnSet& columnRefs) {
    if (!ContainsKind(listNode.GetProjection(), kRqExprAggrCountStar))
        return;
    // A block without FROM counts its one row; it has no table to keep a column of.
    if (listNode.GetJoinSpec() == nullptr)
        return;
    // clang-format off
    ZK_ASSERT(listNode.GetJoinSpec()->GetNumTableReferences()>0);
    // clang-format on
    const RqTableReference* reference = listNode.GetJoinSpec()->GetIthTableReference(0);
    const RqDerivedTable* derived = RqDynCast<RqDerivedTable>(reference->GetLeftNode());
    const RqAbstractList* inner = derived != nullptr ? derived->GetInnerList() : nullptr;
    const RqProjection* projection = inner != nullptr ? inner->GetProjection() : nullptr;
    if (projection == nullptr)
        return;
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column != nullptr && IsRealColumn(column)) {
            columnRefs.insert(column);
            return;
        }
    }
}

void DeleteOrphanCols::LoadJoinColumns(RqJoinSpec* joinSpec, RqDerivedColumnSet& columnRefs) {
    if (joinSpec == nullptr)
        return;
    for (int i = 0; i < joinSpec->GetNumTableReferences(); ++i)
        LoadJoinColumns(joinSpec->GetIthTableReference(i), columnRefs);
}

void DeleteOrphanCols::LoadJoinColumns(RqTableReference* reference,
                                       RqDerivedColumnSet& columnRefs) {
    if (reference == nullptr)
        return;
    LoadJoinColumns(reference->GetLeftNode(), reference->GetLeftJoinColumnIndexes(), columnRefs);
    LoadJoinColumns(reference->GetRightNode(), reference->GetRightJoinColumnIndexes(), columnRefs);
}

void DeleteOrphanCols::LoadJoinColumns(RqNode* table, const UInt16Vector& indexes,
                                       RqDerivedColumnSet& columnRefs) {
    if (RqTableReference* nested = RqDynCast<RqTableReference>(table)) {
        LoadJoinColumns(nested, columnRefs);
        return;
    }
    const RqDerivedTable* derived = RqDynCast<RqDerivedTable>(table);
    const RqAbstractList* inner = derived != nullptr ? derived->GetInnerList() : nullptr;
    const RqProjection* projection = inner != nullptr ? inner->GetProjection() : nullptr;
    if (projection == nullptr)
        return;
    for (const uint16_t index : indexes) {
        if (index < projection->GetNumColumns()) {
            if (RqDerivedColumn* column = projection->GetIthColumn(index))
                columnRefs.insert(column);
        }
    }
}

void DeleteOrphanCols::RemoveGrainCheckColumnsFromDeleteOrphans(RqList& listNode,
                                                                RqDerivedColumnSet& columnRefs) {
    const RqProjection* projection = listNode.GetProjection();
    if (projection == nullptr)
        return;
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column == nullptr || !HasGrainCheckExpr(column->GetExpr()))
            continue;
        columnRefs.insert(column);
        AddReferencedColumns(column->GetExpr(), columnRefs);
    }
}
