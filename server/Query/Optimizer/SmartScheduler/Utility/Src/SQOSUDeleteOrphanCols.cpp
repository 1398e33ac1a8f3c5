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

// Adds a column to the set. The columns of a block are mostly made one after another, so they
// mostly come in ascending address order: an insertion after the greatest one is tried first,
// and costs no search when it holds.
void AddColumn(RqDerivedColumnSet& columnRefs, RqDerivedColumn* column) {
    columnRefs.insert(columnRefs.end(), column);
}

// Answers whether the set holds each column of a sequence that mostly ascends (a projection's
// columns, in order): the search starts from where the previous answer was found, and falls
// back to a search from the root when the column is not just there. The set must not change
// while a cursor is in use.
class ColumnRefCursor {
public:
    explicit ColumnRefCursor(const RqDerivedColumnSet& columnRefs)
        : m_columnRefs(columnRefs), m_it(columnRefs.begin()) {}

    bool Contains(RqDerivedColumn* column) {
        m_it = LowerBound(column);
        return m_it != m_columnRefs.end() && *m_it == column;
    }

private:
    // The first element not below `column`.
    RqDerivedColumnSet::const_iterator LowerBound(RqDerivedColumn* column) const {
        const std::less<RqDerivedColumn*> less;
        RqDerivedColumnSet::const_iterator it = m_it;
        // The previous answer, or the one after it.
        for (int step = 0; step < 2; ++step) {
            if (it != m_columnRefs.begin() && !less(*std::prev(it), column))
                break;
            if (it == m_columnRefs.end() || !less(*it, column))
                return it;
            ++it;
        }
        return m_columnRefs.lower_bound(column);
    }

    const RqDerivedColumnSet& m_columnRefs;
    RqDerivedColumnSet::const_iterator m_it;
};

// The kinds the rule tests every node of a projection for, as sets built once from the kind
// table: a kind test on the table walks the kind's ancestors, once per node and question.
struct OrphanKindSets {
    RqNodeTypeSet m_aggr;        // aggregates: the kinds whose expressions answer IsAggr
    RqNodeTypeSet m_topN;        // TopN and BottomN aggregates
    RqNodeTypeSet m_rand;        // random numbers
    RqNodeTypeSet m_reference;   // derived column references
    RqNodeTypeSet m_grainCheck;  // grain-check displays
};

const OrphanKindSets& OrphanKinds() {
    static const OrphanKindSets sets = [] {
        OrphanKindSets built;
        for (int value = 0; value < kRqNodeTypeCount; ++value) {
            if (!RqIsNodeTypeValue(value))
                continue;
            const auto kind = static_cast<RqNodeType_e>(value);
            built.m_aggr[value] = RqIsKindOf(kind, kRqExprAggr);
            built.m_topN[value] =
                RqIsKindOf(kind, kRqExprAggrTopN) || RqIsKindOf(kind, kRqExprAggrBottomN);
            built.m_rand[value] = RqIsKindOf(kind, kRqExprRand);
            built.m_reference[value] = RqIsKindOf(kind, kRqDerivedColumnReference);
            built.m_grainCheck[value] = RqIsKindOf(kind, kRqExprGrainCheckDisplay);
        }
        return built;
    }();
    return sets;
}

bool InKinds(const RqNodeTypeSet& kinds, const RqNode* node) {
    return kinds.test(static_cast<size_t>(node->GetObjectType()));
}

bool IsAggrExpr(const RqNode* node) {
    return InKinds(OrphanKinds().m_aggr, node);
}

bool ContainsKind(const RqNode* root, RqNodeType_e kind) {
    return FoundNodes(root, [kind](const RqNode* node) { return node->IsKindOf(kind); });
}

bool ContainsAggr(const RqNode* root) {
    return FoundNodes(root, IsAggrExpr);
}

// Calls `fn` with the column of every derived column reference below `root`.
template <class Fn>
void ForEachReferencedColumn(const RqNode* root, Fn fn) {
    FoundNodes(root, [&fn](const RqNode* node) {
        if (InKinds(OrphanKinds().m_reference, node)) {
            if (RqDerivedColumn* column =
                    RqCast<RqDerivedColumnReference>(node)->GetDerivedColumn())
                fn(column);
        }
        return false;
    });
}

