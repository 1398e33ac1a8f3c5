// The vertical list splitter: nesting a block within an outer reprojection, moving ORDER BY,
// GROUP BY and DISTINCT between the two blocks, composing expressions across them and
// rendering expressions against a child projection.

#include "Query/Optimizer/SmartScheduler/Utility/SQOSUVerticalListSplitter.h"

#include <algorithm>
#include <set>
#include <vector>

#include "Platform/Features.h"
#include "Platform/ServerInfo.h"
#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqEquivalence.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAggrFinder.h"

namespace {

// ---- Small tools -----------------------------------------------------------------------------

// A copy of the node's own fields without its children, with an identity of its own.
RqExpr* ShallowExprCopy(const RqExpr& expr) {
    RqExpr* copy = RqCast<RqExpr>(expr.CloneNode(ZK_HERE));
    copy->SetUniqueID();
    return copy;
}

// The inner block as a derived table of a new one-table FROM clause.
RqJoinSpec* MakeSingleTableJoinSpec(RqAbstractList* inner, int nestingLevel) {
    auto* table = RQ_NEW RqDerivedTable(inner, nestingLevel);
    auto* reference = RQ_NEW RqTableReference(SqlTableRef::kInnerJoin, table, nullptr, nullptr,
                                              RqTableReference::kDriving_UnknownTable);
    auto* joinNode = RQ_NEW RqJoinNode(reference);
    return RQ_NEW RqJoinSpec(std::vector<RqJoinNode*>{joinNode});
}

// The first column of `projection` whose expression is a reference to `column`, or null.
RqDerivedColumn* FindReadingColumn(const RqProjection& projection, const RqDerivedColumn* column) {
    for (int i = 0; i < projection.GetNumColumns(); ++i) {
        RqDerivedColumn* candidate = projection.GetIthColumn(i);
        const auto* ref = RqDynCast<RqDerivedColumnReference>(candidate->GetExpr());
        if (ref != nullptr && ref->GetDerivedColumn() == column)
            return candidate;
    }
    return nullptr;
}

bool IsLobColumn(const RqProjection& projection, int index) {
    return index >= 0 && index < projection.GetNumColumns() &&
           (projection.GetIthColumn(index)->GetBreakStatus() & RqDerivedColumn::kLobData) != 0;
}

// Whether a database of this type can run an ORDER BY in a block that is itself read as a
// derived table. Asked of the type's feature set: the splitter works without a session.
bool TargetSortsInsideDerivedTable(ServerInfo::TargetType type) {
    const std::set<SUFeaturesTable::FeatureId> features = SUFeaturesTable::DefaultsFor(type);
    return features.count(SUFeaturesTable::kFeature_NestedOrderBy) != 0;
}

// The four kinds that pass an expression through to the database: the server's own engine
// cannot compute them.
bool IsEvaluateKind(const RqExpr& expr) {
    const RqNodeType_e kind = expr.GetObjectType();
    return kind == kRqExprEvaluate || kind == kRqExprEvaluatePredicate ||
           kind == kRqExprEvaluateAggr || kind == kRqExprEvaluateAggrLogical;
}

// Hierarchy navigation and lookups that a child block keeps its hands off when subqueries are
// kept: a lookup table, is-ancestor, is-root and is-sibling.
bool HasHierarchyOrLookup(const RqExpr& expr) {
    return FoundNodes(&expr, RqNode::IsObjectType{kRqExprLookup, kRqExprIsAncestor, kRqExprIsRoot,
                                                  kRqExprIsSibling});
}

// ---- Nesting ---------------------------------------------------------------------------------

bool IsLeftOut(const Int32Vector* pColumnsToLeaveOut, int columnNum) {
    return pColumnsToLeaveOut != nullptr &&
           std::find(pColumnsToLeaveOut->begin(), pColumnsToLeaveOut->end(), columnNum) !=
               pColumnsToLeaveOut->end();
}

// Step 3 of the nesting: the outer block reads each kept inner column, and whatever read the
// inner column from above reads the outer column instead.
void ReprojectInnerColumns(RqProjection& innerProjection, RqProjection& outerProjection,
                           const Int32Vector* pColumnsToLeaveOut) {
    const int numColumns = innerProjection.GetNumColumns();
    for (int i = 0; i < numColumns; ++i) {
        RqDerivedColumn* innerColumn = innerProjection.GetIthColumn(i);
        const int columnNum = innerColumn->GetColumnNum();
        if (IsLeftOut(pColumnsToLeaveOut, columnNum))
            continue;
        auto* outerColumn =
            RQ_NEW RqDerivedColumn(RQ_NEW RqDerivedColumnReference(innerColumn), columnNum);
        outerProjection.ReSyncColumnNumGenerator(columnNum);
        outerProjection.AddColumn(outerColumn);
        // The new reference reads the inner column too: keep it there while the others move.
        auto* ownRef = RqCast<RqDerivedColumnReference>(outerColumn->GetExpr());
        ownRef->SetDerivedColumn(nullptr);
        innerColumn->SwitchDerivedColumnReferences(outerColumn);
        ownRef->SetDerivedColumn(innerColumn);
    }
}

bool OrderByNamesLeftOutColumn(const RqOrderBy& orderBy, const Int32Vector* pColumnsToLeaveOut) {
    for (int i = 0; i < orderBy.GetNumSortSpecs(); ++i) {
        const RqSortSpec* spec = orderBy.GetIthSortSpec(i);
        if (spec != nullptr && IsLeftOut(pColumnsToLeaveOut, spec->GetColumnNumber()))
            return true;
    }
    return false;
}

// Steps 7 and 8 of the nesting; true when the ORDER BY moved outward.
bool MoveOrderByOutward(RqList& inner, RqList& outer, const Int32Vector* pColumnsToLeaveOut) {
    if (inner.GetOrderBy() == nullptr)
        return false;
    if (pColumnsToLeaveOut != nullptr &&
        OrderByNamesLeftOutColumn(*inner.GetOrderBy(), pColumnsToLeaveOut))
        return false;
    VerticalListSplitter::RelocateOrderByToOuterList(inner, &outer);
    if (inner.GetOrderBy() != nullptr)
        return false;
    if (inner.m_rowOffset != 0) {
        outer.m_rowOffset = inner.m_rowOffset;
        inner.m_rowOffset = 0;
    }
    if (inner.m_rowLimit != 0) {
        outer.m_rowLimit = inner.m_rowLimit;
        inner.m_rowLimit = 0;
    }
    return true;
}

}  // namespace

