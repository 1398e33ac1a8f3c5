#pragma once
// Drops every ORDER BY of a request except the topmost one, and hands every node back to
// target assignment by marking it "unknown" (docs/rules/RemoveRedundantOrderBy.md).

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

class RemoveRedundantOrderBy : public RqNodeVisitorDefaults<RewriteRule> {
public:
    RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<RewriteRule>);

    explicit RemoveRedundantOrderBy(ARpGateway* rp);

    // The whole request is walked from its root; every other node is left to that walk.
    bool Visit(RqHandleNode& node) override;

    // One pass does all the work.
    bool StillActive() const override { return false; }
    void Reset() override;

    // The breadth-first walk below `root`. Public so that it can be run on any subtree; the
    // flags carry over from an earlier walk unless Reset runs in between.
    virtual void MarkNodesToUnknownTargetAndDeleteOrderBys(RqNode* root);

private:
    // Kept as every rule keeps its gateway; the walk needs nothing from the repository.
    [[maybe_unused]] ARpGateway* m_pRp;
    bool m_bSkippedTopMostOrderBy;
    bool m_bFoundTwoTableJoin;
};