// Calls `fn` with every table reference of the join spec, in order. The join nodes are read
// in one pass over the join spec's children (counting them anew per reference would cost a pass
// per reference).
template <class Fn>
void ForEachTableReference(RqJoinSpec* joinSpec, Fn fn) {
    if (joinSpec == nullptr)
        return;
    for (int i = 0; i < joinSpec->GetNumChildren(); ++i) {
        if (const RqJoinNode* joinNode = RqDynCast<RqJoinNode>(joinSpec->GetIthChild(i))) {
            if (RqTableReference* reference = joinNode->GetTableReference())
                fn(reference);
        }
    }
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

bool IsGrainCheck(const RqNode* node) {
    return InKinds(OrphanKinds().m_grainCheck, node);
}

// Whether the column that a derived column reference reads computes a grain check.
bool ReadsGrainCheck(const RqNode* reference) {
    const RqDerivedColumn* column = RqCast<RqDerivedColumnReference>(reference)->GetDerivedColumn();
    return column != nullptr && FoundNodes(column->GetExpr(), IsGrainCheck);
}

// A grain check in the expression itself, or in a column that one of its derived column
// references reads: such a column shows whether its block's rows are at the grain a
// consumer expects, and that answer needs the inputs it checks.
bool HasGrainCheckExpr(RqExpr* expr) {
    const OrphanKindSets& kinds = OrphanKinds();
    return FoundNodes(expr, [&](const RqNode* node) {
        if (InKinds(kinds.m_grainCheck, node))
            return true;
        return InKinds(kinds.m_reference, node) && ReadsGrainCheck(node);
    });
}

// Adds the column of every derived column reference below `root`.
// A wide root (a projection of many columns) is walked one child at a time, so that each walk
// keeps its stack in place instead of first stacking every column.
void AddReferencedColumns(const RqNode* root, RqDerivedColumnSet& columnRefs) {
    if (root == nullptr)
        return;
    const auto insert = [&columnRefs](RqDerivedColumn* column) { AddColumn(columnRefs, column); };
    if (InKinds(OrphanKinds().m_reference, root)) {
        ForEachReferencedColumn(root, insert);
        return;
    }
    for (int i = 0; i < root->GetNumChildren(); ++i)
        ForEachReferencedColumn(root->GetIthChild(i), insert);
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
            AddColumn(columnRefs, column);
    }
}

// Every column of every branch of a set operation.
template <class SetOperation>
void AddBranchColumns(const SetOperation& setOperation, RqDerivedColumnSet& columnRefs) {
    for (int b = 0; b < setOperation.GetNumLists(); ++b) {
        if (const RqAbstractList* branch = setOperation.GetIthList(b))
            AddProjectionColumns(branch->GetProjection(), columnRefs);
    }
}

// The projection columns at `positions`, those that exist.
void AddColumnsAt(const RqProjection* projection, const UInt16Vector& positions,
                  RqDerivedColumnSet& columnRefs) {
    if (projection == nullptr)
        return;
    for (const uint16_t position : positions) {
        if (position < projection->GetNumColumns()) {
            if (RqDerivedColumn* column = projection->GetIthColumn(position))
                AddColumn(columnRefs, column);
        }
    }
}

// The projection of the block a derived table reads, when `table` is one.
const RqProjection* DerivedTableProjection(const RqNode* table) {
    const RqDerivedTable* derived = RqDynCast<RqDerivedTable>(table);
    const RqAbstractList* inner = derived != nullptr ? derived->GetInnerList() : nullptr;
    return inner != nullptr ? inner->GetProjection() : nullptr;
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

// Marks by projection position: the columns a block is about to lose.
using ColumnMarks = std::vector<char>;

// What the rule needs to know of one projected column, read in one walk of its expression.
}  // namespace

struct DeleteOrphanCols::ColumnFacts {
    bool m_bPresent = false;     // the slot holds a column
    bool m_bConstant = false;    // its expression does not depend on any row
    bool m_bReal = false;        // it carries a value of its own (IsRealColumn)
    bool m_bAggr = false;        // its expression holds an aggregate
    bool m_bTopN = false;        // ... a TopN or BottomN aggregate
    bool m_bRand = false;        // ... a random number
    bool m_bReference = false;   // ... a derived column reference
    bool m_bGrainCheck = false;  // ... a grain check, or reads one (HasGrainCheckExpr)