RqList* VerticalListSplitter::NestWithinOuterReprojection(RqAbstractList& abstractListNode,
                                                          Int32Vector* pColumnsToLeaveOut,
                                                          bool bMoveDistinct,
                                                          uint32_t nestingLevel) {
    RqList* outerList = RQ_NEW RqList();
    const ServerInfo::TargetType innerTargetType = abstractListNode.GetTargetType();
    // The sort that moves outward keeps the place of the inner block: inside a derived table
    // when the inner block was one's list.
    const bool bInsideDerivedTable = RqDynCast<RqDerivedTable>(abstractListNode.GetParent());

    RqHandleNode releaseContainer;
    abstractListNode.ReplaceInParent(outerList, releaseContainer);
    ZK_ASSERT(outerList->GetProjection()->GetNumColumns() == 0);

    RqProjection* innerProjection = abstractListNode.GetProjection();
    if (innerProjection != nullptr)
        ReprojectInnerColumns(*innerProjection, *outerList->GetProjection(), pColumnsToLeaveOut);

    ZK_ASSERT(&abstractListNode == releaseContainer.ReleaseRqNode());
    outerList->SetJoinSpec(
        MakeSingleTableJoinSpec(&abstractListNode, static_cast<int>(nestingLevel) + 1));

    auto* innerList = RqDynCast<RqList>(&abstractListNode);
    if (bMoveDistinct && innerList != nullptr) {
        outerList->SetDistinct(innerList->IsDistinct());
        innerList->SetDistinct(false);
    }
    const bool bRelocated =
        innerList != nullptr && MoveOrderByOutward(*innerList, *outerList, pColumnsToLeaveOut);

    // A database that cannot sort inside a derived table leaves the moved sort to the server.
    if (bRelocated && bInsideDerivedTable && ServerInfo::IsRemoteTargetType(innerTargetType) &&
        !TargetSortsInsideDerivedTable(innerTargetType)) {
        for (RqNode* node :
             {static_cast<RqNode*>(outerList->GetOrderBy()), static_cast<RqNode*>(outerList)}) {
            node->MarkTargetType(ServerInfo::kBuiltInExecutionEngine);
            node->MarkTargetID(VoidID::NullID);
        }
    }
    return outerList;
}

