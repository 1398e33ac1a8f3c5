// The rule driver: pass counts, Reset before every pass, the cancellation point, and the
// meaning of a Visit's answer for the walk.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

namespace {

// A rule that records what the driver does with it: "R" for a Reset, "H" for the root, "L"
// for a list, "P" for a projection, "E" for an expression.
class RecordingRule : public RewriteRule {
public:
    explicit RecordingRule(int activePasses, bool bSkipListChildren = false)
        : m_activePasses(activePasses), m_bSkipListChildren(bSkipListChildren) {}

    bool Visit(RqHandleNode&) override { return Note("H", false); }
    bool Visit(RqList&) override { return Note("L", m_bSkipListChildren); }
    bool Visit(RqProjection&) override { return Note("P", false); }
    bool Visit(RqExpr&) override { return Note("E", false); }
    bool Visit(RqStats&) override { return false; }
    bool Visit(RqUnion&) override { return false; }
    bool Visit(RqIntersect&) override { return false; }
    bool Visit(RqExcept&) override { return false; }
    bool Visit(RqSharedList&) override { return false; }
    bool Visit(RqBreakFilter&) override { return false; }
    bool Visit(RqDerivedColumn&) override { return false; }
    bool Visit(RqDetailFilter&) override { return false; }
    bool Visit(RqSummaryFilter&) override { return false; }
    bool Visit(RqJoinNode&) override { return false; }
    bool Visit(RqJoinSpec&) override { return false; }
    bool Visit(RqAtomicTable&) override { return false; }
    bool Visit(RqOpaqueTable&) override { return false; }
    bool Visit(RqTransientOpaqueTable&) override { return false; }
    bool Visit(RqXSACacheTable&) override { return false; }
    bool Visit(RqVELDNativeTable&) override { return false; }
    bool Visit(RqExternalTable&) override { return false; }
    bool Visit(RqDerivedTable&) override { return false; }
    bool Visit(RqEntity&) override { return false; }
    bool Visit(RqTableReference&) override { return false; }
    bool Visit(RqGroupBy&) override { return false; }
    bool Visit(RqHaving&) override { return false; }
    bool Visit(RqSortSpec&) override { return false; }
    bool Visit(RqOrderBy&) override { return false; }
    bool Visit(RqCache&) override { return false; }
    bool Visit(RqDelete&) override { return false; }
    bool Visit(RqInsert&) override { return false; }
    bool Visit(RqDrop&) override { return false; }
    bool Visit(RqPopulate&) override { return false; }
    bool Visit(RqCreateIndex&) override { return false; }
    bool Visit(RqCanonicalMap&) override { return false; }
    using RewriteRule::Visit;

    bool StillActive() const override { return m_passes < m_activePasses + 1; }
    void Reset() override {
        ++m_passes;
        m_log += "R";
    }

    std::string m_log;
    int m_passes = 0;

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

TEST(RewriteRuleDriver, OnePassWhenNeverActive) {
    Heap<RqHandleNode> request = SmallRequest();
    RecordingRule rule(0);
    rule.ApplyRule(*request);
    // One Reset, then the whole walk in pre-order: root, list, projection, the column's
    // expression (the derived column, join spec slots etc. answer without logging).
    EXPECT_EQ(rule.m_log, "RHLPE");
}

TEST(RewriteRuleDriver, RepeatsWhileActiveWithResetBeforeEachPass) {
    Heap<RqHandleNode> request = SmallRequest();
    RecordingRule rule(2);
    rule.ApplyRule(*request);
    EXPECT_EQ(rule.m_passes, 3);
    EXPECT_EQ(rule.m_log, "RHLPERHLPERHLPE");
}

TEST(RewriteRuleDriver, TrueFromAListVisitSkipsItsChildren) {
    Heap<RqHandleNode> request = SmallRequest();
    RecordingRule rule(0, /*bSkipListChildren=*/true);
    rule.ApplyRule(*request);
    EXPECT_EQ(rule.m_log, "RHL");
}

TEST(RewriteRuleDriver, CancelledJobRunsNoPass) {
    Heap<RqHandleNode> request = SmallRequest();
    auto job = std::make_shared<ZKJob>();
    job->Cancel();
    ZKThreadJobMgr::ScopedJob scope(job);
    RecordingRule rule(5);
    EXPECT_THROW(rule.ApplyRule(*request), JobCancelledException);
    EXPECT_EQ(rule.m_log, "");
}

// A rule that cancels its own job during its second pass: the pass finishes (the walk has
// no cancellation point), the next pass never starts, and the exception leaves the driver.
class CancellingRule : public RecordingRule {
public:
    explicit CancellingRule(std::shared_ptr<ZKJob> job)
        : RecordingRule(10), m_job(std::move(job)) {}
    bool Visit(RqList& list) override {
        if (m_passes == 2)
            m_job->Cancel();
        return RecordingRule::Visit(list);
    }
    using RecordingRule::Visit;

private:
    std::shared_ptr<ZKJob> m_job;
};

TEST(RewriteRuleDriver, CancellationStopsBetweenPasses) {
    Heap<RqHandleNode> request = SmallRequest();
    auto job = std::make_shared<ZKJob>();
    ZKThreadJobMgr::ScopedJob scope(job);
    CancellingRule rule(job);
    EXPECT_THROW(rule.ApplyRule(*request), JobCancelledException);
    EXPECT_EQ(rule.m_passes, 2);
    EXPECT_EQ(rule.m_log, "RHLPERHLPE");
}

}  // namespace