    static ColumnFacts Of(const RqDerivedColumn* column) {
        ColumnFacts facts;
        if (column == nullptr)
            return facts;
        facts.m_bPresent = true;
        const RqExpr* expr = column->GetExpr();
        // Columns, references and aggregates are never constant: the full test (a walk of
        // its own) is left for the other expressions.
        facts.m_bConstant =
            expr != nullptr && !expr->IsKindOf(kRqColumn) && !expr->IsAggr() && expr->IsConstant();
        facts.m_bReal = (expr != nullptr && !facts.m_bConstant) ||
                        ServerInfo::IsRemoteTargetType(column->GetTargetType());
        const OrphanKindSets& kinds = OrphanKinds();
        // One walk answers every question: the kind of each node is read once.
        FoundNodes(expr, [&facts, &kinds](const RqNode* node) {
            const size_t kind = static_cast<size_t>(node->GetObjectType());
            facts.m_bAggr |= kinds.m_aggr.test(kind);
            facts.m_bTopN |= kinds.m_topN.test(kind);
            facts.m_bRand |= kinds.m_rand.test(kind);
            facts.m_bGrainCheck |= kinds.m_grainCheck.test(kind);
            if (kinds.m_reference.test(kind)) {
                facts.m_bReference = true;
                facts.m_bGrainCheck = facts.m_bGrainCheck || ReadsGrainCheck(node);
            }
            return false;
        });
        return facts;
    }
    // For the level of a block without GROUP BY: a value read outside any aggregate, or an
    // aggregate (constants count as neither).
    bool IsPlain() const { return m_bPresent && !m_bConstant && !m_bAggr; }
    bool IsAggr() const { return m_bPresent && !m_bConstant && m_bAggr; }
};
namespace {

using ColumnFacts = DeleteOrphanCols::ColumnFacts;
using ColumnFactsVector = std::vector<ColumnFacts>;

ColumnFactsVector FactsOf(const RqProjection& projection) {
    ColumnFactsVector facts(projection.GetNumColumns());
    for (int i = 0; i < projection.GetNumColumns(); ++i)
        facts[i] = ColumnFacts::Of(projection.GetIthColumn(i));
    return facts;
}

// What decides the number of rows of a block without GROUP BY: some projected value reads a
// row outside any aggregate (one row per detail row), or only aggregates do (one row per
// aggregate level). Deleting columns must not move a block from one to the other.
struct GrainShape {
    bool m_bHasAggr = false;
    bool m_bHasPlain = false;
    void Add(const ColumnFacts& facts) {
        m_bHasAggr |= facts.IsAggr();
        m_bHasPlain |= facts.IsPlain();
    }
    bool IsDetailsLevel() const { return m_bHasPlain || !m_bHasAggr; }
};

// When deleting the `doomed` columns of a block without GROUP BY would change its level,
// the position of the first doomed column that keeps it; otherwise -1.
int ColumnThatKeepsGrain(const RqList& listNode, const ColumnFactsVector& facts,
                         const ColumnMarks& doomed) {
    if (listNode.GetGroupBy() != nullptr ||
        std::find(doomed.begin(), doomed.end(), 1) == doomed.end())
        return -1;
    GrainShape before;
    GrainShape after;
    for (size_t i = 0; i < facts.size(); ++i) {
        before.Add(facts[i]);
        if (!doomed[i])
            after.Add(facts[i]);
    }
    if (before.IsDetailsLevel() == after.IsDetailsLevel())
        return -1;
    for (size_t i = 0; i < facts.size(); ++i) {
        if (doomed[i] && (before.IsDetailsLevel() ? facts[i].IsPlain() : facts[i].IsAggr()))
            return static_cast<int>(i);
    }
    return -1;
}

// Whether a block whose aggregates are all gone may trade its GROUP BY for DISTINCT and keep
// its rows: every grouping column is still projected (so DISTINCT separates the groups), the
// block is grouped once (stacked grouping sets would merge), no filter on aggregated rows
// would lose the grouping it is evaluated at, and no kept column or sort key computes over
// an aggregate (Max(x) + 8 is not an aggregate column itself, yet it needs the groups).
bool GroupByBecomesDistinct(const RqList& listNode, const ColumnFactsVector& facts,
                            const ColumnMarks& doomed) {
    const RqGroupBy* groupBy = listNode.GetGroupBy();
    if (groupBy->IsGroupingSets() || listNode.GetSummaryFilter() != nullptr ||
        ContainsAggr(listNode.GetDetailFilter()) || ContainsAggr(listNode.GetOrderBy()))
        return false;
    const RqProjection* projection = listNode.GetProjection();
    for (size_t i = 0; i < facts.size(); ++i) {
        if (!doomed[i] && facts[i].m_bAggr)
            return false;
    }
    const RqEquivalence equivalent;
    for (int g = 0; g < groupBy->GetNumColumns(); ++g) {
        const RqExpr* grouped = groupBy->GetIthColumn(g);
        bool bProjected = false;
        for (int i = 0; i < projection->GetNumColumns() && !bProjected; ++i) {
            const RqDerivedColumn* column = projection->GetIthColumn(i);
            bProjected = column != nullptr && !doomed[i] && equivalent(column->GetExpr(), grouped);
        }
        if (!bProjected)
            return false;
    }
    return true;
}

// Deletes the marked columns in one pass: deleting them one by one would search and shift
// the projection once per column.
void DeleteMarkedColumns(RqProjection* projection, const ColumnMarks& doomed) {
    RqDerivedColumnVector kept;
    kept.reserve(projection->GetNumColumns());
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        RqNode* column = projection->ReleaseIthChild(i);
        if (i < static_cast<int>(doomed.size()) && doomed[i])
            delete column;
        else if (column != nullptr)
            kept.push_back(RqCast<RqDerivedColumn>(column));
    }
    projection->SetNumChildren(0);
    for (RqDerivedColumn* column : kept)
        projection->AddChild(column);
}

