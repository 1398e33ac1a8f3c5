// The rule table: every row builds a working rule, pipelines name registered rules, and
// rule specs with options parse, print back and fail with a usable message.

#include <gtest/gtest.h>

#include <set>

#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

namespace {

// What the probe table's factory was last given.
struct ProbeSeen {
    bool m_bFlag = false;
    long long m_limit = 0;
} g_probe;

// A table with options of every kind; its rows build a real rule, as options are all that
// the tests look at.
const std::vector<RuleInfo>& ProbeTable() {
    static const std::vector<RuleInfo> table = {
        {"Probe",
         "A rule with options.",
         {{"flag", RuleOptionInfo::kBool, 0, "a switch"},
          {"limit", RuleOptionInfo::kInt, 7, "a count"}},
         [](const RuleContext& c, const RuleOptionValues& o) -> std::unique_ptr<RewriteRule> {
             g_probe = {o.GetBool("flag"), o.GetInt("limit")};
             return std::make_unique<RemoveRedundantOrderBy>(c.m_pRp);
         }},
        {"Plain", "A rule without options.", {}, nullptr},
    };
    return table;
}

const ProbeSeen& Probe(const RuleSpec& spec) {
    RuleRegistry::Create(spec, RuleContext());
    return g_probe;
}

std::string ErrorOf(std::string_view text) {
    try {
        RuleRegistry::ParseRuleList(text, ProbeTable());
    } catch (const ErrorMessage& e) {
        return e.what();
    }
    return "no error";
}

TEST(RuleRegistry, EveryRowBuildsARuleThatRunsOnARequest) {
    RpSession session(std::make_shared<RpRepository>());
    std::set<std::string> names;
    for (const RuleInfo& info : RuleRegistry::Rules()) {
        SCOPED_TRACE(info.m_name);
        EXPECT_TRUE(names.insert(info.m_name).second) << "registered twice";
        EXPECT_EQ(RuleRegistry::FindRule(info.m_name), &info);
        EXPECT_NE(std::string(info.m_description), "");

        rqb::Block block;
        block.Select(rqb::Col(L"amount", 1)).From(rqb::Table(VoidID(3, 1), 1));
        Heap<RqHandleNode> request(rqb::Request(block.Build()));
        ServerStatistics statistics;
        RuleRegistry::Apply(RuleSpec(info), RuleContext{&session, &statistics}, *request);
        EXPECT_TRUE(RqVerifier::Verify(*request).empty());
    }
}

TEST(RuleRegistry, PipelinesNameRegisteredRules) {
    ASSERT_NE(RuleRegistry::FindPipeline("default"), nullptr);
    EXPECT_FALSE(RuleRegistry::FindPipeline("default")->m_rules.empty());
    for (const PipelineInfo& pipeline : RuleRegistry::Pipelines()) {
        SCOPED_TRACE(pipeline.m_name);
        EXPECT_EQ(RuleRegistry::PipelineRules(pipeline).size(), pipeline.m_rules.size());
    }
    EXPECT_EQ(RuleRegistry::FindPipeline("Default"), nullptr);
}

TEST(RuleRegistry, OptionsTakeDefaultsAndGivenValues) {
    std::vector<RuleSpec> specs = RuleRegistry::ParseRuleList(
        "Probe, Probe:flag, Probe:limit=-3:flag=off, Probe:flag=yes:limit=12", ProbeTable());
    ASSERT_EQ(specs.size(), 4u);
    EXPECT_FALSE(Probe(specs[0]).m_bFlag);
    EXPECT_EQ(Probe(specs[0]).m_limit, 7);
    EXPECT_TRUE(Probe(specs[1]).m_bFlag);
    EXPECT_EQ(Probe(specs[2]).m_limit, -3);
    EXPECT_FALSE(Probe(specs[2]).m_bFlag);
    EXPECT_TRUE(Probe(specs[3]).m_bFlag);
    EXPECT_EQ(Probe(specs[3]).m_limit, 12);

    // Printing leaves defaults out and reads back to the same values.
    EXPECT_EQ(specs[0].ToString(), "Probe");
    EXPECT_EQ(specs[2].ToString(), "Probe:limit=-3");
    EXPECT_EQ(specs[3].ToString(), "Probe:flag=true:limit=12");
    const RuleSpec again = RuleRegistry::ParseRuleSpec(specs[3].ToString(), ProbeTable());
    EXPECT_EQ(again.ToString(), specs[3].ToString());
}

TEST(RuleRegistry, BlankListsGiveNoRules) {
    EXPECT_TRUE(RuleRegistry::ParseRuleList("", ProbeTable()).empty());
    EXPECT_TRUE(RuleRegistry::ParseRuleList("  ", ProbeTable()).empty());
}

TEST(RuleRegistry, MalformedSpecsSayWhatIsWrong) {
    try {
        RuleRegistry::ParseRuleSpec("Prob", ProbeTable());
        ADD_FAILURE() << "no error";
    } catch (const ErrorMessage& e) {
        // The name travels as the argument, so that a caller can suggest a correction.
        EXPECT_EQ(e.GetNumber(), static_cast<unsigned long>(kErr_UnknownRewriteRule));
        ASSERT_EQ(e.GetArgs().size(), 1u);
        EXPECT_EQ(e.GetArgs()[0], L"Prob");
    }
    EXPECT_EQ(ErrorOf("Probe:size=3"), "Probe has no option 'size'; its options: flag, limit");
    EXPECT_EQ(ErrorOf("Plain:flag"), "Plain takes no options (found 'flag')");
    EXPECT_EQ(ErrorOf("Probe:limit"), "Probe:limit needs a value");
    EXPECT_EQ(ErrorOf("Probe:limit=ten"), "Probe:limit takes an integer, not 'ten'");
    EXPECT_EQ(ErrorOf("Probe:flag=maybe"), "Probe:flag takes true or false, not 'maybe'");
    EXPECT_EQ(ErrorOf("Probe,,Plain"), "a rule name is missing");
    EXPECT_EQ(ErrorOf("Probe,"), "a rule name is missing");
}

}  // namespace
