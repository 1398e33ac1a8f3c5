#pragma once
// Removes from nested query blocks the projected columns that nothing above them reads
// (docs/rules/DeleteOrphanCols.md). The walk goes from the top: a block first loses its own
// orphans, then records which columns of its children it reads, so that each child, visited
// next, knows its own orphans.

#include <functional>
#include <memory>
#include <memory_resource>
#include <set>
#include <vector>

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

// The columns some consumer reads, keyed by address. Shared by a rule and every sub-visitor it
// starts, so that what a block records for its children is seen where they are visited. The set
// is the rule's working memory, held by no node: the rule that creates it gives it an arena
// (see m_pColumnRefArena), so that an insertion costs no allocation of its own.
using RqDerivedColumnSet = std::pmr::set<RqDerivedColumn*>;

class DeleteOrphanCols : public RqNodeVisitorDefaults<RewriteRule> {
public:
    RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<RewriteRule>);

    explicit DeleteOrphanCols(ARpGateway* rp);
    ~DeleteOrphanCols() override;
    DeleteOrphanCols(const DeleteOrphanCols&) = delete;
    DeleteOrphanCols& operator=(const DeleteOrphanCols&) = delete;

    bool Visit(RqStats& node) override;
    bool Visit(RqHandleNode& node) override;
    bool Visit(RqList& node) override;
    bool Visit(RqUnion& node) override;
    bool Visit(RqIntersect& node) override;
    bool Visit(RqExcept& node) override;
    bool Visit(RqSharedList& node) override;
    bool Visit(RqBreakFilter& node) override;
    bool Visit(RqProjection& node) override;
    bool Visit(RqDerivedColumn& node) override;
    bool Visit(RqDetailFilter& node) override;
    bool Visit(RqSummaryFilter& node) override;
    bool Visit(RqJoinNode& node) override;
    bool Visit(RqJoinSpec& node) override;
    bool VisitAny(RqAbstractTable& node) override;
    bool Visit(RqEntity& node) override;
    bool Visit(RqTableReference& node) override;
    bool Visit(RqExpr& node) override;
    bool Visit(RqGroupBy& node) override;
    bool Visit(RqHaving& node) override;
    bool Visit(RqSortSpec& node) override;
    bool Visit(RqOrderBy& node) override;
    bool Visit(RqCache& node) override;
    bool Visit(RqXSACache& node) override;
    bool Visit(RqDelete& node) override;
    bool Visit(RqInsert& node) override;
    bool Visit(RqDrop& node) override;
    bool Visit(RqPopulate& node) override;
    bool Visit(RqCreateIndex& node) override;
    bool Visit(RqCacheList& node) override;
    bool Visit(RqCanonicalMap& node) override;

    // One pass does all the work.
    bool StillActive() const override { return false; }
    void Reset() override {}

    // Positions, in the projection before deletion, of the columns this visitor deleted (in
    // the order deleted), and that projection's column count.
    const Int32Vector& GetDeletedColIndexes() const { return m_deletedColIndexes; }
    int GetNumColumns() const { return m_numColumns; }

    // ---- Helpers: each adds the columns it finds to `columnRefs` ----------------------------
    // The projection column named by every sort spec of `orderBy` (none for a null ORDER BY).
    static void AddOrderByReferences(RqOrderBy* orderBy, RqProjection* projection,
                                     RqDerivedColumnSet& columnRefs);
    // The projection columns that the aggregates of the projection break by (their by-lists)
    // or sort by (the sort keys of sort-dependent aggregates).
    static void AddControlBreakReferences(RqProjection* projection, RqDerivedColumnSet& columnRefs);
    // The break columns of the filter's inner list.
    static void AddBreakFilterReferences(RqBreakFilter& breakFilter,
                                         RqDerivedColumnSet& columnRefs);
    // One real column of the derived table below a block that counts rows with COUNT(*).
    static void AddCountStarReference(RqList& listNode, RqDerivedColumnSet& columnRefs);
    // The join columns of every table reference of the join spec, of one table reference, and
    // of one table (the inner projection's columns at `indexes`, for a derived table).
    static void LoadJoinColumns(RqJoinSpec* joinSpec, RqDerivedColumnSet& columnRefs);
    static void LoadJoinColumns(RqTableReference* reference, RqDerivedColumnSet& columnRefs);
    static void LoadJoinColumns(RqNode* table, const UInt16Vector& indexes,
                                RqDerivedColumnSet& columnRefs);
    // Whether the union's branches may lose columns; adds the columns its branches must keep.
    bool CheckUnionRemovability(RqUnion& unionNode, RqDerivedColumnSet& columnRefs);
    // Every column of every branch of the union.
    static void MarkAllColumnsAsReferenced(RqUnion& unionNode, RqDerivedColumnSet& columnRefs);
    // The columns of the block that carry grain checks, and the child columns they read.
    static void RemoveGrainCheckColumnsFromDeleteOrphans(RqList& listNode,
                                                         RqDerivedColumnSet& columnRefs);

    // What the rule reads of one projected column (kept in its source file).
    struct ColumnFacts;

private:
    // A sub-visitor for one branch of the tree, sharing the caller's set.
    DeleteOrphanCols(RqDerivedColumnSet* pColumnRefs, ARpGateway* rp);
    void InitColumnRefs();

    // The walks of Visit(RqList): the top block's and a nested block's.
    void VisitTopMostList(RqList& listNode);
    void DeleteOrphansOfNestedList(RqList& listNode);
    // The block's orphans, marked by projection position, and the aggregate refinement of
    // them (which may turn the block's GROUP BY into DISTINCT).
    std::vector<char> FindOrphans(RqList& listNode, const std::vector<ColumnFacts>& facts);
    void RefineOrphanAggrs(RqList& listNode, const std::vector<ColumnFacts>& facts,
                           const std::vector<int>& keptAggrs, const std::vector<int>& orphanAggrs,
                           std::vector<char>& orphans);
    // The references a block makes to its children's columns, and its join columns.
    void CollectChildReferences(RqList& listNode);
    // Runs a sub-visitor over `node` and returns the positions it deleted there.
    Int32Vector VisitWithSubVisitor(RqNode* node);

    friend class DeleteOrphanColsTestAccess;

    bool m_visitedRootRqlist;
    RqDerivedColumnSet* m_pColumnRefs;
    Int32Vector m_deletedColIndexes;
    int32_t m_numColumns;
    ARpGateway* m_pRp;
    bool m_bCreatedColumnRefSetInternally;
    // The memory of the set this rule created: set nodes are only ever added during the one
    // pass, and all are dropped with the set, so they are carved from blocks freed at once.
    std::unique_ptr<std::pmr::monotonic_buffer_resource> m_pColumnRefArena;
};
