// Every sample request and every golden case that rewrites a request is run on SQLite before
// and after its rules, on several seeds of generated data, with the tree verified after each
// rule: a rewrite that breaks the tree or changes the result fails here. A case that cannot
// be compared is allowed, but it is named with its reason in the output, so that an
// unexpected one is noticed; and a request that renders as read must still render after the
// rules, or the check would lose sight of it. A golden case declared a known hazard must
// give its declared verdict on every seed: a rule that stops producing it fails here too.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "GoldenFile.h"
#include "Rqopt.h"

namespace {

namespace fs = std::filesystem;

const uint64_t kSeeds[] = {1, 2, 3};

struct CheckCase {
    std::string m_name;            // the test's name, from the path
    std::string m_path;            // relative to the source root
    bool m_bRulesMayFail = false;  // a golden case that expects its rules to fail
    std::string m_hazard;          // the verdict of a known hazard, else empty
};

// Failures name the case by its file.
void PrintTo(const CheckCase& check, std::ostream* os) {
    *os << check.m_path;
}

std::string ReadText(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

// A golden case takes part when it reads a request and is not about a usage error.
bool ChecksARequest(const fs::path& path) {
    try {
        const GoldenCase golden = ParseGoldenFile(ReadText(path), path.string());
        RqoptOptions options;
        std::string error;
        return golden.m_exit != kRqoptUsage && ParseRqoptArgs(golden.RunArgs(), options, error) &&
               !options.m_bHelp && !options.m_bVersion && !options.m_bListRules &&
               !options.m_input.empty();
    } catch (const GoldenFormatError&) {
        return false;  // the golden runner reports it
    }
}

std::vector<CheckCase> Cases() {
    const fs::path root(RQ_SOURCE_DIR);
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(root / "examples/requests")) {
        if (entry.path().extension() == ".rq")
            files.push_back(entry.path());
    }
    for (const auto& entry : fs::recursive_directory_iterator(root / "tests/golden")) {
        if (entry.path().extension() == ".test" && ChecksARequest(entry.path()))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    std::vector<CheckCase> cases;
    for (const fs::path& file : files) {
        CheckCase check;
        check.m_path = file.lexically_relative(root).string();
        if (file.extension() == ".test") {
            const GoldenCase golden = ParseGoldenFile(ReadText(file), file.string());
            check.m_bRulesMayFail = golden.m_exit == kRqoptRuleFailed;
            check.m_hazard = golden.m_hazard;
        }
        std::string name = check.m_path.substr(0, check.m_path.rfind('.'));
        if (name.rfind("tests/", 0) == 0)
            name.erase(0, 6);
        for (char& c : name) {
            if (!std::isalnum(static_cast<unsigned char>(c)))
                c = '_';
        }
        check.m_name = name;
        cases.push_back(check);
    }
    return cases;
}

// Paths inside cases are relative to the source root; the test may run anywhere.
void Anchor(std::string& path) {
    if (!path.empty() && path != "-" && fs::path(path).is_relative())
        path = (fs::path(RQ_SOURCE_DIR) / path).string();
}

// The tally over the whole program, printed at its end.
struct Tally {
    int m_checks = 0;
    int m_notComparable = 0;
    int m_hazards = 0;  // of those, known hazards
} g_tally;

class TallyPrinter : public testing::Environment {
public:
    void TearDown() override {
        if (g_tally.m_checks > 0)
            std::cout << "SQL check: " << g_tally.m_notComparable << " of " << g_tally.m_checks
                      << " checks were not comparable (" << g_tally.m_hazards
                      << " of them known hazards)\n";
    }
};
const testing::Environment* const g_tallyPrinter =
    testing::AddGlobalTestEnvironment(new TallyPrinter);

class SqlCheckAll : public testing::TestWithParam<CheckCase> {};

TEST_P(SqlCheckAll, RulesKeepTheResult) {
    const CheckCase& check = GetParam();
    RqoptOptions options;
    std::string input;
    if (check.m_path.ends_with(".test")) {
        const GoldenCase golden =
            ParseGoldenFile(ReadText(fs::path(RQ_SOURCE_DIR) / check.m_path), check.m_path);
        std::string error;
        ASSERT_TRUE(ParseRqoptArgs(golden.RunArgs(), options, error)) << error;
        input = golden.m_input;
    } else {
        options.m_input = check.m_path;
    }
    Anchor(options.m_input);
    Anchor(options.m_catalog);
    std::vector<RuleSpec> rules;
    std::string error;
    ASSERT_TRUE(ResolveRqoptRules(options, rules, error)) << error;
    // Only the verdict is wanted: no other output, the checks of the case's own command
    // line replaced by the plain comparison of the request as read and as rewritten.
    options.m_bDiff = options.m_bPrintAfterEach = options.m_bDump = options.m_bTime = false;
    options.m_bSql = options.m_bCheckSqlEach = false;
    options.m_bCheckSql = true;
    // Every rule must also leave a well-formed tree with as many result columns as before.
    options.m_bVerifyEach = true;

    for (const uint64_t seed : kSeeds) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        options.m_seed = seed;
        std::istringstream in(input);
        std::ostringstream out, err;
        RqoptCheckResult result;
        const int status = RunRqoptWith(options, rules, in, out, err, &result);
        if (!result.m_bChecked) {
            // A case that expects its rules to fail is about the failure, not the result.
            if (status == kRqoptRuleFailed && check.m_bRulesMayFail)
                GTEST_SKIP() << "the rules fail on this case: " << err.str();
            FAIL() << "the check did not run (exit " << status << "): " << err.str();
        }
        ++g_tally.m_checks;
        const SqlCheckOutcome& outcome = result.m_outcome;
        if (!check.m_hazard.empty()) {
            EXPECT_EQ(SqlCheckOutcome::KindName(outcome.m_kind), check.m_hazard)
                << "the known hazard is no longer what the case declares: " << out.str();
            if (outcome.m_kind == SqlCheckOutcome::kNotComparable) {
                ++g_tally.m_notComparable;
                ++g_tally.m_hazards;
                std::cout << "not comparable (known hazard): " << check.m_path << " (seed " << seed
                          << "): " << outcome.m_reason << "\n";
            }
            continue;
        }
        EXPECT_NE(outcome.m_kind, SqlCheckOutcome::kDifferent) << out.str();
        if (result.m_readProblem == SqlProblem::kNone) {
            EXPECT_EQ(result.m_rewrittenProblem, SqlProblem::kNone)
                << "the request renders as read but not after the rules: " << outcome.m_reason;
        }
        // SQLite refusing the rewritten statement of a request whose original ran hides the
        // rewrite from the check as surely as a failure to render; running out of time is
        // the data's doing.
        const std::string refused = "the rewritten request: SQLite: ";
        EXPECT_FALSE(outcome.m_reason.starts_with(refused) &&
                     !outcome.m_reason.starts_with(refused + "interrupted"))
            << outcome.m_reason;
        if (outcome.m_kind == SqlCheckOutcome::kNotComparable) {
            ++g_tally.m_notComparable;
            std::cout << "not comparable: " << check.m_path << " (seed " << seed
                      << "): " << outcome.m_reason << "\n";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, SqlCheckAll, testing::ValuesIn(Cases()),
                         [](const testing::TestParamInfo<CheckCase>& info) {
                             return info.param.m_name;
                         });

}  // namespace
