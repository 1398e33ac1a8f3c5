#pragma once
// rqopt reads a request in the text format, applies rewrite rules to it and prints the
// result, or what each rule did (docs/rqopt.md). The whole tool is RunRqopt, so that tests
// and the golden runner drive it in-process exactly as the command line does.

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

// Exit codes.
enum RqoptExit {
    kRqoptOk = 0,
    kRqoptRuleFailed = 1,  // a rule raised an error or (checked after each rule) broke the tree
    kRqoptUsage = 2,       // bad command line, unreadable or malformed input
};

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
};

// False with the message in `error` on a usage error.
bool ParseRqoptArgs(const std::vector<std::string>& args, RqoptOptions& options,
                    std::string& error);

// The rules to apply, in order: --rules or the pipeline, less the disabled ones, cut by
// --bisect. False with the message (and a suggestion for a misspelt name) in `error`.
// `pUncut` receives the length of the sequence before --bisect cut it.
bool ResolveRqoptRules(const RqoptOptions& options, std::vector<RuleSpec>& rules,
                       std::string& error, size_t* pUncut = nullptr);

void PrintRqoptHelp(std::ostream& out);
// The rules and pipelines, as a plain listing or as the Markdown tables of docs/rqopt.md.
void PrintRqoptRuleList(std::ostream& out, bool bMarkdown);
