#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAddPKToLeaf.h"

#include <algorithm>
#include <cstddef>
#include <unordered_set>
#include <vector>

#include "Platform/ErrorMessage.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUTranslateOrToUnion.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUVerticalListSplitter.h"

// The assertions compare with NULL on purpose: their condition is the text the assertion
// service reports ("NULL != projection"), and that text is what reports are matched on.
// NOLINTBEGIN(modernize-use-nullptr)

// One key column to append: the repository column and the request's number of the table
// it is read from.
class TargetColInfo : public MemAllocNewdel {
public:
    TargetColInfo(const RefAColumn& column, int32_t tableNum)
        : m_column(column), m_tableNum(tableNum) {}

    RefAColumn m_column;
    int32_t m_tableNum;
};

void TargetColInfoDeleter::operator()(TargetColInfo* info) const {
    delete info;
}

namespace {

// Finds the entry for the same repository column: a column is appended once, whichever
// table it came from.
class IsEquivalentTargetColInfo {
public:
    explicit IsEquivalentTargetColInfo(const TargetColInfo& info)
        : IsEquivalentTargetColInfo(info.m_column->GetID()) {}
    explicit IsEquivalentTargetColInfo(const VoidID& colId) : m_colId(colId) {}
    bool operator()(const OwnedTargetColInfoPtr& entry) const {
        return entry->m_column->GetID() == m_colId;
    }

private:
    VoidID m_colId;
};

// The target a block runs on is that of its FROM clause; a block without one (constants
// only) is judged by its own mark.
ServerInfo::TargetType BlockTargetType(const RqList& list) {
    const RqJoinSpec* joinSpec = list.GetJoinSpec();
    return joinSpec != nullptr ? joinSpec->GetTargetType() : list.GetTargetType();
}

// The atomic tables the block itself reads, in pre-order. The search stops at derived
// tables and at nested lists (subqueries in join conditions): their tables are not columns
// the block can project.
void CollectBlockTables(RqJoinSpec* joinSpec, std::vector<RqAtomicTable*>& tables) {
    if (joinSpec == nullptr)
        return;
    std::vector<RqNode*> found;
    FindTableNodes(joinSpec,
                   RqNode::IsObjectType({kRqAtomicTable, kRqDerivedTable, kRqAbstractList}), found);
    for (RqNode* node : found) {
        if (RqAtomicTable* table = RqDynCast<RqAtomicTable>(node))
            tables.push_back(table);
    }
}

bool IsPlainTargetColumn(const RqDerivedColumn* column) {
    return column != nullptr && column->GetExpr() != nullptr && column->GetExpr()->IsTargetColumn();
}

// The block a nesting puts over a framework block is the server's: the framework only hands
// back keyed rows of table columns, and the server reprojects them. Everything of the outer
// block is marked, down to (not into) the block it reads.
void MarkOuterBlockForServer(RqList& outerList) {
    std::vector<RqNode*> work{&outerList};
    while (!work.empty()) {
        RqNode* node = work.back();
        work.pop_back();
        node->MarkTargetType(ServerInfo::kBuiltInExecutionEngine);
        node->MarkTargetID(VoidID::NullID);
        if (node->IsKindOf(kRqDerivedTable))
            continue;
        for (int i = 0; i < node->GetNumChildren(); ++i) {
            if (RqNode* child = node->GetIthChild(i))
                work.push_back(child);
        }
    }
}

// The block groups or aggregates: its rows are not the framework's rows.
bool AggregatesRows(const RqList& list) {
    return list.GetGroupBy() != nullptr || list.GetSummaryFilter() != nullptr ||
           list.GetHaving() != nullptr || FoundNodes(list.GetProjection(), RqNode::IsAggrNode);
}

// Replaces, in `root`'s subtree, every column of the block's FROM clause (a table column, a
// column of one of its derived tables) by a reference to a column of `projection` that
// computes it, adding the columns it lacks. Subqueries are left alone: their columns are
// their own blocks'.
void RenderLeafColumns(RqNode& root, RqProjection& projection) {
    std::vector<RqNode*> work{&root};
    while (!work.empty()) {
        RqNode* node = work.back();
        work.pop_back();
        for (int i = 0; i < node->GetNumChildren(); ++i) {
            RqNode* child = node->GetIthChild(i);
            if (child == nullptr || child->IsKindOf(kRqExprSubquery))
                continue;
            if (child->IsKindOf(kRqTargetColumn) || child->IsKindOf(kRqDerivedColumnReference)) {
                RqDerivedColumn* column = projection.InsertColumnExpr(RqCast<RqExpr>(child));
                node->SetIthChild(i, RQ_NEW RqDerivedColumnReference(column));
            } else {
                work.push_back(child);
            }
        }
    }
}

template <class Clause>
Clause* RenderedCopy(const Clause* clause, RqProjection& projection) {
    if (clause == nullptr)
        return nullptr;
    Clause* copy = RqCast<Clause>(clause->DeepCopy(false));
    RenderLeafColumns(*copy, projection);
    return copy;
}

// The grouping and the filters on groups move to the server's outer block, over columns of
// the block: the framework returns the rows, the server groups them. The aggregates follow
// with the push-up of computed columns.
void MoveAggregationOutward(RqList& list, RqList& outerList) {
    RqProjection& projection = *list.GetProjection();
    // Grouping columns are found by their expressions, so each outer column reads the first
    // block column that computes its value: a repeated grouping column then reads the very
    // column the groups are formed by.
    RqProjection& outerProjection = *outerList.GetProjection();
    for (int i = 0; i < outerProjection.GetNumColumns(); ++i) {
        RqDerivedColumn* outerColumn = outerProjection.GetIthColumn(i);
        const auto* ref = RqDynCast<RqDerivedColumnReference>(outerColumn->GetExpr());
        RqDerivedColumn* read = ref != nullptr ? ref->GetDerivedColumn() : nullptr;
        if (read == nullptr || read->GetExpr() == nullptr)
            continue;
        RqDerivedColumn* first = projection.GetMatchingColumn(read->GetExpr());
        if (first != nullptr && first != read)
            outerColumn->SetExpr(RQ_NEW RqDerivedColumnReference(first));
    }
    outerList.SetGroupBy(RenderedCopy(list.GetGroupBy(), projection));
    outerList.SetSummaryFilter(RenderedCopy(list.GetSummaryFilter(), projection));
    outerList.SetHaving(RenderedCopy(list.GetHaving(), projection));
    list.SetGroupBy(nullptr);
    list.SetSummaryFilter(nullptr);
    list.SetHaving(nullptr);
}

// The block, or a block nested in it, reads a column of an enclosing block: it is a
// correlated subquery. Nesting it would put it inside a derived table, out of reach of the
// enclosing block's columns.
bool IsCorrelated(const RqList& list) {
    std::unordered_set<const RqNode*> ownProjections;
    std::vector<const RqDerivedColumnReference*> references;
    std::vector<const RqNode*> work{&list};
    while (!work.empty()) {
        const RqNode* node = work.back();
        work.pop_back();
        if (node->IsKindOf(kRqProjection))
            ownProjections.insert(node);
        else if (const auto* reference = RqDynCast<RqDerivedColumnReference>(node))
            references.push_back(reference);
        for (int i = 0; i < node->GetNumChildren(); ++i) {
            if (const RqNode* child = node->GetIthChild(i))
                work.push_back(child);
        }
    }
    for (const RqDerivedColumnReference* reference : references) {
        const RqDerivedColumn* column = reference->GetDerivedColumn();
        if (column != nullptr && !ownProjections.contains(column->GetParent()))
            return true;
    }
    return false;
}

// Row limits and offsets count the rows of a block after its DISTINCT and its grouping: when
// those move to the outer block, the limit and offset follow them.
void MoveRowLimitOutward(RqList& list, RqList& outerList) {
    if (list.GetRowLimit() != 0) {
        outerList.SetRowLimit(list.GetRowLimit());
        list.SetRowLimit(0);
    }
    if (list.GetRowOffset() != 0) {
        outerList.SetRowOffset(list.GetRowOffset());
        list.SetRowOffset(0);
    }
}

// Nests a framework block within an outer reprojection. The nesting moves a DISTINCT to the
// outer block; the limit and offset, which count the distinct rows, go along.
RqList* NestWithinServerBlock(RqList& list) {
    RqList* outer = VerticalListSplitter::NestWithinOuterReprojection(list, nullptr, true, 0);
    if (outer != nullptr && outer->IsDistinct())
        MoveRowLimitOutward(list, *outer);
    return outer;
}

// The branch is detached by its position: a search for it among its siblings would make a
// wide set operation quadratic.
template <class SetOperation>
void WrapFrameworkBranches(SetOperation& setOperation) {
    for (int i = 0; i < setOperation.GetNumLists(); ++i) {
        const RqList* branch = RqDynCast<RqList>(setOperation.GetIthList(i));
        if (branch == nullptr || !AddPKToLeaf::IsFrameworkTargetType(BlockTargetType(*branch)))
            continue;
        RqList* oldLeafSubList = RqDynCast<RqList>(setOperation.ReleaseIthChild(i));
        ZK_ASSERT(NULL != oldLeafSubList);
        RqList* newOuterListForCombinedSelect = NestWithinServerBlock(*oldLeafSubList);
        ZK_ASSERT(NULL != newOuterListForCombinedSelect);
        MarkOuterBlockForServer(*newOuterListForCombinedSelect);
        setOperation.SetIthList(i, newOuterListForCombinedSelect);
    }
}

}  // namespace