void VerticalListSplitter::ComputeEquivalentOuterSortSpecs(RqAbstractList& innerList,
                                                           RqOrderBy* pOrderBy, RqList* pOuterList,
                                                           SortSpecVector& result) {
    if (pOrderBy == nullptr || pOuterList == nullptr)
        return;
    RqProjection* innerProjection = innerList.GetProjection();
    RqProjection* outerProjection = pOuterList->GetProjection();
    SortSpecVector specs;
    for (int i = 0; i < pOrderBy->GetNumSortSpecs(); ++i) {
        const RqSortSpec* spec = pOrderBy->GetIthSortSpec(i);
        RqDerivedColumn* innerColumn =
            spec == nullptr || innerProjection == nullptr
                ? nullptr
                : innerProjection->GetMatchingColumn(spec->GetColumnNumber());
        RqDerivedColumn* outerColumn =
            innerColumn == nullptr ? nullptr : FindReadingColumn(*outerProjection, innerColumn);
        if (outerColumn == nullptr) {
            // A sort on a prefix of the keys would give another order: all or nothing.
            for (RqSortSpec* made : specs)
                delete made;
            return;
        }
        auto* outerSpec = RQ_NEW RqSortSpec(*spec, false);
        outerSpec->SetColumnNumber(outerColumn->GetColumnNum());
        specs.push_back(outerSpec);
    }
    result.insert(result.end(), specs.begin(), specs.end());
}

void VerticalListSplitter::RelocateOrderByToOuterList(RqList& innerList, RqList* pOuterList) {
    RqOrderBy* innerOrderBy = innerList.GetOrderBy();
    if (innerOrderBy == nullptr || pOuterList == nullptr)
        return;
    SortSpecVector specs;
    ComputeEquivalentOuterSortSpecs(innerList, innerOrderBy, pOuterList, specs);
    if (specs.empty())
        return;
    // The aggregates the inner sort computed on the way belong to the inner block's rows; the
    // outer sort only orders.
    auto* outerOrderBy =
        RQ_NEW RqOrderBy(specs, innerOrderBy->GetStickyTypes(), innerOrderBy->IsSticky());
    pOuterList->SetOrderBy(outerOrderBy);
    innerList.SetOrderBy(nullptr);
}

// ---- Outer columns and child references ------------------------------------------------------

void VerticalListSplitter::AddOuterColumn(RqDerivedColumn* pChildColumn,
                                          RqProjection& innerProjection,
                                          RqProjection& outerProjection, bool bKeepSubqueries) {
    ZK_ASSERT(pChildColumn);
    RqDerivedColumnReferenceVector derivedColumnReferences;
    {
        Heap<RqDerivedColumnReference> pattern(RQ_NEW RqDerivedColumnReference(pChildColumn));
        outerProjection.GetMatchingColumnReferences(pattern.Get(), derivedColumnReferences,
                                                    RqEquivalence());
    }
    ZK_ASSERT(!derivedColumnReferences.empty());
    // Out of the column, so that the rendering cannot answer the whole expression with the
    // column itself. Only the direct columns go back into the child: the computation moves up.
    Heap<RqExpr> rendered(
        RenderChildReferences(pChildColumn->ReleaseExpr(), innerProjection, bKeepSubqueries, true));
    for (RqDerivedColumnReference* ref : derivedColumnReferences) {
        RqNode* parent = ref->GetParent();
        parent->SetIthChild(parent->GetChildIndex(ref), rendered->DeepExprCopy(false));
    }
}

RqExpr* AddSubExprChildReferences(RqExpr* pExpr, RqProjection& childProjection,
                                  bool bKeepSubqueries, bool bNoEvaluateInChild) {
    if (pExpr == nullptr)
        return nullptr;
    if (bKeepSubqueries && pExpr->IsKindOf(kRqExprSubquery))
        return pExpr;
    if (RqDerivedColumn* existing = childProjection.GetMatchingColumn(pExpr))
        return RQ_NEW RqDerivedColumnReference(existing);

    const ServerInfo::TargetType childTarget = childProjection.GetParent() != nullptr
                                                   ? childProjection.GetParent()->GetTargetType()
                                                   : childProjection.GetTargetType();
    const bool bChildEvaluates =
        (ServerInfo::IsRemoteTargetType(childTarget) || !IsEvaluateKind(*pExpr)) &&
        !bNoEvaluateInChild;
    const bool bPushWhole = pExpr->IsInnerProjectable() || bChildEvaluates ||
                            (bKeepSubqueries && !HasHierarchyOrLookup(*pExpr));
    if (bPushWhole)
        return RQ_NEW RqDerivedColumnReference(childProjection.InsertColumnExpr(pExpr));

    for (int i = 0; i < pExpr->GetNumOperands(); ++i) {
        RqExpr* operand = pExpr->GetIthOperand(i);
        if (operand == nullptr)
            continue;
        RqExpr* rendered = AddSubExprChildReferences(operand, childProjection, bKeepSubqueries,
                                                     bNoEvaluateInChild);
        if (rendered != operand)
            pExpr->SetIthOperand(i, rendered);
    }
    return pExpr;
}