// Deletes the columns at `positions` (ascending) from a list's projection. A break filter's
// break indexes follow its columns.
void DeleteColumnsAt(RqAbstractList* list, const Int32Vector& positions) {
    RqProjection* projection = list->GetProjection();
    ColumnMarks doomed(projection->GetNumColumns(), 0);
    for (const int p : positions) {
        if (p < projection->GetNumColumns())
            doomed[p] = 1;
    }
    DeleteMarkedColumns(projection, doomed);
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
    // The set goes before the arena that holds its nodes.
    if (m_bCreatedColumnRefSetInternally)
        delete m_pColumnRefs;
}

void DeleteOrphanCols::InitColumnRefs() {
    m_pColumnRefArena = std::make_unique<std::pmr::monotonic_buffer_resource>();
    m_pColumnRefs = new RqDerivedColumnSet(m_pColumnRefArena.get());
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
    ForEachTableReference(listNode.GetJoinSpec(), [&](RqTableReference* reference) {
        AddJoinConditionReferences(reference, columnRefs);
    });
    LoadJoinColumns(listNode.GetJoinSpec(), columnRefs);
}

void DeleteOrphanCols::DeleteOrphansOfNestedList(RqList& listNode) {
    RqDerivedColumnSet& columnRefs = *m_pColumnRefs;
    RqProjection* projection = listNode.GetProjection();
    m_numColumns = projection != nullptr ? projection->GetNumColumns() : 0;
    const ColumnFactsVector facts =
        projection != nullptr ? FactsOf(*projection) : ColumnFactsVector();
    const auto anyFact = [&facts](bool ColumnFacts::*fact) {
        return std::any_of(facts.begin(), facts.end(),
                           [fact](const ColumnFacts& f) { return f.*fact; });
    };

    AddOrderByReferences(listNode.GetOrderBy(), projection, columnRefs);
    // Only aggregates break or sort by columns: the walk is left out for blocks without any.
    if (anyFact(&ColumnFacts::m_bAggr))
        AddControlBreakReferences(projection, columnRefs);
    LoadJoinColumns(listNode.GetJoinSpec(), columnRefs);
    // DISTINCT rows are decided by every column, a random value would be drawn again, and a
    // shared list has other consumers this walk does not see.
    const bool bSkip = projection == nullptr || listNode.IsDistinct() || listNode.IsShared() ||
                       anyFact(&ColumnFacts::m_bRand);
    if (!bSkip) {
        if (anyFact(&ColumnFacts::m_bGrainCheck))
            RemoveGrainCheckColumnsFromDeleteOrphans(listNode, columnRefs);
        ColumnMarks orphans = FindOrphans(listNode, facts);
        int numOrphans = static_cast<int>(std::count(orphans.begin(), orphans.end(), 1));
        // A block never loses its last column: the last orphan stays.
        for (int i = m_numColumns - 1; i >= 0 && numOrphans >= m_numColumns; --i) {
            if (orphans[i]) {
                orphans[i] = 0;
                --numOrphans;
            }
        }
        const int keep = ColumnThatKeepsGrain(listNode, facts, orphans);
        if (keep >= 0)
            orphans[keep] = 0;
        for (int i = 0; i < m_numColumns; ++i) {
            if (orphans[i])
                m_deletedColIndexes.push_back(i);
        }
        DeleteMarkedColumns(projection, orphans);
    }

    CollectChildReferences(listNode);
    if (columnRefs.empty())
        AddCountStarReference(listNode, columnRefs);
}

