#pragma once
// Query blocks and everything that is not an expression: projections and derived columns,
// the FROM clause (join spec, join nodes, table references, tables), the clauses
// of a block, set operations, break filters, shared and cache lists, write requests.

#include <cstdint>
#include <vector>

#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqExpr.h"
#include "Query/Optimizer/Request/SQORRqTreeVector.h"

class RqEquivalence;

// ---- Projection ---------------------------------------------------------------------------

// One select item: an expression and a column number unique within its projection.
class RqDerivedColumn : public RqNode {
    RQ_NODE_CLASS(RqDerivedColumn)
public:
    static constexpr int kUnknownColumnNum = -1;
    enum BreakStatus {
        kUnknownBreakStatus = 0,
        kNoDuplicates = 1,
        kAllowDuplicates = 2,
        kLobData = 4,
    };

    // Takes ownership of the expression.
    explicit RqDerivedColumn(RqExpr* expr = nullptr, int columnNum = kUnknownColumnNum);
    RqDerivedColumn(const RqDerivedColumn& other);
    // Clears the references that still point here: they then refer to nothing.
    ~RqDerivedColumn() override;

    RqExpr* GetExpr() const;
    // Takes ownership of the new expression and destroys the old one.
    void SetExpr(RqExpr* expr);
    // Gives up the expression, now caller-owned; the column is left without one.
    RqExpr* ReleaseExpr();
    int GetColumnNum() const { return m_columnNum; }
    void SetColumnNum(int columnNum) { m_columnNum = columnNum; }
    // A set of BreakStatus bits.
    int GetBreakStatus() const { return m_breakStatus; }
    void SetBreakStatus(int status) { m_breakStatus = status; }
    // The list whose projection holds this column (null when detached).
    RqAbstractList* GetRqAbstractListContainer() const;
    RqProjection* GetProjection() const;

    // Points every reference to this column at `target` instead.
    void SwitchDerivedColumnReferences(RqDerivedColumn* target);
    // The references that read this column, in the order they were attached.
    void GetReferences(RqDerivedColumnReferenceVector& out) const;
    int GetNumReferences() const;

private:
    friend class RqDerivedColumnReference;
    int m_columnNum;
    int m_breakStatus = kUnknownBreakStatus;
    // The references that read this column, a doubly linked list threaded through them.
    RqDerivedColumnReference* m_pFirstRef = nullptr;
    RqDerivedColumnReference* m_pLastRef = nullptr;
};

// The ordered select list of a block (children: RqDerivedColumn).
class RqProjection : public RqNode {
    RQ_NODE_CLASS(RqProjection)
public:
    // `firstColumnNum`: the first number the column-number generator hands out.
    explicit RqProjection(int firstColumnNum = 0);
    RqProjection(const RqProjection&) = default;

    int GetNumColumns() const { return GetNumChildren(); }
    RqDerivedColumn* GetIthColumn(int i) const;
    // Index of the column, or of the column with that number; -1 when absent.
    int FindColumnIndex(const RqDerivedColumn* column) const;
    int FindColumnIndex(int columnNum) const;
    // The first column whose expression is equivalent to `expr`, or null.
    RqDerivedColumn* GetMatchingColumn(const RqExpr* expr) const;
    // The column with that number, or null.
    RqDerivedColumn* GetMatchingColumn(int columnNum) const;
    // Index of the first column whose expression is equivalent to `expr`, or kNoMatch.
    static constexpr uint32_t kNoMatch = 0xFFFFFFFFu;
    uint32_t GetMatchingColumnIndex(const RqExpr* expr) const;
    // Appends to `out` the derived column references in the projection's expressions that
    // are equivalent, by `equivalence`, to `expr`.
    void GetMatchingColumnReferences(const RqExpr* expr, RqDerivedColumnReferenceVector& out,
                                     const RqEquivalence& equivalence) const;