RqExpr* VerticalListSplitter::RenderChildReferences(RqExpr* pExpr, RqProjection& childProjection,
                                                    bool bKeepSubqueries, bool bNoEvaluateInChild) {
    RqExpr* result =
        AddSubExprChildReferences(pExpr, childProjection, bKeepSubqueries, bNoEvaluateInChild);
    if (result != pExpr) {
        // A detached argument is ours to destroy; one still in a tree is replaced in place.
        if (RqNode* parent = pExpr->GetParent())
            parent->ReleaseIthChild(parent->GetChildIndex(pExpr));
        delete pExpr;
    }
    return result;
}

// ---- Composing expressions across blocks -----------------------------------------------------

namespace {

// The children of `source` after its first, copied into `target` by `composeOperand` when they
// are expressions and deep-copied when they are not (the query block of a subquery). False,
// with `target` left for the caller to delete, as soon as one operand fails.
template <class ComposeOperand>
bool ComposeOperands(const RqExpr& source, RqExpr& target, ComposeOperand composeOperand) {
    for (int i = 0; i < source.GetNumChildren(); ++i) {
        const RqNode* child = source.GetIthChild(i);
        if (child == nullptr) {
            target.AddChild(nullptr);
        } else if (const auto* operand = RqDynCast<RqExpr>(child)) {
            RqExpr* composed = composeOperand(operand);
            if (composed == nullptr)
                return false;
            target.AddChild(composed);
        } else {
            target.AddChild(child->DeepCopy(false));
        }
    }
    return true;
}

}  // namespace

RqExpr* VerticalListSplitter::ComposeAllDerivedColumnReferences(const RqExpr* pExpr) {
    ZKThread::LowStackCheck(0);
    if (pExpr == nullptr)
        return nullptr;
    if (const auto* ref = RqDynCast<RqDerivedColumnReference>(pExpr)) {
        const RqDerivedColumn* column = ref->GetDerivedColumn();
        if (column == nullptr || column->GetExpr() == nullptr)
            return pExpr->DeepExprCopy(false);
        return ComposeAllDerivedColumnReferences(column->GetExpr());
    }
    // A COALESCE picks the first non-null of its arguments at the level it stands; its
    // references are left to read that level.
    if (pExpr->GetObjectType() == kRqExprCoalesce)
        return pExpr->DeepExprCopy(false);
    Heap<RqExpr> copy(ShallowExprCopy(*pExpr));
    ComposeOperands(*pExpr, *copy, [](const RqExpr* operand) {
        return ComposeAllDerivedColumnReferences(operand);
    });
    return copy.Release();
}

void ComposeInnerReferences(RqExpr* pExpr, RqProjection& innerProjection) {
    if (pExpr == nullptr)
        return;
    for (int i = 0; i < pExpr->GetNumOperands(); ++i) {
        RqExpr* operand = pExpr->GetIthOperand(i);
        if (operand == nullptr)
            continue;
        if (auto* pChildColumnReference = RqDynCast<RqDerivedColumnReference>(operand)) {
            ZK_ASSERT(pChildColumnReference->GetDerivedColumn());
            RqDerivedColumn* column = pChildColumnReference->GetDerivedColumn();
            if (column->GetProjection() == &innerProjection && column->GetExpr() != nullptr)
                pExpr->SetIthOperand(i, column->GetExpr()->DeepExprCopy(false));
        } else {
            ComposeInnerReferences(operand, innerProjection);
        }
    }
}

RqExpr* VerticalListSplitter::CreateDirectEquivalentInnerExpr(const RqExpr* pOuterExpr,
                                                              RqProjection& innerProjection) {
    ZK_ASSERT(pOuterExpr);
    if (!pOuterExpr->IsInnerProjectable(innerProjection)) {
        RqExpr* copy = pOuterExpr->DeepExprCopy(false);
        ComposeInnerReferences(copy, innerProjection);
        return copy;
    }
    const auto* ref = RqDynCast<RqDerivedColumnReference>(pOuterExpr);
    if (ref == nullptr || ref->GetDerivedColumn()->GetExpr() == nullptr)
        return pOuterExpr->DeepExprCopy(false);
    return ref->GetDerivedColumn()->GetExpr()->DeepExprCopy(false);
}

