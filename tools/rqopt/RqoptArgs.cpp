// The command line of rqopt: parsing, the rule sequence it selects, help and rule listing.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ostream>

#include "Platform/ErrorMessage.h"
#include "Query/Optimizer/RequestText/SQORTextSuggest.h"
#include "Rqopt.h"

namespace {

struct OptionSpec {
    const char* m_name;
    bool m_bTakesValue;
};

// Every option, for the parser and for suggestions.
const std::vector<OptionSpec>& OptionTable() {
    static const std::vector<OptionSpec> table = {
        {"--catalog", true},
        {"--rules", true},
        {"--pipeline", true},
        {"--disable", true},
        {"--flag", true},
        {"--session", true},
        {"--bisect", true},
        {"--list-rules", false},
        {"--markdown", false},
        {"--print-after-each", false},
        {"--diff", false},
        {"--time", false},
        {"--verify-each", false},
        {"--dump", false},
        {"--help", false},
        {"--version", false},
        {"--sql", false},
        {"--check-sql", false},
        {"--check-sql-each", false},
        {"--seed", true},
        {"--rows", true},
    };
    return table;
}

std::vector<std::string> OptionNames() {
    std::vector<std::string> names;
    for (const OptionSpec& option : OptionTable())
        names.push_back(option.m_name);
    return names;
}

bool SplitSetting(const std::string& option, const std::string& text,
                  std::vector<std::pair<std::string, std::string>>& out, std::string& error) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        error = option + " takes NAME=VALUE, not '" + text + "'";
        return false;
    }
    out.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    return true;
}

bool ParseCount(const std::string& text, int& value) {
    if (text.empty() || text.size() > 9 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    value = std::atoi(text.c_str());
    return true;
}

// A whole number in [minimum, maximum], digits only (no sign, no blanks).
bool ParseNumber(const std::string& text, uint64_t minimum, uint64_t maximum, uint64_t& value) {
    if (text.empty() || text.size() > 20 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    errno = 0;
    const unsigned long long number = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE || number < minimum || number > maximum)
        return false;
    value = number;
    return true;
}

bool ApplyOption(const std::string& name, const std::string& value, RqoptOptions& options,
                 std::string& error) {
    if (name == "--catalog") {
        // Empty would silently mean the built-in catalog, which the user did not ask for.
        if (value.empty()) {
            error = "--catalog needs a file name (leave the option out for the built-in catalog)";
            return false;
        }
        options.m_catalog = value;
    } else if (name == "--rules") {
        options.m_ruleLists.push_back(value);
        options.m_bRulesGiven = true;
    } else if (name == "--pipeline") {
        options.m_pipeline = value;
    } else if (name == "--disable") {
        options.m_disabled.push_back(value);
    } else if (name == "--flag") {
        return SplitSetting(name, value, options.m_flags, error);
    } else if (name == "--session") {
        return SplitSetting(name, value, options.m_session, error);
    } else if (name == "--bisect") {
        if (!ParseCount(value, options.m_bisect)) {
            error = "--bisect takes a count of rules, not '" + value + "'";
            return false;
        }
    } else if (name == "--list-rules") {
        options.m_bListRules = true;
    } else if (name == "--markdown") {
        options.m_bMarkdown = true;
    } else if (name == "--print-after-each") {
        options.m_bPrintAfterEach = true;
    } else if (name == "--diff") {
        options.m_bDiff = true;
    } else if (name == "--time") {
        options.m_bTime = true;
    } else if (name == "--verify-each") {
        options.m_bVerifyEach = true;
    } else if (name == "--dump") {
        options.m_bDump = true;
    } else if (name == "--help") {
        options.m_bHelp = true;
    } else if (name == "--version") {
        options.m_bVersion = true;
    } else if (name == "--sql") {
        options.m_bSql = true;
    } else if (name == "--check-sql") {
        options.m_bCheckSql = true;
    } else if (name == "--check-sql-each") {
        options.m_bCheckSqlEach = true;
    } else if (name == "--seed") {
        if (!ParseNumber(value, 0, UINT64_MAX, options.m_seed)) {
            error = "--seed takes a non-negative whole number below 2^64, not '" + value + "'";
            return false;
        }
        options.m_bSeedGiven = true;
    } else if (name == "--rows") {
        uint64_t rows = 0;
        if (!ParseNumber(value, 1, kRqoptMaxRows, rows)) {
            error = "--rows takes a number of rows from 1 to " + std::to_string(kRqoptMaxRows) +
                    ", not '" + value + "'";
            return false;
        }
        options.m_rows = static_cast<uint32_t>(rows);
        options.m_bRowsGiven = true;
    }
    return true;
}

std::vector<std::string> RuleNames() {
    std::vector<std::string> names;
    for (const RuleInfo& info : RuleRegistry::Rules())
        names.push_back(info.m_name);
    return names;
}

std::vector<std::string> PipelineNames() {
    std::vector<std::string> names;
    for (const PipelineInfo& pipeline : RuleRegistry::Pipelines())
        names.push_back(pipeline.m_name);
    return names;
}

// Parses a rule list, turning the registry's error into a usage message with a suggestion.
bool ParseRules(const std::string& text, std::vector<RuleSpec>& rules, std::string& error) {
    try {
        for (RuleSpec& spec : RuleRegistry::ParseRuleList(text))
            rules.push_back(std::move(spec));
        return true;
    } catch (const ErrorMessage& e) {
        if (e.GetNumber() == kErr_UnknownRewriteRule && !e.GetArgs().empty()) {
            const std::string name = e.GetArgs()[0].ToUtf8();
            error = "unknown rule '" + name + "'" + DidYouMean(name, RuleNames());
        } else {
            error = e.GetText().ToUtf8();
        }
        return false;
    }
}

std::string OptionSummary(const RuleOptionInfo& option) {
    std::string text = option.m_name;
    if (option.m_kind == RuleOptionInfo::kBool)
        text += std::string("=") + (option.m_default != 0 ? "true" : "false");
    else
        text += "=" + std::to_string(option.m_default);
    return text;
}

std::string JoinRules(const PipelineInfo& pipeline, const char* separator) {
    std::string text;
    for (const char* rule : pipeline.m_rules) {
        if (!text.empty())
            text += separator;
        text += rule;
    }
    return text;
}

}  // namespace