    // Appends a column; one without a column number gets the next free one.
    void AddColumn(RqDerivedColumn* column);
    // Inserts a column at `index`.
    void InsertColumn(int index, RqDerivedColumn* column);
    // Adds a column over a copy of `expr`, or returns the existing column that already
    // computes an equivalent expression.
    RqDerivedColumn* InsertColumnExpr(const RqExpr* expr);
    // As InsertColumnExpr, taking ownership of `expr` (destroyed when a column matches).
    RqDerivedColumn* InsertDonatedColumnExpr(RqExpr* expr);
    // Removes and destroys the column. When `replacement` is a derived column, the
    // references to the deleted column are switched to it first.
    void DeleteColumn(RqDerivedColumn* column, RqNode* replacement = nullptr);
    // Removes the column and hands it to the caller.
    RqDerivedColumn* RemoveColumn(RqDerivedColumn* column);

    // The next free column number (advances the generator).
    int GetNextColumnNum();
    // Makes the generator hand out numbers above `columnNum` from now on.
    void ReSyncColumnNumGenerator(int columnNum);
    int PeekNextColumnNum() const { return m_nextColumnNum; }

private:
    int m_nextColumnNum;
};

// ---- Clauses -----------------------------------------------------------------------------

// WHERE, summary filter and HAVING: one condition (child 0). A filter holds a condition
// (RqExprCond): the constructor and SetCond take one, and GetCond reads back exactly what was
// set. To filter on a value that is not a condition (a Boolean column), wrap it in one
// (RqExprCondAtomicWrapper, or a comparison). GetCondExpr reads child 0 as whatever
// expression it is, for code that inspects a tree made by other means.
#define RQ_FILTER_CLAUSE(cls)                                              \
    class cls : public RqNode {                                            \
        RQ_NODE_CLASS(cls)                                                 \
    public:                                                                \
        explicit cls(RqExprCond* cond = nullptr);                          \
        cls(const cls& other) : RqNode(other) {}                           \
        RqExprCond* GetCond() const;                                       \
        RqExpr* GetCondExpr() const;                                       \
        /* Takes ownership of the condition and destroys the old one. */   \
        void SetCond(RqExprCond* cond);                                    \
        /* Hands the condition to the caller; the filter is left empty. */ \
        RqExprCond* ReleaseCond();                                         \
    };
RQ_FILTER_CLAUSE(RqDetailFilter)
RQ_FILTER_CLAUSE(RqSummaryFilter)
RQ_FILTER_CLAUSE(RqHaving)
#undef RQ_FILTER_CLAUSE

// GROUP BY: child 0 the grouping columns, child 1 the granularity (either may be empty).
// It answers the ordered column list's operations on its grouping columns.
class RqGroupBy : public RqNode {
    RQ_NODE_CLASS(RqGroupBy)
public:
    enum InternalExecutionMode { kUnknown = 0, kHash = 1, kSort = 2 };

    RqGroupBy();
    // Takes ownership of the expressions.
    explicit RqGroupBy(const RqExprVector& columns, InternalExecutionMode mode = kUnknown);
    RqGroupBy(const RqExprVector& columns, const RqExprVector& granularity,
              InternalExecutionMode mode = kUnknown);
    // Over an existing column list (taken over).
    RqGroupBy(RqExprColumnListOrdered* columns, InternalExecutionMode mode);
    RqGroupBy(const RqGroupBy& other)
        : RqNode(other), m_mode(other.m_mode), m_groupingSets(other.m_groupingSets) {}

    RqExprColumnListOrdered* GetColumnList() const;
    RqExprColumnListOrdered* GetGranularity() const;
    void SetGranularity(RqExprColumnListOrdered* granularity);
    InternalExecutionMode GetInternalExecutionMode() const { return m_mode; }
    void SetInternalExecutionMode(InternalExecutionMode mode) { m_mode = mode; }