RqExpr* VerticalListSplitter::ComposeEquivalentInnerExpr(const RqExpr* pExpr,
                                                         RqProjection* pInnerProjection,
                                                         RqProjection* pPatternProjection,
                                                         bool& bFailed,
                                                         bool bIgnoreProjectionDiffs) {
    if (pExpr == nullptr)
        return nullptr;
    ZK_ASSERT(bIgnoreProjectionDiffs ||
              pPatternProjection->GetNumColumns() == pInnerProjection->GetNumColumns());
    if (const auto* ref = RqDynCast<RqDerivedColumnReference>(pExpr)) {
        const int index = pInnerProjection->FindColumnIndex(ref->GetDerivedColumn());
        const bool bSame = pPatternProjection == pInnerProjection;
        if (index < 0 || (!bSame && index >= pPatternProjection->GetNumColumns())) {
            bFailed = true;
            return nullptr;
        }
        const RqDerivedColumn* source =
            bSame ? ref->GetDerivedColumn() : pPatternProjection->GetIthColumn(index);
        if (source->GetExpr() == nullptr) {
            bFailed = true;
            return nullptr;
        }
        return source->GetExpr()->DeepExprCopy(false);
    }
    Heap<RqExpr> copy(ShallowExprCopy(*pExpr));
    const bool bComposed = ComposeOperands(*pExpr, *copy, [&](const RqExpr* operand) {
        return ComposeEquivalentInnerExpr(operand, pInnerProjection, pPatternProjection, bFailed,
                                          bIgnoreProjectionDiffs);
    });
    if (!bComposed || bFailed)
        return nullptr;
    return copy.Release();
}

void CollectSearchCond(RqTableReference* pTableRef, Heap<RqExprCond>& searchCond) {
    for (RqTableReference* current = pTableRef; current != nullptr;
         current = RqDynCast<RqTableReference>(current->GetRightNode())) {
        if (const RqExprCond* cond = current->GetSearchCond()) {
            auto* copy = RqCast<RqExprCond>(cond->DeepExprCopy(false));
            searchCond.Reset(RqExprCondAnd::Concatenate(copy, searchCond.Release()));
        }
        if (auto* left = RqDynCast<RqTableReference>(current->GetLeftNode()))
            CollectSearchCond(left, searchCond);
    }
}

// ---- Aggregates and duplicate columns --------------------------------------------------------

void VerticalListSplitter::AddAggrSubExprs(RqExpr* pExpr, RqProjection& projection) {
    if (pExpr == nullptr)
        return;
    AggrFinder finder(false, false, false, true, false);
    pExpr->Accept(finder);
    for (RqExprAggr* aggr : finder.GetAggrsList())
        projection.InsertColumnExpr(aggr);
}

namespace {

// The inner column that will stand for both: the earlier one. The later one's readers and
// the inner ORDER BY's keys that name it move to the survivor.
void MergeInnerColumns(RqProjection& innerProjection, RqDerivedColumn* survivor,
                       RqDerivedColumn* duplicate) {
    duplicate->SwitchDerivedColumnReferences(survivor);
    RqList* innerList = RqDynCast<RqList>(innerProjection.GetParent());
    if (RqOrderBy* orderBy = innerList != nullptr ? innerList->GetOrderBy() : nullptr) {
        for (int i = 0; i < orderBy->GetNumSortSpecs(); ++i) {
            RqSortSpec* spec = orderBy->GetIthSortSpec(i);
            if (spec != nullptr && spec->GetColumnNumber() == duplicate->GetColumnNum())
                spec->SetColumnNumber(survivor->GetColumnNum());
        }
    }
}

// A column that something other than a reference names by number (a sort key of a
// sort-dependent aggregate of its block) cannot be removed.
bool IsNamedBySortKey(const RqProjection& projection, int columnNum) {
    for (int i = 0; i < projection.GetNumColumns(); ++i) {
        RqNodeVector aggrs;
        FindNodes(projection.GetIthColumn(i), RqNode::IsAggrNode, aggrs);
        for (RqNode* node : aggrs) {
            const auto* sorted = RqDynCast<RqExprSortDependentAggr>(node);
            if (sorted == nullptr)
                continue;
            for (const auto& key : sorted->GetSortSpec()) {
                if (key.m_columnNumber == columnNum)
                    return true;
            }
        }
    }
    return false;
}

// Two columns over one random value are two values.
bool IsMergeable(const RqExpr* expr) {
    return expr != nullptr && !FoundNodes(expr, RqNode::IsObjectType(kRqExprRand));
}

void MergeDuplicateInnerColumns(RqProjection& innerProjection) {
    // Only a block read as a derived table may lose a column: a member of a set operation
    // must keep its width, and a block read elsewhere keeps what its readers name.
    const RqNode* block = innerProjection.GetParent();
    if (block == nullptr || !block->IsRqList() ||
        RqDynCast<RqDerivedTable>(block->GetParent()) == nullptr)
        return;
    for (int i = 0; i < innerProjection.GetNumColumns(); ++i) {
        RqDerivedColumn* survivor = innerProjection.GetIthColumn(i);
        if (!IsMergeable(survivor->GetExpr()))
            continue;
        for (int j = i + 1; j < innerProjection.GetNumColumns();) {
            RqDerivedColumn* duplicate = innerProjection.GetIthColumn(j);
            const bool bSame = duplicate->GetExpr() != nullptr &&
                               RqEquivalence()(*survivor->GetExpr(), *duplicate->GetExpr()) &&
                               duplicate->GetBreakStatus() == survivor->GetBreakStatus();
            if (!bSame || IsNamedBySortKey(innerProjection, duplicate->GetColumnNum())) {
                ++j;
                continue;
            }
            MergeInnerColumns(innerProjection, survivor, duplicate);
            innerProjection.DeleteColumn(duplicate);
        }
    }
}

}  // namespace

