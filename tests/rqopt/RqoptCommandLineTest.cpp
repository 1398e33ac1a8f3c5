// rqopt's command line: what each option selects, the rule sequence it resolves to, and the
// usage errors (exit 2, one line on stderr, a suggestion for a misspelt name).

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Platform/CompatFlags.h"
#include "Platform/ZKThread.h"
#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Rqopt.h"

namespace {

struct Result {
    int m_status;
    std::string m_out;
    std::string m_err;
};

Result RunTool(const std::vector<std::string>& args, const std::string& input = "") {
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = RunRqopt(args, in, out, err);
    return {status, out.str(), err.str()};
}

std::string UsageError(const std::vector<std::string>& args) {
    RqoptOptions options;
    std::string error;
    if (!ParseRqoptArgs(args, options, error))
        return error;
    std::vector<RuleSpec> rules;
    if (!ResolveRqoptRules(options, rules, error))
        return error;
    return "no error";
}

std::vector<std::string> Resolved(const std::vector<std::string>& args, size_t* pUncut = nullptr) {
    RqoptOptions options;
    std::string error;
    EXPECT_TRUE(ParseRqoptArgs(args, options, error)) << error;
    std::vector<RuleSpec> rules;
    EXPECT_TRUE(ResolveRqoptRules(options, rules, error, pUncut)) << error;
    std::vector<std::string> names;
    for (const RuleSpec& spec : rules)
        names.push_back(spec.ToString());
    return names;
}

TEST(RqoptCommandLine, OptionsTakeValuesInEitherForm) {
    RqoptOptions options;
    std::string error;
    ASSERT_TRUE(ParseRqoptArgs(
        {"--rules=A,B", "--rules", "C", "--catalog", "c.catalog", "--flag", "F=1",
         "--session=S=a=b", "--disable=A", "--bisect", "2", "--diff", "--dump", "x.rq"},
        options, error))
        << error;
    EXPECT_EQ(options.m_ruleLists, (std::vector<std::string>{"A,B", "C"}));
    EXPECT_EQ(options.m_catalog, "c.catalog");
    ASSERT_EQ(options.m_flags.size(), 1u);
    EXPECT_EQ(options.m_flags[0], (std::pair<std::string, std::string>{"F", "1"}));
    // The value is everything after the first '='.
    ASSERT_EQ(options.m_session.size(), 1u);
    EXPECT_EQ(options.m_session[0], (std::pair<std::string, std::string>{"S", "a=b"}));
    EXPECT_EQ(options.m_disabled, std::vector<std::string>{"A"});
    EXPECT_EQ(options.m_bisect, 2);
    EXPECT_TRUE(options.m_bDiff && options.m_bDump);
    EXPECT_FALSE(options.m_bPrintAfterEach || options.m_bTime || options.m_bVerifyEach);
    EXPECT_EQ(options.m_input, "x.rq");

    // "-" is standard input, and after "--" a name that looks like an option is a file.
    ASSERT_TRUE(ParseRqoptArgs({"-"}, options = RqoptOptions(), error));
    EXPECT_EQ(options.m_input, "-");
    ASSERT_TRUE(ParseRqoptArgs({"--", "--diff"}, options = RqoptOptions(), error));
    EXPECT_EQ(options.m_input, "--diff");
    EXPECT_FALSE(options.m_bDiff);
}

TEST(RqoptCommandLine, MisuseIsAUsageError) {
    EXPECT_EQ(UsageError({"--dif", "x"}), "unknown option '--dif' (did you mean '--diff'?)");
    EXPECT_EQ(UsageError({"--frobnicate", "x"}), "unknown option '--frobnicate'");
    EXPECT_EQ(UsageError({"x", "--rules"}), "--rules needs a value");
    EXPECT_EQ(UsageError({"--diff=yes", "x"}), "--diff takes no value");
    EXPECT_EQ(UsageError({"a", "b"}), "only one input can be given ('a' and 'b')");
    EXPECT_EQ(UsageError({}), "no input: give a request file, or - for standard input");
    EXPECT_EQ(UsageError({"--rules", "RemoveRedundantOrderBy", "--pipeline", "none", "x"}),
              "--rules and --pipeline exclude each other");
    EXPECT_EQ(UsageError({"--markdown", "x"}), "--markdown goes with --list-rules");
    EXPECT_EQ(UsageError({"--bisect", "-1", "x"}), "--bisect takes a count of rules, not '-1'");
    EXPECT_EQ(UsageError({"--flag", "NOVALUE", "x"}), "--flag takes NAME=VALUE, not 'NOVALUE'");
    EXPECT_EQ(UsageError({"--session", "=1", "x"}), "--session takes NAME=VALUE, not '=1'");
}

TEST(RqoptCommandLine, TheDataOfTheCheckIsChosenByNumbersInRange) {
    RqoptOptions options;
    std::string error;
    ASSERT_TRUE(ParseRqoptArgs(
        {"--check-sql", "--seed=18446744073709551615", "--rows", "1000000", "--sql", "x"}, options,
        error))
        << error;
    EXPECT_EQ(options.m_seed, UINT64_MAX);
    EXPECT_EQ(options.m_rows, kRqoptMaxRows);
    EXPECT_TRUE(options.m_bCheckSql && options.m_bSql && !options.m_bCheckSqlEach);
    ASSERT_TRUE(ParseRqoptArgs({"--check-sql-each", "--seed", "0", "--rows=1", "x"},
                               options = RqoptOptions(), error))
        << error;
    EXPECT_EQ(options.m_seed, 0u);
    EXPECT_EQ(options.m_rows, 1u);

    const std::string seed = "--seed takes a non-negative whole number below 2^64, not ";
    EXPECT_EQ(UsageError({"--check-sql", "--seed", "-1", "x"}), seed + "'-1'");
    EXPECT_EQ(UsageError({"--check-sql", "--seed", "18446744073709551616", "x"}),
              seed + "'18446744073709551616'");
    EXPECT_EQ(UsageError({"--check-sql", "--seed=", "x"}), seed + "''");
    const std::string rows = "--rows takes a number of rows from 1 to 1000000, not ";
    EXPECT_EQ(UsageError({"--check-sql", "--rows", "1000001", "x"}), rows + "'1000001'");
    EXPECT_EQ(UsageError({"--check-sql", "--rows", "1e3", "x"}), rows + "'1e3'");
    // Data settings without a check would be silently ignored.
    EXPECT_EQ(UsageError({"--sql", "--rows", "2", "x"}),
              "--rows goes with --check-sql or --check-sql-each");
    EXPECT_EQ(UsageError({"--check-sql", "--check-sql-each", "x"}),
              "--check-sql and --check-sql-each exclude each other");
    EXPECT_EQ(UsageError({"--check-sql-eahc", "x"}),
              "unknown option '--check-sql-eahc' (did you mean '--check-sql-each'?)");
}

TEST(RqoptCommandLine, MisspeltRulesAndPipelinesGetSuggestions) {
    EXPECT_EQ(UsageError({"--rules", "RemoveRedundantOrdrBy", "x"}),
              "unknown rule 'RemoveRedundantOrdrBy' (did you mean 'RemoveRedundantOrderBy'?)");
    EXPECT_EQ(UsageError({"--rules", "removeredundantorderby", "x"}),
              "unknown rule 'removeredundantorderby' (did you mean 'RemoveRedundantOrderBy'?)");
    EXPECT_EQ(UsageError({"--pipeline", "defualt", "x"}),
              "unknown pipeline 'defualt' (did you mean 'default'?)");
    EXPECT_EQ(UsageError({"--disable", "RemoveRedundantOrderB", "x"}),
              "--disable: unknown rule 'RemoveRedundantOrderB' (did you mean "
              "'RemoveRedundantOrderBy'?)");
    EXPECT_EQ(UsageError({"--rules", "RemoveRedundantOrderBy:keep=1", "x"}),
              "RemoveRedundantOrderBy takes no options (found 'keep')");
}

TEST(RqoptCommandLine, TheSequenceIsSelectedThenDisabledThenCut) {
    const std::string rule = "RemoveRedundantOrderBy";
    EXPECT_EQ(Resolved({"x"}), Resolved({"--pipeline", "default", "x"}));
    EXPECT_FALSE(Resolved({"x"}).empty());
    EXPECT_TRUE(Resolved({"--pipeline", "none", "x"}).empty());
    EXPECT_TRUE(Resolved({"--rules", "", "x"}).empty());
    EXPECT_EQ(Resolved({"--rules", rule + "," + rule, "--rules", rule, "x"}),
              (std::vector<std::string>{rule, rule, rule}));
    // Disabling removes every occurrence; disabling a rule that is not there is no error.
    EXPECT_TRUE(Resolved({"--rules", rule + "," + rule, "--disable", rule, "x"}).empty());
    EXPECT_TRUE(Resolved({"--pipeline", "none", "--disable", rule, "x"}).empty());

    size_t uncut = 0;
    EXPECT_EQ(
        Resolved({"--rules", rule + "," + rule + "," + rule, "--bisect", "2", "x"}, &uncut).size(),
        2u);
    EXPECT_EQ(uncut, 3u);
    EXPECT_EQ(Resolved({"--rules", rule, "--bisect", "5", "x"}).size(), 1u);
    EXPECT_TRUE(Resolved({"--rules", rule, "--bisect", "0", "x"}).empty());
}

TEST(RqoptRun, InformationalOptionsNeedNoInput) {
    const Result help = RunTool({"--help"});
    EXPECT_EQ(help.m_status, kRqoptOk);
    EXPECT_EQ(help.m_out.rfind("usage: rqopt", 0), 0u);
    for (const char* option :
         {"--rules", "--pipeline", "--disable", "--flag", "--session", "--print-after-each",
          "--diff", "--time", "--verify-each", "--bisect", "--dump", "--catalog", "--list-rules",
          "--sql", "--check-sql", "--check-sql-each", "--seed", "--rows"})
        EXPECT_NE(help.m_out.find(option), std::string::npos) << option;

    EXPECT_EQ(RunTool({"--version"}).m_out.rfind("rqopt ", 0), 0u);

    const Result list = RunTool({"--list-rules"});
    EXPECT_EQ(list.m_status, kRqoptOk);
    const Result markdown = RunTool({"--list-rules", "--markdown"});
    for (const RuleInfo& info : RuleRegistry::Rules()) {
        EXPECT_NE(list.m_out.find(info.m_name), std::string::npos);
        EXPECT_NE(markdown.m_out.find(std::string("| `") + info.m_name + "` | "),
                  std::string::npos);
    }
    for (const PipelineInfo& pipeline : RuleRegistry::Pipelines())
        EXPECT_NE(markdown.m_out.find(std::string("| `") + pipeline.m_name + "` | "),
                  std::string::npos);
}

// The rule tables of the documentation are rqopt's own listing, pasted in; a rule added to
// the registry must reach them.
TEST(RqoptRun, DocumentationListsTheRegisteredRules) {
    std::ifstream file(std::string(RQ_SOURCE_DIR) + "/docs/rqopt.md");
    std::stringstream content;
    content << file.rdbuf();
    const std::string doc = content.str();
    const std::string begin = "<!-- generated: rqopt --list-rules --markdown -->\n";
    const size_t start = doc.find(begin);
    const size_t end = doc.find("<!-- end of generated section -->");
    ASSERT_NE(start, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(doc.substr(start + begin.size(), end - start - begin.size()),
              RunTool({"--list-rules", "--markdown"}).m_out)
        << "regenerate the section with rqopt --list-rules --markdown";
}

TEST(RqoptRun, UsageAndInputErrorsExitWithTwoAndPrintOneLine) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{"--nope"},
                                                 {"--rules", "Nope", "-"},
                                                 {"no/such/request.rq"},
                                                 {"--catalog", "no/such.catalog", "-"},
                                                 {"--flag", "VELD_NO_SUCH_FLAG=1", "-"}}) {
        const Result result = RunTool(args);
        SCOPED_TRACE(result.m_err);
        EXPECT_EQ(result.m_status, kRqoptUsage);
        EXPECT_EQ(result.m_out, "");
        EXPECT_EQ(result.m_err.rfind("rqopt: ", 0), 0u);
        EXPECT_EQ(result.m_err.find('\n'), result.m_err.size() - 1);
    }
    EXPECT_EQ(RunTool({"no/such/request.rq"}).m_err,
              "rqopt: cannot read 'no/such/request.rq': No such file or directory\n");
    EXPECT_EQ(RunTool({"--flag", "VELD_USE_11GSOR=1", "-"}).m_err,
              "rqopt: --flag: unknown compatibility flag 'VELD_USE_11GSOR' (did you mean "
              "'VELD_USE_11GSORT'?)\n");
}