    int GetNumColumns() const;
    RqExpr* GetIthColumn(int i) const;
    void SetIthColumn(int i, RqExpr* column);
    void SetNumColumns(int n);
    void AppendColumn(RqExpr* column);
    bool IsSubsetOf(const RqExprColumnListOrdered& other) const;
    bool IsPrefixSubsetOf(const RqExprColumnListOrdered& other) const;
    bool HasEquivalentMember(const RqExpr& expr) const;
    // The same questions asked of two GROUP BYs, as ordered lists of their columns (an absent
    // column list is an empty one). Grouping sets play no part: these compare what is grouped
    // by, not how often.
    bool IsSubsetOf(const RqGroupBy& other) const;
    bool IsPrefixSubsetOf(const RqGroupBy& other) const;
    // Each is a subset of the other: the same columns, in any order.
    bool HasSameColumns(const RqGroupBy& other) const;

    // ---- Grouping sets ---------------------------------------------------------------------
    // Without grouping sets the block is grouped once, by every column of the list. With them
    // it is grouped once per set, and the results are stacked: a set names columns by their
    // positions in the column list, and a column that a set leaves out is null in the rows of
    // that set (SQL's GROUP BY GROUPING SETS). An empty set is the grand total.
    bool IsGroupingSets() const { return !m_groupingSets.empty(); }
    int GetNumGroupingSets() const { return static_cast<int>(m_groupingSets.size()); }
    const UInt16Vector& GetIthGroupingSet(int i) const;
    // Appends a set: positions into the column list, in the order given.
    void AddGroupingSet(const UInt16Vector& columnIndexes);
    void ClearGroupingSets() { m_groupingSets.clear(); }
    // The position of the first set that holds exactly the columns at `columnIndexes`, or
    // -1. Sets are compared as sets: the order of the positions and repeated positions do
    // not matter.
    int FindGroupingSet(const UInt16Vector& columnIndexes) const;

private:
    InternalExecutionMode m_mode = kUnknown;
    RqGroupingSetVector m_groupingSets;
};

// ORDER BY: children are its sort specs, then the push-down aggregates that the sort
// computes on the way. The specs are the children before the first expression, so that
// removing a child with the generic node operations keeps the two groups apart.
class RqOrderBy : public RqNode {
    RQ_NODE_CLASS(RqOrderBy)
public:
    // Takes ownership of the specs. `bSticky`: the order was asked for by the user and is
    // kept through rewrites that reorder blocks.
    explicit RqOrderBy(const SortSpecVector& specs = {}, bool bSticky = false);
    RqOrderBy(const SortSpecVector& specs, const std::vector<ZKString>& typeInfos, bool bSticky);
    RqOrderBy(const RqOrderBy& other) = default;

    int GetNumSortSpecs() const;
    // Null when the slot is empty.
    RqSortSpec* GetIthSortSpec(int i) const;
    // Adds a spec after the last one (before the push-down aggregates).
    void AppendSortSpec(RqSortSpec* spec);
    bool HasPushDownAggr() const { return GetNumPushDownAggrs() > 0; }
    int GetNumPushDownAggrs() const { return GetNumChildren() - GetNumSortSpecs(); }
    RqExpr* GetIthPushDownAggr(int i) const;
    // Appends a copy of the aggregate.
    void AppendPushDownAggr(const RqExpr* aggr);
    bool IsSticky() const { return m_bSticky; }
    void SetSticky(bool value) { m_bSticky = value; }
    // The column type names the sort was planned with (one per sort key, may be empty), as a
    // copy: the node keeps its own through the tracking allocator.
    std::vector<ZKString> GetStickyTypes() const {
        return std::vector<ZKString>(m_typeInfos.begin(), m_typeInfos.end());
    }

private:
    bool m_bSticky = false;
    RqTextVector m_typeInfos;
};

// ---- Tables and joins ----------------------------------------------------------------------

struct SqlTableRef {
    enum JoinType {
        kInnerJoin = 0,
        kLeftOuterJoin = 1,
        kRightOuterJoin = 2,
        kFullOuterJoin = 3,
        kFullOuterStitchJoin = 4,
        kNaturalJoin = 5,
    };
};