AddPKToLeaf::AddPKToLeaf(ARpGateway* rp)
    : m_pRp(rp),
      m_bIsWriteQuery(false),
      m_bPushedUpUnsupportedColumns(false),
      m_bAddedPrimaryKeyColumns(false) {}

bool AddPKToLeaf::IsFrameworkTargetType(ServerInfo::TargetType type) {
    return type == ServerInfo::kFennick || type == ServerInfo::kFennickNext;
}

bool AddPKToLeaf::Visit(RqWrite&) {
    m_bIsWriteQuery = true;
    return false;
}

bool AddPKToLeaf::Visit(RqUnion& node) {
    WrapFrameworkBranches(node);
    return false;
}

bool AddPKToLeaf::Visit(RqIntersect& node) {
    WrapFrameworkBranches(node);
    return false;
}

bool AddPKToLeaf::Visit(RqExcept& node) {
    WrapFrameworkBranches(node);
    return false;
}

bool AddPKToLeaf::Visit(RqList& list) {
    const ServerInfo::TargetType targetType = BlockTargetType(list);
    if (m_bIsWriteQuery || !IsFrameworkTargetType(targetType))
        return false;

    RqProjection* projection = list.GetProjection();
    ZK_ASSERT(NULL != projection);

    // A correlated block stays as it is: no outer block can read it without losing sight of
    // the enclosing block's columns, and the server evaluates correlated subqueries itself.
    if (IsCorrelated(list))
        return true;

    TargetColInfoList pkColumns;
    ChooseKeyColumns(list, projection, pkColumns);
    if (pkColumns.empty())
        return true;

    // A block whose columns are not read through a derived table gives its columns to the
    // request or to a consumer that reads them by position (a subquery, a break filter):
    // the server takes the keyed rows in an outer block that keeps the block's columns. A
    // DISTINCT block would keep rows apart by their keys: its DISTINCT moves to that outer
    // block too, over the block's own columns.
    // A grouping block's keys would split its groups: the grouping moves out with it.
    const RqNode* parent = list.GetParent();
    const bool bAggregates = AggregatesRows(list);
    RqList* outer = nullptr;
    if (parent != nullptr &&
        (!parent->IsKindOf(kRqDerivedTable) || list.IsDistinct() || bAggregates)) {
        // The push-up below marks the outer block for the server once it is complete.
        outer = NestWithinServerBlock(list);
        ZK_ASSERT(NULL != outer);
        if (bAggregates) {
            MoveAggregationOutward(list, *outer);
            MoveRowLimitOutward(list, *outer);
        }
    }

    AppendKeyColumns(list, targetType, pkColumns);
    m_bAddedPrimaryKeyColumns = true;
    PushUpUnsupportedColumns(list, outer);
    return true;
}