void VerticalListSplitter::EliminateDuplicateExpressions(RqProjection& innerProjection,
                                                         RqList& outerList) {
    RqProjection* outerProjection = outerList.GetProjection();
    for (int i = 0; outerProjection != nullptr && i < outerProjection->GetNumColumns(); ++i) {
        RqDerivedColumn* outerColumn = outerProjection->GetIthColumn(i);
        const RqExpr* expr = outerColumn->GetExpr();
        if (expr == nullptr || expr->IsInnerProjectable(innerProjection))
            continue;
        Heap<RqExpr> composed(CreateDirectEquivalentInnerExpr(expr, innerProjection));
        if (RqDerivedColumn* match = innerProjection.GetMatchingColumn(composed.Get()))
            outerColumn->SetExpr(RQ_NEW RqDerivedColumnReference(match));
    }
    // Pairs of inner columns: references in the outer join conditions are switched with the
    // others, so a condition never keeps a merged column alive.
    MergeDuplicateInnerColumns(innerProjection);
}

// ---- GROUP BY --------------------------------------------------------------------------------

namespace {

// The expression computes an aggregate, itself or through a reference to a column that does.
bool ReadsAggregate(const RqExpr* expr) {
    if (AggrFinder::FindAggr(expr))
        return true;
    RqDerivedColumnReferenceVector refs;
    RqExprUtility::GetAllDerivedColumnReferences(expr, refs);
    for (const RqDerivedColumnReference* ref : refs) {
        const RqDerivedColumn* column = ref->GetDerivedColumn();
        if (column != nullptr && AggrFinder::FindAggr(column->GetExpr()))
            return true;
    }
    return false;
}

// The position in `members` of the reference to `column`, or -1.
int FindMemberReading(const RqExprVector& members, const RqDerivedColumn* column) {
    for (size_t i = 0; i < members.size(); ++i) {
        const auto* ref = RqDynCast<RqDerivedColumnReference>(members[i]);
        if (ref != nullptr && ref->GetDerivedColumn() == column)
            return static_cast<int>(i);
    }
    return -1;
}

// Grouping sets name positions of the inner GROUP BY's list; the outer list reads the inner
// grouping columns through references, so each position is translated to the member that
// reads the inner column computing that grouping column (added to the inner projection, and
// to the members, when no column computes it yet).
void CarryGroupingSets(const RqGroupBy& innerGroupBy, RqProjection& innerProjection,
                       RqExprVector& members, RqGroupingSetVector& outerSets) {
    std::vector<uint16_t> positionOf;
    for (int k = 0; k < innerGroupBy.GetNumColumns(); ++k) {
        RqDerivedColumn* column = innerProjection.InsertColumnExpr(innerGroupBy.GetIthColumn(k));
        int position = FindMemberReading(members, column);
        if (position < 0) {
            members.push_back(RQ_NEW RqDerivedColumnReference(column));
            position = static_cast<int>(members.size()) - 1;
        }
        positionOf.push_back(static_cast<uint16_t>(position));
    }
    for (int s = 0; s < innerGroupBy.GetNumGroupingSets(); ++s) {
        UInt16Vector set;
        for (uint16_t position : innerGroupBy.GetIthGroupingSet(s)) {
            if (std::find(set.begin(), set.end(), positionOf[position]) == set.end())
                set.push_back(positionOf[position]);
        }
        outerSets.push_back(set);
    }
}

}  // namespace

