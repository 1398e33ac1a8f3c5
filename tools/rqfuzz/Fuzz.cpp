// rqfuzz: generated requests checked rule by rule; rqreduce: a failing request shrunk.

#include "Fuzz.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>

#include <sys/wait.h>

#include "BuiltinCatalog.h"
#include "FuzzCheck.h"
#include "Platform/ErrorMessage.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Reducer.h"
#include "RqRequestGenerator.h"
#include "Rqopt.h"

namespace {

// ---- Shared by both tools ----------------------------------------------------------------------

// Arguments as NAME VALUE pairs and flags; the positional ones in order.
struct Args {
    std::map<std::string, std::string> m_values;
    std::vector<std::string> m_flags;
    std::vector<std::string> m_positional;

    bool Has(const std::string& name) const {
        return m_values.count(name) != 0 ||
               std::find(m_flags.begin(), m_flags.end(), name) != m_flags.end();
    }
    std::string Get(const std::string& name, const std::string& fallback) const {
        const auto found = m_values.find(name);
        return found == m_values.end() ? fallback : found->second;
    }
};

bool ParseArgs(const std::vector<std::string>& args, const std::vector<std::string>& valued,
               const std::vector<std::string>& flags, Args& parsed, std::string& error) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (std::find(valued.begin(), valued.end(), arg) != valued.end()) {
            if (i + 1 >= args.size()) {
                error = arg + " takes a value";
                return false;
            }
            parsed.m_values[arg] = args[++i];
        } else if (std::find(flags.begin(), flags.end(), arg) != flags.end()) {
            parsed.m_flags.push_back(arg);
        } else if (arg.size() > 1 && arg[0] == '-' && arg != "-") {
            error = "unknown option '" + arg + "'";
            return false;
        } else {
            parsed.m_positional.push_back(arg);
        }
    }
    return true;
}

bool ParseNumber(const std::string& text, uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    value = std::stoull(text);
    return true;
}

bool ParseSeeds(const std::string& text, std::vector<uint64_t>& seeds) {
    seeds.clear();
    std::istringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        uint64_t seed = 0;
        if (!ParseNumber(item, seed))
            return false;
        seeds.push_back(seed);
    }
    return !seeds.empty();
}

bool CheckOptionsFrom(const Args& args, FuzzCheckOptions& options, std::string& error) {
    options.m_catalog = args.Get("--catalog", "");
    uint64_t rows = options.m_rows;
    if (!ParseNumber(args.Get("--rows", std::to_string(options.m_rows)), rows) || rows == 0 ||
        rows > kRqoptMaxRows) {
        error = "--rows takes a number from 1 to " + std::to_string(kRqoptMaxRows);
        return false;
    }
    options.m_rows = static_cast<uint32_t>(rows);
    options.m_bIsolate = !args.Has("--no-isolate");
    return true;
}

bool ParseRules(const std::string& text, const std::vector<RuleInfo>* table,
                std::vector<RuleSpec>& rules, std::string& error) {
    try {
        rules = table != nullptr ? RuleRegistry::ParseRuleList(text, *table)
                                 : RuleRegistry::ParseRuleList(text);
    } catch (const ErrorMessage& e) {
        error = std::string("--rules: ") + e.what();
        return false;
    }
    return true;
}

bool ReadText(const std::string& path, std::string& text, std::string& error) {
    std::ostringstream content;
    if (path == "-") {
        content << std::cin.rdbuf();
    } else {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            error = "cannot read '" + path + "'";
            return false;
        }
        content << file.rdbuf();
    }
    text = content.str();
    return true;
}