void AddPKToLeaf::ChooseKeyColumns(RqList& list, RqProjection* projection,
                                   TargetColInfoList& pkColumns) {
    RqJoinSpec* joinSpec = list.GetJoinSpec();
    bool bAllTargetColumns = true;
    for (int i = 0; i < projection->GetNumColumns() && bAllTargetColumns; ++i)
        bAllTargetColumns = IsPlainTargetColumn(projection->GetIthColumn(i));

    if (bAllTargetColumns &&
        !TranslateOrToUnion::DoesFilterContainLastUpdateColumns(list.GetDetailFilter(), m_pRp)) {
        // Only the joins that multiply rows need keys to tell the rows apart.
        GetMandatoryPKColumnsOnly(projection, joinSpec, list, pkColumns, m_pRp);
        return;
    }

    // A computed column moves out of the block, and a block the OR-to-UNION rewrite may
    // split needs every key to merge its branches: every table's key is projected.
    std::vector<RqAtomicTable*> tables;
    CollectBlockTables(joinSpec, tables);
    for (RqAtomicTable* table : tables)
        GetPKColumnsFromTable(table, pkColumns, m_pRp);
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (!IsPlainTargetColumn(column))
            continue;
        VoidID colID;
        RqCast<RqTargetColumn>(column->GetExpr())->GetColumnID(colID);
        ZK_ASSERT(!colID.IsNullID());
        auto found =
            std::find_if(pkColumns.begin(), pkColumns.end(), IsEquivalentTargetColInfo(colID));
        if (found != pkColumns.end())
            pkColumns.erase(found);
    }
}

