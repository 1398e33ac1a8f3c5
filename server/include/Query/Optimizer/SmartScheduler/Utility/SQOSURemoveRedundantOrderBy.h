#pragma once
// Drops every ORDER BY of a request except the topmost one, and hands every node back to
// target assignment by marking it "unknown".

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

class RemoveRedundantOrderBy : public RewriteRule {
public:
    explicit RemoveRedundantOrderBy(ARpGateway* rp);

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
    bool Visit(RqAtomicTable& node) override;
    bool Visit(RqOpaqueTable& node) override;
    bool Visit(RqTransientOpaqueTable& node) override;
    bool Visit(RqXSACacheTable& node) override;
    bool Visit(RqVELDNativeTable& node) override;
    bool Visit(RqExternalTable& node) override;
    bool Visit(RqDerivedTable& node) override;
    bool Visit(RqEntity& node) override;
    bool Visit(RqTableReference& node) override;
    bool Visit(RqExpr& node) override;
    bool Visit(RqGroupBy& node) override;
    bool Visit(RqHaving& node) override;
    bool Visit(RqSortSpec& node) override;
    bool Visit(RqOrderBy& node) override;
    bool Visit(RqCache& node) override;
    bool Visit(RqDelete& node) override;
    bool Visit(RqInsert& node) override;
    bool Visit(RqDrop& node) override;
    bool Visit(RqPopulate& node) override;
    bool Visit(RqCreateIndex& node) override;
    bool Visit(RqCanonicalMap& node) override;
    using RewriteRule::Visit;

    // One pass does all the work.
    bool StillActive() const override { return false; }
    void Reset() override;

    // The breadth-first walk below `root`. Public so that it can be run on any subtree; the
    // flags carry over from an earlier walk unless Reset runs in between.
    virtual void MarkNodesToUnknownTargetAndDeleteOrderBys(RqNode* root);

private:
    ARpGateway* m_pRp;
    bool m_bSkippedTopMostOrderBy;
    bool m_bFoundTwoTableJoin;
};