bool LoadRepository(const std::string& catalogPath, RqCatalog& catalog, std::string& error) {
    std::string text(RqoptBuiltinCatalog());
    if (!catalogPath.empty() && !ReadText(catalogPath, text, error))
        return false;
    try {
        catalog = RqCatalogText::Read(text, catalogPath.empty() ? "sample catalog" : catalogPath);
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
    return true;
}

// ---- rqfuzz
// --------------------------------------------------------------------------------------

struct FuzzConfig {
    std::string m_name;  // the rule, or "pipeline NAME"
    std::vector<RuleSpec> m_rules;
    bool m_bSingleRule = false;
};

std::string ReasonBucket(std::string reason) {
    const std::string prefix = "the original request: ";
    if (reason.rfind(prefix, 0) == 0)
        reason = reason.substr(prefix.size());
    // The kind of reason, without the tree paths and values that make each one different.
    const size_t path = reason.find(" at Rq");
    if (path != std::string::npos) {
        const size_t after = reason.find(": ", path);
        reason = reason.substr(0, path) + (after == std::string::npos ? "" : reason.substr(after));
    }
    size_t end = reason.find_first_of("(0123456789\"'\n");
    if (end == std::string::npos)
        end = reason.size();
    reason = reason.substr(0, std::min<size_t>(end, 110));
    while (!reason.empty() && (reason.back() == ' ' || reason.back() == ','))
        reason.pop_back();
    return reason.empty() ? "unknown" : reason;
}

std::string FileSafe(std::string name) {
    for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_')
            c = '_';
    return name;
}

void PrintFuzzHelp(std::ostream& out) {
    out << "usage: rqfuzz [options]\n"
           "Generates requests and checks each under the default pipeline and every rule on its\n"
           "own: verified after each rule and compared on SQLite (docs/fuzzing.md).\n"
           "  --requests N        how many requests (default 100; unlimited with --time)\n"
           "  --time SECONDS      stop after this long\n"
           "  --seed N            the first request's generator seed (default 1)\n"
           "  --check-seeds LIST  data seeds of the SQLite check (default 1,2)\n"
           "  --rows N            rows per generated table (default 30)\n"
           "  --rules LIST        the rules to check on their own (default: every rule)\n"
           "  --pipeline NAME     the pipeline to check (default: default; none: no pipeline)\n"
           "  --catalog FILE      the catalog (default: the built-in sample catalog)\n"
           "  --out DIR           where failing requests are written (default rqfuzz-failures)\n"
           "  --print SEED        print the request of a generator seed and stop\n"
           "  --stop-after N      stop at the Nth failure\n"
           "  --no-isolate        check in this process (a crash then ends the run)\n"
           "  --quiet             no progress on standard error\n";
}

class FuzzRun {
public:
    FuzzRun(std::ostream& out, std::ostream& err) : m_out(out), m_err(err) {}

    int Run(const std::vector<std::string>& argv, const std::vector<RuleInfo>* table) {
        Args args;
        std::string error;
        if (!ParseArgs(argv,
                       {"--requests", "--time", "--seed", "--check-seeds", "--rows", "--rules",
                        "--pipeline", "--catalog", "--out", "--print", "--stop-after"},
                       {"--no-isolate", "--quiet", "--help"}, args, error) ||
            !Setup(args, table, error)) {
            m_err << "rqfuzz: " << error << "\n";
            return kFuzzUsage;
        }
        if (args.Has("--help")) {
            PrintFuzzHelp(m_out);
            return kFuzzOk;
        }
        RqRequestGenerator generator(*m_catalog.m_pRepository);
        if (args.Has("--print")) {
            m_out << generator.Generate(m_firstSeed);
            return kFuzzOk;
        }
        const auto start = std::chrono::steady_clock::now();
        auto last = start;
        for (uint64_t n = 0; m_bUnlimited || n < m_requests; ++n) {
            const double elapsed =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (m_seconds > 0 && elapsed >= m_seconds)
                break;
            CheckRequest(generator, m_firstSeed + n);
            if (m_stopAfter > 0 && m_failures >= m_stopAfter)
                break;
            const auto now = std::chrono::steady_clock::now();
            if (!m_bQuiet && std::chrono::duration<double>(now - last).count() >= 10) {
                last = now;
                m_err << "rqfuzz: " << m_count << " requests, " << m_failures << " failures, "
                      << std::fixed << std::setprecision(1) << m_count / std::max(elapsed, 0.001)
                      << " requests/s\n";
            }
        }
        PrintSummary();
        return m_failures + m_invalid > 0 ? kFuzzFailures : kFuzzOk;
    }

private:
    bool Setup(const Args& args, const std::vector<RuleInfo>* table, std::string& error) {
        FuzzCheckOptions options;
        if (!CheckOptionsFrom(args, options, error))
            return false;
        if (args.Has("--check-seeds") &&
            !ParseSeeds(args.Get("--check-seeds", ""), options.m_seeds)) {
            error = "--check-seeds takes numbers separated by commas";
            return false;
        }
        m_pChecker = std::make_unique<FuzzChecker>(options);
        uint64_t value = 0;
        if (!ParseNumber(args.Get("--requests", "100"), m_requests) ||
            !ParseNumber(args.Get("--seed", args.Get("--print", "1")), m_firstSeed) ||
            !ParseNumber(args.Get("--stop-after", "0"), m_stopAfter) ||
            !ParseNumber(args.Get("--time", "0"), value)) {
            error = "--requests, --seed, --print, --stop-after and --time take numbers";
            return false;
        }
        m_seconds = static_cast<double>(value);
        m_bUnlimited = m_seconds > 0 && !args.Has("--requests");
        m_bQuiet = args.Has("--quiet");
        m_outDir = args.Get("--out", "rqfuzz-failures");
        if (!LoadRepository(options.m_catalog, m_catalog, error))
            return false;

        const std::vector<RuleInfo>& rules = table != nullptr ? *table : RuleRegistry::Rules();
        std::string ruleList;
        for (const RuleInfo& info : rules)
            ruleList += std::string(ruleList.empty() ? "" : ",") + info.m_name;
        std::vector<RuleSpec> singles;
        if (!ParseRules(args.Get("--rules", ruleList), table, singles, error))
            return false;
        const std::string pipeline = args.Get("--pipeline", table != nullptr ? "none" : "default");
        if (pipeline != "none") {
            const PipelineInfo* info = RuleRegistry::FindPipeline(pipeline);
            if (info == nullptr || table != nullptr) {
                error = "--pipeline: no pipeline '" + pipeline + "'";
                return false;
            }
            m_configs.push_back(
                {"pipeline " + pipeline, RuleRegistry::PipelineRules(*info), false});
        }
        for (const RuleSpec& spec : singles)
            m_configs.push_back({spec.ToString(), {spec}, true});
        return true;
    }

    void CheckRequest(RqRequestGenerator& generator, uint64_t seed) {
        const std::string text = generator.Generate(seed);
        ++m_count;
        bool bComparable = false, bJudged = false;
        for (const FuzzConfig& config : m_configs) {
            const FuzzVerdict verdict = m_pChecker->Check(text, config.m_rules);
            if (verdict.m_kind == FuzzVerdict::kInvalid) {
                ++m_invalid;
                Save(text, seed, verdict, "invalid", config);
                return;
            }
            if (config.m_bSingleRule && !verdict.m_fired.empty())
                ++m_fired[config.m_name];
            if (!config.m_bSingleRule) {
                for (const std::string& rule : verdict.m_fired)
                    ++m_firedInPipeline[rule];
            }
            if (!bJudged && (verdict.m_kind == FuzzVerdict::kPass ||
                             verdict.m_kind == FuzzVerdict::kNotComparable ||
                             verdict.m_kind == FuzzVerdict::kDifferent)) {
                bJudged = true;
                bComparable = verdict.m_kind != FuzzVerdict::kNotComparable;
                m_empty += verdict.m_bEmpty;
                if (!bComparable) {
                    ++m_reasons[ReasonBucket(verdict.m_detail)];
                    // A request that does not render is the generator's to fix: keep a few.
                    if (!verdict.m_bRendered && ++m_unrendered <= kSavedUndetermined)
                        Save(text, seed, verdict, "unrendered", config);
                }
            }
            if (!verdict.m_undetermined.empty()) {
                ++m_undeterminedByRule[verdict.m_undetermined];
                if (m_undeterminedByRule[verdict.m_undetermined] <= kSavedUndetermined)
                    Save(text, seed, verdict, verdict.m_undetermined, config);
            }
            if (verdict.IsFailure()) {
                ++m_failures;
                const std::string rule = verdict.m_rule.empty() ? config.m_name : verdict.m_rule;
                ++m_failuresByRule[rule];
                Save(text, seed, verdict, rule, config);
            }
        }
        if (bComparable)
            ++m_checked;
    }

    // Writes the request with a header that says what failed and how to reduce it. A note
    // (a result made undetermined) is not a failure of the verdict's kind.
    void Save(const std::string& text, uint64_t seed, const FuzzVerdict& verdict,
              const std::string& rule, const FuzzConfig& config) {
        const bool bNote = !verdict.IsFailure() && verdict.m_kind != FuzzVerdict::kInvalid;
        const bool bUnrendered = verdict.m_kind == FuzzVerdict::kNotComparable;
        const std::string what = bUnrendered ? "did not render"
                                 : bNote     ? "result made undetermined"
                                             : FuzzVerdict::KindName(verdict.m_kind);
        std::error_code ec;
        std::filesystem::create_directories(m_outDir, ec);
        const std::string path = m_outDir + "/" +
                                 (bUnrendered ? ""
                                  : bNote     ? "undetermined-"
                                              : "") +
                                 FileSafe(rule) + "-g" + std::to_string(seed) + ".rq";
        std::string rules;
        for (const RuleSpec& spec : config.m_rules)
            rules += std::string(rules.empty() ? "" : ",") + spec.ToString();
        std::ofstream file(path);
        file << "# rqfuzz: " << what << " (" << rule << ") on data seed " << verdict.m_seed
             << ", generator seed " << seed << "\n";
        if (!bNote)
            file << "# reduce: rqreduce --rules " << rules << " --seed " << verdict.m_seed << " "
                 << path << "\n";
        std::istringstream detail(verdict.m_detail);
        std::string line;
        for (int i = 0; i < 12 && std::getline(detail, line); ++i)
            file << "#   " << line << "\n";
        file << text;
        m_out << (bNote ? "NOTE " : "FAIL ") << what << " " << rule << " (checking "
              << config.m_name << ") generator seed " << seed << " data seed " << verdict.m_seed
              << ": " << path << "\n";
    }

    void PrintSummary() {
        std::ostringstream line;
        line << "rqfuzz: " << m_count << " requests, " << m_checked << " checked (" << std::fixed
             << std::setprecision(1) << Percent(m_checked) << "%, " << m_empty
             << " of them with an empty result), " << m_count - m_checked - m_invalid
             << " not comparable";
        if (!m_reasons.empty()) {
            line << " (";
            bool bFirst = true;
            for (const auto& [reason, n] : m_reasons) {
                line << (bFirst ? "" : "; ") << reason << ": " << n;
                bFirst = false;
            }
            line << ")";
        }
        line << ", " << m_unrendered << " did not render, " << m_invalid << " invalid, failures: ";
        if (m_failuresByRule.empty())
            line << "none";
        bool bFirst = true;
        for (const auto& [rule, n] : m_failuresByRule) {
            line << (bFirst ? "" : ", ") << rule << "=" << n;
            bFirst = false;
        }
        line << "; results made undetermined: ";
        if (m_undeterminedByRule.empty())
            line << "none";
        bFirst = true;
        for (const auto& [rule, n] : m_undeterminedByRule) {
            line << (bFirst ? "" : ", ") << rule << "=" << n;
            bFirst = false;
        }
        m_out << line.str() << "\n";
        // A rule may have nothing to do on a request as generated and much to do after the
        // rules before it (target assignment after a rule handed nodes back): both shares.
        const auto pipeline =
            std::find_if(m_configs.begin(), m_configs.end(),
                         [](const FuzzConfig& config) { return !config.m_bSingleRule; });
        for (const FuzzConfig& config : m_configs) {
            if (!config.m_bSingleRule)
                continue;
            m_out << "rqfuzz: " << config.m_name << " fired on " << std::fixed
                  << std::setprecision(1) << Percent(m_fired[config.m_name]) << "% of the requests";
            if (pipeline != m_configs.end())
                m_out << " on its own, " << Percent(m_firedInPipeline[config.m_name]) << "% in "
                      << pipeline->m_name;
            m_out << "\n";
        }
    }

    double Percent(uint64_t n) const { return m_count == 0 ? 0.0 : 100.0 * n / m_count; }

    std::ostream& m_out;
    std::ostream& m_err;
    RqCatalog m_catalog;
    std::unique_ptr<FuzzChecker> m_pChecker;
    std::vector<FuzzConfig> m_configs;
    uint64_t m_requests = 100;
    uint64_t m_firstSeed = 1;
    uint64_t m_stopAfter = 0;
    double m_seconds = 0;
    bool m_bUnlimited = false;
    bool m_bQuiet = false;
    std::string m_outDir;
    uint64_t m_count = 0, m_checked = 0, m_invalid = 0, m_failures = 0, m_unrendered = 0,
             m_empty = 0;
    std::map<std::string, uint64_t> m_reasons, m_fired, m_failuresByRule, m_undeterminedByRule;
    std::map<std::string, uint64_t> m_firedInPipeline;
    // Undetermined results are a known hazard of some rules: a few examples of each are kept.
    static constexpr uint64_t kSavedUndetermined = 5;
};

// ---- rqreduce
// ------------------------------------------------------------------------------------

void PrintReduceHelp(std::ostream& out) {
    out << "usage: rqreduce [options] FILE\n"
           "Shrinks a request while a failure persists (docs/fuzzing.md). The default failure:\n"
           "the rules give what they give on FILE now (a different result, a verifier violation,\n"
           "an error or a crash), on the data seed given.\n"
           "  --rules LIST     the rules (default: the default pipeline)\n"
           "  --seed N         the data seed of the check (default 1)\n"
           "  --rows N         rows per generated table (default 30)\n"
           "  --catalog FILE   the catalog (default: the built-in sample catalog)\n"
           "  --command CMD    the failure persists while `CMD REQUEST-FILE` exits 0\n"
           "  --output FILE    write the reduced request there (default: standard output)\n"
           "  --max-tries N    judge at most this many candidates (default 20000)\n"
           "  --no-isolate     check in this process\n";
}

// A text's canonical form (or the text itself when it does not read).
std::string Canonical(const std::string& text, const std::string& catalog) {
    RqoptOptions options;
    options.m_input = "-";
    options.m_catalog = catalog;
    std::istringstream in(text);
    std::ostringstream out, err;
    return RunRqoptWith(options, {}, in, out, err) == kRqoptOk ? out.str() : text;
}

bool Reads(const std::string& text, const std::string& catalog) {
    RqoptOptions options;
    options.m_input = "-";
    options.m_catalog = catalog;
    std::istringstream in(text);
    std::ostringstream out, err;
    return RunRqoptWith(options, {}, in, out, err) == kRqoptOk;
}

bool CommandHolds(const std::string& command, const std::string& text) {
    char name[] = "/tmp/rqreduce-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0)
        return false;
    close(fd);
    {
        std::ofstream file(name);
        file << text;
    }
    const int status = std::system((command + " '" + name + "' >/dev/null 2>&1").c_str());
    std::remove(name);
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int Reduce(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err,
           const std::vector<RuleInfo>* table) {
    Args args;
    std::string error;
    FuzzCheckOptions options;
    uint64_t seed = 1, maxTries = 20000;
    if (!ParseArgs(
            argv,
            {"--rules", "--seed", "--rows", "--catalog", "--command", "--output", "--max-tries"},
            {"--no-isolate", "--help"}, args, error) ||
        !CheckOptionsFrom(args, options, error)) {
        err << "rqreduce: " << error << "\n";
        return kFuzzUsage;
    }
    if (args.Has("--help")) {
        PrintReduceHelp(out);
        return kFuzzOk;
    }
    if (args.m_positional.size() != 1 || !ParseNumber(args.Get("--seed", "1"), seed) ||
        !ParseNumber(args.Get("--max-tries", "20000"), maxTries)) {
        err << "rqreduce: give one request file (see --help)\n";
        return kFuzzUsage;
    }
    options.m_seeds = {seed};
    std::vector<RuleSpec> rules;
    if (args.Has("--rules")) {
        if (!ParseRules(args.Get("--rules", ""), table, rules, error)) {
            err << "rqreduce: " << error << "\n";
            return kFuzzUsage;
        }
    } else {
        rules = RuleRegistry::PipelineRules(*RuleRegistry::FindPipeline("default"));
    }
    std::string text;
    if (!ReadText(args.m_positional[0], text, error)) {
        err << "rqreduce: " << error << "\n";
        return kFuzzUsage;
    }
    const FuzzChecker checker(options);
    RequestReducer::Predicate predicate;
    const std::string catalog = options.m_catalog;
    if (args.Has("--command")) {
        const std::string command = args.Get("--command", "");
        predicate = [command, catalog](const std::string& candidate) {
            return Reads(candidate, catalog) && CommandHolds(command, candidate);
        };
    } else {
        const FuzzVerdict original = checker.Check(text, rules);
        if (!original.IsFailure()) {
            err << "rqreduce: the rules do not fail on this request on data seed " << seed << " ("
                << FuzzVerdict::KindName(original.m_kind) << ")\n";
            return kFuzzUsage;
        }
        err << "rqreduce: reducing while " << original.m_rule << " gives "
            << FuzzVerdict::KindName(original.m_kind) << "\n";
        predicate = [&checker, &rules, original](const std::string& candidate) {
            const FuzzVerdict verdict = checker.Check(candidate, rules);
            return verdict.m_kind == original.m_kind && verdict.m_rule == original.m_rule;
        };
    }
    if (!predicate(text)) {
        err << "rqreduce: the failure does not hold on the request as given\n";
        return kFuzzUsage;
    }
    RequestReducer reducer(predicate, maxTries);
    ReduceStats stats;
    std::string reduced = reducer.Reduce(Canonical(text, catalog), &stats);
    // The canonical form when it still fails (it reads as the same tree, so it should).
    const std::string canonical = Canonical(reduced, catalog);
    if (canonical != reduced && predicate(canonical))
        reduced = canonical;
    stats.m_linesAfter = RequestReducer::CountLines(reduced);
    if (args.Has("--output")) {
        std::ofstream file(args.Get("--output", ""));
        file << reduced;
    } else {
        out << reduced;
    }
    err << "rqreduce: " << stats.m_steps << " steps (" << stats.m_tried << " candidates judged), "
        << RequestReducer::CountLines(text) << " lines before, " << stats.m_linesAfter
        << " after\n";
    return kFuzzOk;
}

}  // namespace

int RunRqfuzz(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
              const std::vector<RuleInfo>* table) {
    return FuzzRun(out, err).Run(args, table);
}

int RunRqreduce(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                const std::vector<RuleInfo>* table) {
    return Reduce(args, out, err, table);
}