void AddPKToLeaf::AppendKeyColumns(RqList& list, ServerInfo::TargetType targetType,
                                   const TargetColInfoList& pkColumns) {
    VoidID targetID;
    list.GetJoinSpec()->GetTargetID(targetID);
    RqProjection* projection = list.GetProjection();
    ZK_ASSERT(NULL != projection);
    for (const OwnedTargetColInfoPtr& info : pkColumns) {
        RqTargetColumn* keyColumn =
            RQ_NEW RqTargetColumn(info->m_column->GetName(), info->m_tableNum);
        keyColumn->SetColumnID(info->m_column->GetID());
        keyColumn->MarkTargetID(targetID);
        keyColumn->MarkTargetType(targetType);
        RqDerivedColumn* derivedColumn =
            RQ_NEW RqDerivedColumn(keyColumn, RqDerivedColumn::kUnknownColumnNum);
        derivedColumn->MarkTargetID(targetID);
        derivedColumn->MarkTargetType(targetType);
        projection->AddColumn(derivedColumn);
    }
}

void AddPKToLeaf::GetPKColumnsFromTable(RqAtomicTable* rqTable, TargetColInfoList& pkColumns,
                                        ARpGateway* rp) {
    VoidID tableID;
    rqTable->GetTableID(tableID);
    ZK_ASSERT(!tableID.IsNullID());
    const RefATable table = RefHelper::GetTable(rp, tableID);
    ZK_ASSERT(!table.IsNull());
    if (!table->HasKey())
        ZK_THROW(
            ErrorMessage(kErr_TableWithoutPrimaryKey, MetadataUtil::GenerateQualifiedName(table)));

    // The repository lists the primary key first.
    const RefAKey key = table->GetKeys().front();
    const std::vector<RefAColumn> columns = key->GetColumns();
    for (auto cIter = columns.begin(); cIter != columns.end(); ++cIter) {
        ZK_ASSERT(!(*cIter).IsNull());
        OwnedTargetColInfoPtr info(ZK_GATEWAY_NEW TargetColInfo(*cIter, rqTable->GetTableNum()));
        if (std::none_of(pkColumns.begin(), pkColumns.end(), IsEquivalentTargetColInfo(*info)))
            pkColumns.push_back(std::move(info));
    }
}

void AddPKToLeaf::GetMandatoryPKColumnsOnly(RqProjection* projection, RqJoinSpec* joinSpec,
                                            RqList& /*list*/, TargetColInfoList& pkColumns,
                                            ARpGateway* rp) {
    ZK_ASSERT(NULL != projection);
    if (joinSpec == nullptr)
        return;
    std::vector<RqAtomicTable*> tables;
    CollectBlockTables(joinSpec, tables);

    for (size_t outer = 0; outer < tables.size(); ++outer) {
        for (size_t inner = 0; inner < outer; ++inner) {
            RqAtomicTable* rqTable1 = tables[outer];
            RqAtomicTable* rqTable2 = tables[inner];
            const RefAComplexJoin join = rqTable1->GetCommonComplexJoin(rp, rqTable2);
            if (join.IsNull())
                continue;
            const std::vector<RefATable> joinTables = join->GetTables();
            if (joinTables.size() != 2)
                continue;
            VoidID rqTable1ID;
            VoidID rqTable2ID;
            rqTable1->GetTableID(rqTable1ID);
            rqTable2->GetTableID(rqTable2ID);
            ZK_ASSERT(!rqTable1ID.IsNullID());
            ZK_ASSERT(!rqTable2ID.IsNullID());

            // Read the cardinality from the join's first table to its second.
            auto rpTableIter = joinTables.begin();
            RqAtomicTable* leftTable = rqTable1;
            RqAtomicTable* rightTable = rqTable2;
            if (rqTable1ID == (*rpTableIter)->GetID()) {
                ++rpTableIter;
                ZK_ASSERT(rqTable2ID == (*rpTableIter)->GetID());
            } else {
                ZK_ASSERT(rqTable2ID == (*rpTableIter)->GetID());
                ++rpTableIter;
                ZK_ASSERT(rqTable1ID == (*rpTableIter)->GetID());
                std::swap(leftTable, rightTable);
            }

            switch (join->GetCardinality()) {
                case k_One_To_ZeroOrOne:
                case k_One_To_Many:
                    GetPKColumnsIfTableNotUsedInProjection(projection, leftTable, pkColumns, rp);
                    break;
                case k_Many_To_One:
                    GetPKColumnsIfTableNotUsedInProjection(projection, rightTable, pkColumns, rp);
                    break;
                case k_Many_To_Many:
                    GetPKColumnsIfTableNotUsedInProjection(projection, rightTable, pkColumns, rp);
                    GetPKColumnsIfTableNotUsedInProjection(projection, leftTable, pkColumns, rp);
                    break;
                // These never multiply the rows of either side that the block keeps apart.
                case kUnknownCardinality:
                case k_One_To_One:
                case k_ZeroOrOne_To_One:
                case k_ZeroOrOne_To_ZeroOrOne:
                case k_ZeroOrOne_To_Many:
                case k_Many_To_ZeroOrOne:
                    break;
            }
        }
    }
}

