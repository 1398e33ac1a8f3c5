#pragma once
// rqopt reads a request in the text format, applies rewrite rules to it and prints the
// result, or what each rule did (docs/rqopt.md). The whole tool is RunRqopt, so that tests
// and the golden runner drive it in-process exactly as the command line does.

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include <cstdint>

#include "Query/Optimizer/RequestSql/SQORSqlCheck.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

// Exit codes.
enum RqoptExit {
    kRqoptOk = 0,
    // A rule raised an error or (checked after each rule) broke the tree, or the differential
    // check found that the rules changed the request's result.
    kRqoptRuleFailed = 1,
    kRqoptUsage = 2,         // bad command line, unreadable or malformed input
    kRqoptOutputFailed = 3,  // the output could not be written
};

// The most rows --rows accepts: more makes a join of a few tables take minutes, not seconds.
inline constexpr uint32_t kRqoptMaxRows = 1000000;

// Runs rqopt with the arguments that follow the program name. The request is read from
// `in` when the input is "-". Server-wide compatibility flags set from the catalog or the
// command line are reset to their defaults before it returns.
int RunRqopt(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
             std::ostream& err);

// The command line, parsed but not yet checked against the rules, flags and files it names.
struct RqoptOptions {
    std::string m_input;    // a file name, "-" for standard input, empty when not given
    std::string m_catalog;  // empty: the built-in sample catalog
    std::vector<std::string> m_ruleLists;  // each --rules value, in order
    bool m_bRulesGiven = false;
    std::string m_pipeline;  // empty: "default" unless --rules is given
    std::vector<std::string> m_disabled;
    std::vector<std::pair<std::string, std::string>> m_flags;    // --flag NAME=VALUE
    std::vector<std::pair<std::string, std::string>> m_session;  // --session NAME=VALUE
    int m_bisect = -1;  // apply only the first N rules; -1: all
    bool m_bHelp = false;
    bool m_bVersion = false;
    bool m_bListRules = false;
    bool m_bMarkdown = false;
    bool m_bPrintAfterEach = false;
    bool m_bDiff = false;
    bool m_bTime = false;
    bool m_bVerifyEach = false;
    bool m_bDump = false;
    bool m_bSql = false;
    bool m_bCheckSql = false;
    bool m_bCheckSqlEach = false;
    uint64_t m_seed = 1;
    uint32_t m_rows = 1000;
    bool m_bSeedGiven = false;
    bool m_bRowsGiven = false;
};

// What the differential check of a run found (--check-sql, --check-sql-each), for callers
// that drive rqopt in-process and act on the verdict rather than on its printed form.
struct RqoptCheckResult {
    bool m_bChecked = false;  // false when the run stopped before the check
    // For --check-sql-each: the first outcome that differs, else the last one.
    SqlCheckOutcome m_outcome;
    // Whether the request rendered as read and after the rules (--check-sql-each: after the
    // last rule applied).
    SqlProblem m_readProblem = SqlProblem::kNone;
    SqlProblem m_rewrittenProblem = SqlProblem::kNone;
};

// False with the message in `error` on a usage error.
bool ParseRqoptArgs(const std::vector<std::string>& args, RqoptOptions& options,
                    std::string& error);

// The rules to apply, in order: --rules or the pipeline, less the disabled ones, cut by
// --bisect. False with the message (and a suggestion for a misspelt name) in `error`.
// `pUncut` receives the length of the sequence before --bisect cut it.
bool ResolveRqoptRules(const RqoptOptions& options, std::vector<RuleSpec>& rules,
                       std::string& error, size_t* pUncut = nullptr);

// Runs rqopt with a parsed command line and a rule sequence given by the caller (which may
// come from a rule table of its own, as in tests), filling `pCheck` when it is given.
int RunRqoptWith(const RqoptOptions& options, const std::vector<RuleSpec>& rules, std::istream& in,
                 std::ostream& out, std::ostream& err, RqoptCheckResult* pCheck = nullptr);

void PrintRqoptHelp(std::ostream& out);
// The rules and pipelines, as a plain listing or as the Markdown tables of docs/rqopt.md.
void PrintRqoptRuleList(std::ostream& out, bool bMarkdown);
