#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

#include "Platform/ZKThread.h"

void RewriteRule::ApplyRule(RqNode& node) {
    do {
        // The cooperative cancellation point: a cancelled job stops between passes.
        ZKThreadJobMgr::ServiceJobCancellation();
        Reset();
        node.Accept(*this);
    } while (StillActive());
}