bool ParseRqoptArgs(const std::vector<std::string>& args, RqoptOptions& options,
                    std::string& error) {
    bool bOptionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (bOptionsEnded || arg == "-" || arg.empty() || arg[0] != '-') {
            if (!options.m_input.empty()) {
                error = "only one input can be given ('" + options.m_input + "' and '" + arg + "')";
                return false;
            }
            options.m_input = arg;
            continue;
        }
        if (arg == "--") {
            bOptionsEnded = true;
            continue;
        }
        std::string name = arg == "-h" ? "--help" : arg;
        std::string value;
        bool bHasValue = false;
        const size_t equals = name.find('=');
        if (equals != std::string::npos && name.rfind("--", 0) == 0) {
            value = name.substr(equals + 1);
            name = name.substr(0, equals);
            bHasValue = true;
        }
        auto found = std::find_if(OptionTable().begin(), OptionTable().end(),
                                  [&](const OptionSpec& o) { return name == o.m_name; });
        if (found == OptionTable().end()) {
            error = "unknown option '" + name + "'" + DidYouMean(name, OptionNames());
            return false;
        }
        if (found->m_bTakesValue && !bHasValue) {
            if (i + 1 >= args.size()) {
                error = name + " needs a value";
                return false;
            }
            value = args[++i];
        } else if (!found->m_bTakesValue && bHasValue) {
            error = name + " takes no value";
            return false;
        }
        if (!ApplyOption(name, value, options, error))
            return false;
    }
    if (options.m_bHelp || options.m_bVersion)
        return true;
    if (options.m_bMarkdown && !options.m_bListRules) {
        error = "--markdown goes with --list-rules";
        return false;
    }
    if (options.m_bCheckSql && options.m_bCheckSqlEach) {
        error = "--check-sql and --check-sql-each exclude each other";
        return false;
    }
    if ((options.m_bSeedGiven || options.m_bRowsGiven) && !options.m_bCheckSql &&
        !options.m_bCheckSqlEach) {
        error = std::string(options.m_bSeedGiven ? "--seed" : "--rows") +
                " goes with --check-sql or --check-sql-each";
        return false;
    }
    if (options.m_bRulesGiven && !options.m_pipeline.empty()) {
        error = "--rules and --pipeline exclude each other";
        return false;
    }
    if (options.m_input.empty() && !options.m_bListRules) {
        error = "no input: give a request file, or - for standard input";
        return false;
    }
    return true;
}

bool ResolveRqoptRules(const RqoptOptions& options, std::vector<RuleSpec>& rules,
                       std::string& error, size_t* pUncut) {
    rules.clear();
    if (options.m_bRulesGiven) {
        for (const std::string& list : options.m_ruleLists) {
            if (!ParseRules(list, rules, error))
                return false;
        }
    } else {
        const std::string name = options.m_pipeline.empty() ? "default" : options.m_pipeline;
        const PipelineInfo* pipeline = RuleRegistry::FindPipeline(name);
        if (pipeline == nullptr) {
            error = "unknown pipeline '" + name + "'" + DidYouMean(name, PipelineNames());
            return false;
        }
        for (const char* text : pipeline->m_rules) {
            if (!ParseRules(text, rules, error))
                return false;
        }
    }
    for (const std::string& name : options.m_disabled) {
        if (RuleRegistry::FindRule(name) == nullptr) {
            error = "--disable: unknown rule '" + name + "'" + DidYouMean(name, RuleNames());
            return false;
        }
        std::erase_if(rules, [&](const RuleSpec& spec) { return name == spec.GetName(); });
    }
    if (pUncut != nullptr)
        *pUncut = rules.size();
    if (options.m_bisect >= 0 && static_cast<size_t>(options.m_bisect) < rules.size())
        rules.erase(rules.begin() + options.m_bisect, rules.end());
    return true;
}