ColumnMarks DeleteOrphanCols::FindOrphans(RqList& listNode, const ColumnFactsVector& facts) {
    const RqDerivedColumnSet& columnRefs = *m_pColumnRefs;
    const RqProjection* projection = listNode.GetProjection();
    const int numColumns = projection->GetNumColumns();
    RqNodeVector havingAggrs;
    FindNodes(listNode.GetHaving(), RqNode::IsAggrNode, havingAggrs);
    // The flags are read where they first decide something: the undo flag for a block that
    // projects an aggregate, the session flag for the first column nobody reads.
    const bool bProjectsAggr =
        std::any_of(facts.begin(), facts.end(), [](const ColumnFacts& f) { return f.m_bAggr; });
    const bool bUndo = bProjectsAggr && SUCompatFlag::GetBool(L"VELD_UNDO_16038091");
    int keepDerivedAggrs = -1;  // not read yet
    const RqEquivalence equivalent;

    ColumnRefCursor read(columnRefs);
    ColumnMarks orphans(numColumns, 0);
    std::vector<int> keptAggrs;
    std::vector<int> orphanAggrs;
    bool bConstantsOnly = std::none_of(facts.begin(), facts.end(),
                                       [](const ColumnFacts& f) { return f.m_bReference; });
    for (int i = 0; i < numColumns; ++i) {
        RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column == nullptr)
            continue;
        RqExpr* expr = column->GetExpr();
        bool bKeep = facts[i].m_bTopN || read.Contains(column);
        if (!bKeep && keepDerivedAggrs < 0) {
            keepDerivedAggrs =
                SOCompatFlag::GetBool(L"VELD_DISABLE_DELETEORPHAN_IN_DERIVEDTABLE", m_pRp) ? 1 : 0;
        }
        if (!bKeep && keepDerivedAggrs == 1) {
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
            (bKeep ? keptAggrs : orphanAggrs).push_back(i);
        if (!bKeep)
            orphans[i] = 1;
        else if (facts[i].m_bReal)
            bConstantsOnly = false;
    }

    if (!bUndo && !orphanAggrs.empty())
        RefineOrphanAggrs(listNode, facts, keptAggrs, orphanAggrs, orphans);

    // A block that would select constants only keeps its first real column as well.
    if (bConstantsOnly) {
        for (int i = 0; i < numColumns; ++i) {
            if (orphans[i] && facts[i].m_bReal) {
                orphans[i] = 0;
                break;
            }
        }
    }
    return orphans;
}

void DeleteOrphanCols::RefineOrphanAggrs(RqList& listNode, const ColumnFactsVector& facts,
                                         const std::vector<int>& keptAggrs,
                                         const std::vector<int>& orphanAggrs,
                                         ColumnMarks& orphans) {
    const RqProjection* projection = listNode.GetProjection();
    const RqEquivalence equivalent;
    const auto listAt = [projection](int i) {
        return OrderedColumnList(projection->GetIthColumn(i)->GetExpr());
    };
    // An aggregate with a by-list of its own sets a level of the block; it goes only when a
    // kept aggregate stands for the same level.
    for (const int orphan : orphanAggrs) {
        const RqExprColumnList* list = listAt(orphan);
        if (list == nullptr)
            continue;
        const bool bSameLevelKept = std::any_of(keptAggrs.begin(), keptAggrs.end(), [&](int kept) {
            const RqExprColumnList* keptList = listAt(kept);
            return keptList != nullptr && equivalent(*keptList, *list);
        });
        if (!bSameLevelKept)
            orphans[orphan] = 0;
    }
    // A multidimensional source computes its aggregates together; they stay.
    if (ServerInfo::IsTargetTypeMDXBased(listNode.GetTargetType())) {
        for (const int orphan : orphanAggrs)
            orphans[orphan] = 0;
    }
    const bool bOrphansLeft = std::any_of(orphanAggrs.begin(), orphanAggrs.end(),
                                          [&](int orphan) { return orphans[orphan] != 0; });
    if (bOrphansLeft && keptAggrs.empty() && listNode.GetGroupBy() != nullptr &&
        listNode.GetHaving() == nullptr && GroupByBecomesDistinct(listNode, facts, orphans)) {
        listNode.SetGroupBy(nullptr);
        listNode.SetDistinct(true);
    }
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

    ColumnMarks marks(numColumns, 0);
    for (const int p : removable)
        marks[p] = 1;
    // Each branch keeps one real column when it has one.
    for (int b = 0; b < node.GetNumLists(); ++b) {
        const RqProjection* projection = node.GetIthList(b)->GetProjection();
        const int width = std::min(numColumns, projection->GetNumColumns());
        bool bHasReal = false;
        for (int p = 0; p < width && !bHasReal; ++p) {
            const RqDerivedColumn* column = projection->GetIthColumn(p);
            bHasReal = !marks[p] && column != nullptr && IsRealColumn(column);
        }
        for (int p = 0; p < width && !bHasReal; ++p) {
            if (marks[p] && IsRealColumn(projection->GetIthColumn(p))) {
                marks[p] = 0;
                bHasReal = true;
            }
        }
    }
    // Nor does a branch change its level, nor does the union lose every column.
    for (int b = 0; b < node.GetNumLists(); ++b) {
        const RqProjection* projection = node.GetIthList(b)->GetProjection();
        ColumnMarks doomed(marks);
        doomed.resize(projection->GetNumColumns(), 0);
        const int keep =
            ColumnThatKeepsGrain(*BranchBlock(node.GetIthList(b)), FactsOf(*projection), doomed);
        if (keep >= 0)
            marks[keep] = 0;
    }
    if (numColumns > 0 && std::count(marks.begin(), marks.end(), 1) == numColumns)
        marks[0] = 0;
    removable.clear();
    for (int p = 0; p < numColumns; ++p) {
        if (marks[p])
            removable.push_back(p);
    }

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
    AddBranchColumns(unionNode, columnRefs);
}

