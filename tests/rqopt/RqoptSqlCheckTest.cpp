// rqopt's differential check catches a rewrite that changes the result: --check-sql says
// "different" with the evidence, and --check-sql-each names the rule and stops there. The
// registered rules are all correct, so a deliberately wrong one comes from a table of the
// test's own.

#include <gtest/gtest.h>

#include <sstream>

#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"
#include "Rqopt.h"

namespace {

// Drops the WHERE of the request's top block: a rewrite that returns more rows.
void DropTopFilter(RewriteRule&, RqNode& root) {
    RqList* top = dynamic_cast<RqList*>(static_cast<RqHandleNode&>(root).GetRqNode());
    ASSERT_NE(top, nullptr);
    top->SetDetailFilter(nullptr);
}

const std::vector<RuleInfo>& WrongRules() {
    static const std::vector<RuleInfo> table = {
        RuleInfo::Make<NoRuleOptions>(
            "DropTopFilter", "Deletes the top block's WHERE.",
            [](const RuleContext& c, const NoRuleOptions&) -> std::unique_ptr<RewriteRule> {
                return std::make_unique<RemoveRedundantOrderBy>(c.m_pRp);
            },
            DropTopFilter),
    };
    return table;
}

// A correct rule, a wrong one, and a correct one that must not run after the wrong one.
std::vector<RuleSpec> Sequence() {
    return {RuleRegistry::ParseRuleSpec("RemoveRedundantOrderBy"),
            RuleRegistry::ParseRuleSpec("DropTopFilter", WrongRules()),
            RuleRegistry::ParseRuleSpec("RemoveRedundantOrderBy")};
}

struct ToolRun {
    int m_status;
    std::string m_out;
    std::string m_err;
    RqoptCheckResult m_check;
};

ToolRun RunOn(const std::vector<std::string>& args, const std::vector<RuleSpec>& rules) {
    RqoptOptions options;
    std::string error;
    std::vector<std::string> withInput = args;
    withInput.push_back(std::string(RQ_SOURCE_DIR) + "/examples/requests/in-subquery.rq");
    EXPECT_TRUE(ParseRqoptArgs(withInput, options, error)) << error;
    std::istringstream in;
    std::ostringstream out, err;
    ToolRun run;
    run.m_status = RunRqoptWith(options, rules, in, out, err, &run.m_check);
    run.m_out = out.str();
    run.m_err = err.str();
    return run;
}

TEST(RqoptSqlCheck, AWrongRewriteIsDifferentWithItsEvidence) {
    const ToolRun run = RunOn({"--check-sql", "--rows", "300"}, Sequence());
    EXPECT_EQ(run.m_status, kRqoptRuleFailed);
    EXPECT_EQ(run.m_err,
              "rqopt: the rules changed the result of the request (seed 1, 300 rows per "
              "table)\n");
    ASSERT_TRUE(run.m_check.m_bChecked);
    EXPECT_EQ(run.m_check.m_outcome.m_kind, SqlCheckOutcome::kDifferent);
    EXPECT_EQ(run.m_out, run.m_check.m_outcome.Report());
    EXPECT_EQ(run.m_out.rfind("different (seed 1, 300 rows per table): ", 0), 0u) << run.m_out;
    // The rows that differ and both statements, the original's with the filter.
    const size_t original = run.m_out.find("  original SQL:\n");
    const size_t rewritten = run.m_out.find("  rewritten SQL:\n");
    ASSERT_NE(original, std::string::npos);
    ASSERT_NE(rewritten, std::string::npos);
    EXPECT_NE(run.m_out.find("  rows only in the rewritten request"), std::string::npos);
    EXPECT_NE(run.m_out.substr(original, rewritten - original).find("WHERE"), std::string::npos);
    EXPECT_EQ(run.m_out.find("WHERE", rewritten), std::string::npos);
}

TEST(RqoptSqlCheck, CheckingEachRuleNamesTheFirstThatChangesTheResultAndStops) {
    const ToolRun run = RunOn({"--check-sql-each", "--print-after-each"}, Sequence());
    EXPECT_EQ(run.m_status, kRqoptRuleFailed);
    EXPECT_EQ(run.m_err,
              "rqopt: DropTopFilter changed the result of the request (seed 1, 1000 rows per "
              "table); the rules after it were not applied\n");
    EXPECT_EQ(run.m_check.m_outcome.m_kind, SqlCheckOutcome::kDifferent);

    // The request as read runs first; each changing rule prints its request, then its
    // verdict; nothing follows the difference.
    std::vector<std::string> headings;
    std::istringstream lines(run.m_out);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("# as read: ", 0) == 0)
            headings.push_back("# as read");
        else if (line.rfind("# ", 0) == 0)
            headings.push_back(line.substr(0, line.find(" (")));
    }
    EXPECT_EQ(headings,
              (std::vector<std::string>{"# as read", "# after RemoveRedundantOrderBy",
                                        "# RemoveRedundantOrderBy: same", "# after DropTopFilter",
                                        "# DropTopFilter: different"}))
        << run.m_out;
}

}  // namespace