void AddPKToLeaf::GetPKColumnsIfTableNotUsedInProjection(RqProjection* projection,
                                                         RqAtomicTable* rqTable,
                                                         TargetColInfoList& pkColumns,
                                                         ARpGateway* rp) {
    ZK_ASSERT(NULL != projection);
    ZK_ASSERT(NULL != rqTable);
    for (int i = 0; i < projection->GetNumColumns(); ++i) {
        const RqDerivedColumn* column = projection->GetIthColumn(i);
        if (IsPlainTargetColumn(column) &&
            RqCast<RqTargetColumn>(column->GetExpr())->GetTableNum() == rqTable->GetTableNum())
            return;
    }
    GetPKColumnsFromTable(rqTable, pkColumns, rp);
}

namespace {

// Plain columns of the block's FROM clause are read from the framework where they stand:
// their marks say so. The rendering of a moved computation copies its operands into the
// block with the marks they had, so this runs again after every move.
void MarkPlainColumnsForTarget(RqProjection& projection, ServerInfo::TargetType targetType,
                               const VoidID& targetID) {
    for (int c = 0; c < projection.GetNumColumns(); ++c) {
        RqDerivedColumn* column = projection.GetIthColumn(c);
        RqExpr* expr = column->GetExpr();
        if (expr == nullptr || !expr->IsTargetColumn())
            continue;
        if (!AddPKToLeaf::IsFrameworkTargetType(expr->GetTargetType())) {
            expr->MarkTargetType(targetType);
            expr->MarkTargetID(targetID);
        }
        if (column->GetTargetType() == ServerInfo::kUnknown) {
            column->MarkTargetType(targetType);
            column->MarkTargetID(targetID);
        }
    }
}

// A column the framework returns as it stands: a table column it runs, or a column of one
// of the block's derived tables (moving that out would only render it back in).
bool StaysInFrameworkBlock(const RqExpr* expr) {
    if (expr == nullptr)
        return false;
    if (expr->IsKindOf(kRqDerivedColumnReference))
        return true;
    return AddPKToLeaf::IsFrameworkTargetType(expr->GetTargetType()) &&
           expr->IsKindOf(kRqTargetColumn);
}

}  // namespace

void AddPKToLeaf::PushUpUnsupportedColumns(RqList& list) {
    PushUpUnsupportedColumns(list, nullptr);
}

void AddPKToLeaf::PushUpUnsupportedColumns(RqList& list, RqList* outerList) {
    RqProjection* innerProjection = list.GetProjection();
    ZK_ASSERT(NULL != innerProjection);
    const ServerInfo::TargetType targetType = BlockTargetType(list);
    const VoidID targetID =
        list.GetJoinSpec() != nullptr ? list.GetJoinSpec()->GetTargetID() : list.GetTargetID();
    MarkPlainColumnsForTarget(*innerProjection, targetType, targetID);

    RqProjection* outerProjection = outerList != nullptr ? outerList->GetProjection() : nullptr;
    int i = 0;
    while (i < innerProjection->GetNumColumns()) {
        RqDerivedColumn* column = innerProjection->GetIthColumn(i);
        if (StaysInFrameworkBlock(column->GetExpr())) {
            ++i;
            continue;
        }
        if (outerList == nullptr) {
            outerList = VerticalListSplitter::NestWithinOuterReprojection(list, nullptr, true, 0);
            outerProjection = outerList != nullptr ? outerList->GetProjection() : nullptr;
            ZK_ASSERT(NULL != outerProjection);
        }
        VerticalListSplitter::AddOuterColumn(column, *innerProjection, *outerProjection, false);
        innerProjection->DeleteColumn(column);
        MarkPlainColumnsForTarget(*innerProjection, targetType, targetID);
        m_bPushedUpUnsupportedColumns = true;
        i = 0;
    }
    // The computations that moved out are the server's now.
    if (outerList != nullptr)
        MarkOuterBlockForServer(*outerList);
}

// NOLINTEND(modernize-use-nullptr)