class RqAbstractTable : public RqNode {
public:
    RqAbstractTable() = default;
    // The request's number of the table (target columns name their table by it).
    int GetTableNum() const { return m_tableNum; }
    void SetTableNum(int tableNum) { m_tableNum = tableNum; }

protected:
    RqAbstractTable(const RqAbstractTable&) = default;

private:
    int m_tableNum = 0;
};

// A table of the repository, named by its identifier.
class RqIdentifiedTable : public RqAbstractTable {
public:
    RqIdentifiedTable() = default;
    RqIdentifiedTable(const VoidID& tableID, int tableNum) : m_tableID(tableID) {
        SetTableNum(tableNum);
    }
    void GetTableID(VoidID& id) const { id = m_tableID; }
    const VoidID& GetTableID() const { return m_tableID; }
    void SetTableID(const VoidID& id) { m_tableID = id; }

protected:
    RqIdentifiedTable(const RqIdentifiedTable&) = default;

private:
    VoidID m_tableID;
};

class RqAtomicTable : public RqIdentifiedTable {
    RQ_NODE_CLASS(RqAtomicTable)
public:
    using RqIdentifiedTable::RqIdentifiedTable;
    RqAtomicTable(const RqAtomicTable&) = default;
    // The repository's complex join between this table and `other` (null when none).
    RefAComplexJoin GetCommonComplexJoin(ARpGateway* rp, RqAtomicTable* other) const;
};

class RqOpaqueTable : public RqIdentifiedTable {
    RQ_NODE_CLASS(RqOpaqueTable)
public:
    using RqIdentifiedTable::RqIdentifiedTable;
    RqOpaqueTable(const RqOpaqueTable&) = default;
};

class RqTransientOpaqueTable : public RqOpaqueTable {
    RQ_NODE_CLASS(RqTransientOpaqueTable)
public:
    using RqOpaqueTable::RqOpaqueTable;
    RqTransientOpaqueTable(const RqTransientOpaqueTable&) = default;
    // Column type names of the transient table, appended in column order.
    void AddColumnTypeInfos(const std::vector<ZKString>& typeInfos);
    // A copy: the node keeps its own through the tracking allocator.
    std::vector<ZKString> GetColumnTypeInfos() const {
        return std::vector<ZKString>(m_typeInfos.begin(), m_typeInfos.end());
    }

private:
    RqTextVector m_typeInfos;
};

class RqXSACacheTable : public RqIdentifiedTable {
    RQ_NODE_CLASS(RqXSACacheTable)
public:
    using RqIdentifiedTable::RqIdentifiedTable;
    RqXSACacheTable(const RqXSACacheTable&) = default;
};

class RqVELDNativeTable : public RqIdentifiedTable {
    RQ_NODE_CLASS(RqVELDNativeTable)
public:
    using RqIdentifiedTable::RqIdentifiedTable;
    RqVELDNativeTable(const RqVELDNativeTable&) = default;
};

class RqExternalTable : public RqAbstractTable {
    RQ_NODE_CLASS(RqExternalTable)
public:
    explicit RqExternalTable(const ZKString& name = ZKString()) : m_name(name) {}
    RqExternalTable(const RqExternalTable&) = default;
    const ZKString& GetName() const { return m_name; }

private:
    ZKString m_name;
};

// A table computed by an inner block (child 0).
class RqDerivedTable : public RqAbstractTable {
    RQ_NODE_CLASS(RqDerivedTable)
public:
    explicit RqDerivedTable(RqAbstractList* inner = nullptr, int nestingLevel = 0);
    RqDerivedTable(const RqDerivedTable&) = default;
    RqAbstractList* GetInnerList() const;
    void SetInnerList(RqAbstractList* inner);
    int GetNestingLevel() const { return m_nestingLevel; }
    void SetNestingLevel(int level) { m_nestingLevel = level; }

private:
    int m_nestingLevel;
};