TEST(RqoptRun, ServerFlagsDoNotOutliveTheRun) {
    const CompatFlagInfo* flag = nullptr;
    for (const CompatFlagInfo& info : CompatFlagCatalog::All()) {
        if (info.m_bServerScope && !info.m_bIsInt && info.m_default == 0)
            flag = &info;
    }
    ASSERT_NE(flag, nullptr);
    const std::string name = ZKString(flag->m_name).ToUtf8();
    // The input is not a request: the run stops after the flags were set.
    const Result result = RunTool({"--flag", name + "=true", "-"}, "this is not a request");
    EXPECT_EQ(result.m_status, kRqoptUsage);
    EXPECT_FALSE(SUCompatFlag::GetBool(flag->m_name));

    EXPECT_EQ(RunTool({"--flag", name + "=sometimes", "-"}).m_err,
              "rqopt: --flag: " + name + " takes true or false, not 'sometimes'\n");
}

// SELECT AMOUNT FROM (SELECT AMOUNT FROM dw.FACT_SALES ORDER BY AMOUNT) ORDER BY AMOUNT over
// the built-in catalog: RemoveRedundantOrderBy deletes the inner ORDER BY.
std::string RequestText() {
    RqList* inner = rqb::Block()
                        .Select(rqb::Col(L"AMOUNT", 1))
                        .From(rqb::Table(VoidID(3, 1), 1))
                        .OrderBy({{0}})
                        .Build();
    rqb::Block outer;
    outer.Select(rqb::Ref(*inner, 0)).From(rqb::Derived(inner)).OrderBy({{0}});
    Heap<RqHandleNode> request(rqb::Request(outer.Build()));
    return RqTextWriter::Write(*request);
}

