#pragma once
// Prepares the blocks sent to an object-framework source, which can only hand back rows that
// carry their primary keys: each such leaf block projects the key columns of the tables it
// reads (only those a join would multiply, when it can tell), and every projected expression
// that is not a plain table column moves into a new outer block that the server evaluates
// (docs/rules/AddPKToLeaf.md).

#include <memory>
#include <vector>

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

// One key column to append, defined in the rule's source file.
class TargetColInfo;
struct TargetColInfoDeleter {
    void operator()(TargetColInfo* info) const;
};
using OwnedTargetColInfoPtr = std::unique_ptr<TargetColInfo, TargetColInfoDeleter>;
using TargetColInfoList = std::vector<OwnedTargetColInfoPtr>;

class AddPKToLeaf : public RqNodeVisitorDefaults<RewriteRule> {
public:
    RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<RewriteRule>);

    explicit AddPKToLeaf(ARpGateway* rp);

    // Once a write request is seen, no block below it is changed.
    bool Visit(RqWrite& node) override;
    // Branches of a set operation that run on a framework source are wrapped in an outer
    // reprojection first, so that the key columns never reach the set operation.
    bool Visit(RqUnion& node) override;
    bool Visit(RqIntersect& node) override;
    bool Visit(RqExcept& node) override;
    // The key rewrite of one block; true (nothing below is visited) when the block runs on a
    // framework source and no write request was seen.
    bool Visit(RqList& node) override;

    // One pass does all the work.
    bool StillActive() const override { return false; }
    void Reset() override {}

    // What the pass did.
    bool PushedUpUnsupportedColumns() const { return m_bPushedUpUnsupportedColumns; }
    bool AddedPrimaryKeyColumns() const { return m_bAddedPrimaryKeyColumns; }

    // Node target types of the object-framework sources.
    static bool IsFrameworkTargetType(ServerInfo::TargetType type);

    // Appends the columns of the primary key of `rqTable` to `pkColumns`, skipping columns
    // already listed. Raises message 38119 when the table has no key.
    static void GetPKColumnsFromTable(RqAtomicTable* rqTable, TargetColInfoList& pkColumns,
                                      ARpGateway* rp);
    // The keys of the tables whose rows a join of the block multiplies, by the cardinality
    // of the repository join between each pair of the block's tables.
    static void GetMandatoryPKColumnsOnly(RqProjection* projection, RqJoinSpec* joinSpec,
                                          RqList& list, TargetColInfoList& pkColumns,
                                          ARpGateway* rp);
    // The keys of `rqTable`, unless the projection already reads a column of that table.
    static void GetPKColumnsIfTableNotUsedInProjection(RqProjection* projection,
                                                       RqAtomicTable* rqTable,
                                                       TargetColInfoList& pkColumns,
                                                       ARpGateway* rp);
    // Moves every column of `list` that is not a framework-target table column into a new
    // outer block over `list`.
    void PushUpUnsupportedColumns(RqList& list);

private:
    // The list of key columns `list` must project (step 3 of the rewrite).
    void ChooseKeyColumns(RqList& list, RqProjection* projection, TargetColInfoList& pkColumns);
    // Moves the columns out into `outerList`, a block over `list` made earlier, or into a
    // new one when it is null.
    void PushUpUnsupportedColumns(RqList& list, RqList* outerList);
    void AppendKeyColumns(RqList& list, ServerInfo::TargetType targetType,
                          const TargetColInfoList& pkColumns);

    ARpGateway* m_pRp;
    bool m_bIsWriteQuery;
    bool m_bPushedUpUnsupportedColumns;
    bool m_bAddedPrimaryKeyColumns;
};
