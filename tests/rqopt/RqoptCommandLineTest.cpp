// rqopt's command line: what each option selects, the rule sequence it resolves to, the
// limits of the numbers it takes, and what a run leaves behind. The messages of usage errors
// and the output of each mode are golden cases (tests/golden/rqopt/).

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Platform/CompatFlags.h"
#include "Platform/ZKThread.h"
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
    ASSERT_TRUE(ParseRqoptArgs({"--rules=A,B", "--rules", "C", "--session=S=a=b", "--flag", "F=1",
                                "--bisect", "2", "x.rq"},
                               options, error))
        << error;
    EXPECT_EQ(options.m_ruleLists, (std::vector<std::string>{"A,B", "C"}));
    // The value is everything after the first '='.
    EXPECT_EQ(options.m_session, (std::vector<std::pair<std::string, std::string>>{{"S", "a=b"}}));
    EXPECT_EQ(options.m_flags, (std::vector<std::pair<std::string, std::string>>{{"F", "1"}}));
    EXPECT_EQ(options.m_bisect, 2);
    EXPECT_EQ(options.m_input, "x.rq");
    // After "--" a name that looks like an option is a file.
    ASSERT_TRUE(ParseRqoptArgs({"--", "--diff"}, options = RqoptOptions(), error));
    EXPECT_EQ(options.m_input, "--diff");
    EXPECT_FALSE(options.m_bDiff);
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

// The rule tables of the documentation are rqopt's own listing, pasted in; a rule added to
// the registry, or an option added to a rule, must reach them.
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

TEST(RqoptRun, ServerFlagsDoNotOutliveTheRun) {
    // The input is not a request: the run stops after the flags were set.
    const Result result = RunTool({"--flag", "VELD_USE_11GSORT=true", "-"}, "not a request");
    EXPECT_EQ(result.m_status, kRqoptUsage);
    EXPECT_FALSE(SUCompatFlag::GetBool(L"VELD_USE_11GSORT"));
}

// A sample whose inner ORDER BY RemoveRedundantOrderBy deletes.
const std::string kSample = std::string(RQ_SOURCE_DIR) + "/examples/requests/sales-by-region.rq";

TEST(RqoptRun, ARuleThatRaisesStopsTheRunWithOne) {
    auto job = std::make_shared<ZKJob>();
    job->Cancel();
    ZKThreadJobMgr::ScopedJob scope(job);
    const Result result = RunTool({"--diff", "--rules", "RemoveRedundantOrderBy", kSample});
    EXPECT_EQ(result.m_status, kRqoptRuleFailed);
    EXPECT_EQ(result.m_err, "rqopt: RemoveRedundantOrderBy: the job was cancelled\n");
    EXPECT_EQ(result.m_out, "");
}

TEST(RqoptRun, TimingGoesToStandardErrorAndLeavesTheOutputAlone) {
    const Result plain = RunTool({"--rules", "RemoveRedundantOrderBy", kSample});
    ASSERT_EQ(plain.m_status, kRqoptOk) << plain.m_err;
    EXPECT_EQ(plain.m_err, "");
    const Result timed = RunTool({"--rules", "RemoveRedundantOrderBy", "--time", kSample});
    EXPECT_EQ(timed.m_out, plain.m_out);
    EXPECT_NE(timed.m_err.find("\nRemoveRedundantOrderBy "), std::string::npos) << timed.m_err;
    EXPECT_NE(timed.m_err.find("  yes\ntotal "), std::string::npos) << timed.m_err;
}

}  // namespace

// ---- Inputs and outputs that are not what they seem -----------------------------------------

// A stream buffer that refuses every write, as a full disk or a closed descriptor does.
class UnwritableBuffer : public std::streambuf {
protected:
    int_type overflow(int_type) override { return traits_type::eof(); }
    std::streamsize xsputn(const char*, std::streamsize) override { return 0; }
};

const char* const kSmallRequest = "request { list { select { 0: 1 } } }\n";

TEST(RqoptInputOutput, OutputThatCannotBeWrittenFailsTheRun) {
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"-"}, {"--version"}, {"--list-rules"}}) {
        UnwritableBuffer sink;
        std::ostream out(&sink);
        std::istringstream in(kSmallRequest);
        std::ostringstream err;
        EXPECT_NE(RunRqopt(args, in, out, err), kRqoptOk) << args[0];
        EXPECT_NE(err.str().find("cannot write"), std::string::npos) << err.str();
    }
}

TEST(RqoptInputOutput, UnreadableInputsSayWhatIsWrong) {
    const std::string directory = RQ_SOURCE_DIR "/examples";
    const Result catalogDir = RunTool({"--catalog", directory, "-"}, kSmallRequest);
    EXPECT_EQ(catalogDir.m_status, kRqoptUsage);
    EXPECT_NE(catalogDir.m_err.find("is a directory"), std::string::npos) << catalogDir.m_err;
    const Result requestDir = RunTool({directory});
    EXPECT_EQ(requestDir.m_status, kRqoptUsage);
    EXPECT_NE(requestDir.m_err.find("is a directory"), std::string::npos) << requestDir.m_err;
    // An empty catalog name would otherwise mean the built-in catalog.
    const Result emptyCatalog = RunTool({"--catalog", "", "-"}, kSmallRequest);
    EXPECT_EQ(emptyCatalog.m_status, kRqoptUsage);
    EXPECT_NE(emptyCatalog.m_err.find("--catalog"), std::string::npos) << emptyCatalog.m_err;
    // A standard input that cannot be read (closed) is not an empty request.
    std::istringstream closed(kSmallRequest);
    closed.setstate(std::ios::badbit);
    std::ostringstream out, err;
    EXPECT_EQ(RunRqopt({"-"}, closed, out, err), kRqoptUsage);
    EXPECT_NE(err.str().find("cannot read the standard input"), std::string::npos) << err.str();
}

TEST(RqoptInputOutput, NodePathsInMessagesStayShort) {
    // A request nested hundreds of blocks deep that the check cannot run names the node it
    // stopped at by a path; the message keeps it to a readable length.
    std::string text = "request {";
    const int depth = 300;
    for (int i = 0; i < depth; ++i)
        text += " list { select { 0: 1 } from { derived t" + std::to_string(i) + " {";
    text += " list { select { 0: Pi() } }";
    for (int i = 0; i < depth; ++i)
        text += " } } }";
    text += " }\n";
    const Result result = RunTool({"--pipeline", "none", "--sql", "-"}, text);
    std::istringstream lines(result.m_out + result.m_err);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LT(line.size(), 2000u) << line.substr(0, 200);
}