// A join: children 0 the left table, 1 the right table (null for a single table),
// 2 the search condition (may be null).
class RqTableReference : public RqNode {
    RQ_NODE_CLASS(RqTableReference)
public:
    enum DrivingTableHint {
        kDriving_LeftTable = 0,
        kDriving_RightTable = 1,
        kDriving_UnknownTable = 2
    };
    enum ChildIndex { kLeftChild = 0, kRightChild = 1, kCondChild = 2 };

    RqTableReference(SqlTableRef::JoinType joinType = SqlTableRef::kInnerJoin,
                     RqNode* left = nullptr, RqExpr* searchCond = nullptr, RqNode* right = nullptr,
                     DrivingTableHint hint = kDriving_UnknownTable);
    RqTableReference(const RqTableReference&) = default;

    SqlTableRef::JoinType GetJoinType() const { return m_joinType; }
    void SetJoinType(SqlTableRef::JoinType type) { m_joinType = type; }
    DrivingTableHint GetDrivingTableHint() const { return m_hint; }
    void SetDrivingTableHint(DrivingTableHint hint) { m_hint = hint; }
    // Left and right sides: a table (RqAbstractTable) or a nested table reference.
    RqNode* GetLeftNode() const { return GetIthChild(kLeftChild); }
    RqNode* GetRightNode() const { return GetIthChild(kRightChild); }
    RqAbstractTable* GetLeftTable() const;
    RqAbstractTable* GetRightTable() const;
    void SetLeftTable(RqNode* table) { SetIthChild(kLeftChild, table); }
    void SetRightTable(RqNode* table) { SetIthChild(kRightChild, table); }
    RqExprCond* GetSearchCond() const;
    void SetSearchCond(RqExpr* cond) { SetIthChild(kCondChild, cond); }
    // The left table when it is a derived table, else null.
    RqDerivedTable* GetDerivedTable() const;
    bool IsDerivedTableReference() const { return GetDerivedTable() != nullptr; }
    // A reference to a repository table (not a derived or external one).
    bool IsDeclarativeTableReference() const;

    // Positions, in the left and right tables' projections, of the join columns.
    const UInt16Vector& GetLeftJoinColumnIndexes() const { return m_leftJoinIndexes; }
    const UInt16Vector& GetRightJoinColumnIndexes() const { return m_rightJoinIndexes; }
    void SetLeftJoinColumnIndexes(const UInt16Vector& indexes) { m_leftJoinIndexes = indexes; }
    void SetRightJoinColumnIndexes(const UInt16Vector& indexes) { m_rightJoinIndexes = indexes; }

private:
    SqlTableRef::JoinType m_joinType;
    DrivingTableHint m_hint;
    UInt16Vector m_leftJoinIndexes;
    UInt16Vector m_rightJoinIndexes;
};

// A link of the join graph between two join nodes (not owned by either).
class RqJoinLink : public RqNode {
    RQ_NODE_CLASS(RqJoinLink)
public:
    RqJoinLink(RqJoinNode* from = nullptr, RqJoinNode* to = nullptr) : m_pFrom(from), m_pTo(to) {}
    RqJoinLink(const RqJoinLink&) = default;
    RqJoinNode* GetFrom() const { return m_pFrom; }
    RqJoinNode* GetTo() const { return m_pTo; }

protected:
    void FixUpCopy(const CopyMap& map) override;

private:
    RqJoinNode* m_pFrom;
    RqJoinNode* m_pTo;
};

// One member of the FROM clause: wraps one table reference (child 0).
class RqJoinNode : public RqNode {
    RQ_NODE_CLASS(RqJoinNode)
public:
    explicit RqJoinNode(RqTableReference* reference = nullptr, bool bPreserved = false);
    RqJoinNode(const RqJoinNode&) = default;
    RqTableReference* GetTableReference() const;
    bool IsPreserved() const { return m_bPreserved; }
    // The join links of the join spec that start or end at this node.
    void GetIncidentLinks(std::vector<RqJoinLink*>& out) const;

private:
    bool m_bPreserved;
};