void VerticalListSplitter::RelocateGroupByToOuterList(RqList& innerList, RqList& outerList) {
    RqGroupBy* innerGroupBy = innerList.GetGroupBy();
    if (innerGroupBy == nullptr)
        return;
    if (innerGroupBy->GetNumColumns() == 0 && !innerGroupBy->IsGroupingSets()) {
        innerList.SetGroupBy(nullptr);
        return;
    }
    RqProjection* pInnerProjection = innerList.GetProjection();
    RqProjection* pOuterProjection = outerList.GetProjection();
    ZK_ASSERT(pInnerProjection && pOuterProjection);

    // The inner columns first, in projection order: they are what the block grouped by; the
    // outer expressions only add values computed from them.
    RqExprVector members;
    for (int i = 0; i < pInnerProjection->GetNumColumns(); ++i) {
        RqDerivedColumn* column = pInnerProjection->GetIthColumn(i);
        if (column->GetExpr() != nullptr && !AggrFinder::FindAggr(column->GetExpr()))
            members.push_back(RQ_NEW RqDerivedColumnReference(column));
    }
    RqGroupingSetVector sets;
    if (innerGroupBy->IsGroupingSets())
        CarryGroupingSets(*innerGroupBy, *pInnerProjection, members, sets);

    auto* outerGroupBy = RQ_NEW RqGroupBy(members, innerGroupBy->GetInternalExecutionMode());
    if (RqExprColumnListOrdered* granularity = innerGroupBy->GetGranularity())
        outerGroupBy->SetGranularity(RqCast<RqExprColumnListOrdered>(granularity->DeepExprCopy()));
    for (int i = 0; i < pOuterProjection->GetNumColumns(); ++i) {
        const RqExpr* expr = pOuterProjection->GetIthColumn(i)->GetExpr();
        if (expr != nullptr && !ReadsAggregate(expr) && !outerGroupBy->HasEquivalentMember(*expr))
            outerGroupBy->AppendColumn(expr->DeepExprCopy(false));
    }
    for (const UInt16Vector& set : sets)
        outerGroupBy->AddGroupingSet(set);
    outerList.SetGroupBy(outerGroupBy);
    innerList.SetGroupBy(nullptr);
}

// ---- Break filters ---------------------------------------------------------------------------

bool VerticalListSplitter::OrderByIsConsistentWithBreakColumns(
    RqList* pList, const UInt16Vector& breakColumnIndexes) {
    ZK_ASSERT(pList);
    const RqOrderBy* orderBy = pList->GetOrderBy();
    if (orderBy == nullptr)
        return breakColumnIndexes.empty();
    const size_t numBreaks = breakColumnIndexes.size();
    if (static_cast<size_t>(orderBy->GetNumSortSpecs()) < numBreaks)
        return false;
    const RqProjection* projection = pList->GetProjection();
    for (size_t i = 0; i < numBreaks; ++i) {
        const RqSortSpec* spec = orderBy->GetIthSortSpec(static_cast<int>(i));
        const int index =
            spec == nullptr ? -1 : projection->FindColumnIndex(spec->GetColumnNumber());
        if (index < 0 || std::find(breakColumnIndexes.begin(), breakColumnIndexes.end(),
                                   static_cast<uint16_t>(index)) == breakColumnIndexes.end())
            return false;
    }
    return true;
}

void VerticalListSplitter::MakeBreakFilterSort(RqList* pList,
                                               const UInt16Vector& breakColumnIndexes) {
    ZK_ASSERT(pList);
    const RqProjection* projection = pList->GetProjection();
    SortSpecVector specs;
    for (uint16_t index : breakColumnIndexes) {
        if (index >= projection->GetNumColumns() || IsLobColumn(*projection, index))
            continue;
        specs.push_back(RQ_NEW RqSortSpec(projection->GetIthColumn(index)->GetColumnNum(),
                                          RqSortSpec::kEitherDirection, false, false,
                                          RqSortSpec::kNoCare));
    }
    pList->SetOrderBy(specs.empty() ? nullptr : RQ_NEW RqOrderBy(specs, false));
}

