// The rule driver: pass counts, Reset before every pass, the cancellation point, the meaning
// of a Visit's answer for the walk, and what an error raised by a rule leaves behind.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "Platform/ErrorMessage.h"
#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

namespace {

// A rule that records what the driver does with it: "R" for a Reset, "H" for the root, "L"
// for a list, "P" for a projection, "E" for an expression. `m_onList` runs at every list.
class RecordingRule : public RqNodeVisitorDefaults<RewriteRule> {
public:
    RQ_VISIT_DEFAULTS(RqNodeVisitorDefaults<RewriteRule>);

    explicit RecordingRule(int activePasses, bool bSkipListChildren = false)
        : m_activePasses(activePasses), m_bSkipListChildren(bSkipListChildren) {}

    bool Visit(RqHandleNode&) override { return Note("H", false); }
    bool Visit(RqList& list) override {
        if (m_onList)
            m_onList(list);
        return Note("L", m_bSkipListChildren);
    }
    bool Visit(RqProjection&) override { return Note("P", false); }
    bool Visit(RqExpr&) override { return Note("E", false); }

    bool StillActive() const override { return m_passes < m_activePasses + 1; }
    void Reset() override {
        ++m_passes;
        m_log += "R";
    }

    std::string m_log;
    int m_passes = 0;
    std::function<void(RqList&)> m_onList;

private:
    bool Note(const char* what, bool result) {
        m_log += what;
        return result;
    }
    int m_activePasses;
    bool m_bSkipListChildren;
};

Heap<RqHandleNode> SmallRequest() {
    return Heap<RqHandleNode>(rqb::Request(rqb::Block().Select(rqb::Col(L"a", 1)).Build()));
}

TEST(RewriteRuleDriver, PassesResetsAndTheWalk) {
    struct Case {
        int m_activePasses;
        bool m_bSkipListChildren;
        const char* m_log;
    };
    const Case cases[] = {
        // One Reset, then the walk in pre-order: root, list, projection, the column's
        // expression (the derived column and the empty clauses answer without logging).
        {0, false, "RHLPE"},
        {2, false, "RHLPERHLPERHLPE"},
        // True from a list leaves its children unvisited.
        {0, true, "RHL"},
    };
    for (const Case& c : cases) {
        Heap<RqHandleNode> request = SmallRequest();
        RecordingRule rule(c.m_activePasses, c.m_bSkipListChildren);
        rule.ApplyRule(*request);
        EXPECT_EQ(rule.m_log, c.m_log);
    }
}

TEST(RewriteRuleDriver, CancellationStopsBeforeAPass) {
    Heap<RqHandleNode> request = SmallRequest();
    auto job = std::make_shared<ZKJob>();
    ZKThreadJobMgr::ScopedJob scope(job);
    // Cancelled before the rule is applied: no Reset, no visit.
    job->Cancel();
    RecordingRule early(5);
    EXPECT_THROW(early.ApplyRule(*request), JobCancelledException);
    EXPECT_EQ(early.m_log, "");
    // Cancelled during the second pass: the pass finishes (the walk has no cancellation
    // point) and the third never starts.
    job = std::make_shared<ZKJob>();
    ZKThreadJobMgr::ScopedJob fresh(job);
    RecordingRule rule(10);
    rule.m_onList = [&](RqList&) {
        if (rule.m_passes == 2)
            job->Cancel();
    };
    EXPECT_THROW(rule.ApplyRule(*request), JobCancelledException);
    EXPECT_EQ(rule.m_log, "RHLPERHLPE");
}

TEST(RewriteRuleDriver, AnErrorKeepsTheChangesOfEveryPassSoFar) {
    // Pass 1 makes the block DISTINCT, pass 2 marks its target and then fails.
    Heap<RqHandleNode> request = SmallRequest();
    RecordingRule rule(10);
    rule.m_onList = [&](RqList& list) {
        if (rule.m_passes == 1) {
            list.SetDistinct(true);
            return;
        }
        list.MarkTargetType(ServerInfo::kBuiltInExecutionEngine);
        ZK_THROW(ErrorMessage(ZKString(L"the rule gave up")));
    };
    EXPECT_THROW(rule.ApplyRule(*request), ErrorMessage);
    ErrorMessage::ClearLastPrethrown();
    EXPECT_EQ(rule.m_log, "RHLPERH");
    const RqList* list = RqCast<RqList>(request->GetRqNode());
    EXPECT_TRUE(list->IsDistinct());
    EXPECT_EQ(list->GetTargetType(), ServerInfo::kBuiltInExecutionEngine);
}

}  // namespace