// The FROM clause: its join nodes, then its join links.
class RqJoinSpec : public RqNode {
    RQ_NODE_CLASS(RqJoinSpec)
public:
    RqJoinSpec() = default;
    // Takes ownership of the join nodes.
    explicit RqJoinSpec(const std::vector<RqJoinNode*>& nodes);
    RqJoinSpec(const RqJoinSpec& other) : RqNode(other) {}

    int GetNumTableReferences() const;
    RqTableReference* GetIthTableReference(int i) const;
    int GetNumJoinNodes() const;
    RqJoinNode* GetIthJoinNode(int i) const;
    void AddJoinNode(RqJoinNode* node);
    // Links are kept after every join node.
    void AddJoinLink(RqJoinLink* link);
};

class RqEntity : public RqNode {
    RQ_NODE_CLASS(RqEntity)
public:
    RqEntity() = default;
    RqEntity(const VoidID& id, const ZKString& name) : m_id(id), m_name(name) {}
    RqEntity(const RqEntity&) = default;
    const VoidID& GetID() const { return m_id; }
    const ZKString& GetName() const { return m_name; }

private:
    VoidID m_id;
    ZKString m_name;
};

// ---- Lists -------------------------------------------------------------------------------

// The base of every list-like node: query blocks, set operations, break filters, shared and
// cache lists. Every list carries a row offset and a row limit (0: none) and a label that
// other blocks and tools use to name it.
class RqAbstractList : public RqNode {
public:
    RqAbstractList() = default;

    uint32_t m_rowOffset = 0;  // rows to skip
    uint32_t m_rowLimit = 0;   // rows to return

    uint32_t GetRowOffset() const { return m_rowOffset; }
    void SetRowOffset(uint32_t offset) { m_rowOffset = offset; }
    uint32_t GetRowLimit() const { return m_rowLimit; }
    void SetRowLimit(uint32_t limit) { m_rowLimit = limit; }

    // Several consumers read this list (through shared lists).
    bool IsShared() const { return m_bShared; }
    void SetShared(bool value) { m_bShared = value; }
    // The list's target accepts a WITH clause.
    bool IsWithSupported() const { return m_bWithSupported; }
    void SetWithSupported(bool value) { m_bWithSupported = value; }
    // The list can take over the row limit and offset of a block that reads it alone.
    virtual bool IsFoldableList() const { return false; }

    // The projection of the list's result (for a set operation: its first member's).
    virtual RqProjection* GetProjection() const = 0;

    const ZKString& GetLabel() const { return m_label; }
    void SetLabel(const ZKString& label) { m_label = label; }

protected:
    RqAbstractList(const RqAbstractList&) = default;

private:
    bool m_bShared = false;
    bool m_bWithSupported = false;
    ZKString m_label;
};

// One query block. Children, in this order (absent clauses are null): 0 projection, 1 join
// spec, 2 detail filter, 3 summary filter, 4 group-by, 5 having, 6 order-by.
class RqList : public RqAbstractList {
    RQ_NODE_CLASS(RqList)
public:
    enum ClauseIndex {
        kProjectionChild = 0,
        kJoinSpecChild = 1,
        kDetailFilterChild = 2,
        kSummaryFilterChild = 3,
        kGroupByChild = 4,
        kHavingChild = 5,
        kOrderByChild = 6,
        kNumClauses = 7,
    };

    // A block with an empty projection whose column numbers start at `firstColumnNum`.
    explicit RqList(int firstColumnNum = 0);
    RqList(const RqList&) = default;

    RqProjection* GetProjection() const override;
    RqJoinSpec* GetJoinSpec() const;
    RqDetailFilter* GetDetailFilter() const;
    RqSummaryFilter* GetSummaryFilter() const;
    RqGroupBy* GetGroupBy() const;
    RqHaving* GetHaving() const;
    RqOrderBy* GetOrderBy() const;
    // Setters take ownership of the new clause and destroy the old one (null removes it).
    void SetProjection(RqProjection* projection);
    void SetJoinSpec(RqJoinSpec* joinSpec);
    void SetDetailFilter(RqDetailFilter* filter);
    void SetSummaryFilter(RqSummaryFilter* filter);
    void SetGroupBy(RqGroupBy* groupBy);
    void SetHaving(RqHaving* having);
    void SetOrderBy(RqOrderBy* orderBy);