TEST(RqoptRun, ARuleThatRaisesStopsTheRunWithOne) {
    auto job = std::make_shared<ZKJob>();
    job->Cancel();
    ZKThreadJobMgr::ScopedJob scope(job);
    const Result result =
        RunTool({"--diff", "--rules", "RemoveRedundantOrderBy", "-"}, RequestText());
    EXPECT_EQ(result.m_status, kRqoptRuleFailed);
    EXPECT_EQ(result.m_err, "rqopt: RemoveRedundantOrderBy: the job was cancelled\n");
    EXPECT_EQ(result.m_out, "");
}

TEST(RqoptRun, OutputModesAgreeOnWhatTheRuleDid) {
    const std::string input = RequestText();
    const Result plain = RunTool({"--rules", "RemoveRedundantOrderBy", "-"}, input);
    ASSERT_EQ(plain.m_status, kRqoptOk) << plain.m_err;
    EXPECT_EQ(plain.m_err, "");
    EXPECT_EQ(plain.m_out.find("orderby"), plain.m_out.rfind("orderby")) << plain.m_out;

    // The request after each rule is what the plain run prints at the end, and the diff
    // turns the input into it.
    const Result after = RunTool(
        {"--rules", "RemoveRedundantOrderBy,RemoveRedundantOrderBy", "--print-after-each", "-"},
        input);
    EXPECT_EQ(after.m_out, "# after RemoveRedundantOrderBy\n" + plain.m_out +
                               "# RemoveRedundantOrderBy: no change\n");
    const Result diff = RunTool({"--rules", "RemoveRedundantOrderBy", "--diff", "-"}, input);
    EXPECT_EQ(diff.m_out.rfind("--- before RemoveRedundantOrderBy\n+++ after "
                               "RemoveRedundantOrderBy\n@@ ",
                               0),
              0u)
        << diff.m_out;

    // Printing is canonical: the output read back and run through no rule is unchanged.
    EXPECT_EQ(RunTool({"--pipeline", "none", "-"}, plain.m_out).m_out, plain.m_out);

    const Result timed = RunTool({"--rules", "RemoveRedundantOrderBy", "--time", "-"}, input);
    EXPECT_EQ(timed.m_out, plain.m_out);
    EXPECT_NE(timed.m_err.find("\nRemoveRedundantOrderBy "), std::string::npos) << timed.m_err;
    EXPECT_NE(timed.m_err.find("  yes\ntotal "), std::string::npos) << timed.m_err;
}

}  // namespace