void RemoveDuplicateOrderByColumnAndBreakIndex(RqList* pList, UInt16Vector& breakColumnIndexes) {
    // A repeated break column adds nothing to the break, and a repeated sort key can never
    // break a tie the earlier one left: the first of each stays, in place.
    UInt16Vector unique;
    for (uint16_t index : breakColumnIndexes) {
        if (std::find(unique.begin(), unique.end(), index) == unique.end())
            unique.push_back(index);
    }
    breakColumnIndexes.swap(unique);
    RqOrderBy* orderBy = pList != nullptr ? pList->GetOrderBy() : nullptr;
    if (orderBy == nullptr)
        return;
    std::vector<int> seen;
    for (int i = 0; i < orderBy->GetNumSortSpecs();) {
        const RqSortSpec* spec = orderBy->GetIthSortSpec(i);
        const int columnNum =
            spec == nullptr ? RqDerivedColumn::kUnknownColumnNum : spec->GetColumnNumber();
        if (spec != nullptr && std::find(seen.begin(), seen.end(), columnNum) == seen.end()) {
            seen.push_back(columnNum);
            ++i;
        } else {
            orderBy->EraseIthChild(i);
        }
    }
}

namespace {

// Puts on `outerList` the ORDER BY that sorted `block`, each key renamed to the outer column
// at the same position as the block column it named.
void PlaceOrderByAbove(const RqOrderBy& orderBy, const RqProjection& blockProjection,
                       RqList& outerList) {
    const RqProjection* outerProjection = outerList.GetProjection();
    SortSpecVector specs;
    for (int i = 0; i < orderBy.GetNumSortSpecs(); ++i) {
        const RqSortSpec* spec = orderBy.GetIthSortSpec(i);
        const int index = blockProjection.FindColumnIndex(spec->GetColumnNumber());
        if (index < 0)
            continue;
        auto* outerSpec = RQ_NEW RqSortSpec(*spec, false);
        outerSpec->SetColumnNumber(outerProjection->GetIthColumn(index)->GetColumnNum());
        specs.push_back(outerSpec);
    }
    if (!specs.empty())
        outerList.SetOrderBy(RQ_NEW RqOrderBy(specs, orderBy.GetStickyTypes(), orderBy.IsSticky()));
}

// The outer block over a break filter: one column reading each block column, in order;
// readers of the block's columns from above now read the outer ones.
RqList* MakeOuterOverBreakFilter(RqBreakFilter* breakFilter, RqProjection& blockProjection) {
    RqList* outerList = RQ_NEW RqList();
    RqProjection* outerProjection = outerList->GetProjection();
    for (int i = 0; i < blockProjection.GetNumColumns(); ++i) {
        RqDerivedColumn* blockColumn = blockProjection.GetIthColumn(i);
        auto* ref = RQ_NEW RqDerivedColumnReference();
        auto* outerColumn = RQ_NEW RqDerivedColumn(ref, RqDerivedColumn::kUnknownColumnNum);
        outerProjection->AddColumn(outerColumn);
        blockColumn->SwitchDerivedColumnReferences(outerColumn);
        ref->SetDerivedColumn(blockColumn);
    }
    outerList->SetJoinSpec(MakeSingleTableJoinSpec(breakFilter, 1));
    return outerList;
}

}  // namespace

RqAbstractList* VerticalListSplitter::AddBreakFilter(const UInt16Vector& breakColumnIndexes,
                                                     RqList* pList) {
    ZK_ASSERT(pList);
    RqProjection* projection = pList->GetProjection();
    UInt16Vector indexes;
    for (uint16_t index : breakColumnIndexes) {
        if (!IsLobColumn(*projection, index))
            indexes.push_back(index);
    }
    if (indexes.empty())
        return pList;
    RemoveDuplicateOrderByColumnAndBreakIndex(pList, indexes);

    Heap<RqOrderBy> detached;
    if (pList->GetOrderBy() != nullptr && !OrderByIsConsistentWithBreakColumns(pList, indexes)) {
        // Under a row limit the order decides which rows the block returns: it stays, and the
        // outer block sorts the same way.
        if (pList->m_rowLimit != 0 || pList->m_rowOffset != 0)
            detached.Reset(RqCast<RqOrderBy>(pList->GetOrderBy()->DeepCopy(false)));
        else
            detached.Reset(RqCast<RqOrderBy>(pList->ReleaseIthChild(RqList::kOrderByChild)));
    }
    pList->ReleaseFromParent();
    auto* breakFilter = RQ_NEW RqBreakFilter(pList, indexes);
    RqList* outerList = MakeOuterOverBreakFilter(breakFilter, *projection);
    if (detached)
        PlaceOrderByAbove(*detached, *projection, *outerList);
    return outerList;
}