    bool IsDistinct() const { return m_bDistinct; }
    void SetDistinct(bool value) { m_bDistinct = value; }
    // The block was made by the server for its own plan, not asked for by the request.
    bool IsArtifactListNode() const { return m_bArtifact; }
    void SetArtifactListNode(bool value) { m_bArtifact = value; }
    bool IsFoldableList() const override;

private:
    bool m_bDistinct = false;
    bool m_bArtifact = false;
};

// UNION, INTERSECT and EXCEPT over their member lists (the children).
#define RQ_SET_OPERATION(cls)                                        \
    class cls : public RqAbstractList {                              \
        RQ_NODE_CLASS(cls)                                           \
    public:                                                          \
        cls() = default;                                             \
        /* Takes ownership of the lists. */                          \
        cls(const RqAbstractListVector& lists, bool bAll);           \
        cls(const cls&) = default;                                   \
        int GetNumLists() const { return GetNumChildren(); }         \
        RqAbstractList* GetIthList(int i) const;                     \
        /* Puts `list` in position i and destroys the old member. */ \
        void SetIthList(int i, RqAbstractList* list);                \
        void AddList(RqAbstractList* list) { AddChild(list); }       \
        bool IsAll() const { return m_bAll; }                        \
        bool IsUnionAll() const { return m_bAll; }                   \
        void SetAll(bool value) { m_bAll = value; }                  \
        RqProjection* GetProjection() const override;                \
                                                                     \
    private:                                                         \
        bool m_bAll = false;                                         \
    };
RQ_SET_OPERATION(RqUnion)
RQ_SET_OPERATION(RqIntersect)
RQ_SET_OPERATION(RqExcept)
#undef RQ_SET_OPERATION

// A consumer's view of a list shared by several consumers. The shared list is not owned:
// it lives where the request keeps it (child of a cache list or of the request's WITH
// block) and is named here by pointer.
class RqSharedList : public RqAbstractList {
    RQ_NODE_CLASS(RqSharedList)
public:
    explicit RqSharedList(RqAbstractList* shared = nullptr) : m_pShared(shared) {}
    RqSharedList(const RqSharedList&) = default;
    RqAbstractList* GetSharedRqList() const { return m_pShared; }
    void SetSharedRqList(RqAbstractList* shared) { m_pShared = shared; }
    RqProjection* GetProjection() const override;

protected:
    void FixUpCopy(const CopyMap& map) override;

private:
    RqAbstractList* m_pShared;
};

// Keeps one row of its inner list (child 0) per distinct value of the break columns,
// named by their indexes in the inner projection.
class RqBreakFilter : public RqAbstractList {
    RQ_NODE_CLASS(RqBreakFilter)
public:
    RqBreakFilter() = default;
    // Takes ownership of the inner list.
    RqBreakFilter(RqAbstractList* inner, const UInt16Vector& breakColumnIndexes);
    RqBreakFilter(const RqBreakFilter&) = default;

    RqAbstractList* GetInnerList() const;
    void SetInnerList(RqAbstractList* inner);
    RqProjection* GetProjection() const override;

    // The break column indexes. With `bSorted` they come in ascending order.
    void GetBreakColumnIndexes(UInt16Vector& out, bool bSorted) const;
    // As GetBreakColumnIndexes, but when the inner list is a block without ORDER BY the
    // break columns are also its sort: they are given in the inner projection's order.
    void GetBreakColumnIndexesAccountForNoOrderBy(UInt16Vector& out, bool bSorted) const;
    // The column numbers of the break columns, in break order.
    void GetBreakColumnNumbers(UInt16Vector& out) const;
    void SetBreakColumnIndexes(const UInt16Vector& indexes) { m_breakIndexes = indexes; }
    const UInt16Vector& BreakColumnIndexes() const { return m_breakIndexes; }

private:
    UInt16Vector m_breakIndexes;
};