void PrintRqoptHelp(std::ostream& out) {
    out << "usage: rqopt [options] FILE|-\n"
           "\n"
           "Reads a request in the text format (FILE, or standard input for -), applies\n"
           "rewrite rules to it in order and prints the rewritten request.\n"
           "\n"
           "Choosing the rules (default: --pipeline default)\n"
           "  --rules A,B,...       these rules in this order; a rule takes options as\n"
           "                        Name:option=value[:option=value]\n"
           "  --pipeline NAME       a named sequence of rules (see --list-rules)\n"
           "  --disable RULE        leave RULE out of the sequence (repeatable)\n"
           "  --bisect N            apply only the first N rules of the sequence\n"
           "  --list-rules          list the rules and pipelines; with --markdown as tables\n"
           "\n"
           "Setting\n"
           "  --catalog FILE        the repository, session properties and flags (default:\n"
           "                        the built-in sample catalog, examples/sales.catalog)\n"
           "  --flag NAME=VALUE     a compatibility flag, session or server scope (repeatable)\n"
           "  --session NAME=VALUE  a session property, an integer when VALUE is one\n"
           "\n"
           "Output (standard output; diagnostics go to standard error)\n"
           "  (default)             the rewritten request\n"
           "  --diff                for each rule, a unified diff of the request before and\n"
           "                        after it, or '# Rule: no change'\n"
           "  --print-after-each    for each rule, the request after it, headed\n"
           "                        '# after Rule', or '# Rule: no change'\n"
           "  --dump                the tree dump instead of the text format\n"
           "  --time                time of each rule and in total, on standard error\n"
           "  --verify-each         after each rule also check that the request returns as\n"
           "                        many result columns as before (the tree verifier runs\n"
           "                        after every rule in any case)\n"
           "\n"
           "SQL (instead of the rewritten request; after --diff or --print-after-each output)\n"
           "  --sql                 the SQLite statement of the request as read and after\n"
           "                        the rules; a construct without SQL meaning prints\n"
           "                        '-- no SQL statement: ...' naming the node by its path\n"
           "  --check-sql           run the request as read and as rewritten on generated\n"
           "                        data in SQLite and compare: 'same', 'different' (with\n"
           "                        the first differing rows and both statements) or 'not\n"
           "                        comparable' with the reason\n"
           "  --check-sql-each      compare with the request as read after every rule that\n"
           "                        changes it; stop at the first rule that changes the result\n"
           "  --seed N              seed of the generated data (default 1)\n"
           "  --rows N              rows of a full-size generated table, 1 to 1000000\n"
           "                        (default 1000)\n"
           "\n"
           "  --help, --version\n"
           "\n"
           "Exit status: 0 success (a check that says 'same' or 'not comparable' included);\n"
           "1 a rule raised an error or left the request malformed, or the check found a\n"
           "different result; 2 a usage error or an unreadable or malformed input (reported\n"
           "as file:line:column: message).\n";
}

void PrintRqoptRuleList(std::ostream& out, bool bMarkdown) {
    if (bMarkdown) {
        out << "| Rule | Options | Description |\n|---|---|---|\n";
        for (const RuleInfo& info : RuleRegistry::Rules()) {
            std::string options;
            for (const RuleOptionInfo& option : info.m_options)
                options += (options.empty() ? "`" : ", `") + OptionSummary(option) + "`";
            out << "| `" << info.m_name << "` | " << options << " | " << info.m_description
                << " |\n";
        }
        out << "\n| Pipeline | Rules | Description |\n|---|---|---|\n";
        for (const PipelineInfo& pipeline : RuleRegistry::Pipelines()) {
            const std::string rules = JoinRules(pipeline, ", ");
            out << "| `" << pipeline.m_name << "` | "
                << (rules.empty() ? std::string() : "`" + JoinRules(pipeline, "`, `") + "`")
                << " | " << pipeline.m_description << " |\n";
        }
        return;
    }
    out << "Rules:\n";
    for (const RuleInfo& info : RuleRegistry::Rules()) {
        out << "  " << info.m_name << "\n      " << info.m_description << "\n";
        for (const RuleOptionInfo& option : info.m_options)
            out << "      :" << OptionSummary(option) << "  " << option.m_description << "\n";
    }
    out << "Pipelines:\n";
    for (const PipelineInfo& pipeline : RuleRegistry::Pipelines()) {
        const std::string rules = JoinRules(pipeline, ",");
        out << "  " << pipeline.m_name << "  " << (rules.empty() ? "(no rules)" : rules)
            << "\n      " << pipeline.m_description << "\n";
    }
}
