#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAddPKToLeaf.h"

#include <algorithm>
#include <cstddef>

#include "Platform/ErrorMessage.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUTranslateOrToUnion.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUVerticalListSplitter.h"

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
        : m_colId(info.m_column->GetID()) {}
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

template <class SetOperation>
void WrapFrameworkBranches(SetOperation& setOperation) {
    for (int i = 0; i < setOperation.GetNumLists(); ++i) {
        const RqList* branch = RqDynCast<RqList>(setOperation.GetIthList(i));
        if (branch == nullptr || !AddPKToLeaf::IsFrameworkTargetType(BlockTargetType(*branch)))
            continue;
        RqList* oldLeafSubList = RqDynCast<RqList>(setOperation.GetIthList(i)->ReleaseFromParent());
        ZK_ASSERT(NULL != oldLeafSubList);
        RqList* newOuterListForCombinedSelect =
            VerticalListSplitter::NestWithinOuterReprojection(*oldLeafSubList, nullptr, true, 0);
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

    TargetColInfoList pkColumns;
    ChooseKeyColumns(list, projection, pkColumns);
    if (pkColumns.empty())
        return true;

    // A block whose columns are not read through a derived table gives its columns to the
    // request or to a consumer that reads them by position (a subquery, a break filter):
    // the server takes the keyed rows in an outer block that keeps the block's columns. A
    // DISTINCT block would keep rows apart by their keys: its DISTINCT moves to that outer
    // block too, over the block's own columns.
    const RqNode* parent = list.GetParent();
    if (parent != nullptr && (!parent->IsKindOf(kRqDerivedTable) || list.IsDistinct())) {
        RqList* outer = VerticalListSplitter::NestWithinOuterReprojection(list, nullptr, true, 0);
        ZK_ASSERT(NULL != outer);
        MarkOuterBlockForServer(*outer);
    }

    AppendKeyColumns(list, targetType, pkColumns);
    m_bAddedPrimaryKeyColumns = true;
    PushUpUnsupportedColumns(list);
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
        auto found = std::find_if(
            pkColumns.begin(), pkColumns.end(),
            [&](const OwnedTargetColInfoPtr& entry) { return entry->m_column->GetID() == colID; });
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

void AddPKToLeaf::PushUpUnsupportedColumns(RqList& list) {
    RqProjection* innerProjection = list.GetProjection();
    ZK_ASSERT(NULL != innerProjection);
    RqList* outerList = nullptr;
    RqProjection* outerProjection = nullptr;
    int i = 0;
    while (i < innerProjection->GetNumColumns()) {
        RqDerivedColumn* column = innerProjection->GetIthColumn(i);
        const RqExpr* expr = column->GetExpr();
        if (expr != nullptr && IsFrameworkTargetType(expr->GetTargetType()) &&
            expr->IsKindOf(kRqTargetColumn)) {
            ++i;
            continue;
        }
        if (outerList == nullptr) {
            outerList = VerticalListSplitter::NestWithinOuterReprojection(list, nullptr, true, 0);
            outerProjection = outerList != nullptr ? outerList->GetProjection() : nullptr;
            ZK_ASSERT(NULL != outerProjection);
            MarkOuterBlockForServer(*outerList);
        }
        VerticalListSplitter::AddOuterColumn(column, *innerProjection, *outerProjection, false);
        innerProjection->DeleteColumn(column);
        m_bPushedUpUnsupportedColumns = true;
        i = 0;
    }
    if (outerList == nullptr)
        return;
    // The computations that moved out are the server's now, and the columns they left
    // behind in the block are read from the framework like the others.
    MarkOuterBlockForServer(*outerList);
    for (int c = 0; c < innerProjection->GetNumColumns(); ++c) {
        RqDerivedColumn* column = innerProjection->GetIthColumn(c);
        if (column->GetTargetType() == ServerInfo::kUnknown && column->GetExpr() != nullptr) {
            column->MarkTargetType(column->GetExpr()->GetTargetType());
            column->MarkTargetID(column->GetExpr()->GetTargetID());
        }
    }
}