bool DeleteOrphanCols::Visit(RqIntersect& node) {
    // Which rows match is decided by every column: no branch loses one.
    m_visitedRootRqlist = true;
    AddBranchColumns(node, *m_pColumnRefs);
    return false;
}

bool DeleteOrphanCols::Visit(RqExcept& node) {
    m_visitedRootRqlist = true;
    AddBranchColumns(node, *m_pColumnRefs);
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
    ForEachTableReference(&node,
                          [this](RqTableReference* reference) { VisitWithSubVisitor(reference); });
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
        AddColumn(columnRefs, pSortCol);
    }
}

void DeleteOrphanCols::AddControlBreakReferences(RqProjection* projection,
                                                 RqDerivedColumnSet& columnRefs) {
    if (projection == nullptr)
        return;
    const auto addMatching = [&](auto columnNumber) {
        if (RqDerivedColumn* column = projection->GetMatchingColumn(columnNumber))
            AddColumn(columnRefs, column);
    };
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column == nullptr)
            continue;
        FoundNodes(column->GetExpr(), [&](const RqNode* node) {
            if (!IsAggrExpr(node))
                return false;
            if (const RqExprColumnList* byList = RqCast<RqExprAggr>(node)->GetByList()) {
                for (int c = 0; c < byList->GetNumColumns(); ++c)
                    addMatching(byList->GetIthColumn(c));
            }
            // A sort-dependent aggregate orders its rows by columns of the projection.
            if (const auto* sorted = RqDynCast<RqExprSortDependentAggr>(node)) {
                for (const RqExprSortDependentAggr::SortKey& key : sorted->GetSortSpec())
                    addMatching(key.m_columnNumber);
            }
            return false;
        });
    }
}

void DeleteOrphanCols::AddBreakFilterReferences(RqBreakFilter& breakFilter,
                                                RqDerivedColumnSet& columnRefs) {
    const RqAbstractList* inner = breakFilter.GetInnerList();
    AddColumnsAt(inner != nullptr ? inner->GetProjection() : nullptr,
                 breakFilter.BreakColumnIndexes(), columnRefs);
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
    const RqProjection* projection = DerivedTableProjection(reference->GetLeftNode());
    if (projection == nullptr)
        return;
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        RqDerivedColumn* column = projection->GetIthColumn(i);
        if (column != nullptr && IsRealColumn(column)) {
            AddColumn(columnRefs, column);
            return;
        }
    }
}

void DeleteOrphanCols::LoadJoinColumns(RqJoinSpec* joinSpec, RqDerivedColumnSet& columnRefs) {
    ForEachTableReference(joinSpec, [&columnRefs](RqTableReference* reference) {
        LoadJoinColumns(reference, columnRefs);
    });
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
    AddColumnsAt(DerivedTableProjection(table), indexes, columnRefs);
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
        AddColumn(columnRefs, column);
        AddReferencedColumns(column->GetExpr(), columnRefs);
    }
}