// A list whose result is cached and shared (child 0: the list).
class RqCacheList : public RqAbstractList {
    RQ_NODE_CLASS(RqCacheList)
public:
    explicit RqCacheList(RqAbstractList* list = nullptr);
    RqCacheList(const RqCacheList&) = default;
    RqAbstractList* GetList() const;
    RqProjection* GetProjection() const override;
    const ZKString& GetMarker() const { return m_marker; }
    void SetMarker(const ZKString& marker) { m_marker = marker; }

private:
    ZKString m_marker;
};

// ---- Cache and write requests ------------------------------------------------------------

// One entry of a cache's logical plan, stored as bytes in the cache node.
struct LogicalPlanEntry {
    uint32_t m_rowLimit = 0;
    uint32_t m_rowOffset = 0;
    uint32_t m_flags = 0;
};
// Held by cache nodes, so counted by the tracking allocator like every container of a node.
using LogicalPlanBytes = std::vector<uint8_t, ZKAllocator<uint8_t>>;

// A request whose result goes to the cache (child 0: the request's list).
class RqCache : public RqNode {
    RQ_NODE_CLASS(RqCache)
public:
    explicit RqCache(RqAbstractList* list = nullptr);
    RqCache(const RqCache&) = default;
    RqAbstractList* GetList() const;
    RqProjection* GetProjection() const;
    void GetLogicalPlan(LogicalPlanBytes& out) const { out = m_logicalPlan; }
    void SetLogicalPlan(const LogicalPlanBytes& plan) { m_logicalPlan = plan; }
    // The plan's first entry decoded (zeros when there is none).
    LogicalPlanEntry GetLogicalPlanEntry() const;
    void SetLogicalPlanEntry(const LogicalPlanEntry& entry);

private:
    LogicalPlanBytes m_logicalPlan;
};

class RqXSACache : public RqCache {
    RQ_NODE_CLASS(RqXSACache)
public:
    using RqCache::RqCache;
    RqXSACache(const RqXSACache&) = default;
};

// Nodes that carry a name and own their children: write requests and the request kinds
// that the rules pass through untouched.
#define RQ_GENERIC_NODE(cls)                                              \
    class cls : public RqNode {                                           \
        RQ_NODE_CLASS(cls)                                                \
    public:                                                               \
        explicit cls(const ZKString& name = ZKString()) : m_name(name) {} \
        cls(const cls&) = default;                                        \
        const ZKString& GetName() const { return m_name; }                \
        void SetName(const ZKString& name) { m_name = name; }             \
                                                                          \
    private:                                                              \
        ZKString m_name;                                                  \
    };
RQ_GENERIC_NODE(RqWrite)
RQ_GENERIC_NODE(RqDelete)
RQ_GENERIC_NODE(RqInsert)
RQ_GENERIC_NODE(RqDrop)
RQ_GENERIC_NODE(RqPopulate)
RQ_GENERIC_NODE(RqCreateIndex)
RQ_GENERIC_NODE(RqStats)
RQ_GENERIC_NODE(RqMolapStarJoin)
RQ_GENERIC_NODE(RqMolapFilterJoin)
RQ_GENERIC_NODE(RqSummaryAdvisorQuery)
RQ_GENERIC_NODE(RqExplainPlan)
RQ_GENERIC_NODE(RqDataMiningQuery)
RQ_GENERIC_NODE(RqXSAGrainCheck)
RQ_GENERIC_NODE(RqProbeQuery)
RQ_GENERIC_NODE(RqSummarize)
RQ_GENERIC_NODE(RqCanonicalMap)
RQ_GENERIC_NODE(RqDetectAnomalies)
#undef RQ_GENERIC_NODE
