// The rule table: every row builds a working rule, pipelines name registered rules, and the
// options declared in a rule's options struct parse, reach the factory, print back and fail
// with a usable message.

#include <gtest/gtest.h>

#include <set>

#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

namespace {

struct ProbeOptions {
    bool m_bFlag = false;
    int m_limit = 7;
    static constexpr RuleOption<ProbeOptions> kOptions[] = {
        {"flag", &ProbeOptions::m_bFlag, "a switch"},
        {"limit", &ProbeOptions::m_limit, "a count"},
    };
};

// A rule that keeps the options it was built with.
class ProbeRule : public RqNodeVisitorDefaults<RewriteRule> {
public:
    explicit ProbeRule(const ProbeOptions& options) : m_options(options) {}
    bool StillActive() const override { return false; }
    void Reset() override {}
    ProbeOptions m_options;
};

const std::vector<RuleInfo>& ProbeTable() {
    static const std::vector<RuleInfo> table = {
        RuleInfo::Make<ProbeOptions>(
            "Probe", "A rule with options.",
            [](const RuleContext&, const ProbeOptions& o) -> std::unique_ptr<RewriteRule> {
                return std::make_unique<ProbeRule>(o);
            }),
        RuleInfo::Make<NoRuleOptions>("Plain", "A rule without options.",
                                      [](const RuleContext&, const NoRuleOptions&)
                                          -> std::unique_ptr<RewriteRule> { return nullptr; }),
    };
    return table;
}

// The options the factory received.
ProbeOptions Built(const RuleSpec& spec) {
    const std::unique_ptr<RewriteRule> rule = RuleRegistry::Create(spec, RuleContext());
    return dynamic_cast<ProbeRule&>(*rule).m_options;
}

std::string ErrorOf(std::string_view text) {
    try {
        RuleRegistry::ParseRuleList(text, ProbeTable());
    } catch (const ErrorMessage& e) {
        ErrorMessage::ClearLastPrethrown();
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

        rqb::Block block;
        block.Select(rqb::Col(L"amount", 1)).From(rqb::Table(VoidID(3, 1), 1));
        Heap<RqHandleNode> request(rqb::Request(block.Build()));
        ServerStatistics statistics;
        RuleRegistry::Apply(RuleSpec(info), RuleContext{&session, &statistics}, *request);
        EXPECT_TRUE(RqVerifier::Verify(*request).empty());
    }
    for (const PipelineInfo& pipeline : RuleRegistry::Pipelines()) {
        SCOPED_TRACE(pipeline.m_name);
        EXPECT_EQ(RuleRegistry::PipelineRules(pipeline).size(), pipeline.m_rules.size());
    }
}

TEST(RuleRegistry, OptionsReachTheFactoryAndPrintBack) {
    struct Case {
        const char* m_text;
        bool m_bFlag;
        int m_limit;
        const char* m_printed;  // defaults left out
    };
    const Case cases[] = {
        {"Probe", false, 7, "Probe"},
        {"Probe:flag", true, 7, "Probe:flag=true"},
        {" Probe : limit = -3 : flag=off", false, -3, "Probe:limit=-3"},
        {"Probe:flag=yes:limit=2147483647", true, 2147483647, "Probe:flag=true:limit=2147483647"},
        {"Probe:limit=7:flag=false", false, 7, "Probe"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_text);
        const RuleSpec spec = RuleRegistry::ParseRuleSpec(c.m_text, ProbeTable());
        EXPECT_EQ(spec.ToString(), c.m_printed);
        // What the factory receives, from the text and from its printed form.
        for (const RuleSpec& parsed :
             {spec, RuleRegistry::ParseRuleSpec(c.m_printed, ProbeTable())}) {
            EXPECT_EQ(Built(parsed).m_bFlag, c.m_bFlag);
            EXPECT_EQ(Built(parsed).m_limit, c.m_limit);
        }
    }
    // The listing reads the defaults from the struct.
    EXPECT_EQ(ProbeTable()[0].m_options[1].m_default, 7);
}

TEST(RuleRegistry, MalformedSpecsSayWhatIsWrong) {
    try {
        RuleRegistry::ParseRuleSpec("Prob", ProbeTable());
        ADD_FAILURE() << "no error";
    } catch (const ErrorMessage& e) {
        ErrorMessage::ClearLastPrethrown();
        // The name travels as the argument, so that a caller can suggest a correction.
        EXPECT_EQ(e.GetNumber(), static_cast<unsigned long>(kErr_UnknownRewriteRule));
        EXPECT_EQ(e.GetArgs(), std::vector<ZKString>{L"Prob"});
    }
    // Each message names what was given and, where it helps, what would be accepted.
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {"Probe:size=3", {"'size'", "flag, limit"}},
        {"Plain:flag", {"Plain takes no options", "'flag'"}},
        {"Probe:limit", {"Probe:limit", "needs a value"}},
        {"Probe:limit=ten", {"Probe:limit", "'ten'"}},
        {"Probe:limit=2147483648", {"Probe:limit", "'2147483648'"}},
        {"Probe:flag=maybe", {"Probe:flag", "true or false", "'maybe'"}},
        {"Probe,,Plain", {"rule name is missing"}},
        {"Probe,", {"rule name is missing"}},
    };
    for (const auto& [text, parts] : cases) {
        const std::string error = ErrorOf(text);
        for (const char* part : parts)
            EXPECT_NE(error.find(part), std::string::npos) << text << ": " << error;
    }
}

}  // namespace
