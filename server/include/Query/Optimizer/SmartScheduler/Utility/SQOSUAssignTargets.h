#pragma once
// The server's target assignment, as far as the rules of this library need it between two
// of them: every node whose target type was left unknown gets the type of the data source it
// is still bound to (its target ID names a database or one of its connection pools), and a
// node bound to no source is evaluated by the server itself (docs/rules/AssignTargets.md).
// The optimizer runs its own assignment after rules that hand nodes back to it, such as
// RemoveRedundantOrderBy; pipelines of rqopt run this step in its place.

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

class AssignTargets : public RqNodeVisitorDefaults<RewriteRule> {
public:
    RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<RewriteRule>);

    explicit AssignTargets(ARpGateway* rp);

    // The whole request is walked from its root.
    bool Visit(RqHandleNode& node) override;

    bool StillActive() const override { return false; }
    void Reset() override {}

    // The number of nodes whose target type the last walks set.
    size_t GetNumAssigned() const { return m_numAssigned; }

    // The type a node bound to `targetID` is executed by: the type of the database that the
    // identifier names, directly or through one of its connection pools; the server's own
    // engine for a null identifier; unknown for an identifier the repository does not know.
    static ServerInfo::TargetType TargetTypeOf(const ARpGateway* rp, const VoidID& targetID);

private:
    ARpGateway* m_pRp;
    size_t m_numAssigned;
};
