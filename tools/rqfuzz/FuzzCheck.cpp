// The check of one request: rqopt's run with --check-sql-each --diff, read back from its
// exit status, its verdict and the rule names in its output.

#include "FuzzCheck.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

#include "Rqopt.h"

namespace {

// The rule a failure message of rqopt names: "rqopt: <rule> changed ...", "rqopt: <rule>:".
std::string RuleOfMessage(const std::string& err) {
    const std::string prefix = "rqopt: ";
    const size_t start =
        err.rfind(prefix) == std::string::npos ? 0 : err.find(prefix) + prefix.size();
    size_t end = start;
    while (end < err.size() && err[end] != ' ' && err[end] != '\n' &&
           !(err[end] == ':' && (end + 1 == err.size() || err[end + 1] == ' ')))
        ++end;
    return err.substr(start, end - start);
}

// The first rule after which rqopt found the result no longer comparable.
std::string UndeterminedBy(const std::string& out) {
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        const size_t at = line.find(": not comparable");
        if (line.rfind("# ", 0) == 0 && line.rfind("# as read", 0) != 0 && at != std::string::npos)
            return line.substr(2, at - 2);
    }
    return "";
}

// The rules the diff of the run shows as having changed the request.
void AddFired(const std::string& out, std::vector<std::string>& fired) {
    std::istringstream lines(out);
    std::string line;
    const std::string prefix = "--- before ";
    while (std::getline(lines, line)) {
        if (line.rfind(prefix, 0) != 0)
            continue;
        const std::string rule = line.substr(prefix.size());
        bool bKnown = false;
        for (const std::string& f : fired)
            bKnown = bKnown || f == rule;
        if (!bKnown)
            fired.push_back(rule);
    }
}

bool ReadAll(int fd, std::string& text) {
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n == 0;
        text.append(buffer, static_cast<size_t>(n));
    }
}

void WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += static_cast<size_t>(n);
    }
}

// The verdict through a pipe: fixed fields one per line, the detail last.
std::string Serialize(const FuzzVerdict& v) {
    std::string fired;
    for (const std::string& f : v.m_fired)
        fired += f + ",";
    return std::to_string(v.m_kind) + "\n" + v.m_rule + "\n" + std::to_string(v.m_seed) + "\n" +
           fired + "\n" + (v.m_bRendered ? "1" : "0") + (v.m_bEmpty ? "1" : "0") + "\n" +
           v.m_undetermined + "\n" + v.m_detail;
}

bool Deserialize(const std::string& text, FuzzVerdict& v) {
    std::istringstream in(text);
    std::string kind, seed, fired, rendered;
    if (!std::getline(in, kind) || !std::getline(in, v.m_rule) || !std::getline(in, seed) ||
        !std::getline(in, fired) || !std::getline(in, rendered) ||
        !std::getline(in, v.m_undetermined))
        return false;
    v.m_kind = static_cast<FuzzVerdict::Kind>(std::stoi(kind));
    v.m_seed = std::stoull(seed);
    v.m_bRendered = rendered.size() == 2 && rendered[0] == '1';
    v.m_bEmpty = rendered.size() == 2 && rendered[1] == '1';
    std::istringstream names(fired);
    std::string name;
    while (std::getline(names, name, ','))
        if (!name.empty())
            v.m_fired.push_back(name);
    std::ostringstream rest;
    rest << in.rdbuf();
    v.m_detail = rest.str();
    return true;
}

}  // namespace

const char* FuzzVerdict::KindName(Kind kind) {
    switch (kind) {
        case kPass:
            return "same";
        case kNotComparable:
            return "not comparable";
        case kInvalid:
            return "invalid request";
        case kDifferent:
            return "different";
        case kViolation:
            return "verifier violation";
        case kRuleError:
            return "error";
        case kCrash:
            return "crash";
    }
    return "?";
}

FuzzVerdict FuzzChecker::Check(const std::string& text, const std::vector<RuleSpec>& rules) const {
    return m_options.m_bIsolate ? CheckIsolated(text, rules) : CheckInProcess(text, rules);
}

FuzzVerdict FuzzChecker::CheckInProcess(const std::string& text,
                                        const std::vector<RuleSpec>& rules) const {
    FuzzVerdict verdict;
    std::string notComparable;
    bool bComparable = false;
    bool bRows = false;
    uint64_t undeterminedSeed = 0;
    for (uint64_t seed : m_options.m_seeds) {
        RqoptOptions options;
        options.m_input = "-";
        options.m_catalog = m_options.m_catalog;
        options.m_bCheckSqlEach = true;
        options.m_bDiff = true;
        options.m_seed = seed;
        options.m_rows = m_options.m_rows;
        std::istringstream in(text);
        std::ostringstream out, err;
        RqoptCheckResult check;
        const int status = RunRqoptWith(options, rules, in, out, err, &check);
        AddFired(out.str(), verdict.m_fired);
        verdict.m_seed = seed;
        if (status == kRqoptUsage) {
            verdict.m_kind = FuzzVerdict::kInvalid;
            verdict.m_detail = err.str();
            return verdict;
        }
        if (status != kRqoptOk) {
            const std::string message = err.str();
            verdict.m_rule = RuleOfMessage(message);
            if (message.find(" changed the result") != std::string::npos)
                verdict.m_kind = FuzzVerdict::kDifferent;
            else if (message.find(" left the request malformed") != std::string::npos)
                verdict.m_kind = FuzzVerdict::kViolation;
            else
                verdict.m_kind = FuzzVerdict::kRuleError;
            verdict.m_detail = message + out.str();
            return verdict;
        }
        // "# as read: not comparable ..." when the original's result is not determined.
        if (out.str().find("# as read: not comparable") != std::string::npos) {
            if (check.m_readProblem != SqlProblem::kNone)
                verdict.m_bRendered = false;
            notComparable = check.m_outcome.m_reason;
            continue;
        }
        bComparable = true;
        bRows = bRows || out.str().find("# as read: 0 rows") == std::string::npos;
        if (verdict.m_undetermined.empty()) {
            verdict.m_undetermined = UndeterminedBy(out.str());
            if (!verdict.m_undetermined.empty())
                undeterminedSeed = seed;
        }
    }
    verdict.m_kind = bComparable ? FuzzVerdict::kPass : FuzzVerdict::kNotComparable;
    verdict.m_bEmpty = bComparable && !bRows;
    // A note names the seed it was seen on, so that it can be reproduced.
    if (!verdict.m_undetermined.empty())
        verdict.m_seed = undeterminedSeed;
    if (!bComparable)
        verdict.m_detail = notComparable;
    return verdict;
}

namespace {

// What a child process left behind: its result text, its standard error and how it ended.
struct ChildRun {
    bool m_bStarted = false;
    std::string m_result;
    std::string m_errors;
    int m_status = 0;

    bool Finished() const { return WIFEXITED(m_status) && WEXITSTATUS(m_status) == 0; }
    bool TimedOut() const { return WIFSIGNALED(m_status) && WTERMSIG(m_status) == SIGALRM; }
};

// Runs `work` in a child process that an alarm stops after `timeLimitS` seconds; what `work`
// returns is the child's result. Not started when the pipes or the process cannot be had.
template <class Work>
ChildRun RunInChild(unsigned timeLimitS, Work work) {
    ChildRun run;
    int fds[2];
    int errFds[2];
    if (pipe(fds) != 0)
        return run;
    if (pipe(errFds) != 0) {
        close(fds[0]);
        close(fds[1]);
        return run;
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        close(errFds[0]);
        close(errFds[1]);
        return run;
    }
    if (child == 0) {
        close(fds[0]);
        close(errFds[0]);
        // An assertion's report goes to standard error: the parent keeps it for the report.
        dup2(errFds[1], 2);
        alarm(timeLimitS);
        WriteAll(fds[1], work());
        close(fds[1]);
        _exit(0);
    }
    close(fds[1]);
    close(errFds[1]);
    // The child's report is small and its standard error smaller than a pipe's buffer in
    // practice; reading the result first and then the errors keeps the child from blocking.
    ReadAll(fds[0], run.m_result);
    ReadAll(errFds[0], run.m_errors);
    close(fds[0]);
    close(errFds[0]);
    while (waitpid(child, &run.m_status, 0) < 0 && errno == EINTR) {
    }
    run.m_bStarted = true;
    return run;
}

}  // namespace

FuzzVerdict FuzzChecker::CheckIsolated(const std::string& text,
                                       const std::vector<RuleSpec>& rules) const {
    const ChildRun run =
        RunInChild(m_options.m_timeLimitS, [&] { return Serialize(CheckInProcess(text, rules)); });
    if (!run.m_bStarted)
        return CheckInProcess(text, rules);
    FuzzVerdict verdict;
    if (run.Finished() && Deserialize(run.m_result, verdict))
        return verdict;
    verdict.m_seed = m_options.m_seeds.empty() ? 0 : m_options.m_seeds.front();
    if (run.TimedOut() && RulesAloneFinish(text, rules)) {
        // The rules are quick on their own: the time went to SQLite, running statements that
        // each kept within their budget but together outlasted the check's.
        verdict.m_kind = FuzzVerdict::kNotComparable;
        verdict.m_detail = "the check ran past " + std::to_string(m_options.m_timeLimitS) +
                           " seconds (the rules alone finish)";
        return verdict;
    }
    verdict.m_kind = FuzzVerdict::kCrash;
    verdict.m_rule = rules.size() == 1 ? rules.front().ToString() : "(pipeline)";
    if (run.TimedOut()) {
        verdict.m_detail = "timed out: the rules alone run past " +
                           std::to_string(m_options.m_timeLimitS) + " seconds";
    } else if (WIFSIGNALED(run.m_status)) {
        const int signal = WTERMSIG(run.m_status);
        verdict.m_detail = std::string("killed by signal ") + std::to_string(signal) + " (" +
                           strsignal(signal) + ")";
    } else {
        verdict.m_detail = "exited with status " + std::to_string(WEXITSTATUS(run.m_status));
    }
    verdict.m_detail += "\n" + run.m_errors;
    return verdict;
}

bool FuzzChecker::RulesAloneFinish(const std::string& text,
                                   const std::vector<RuleSpec>& rules) const {
    const ChildRun run = RunInChild(m_options.m_timeLimitS, [&] {
        RqoptOptions options;
        options.m_input = "-";
        options.m_catalog = m_options.m_catalog;
        std::istringstream in(text);
        std::ostringstream out, err;
        RunRqoptWith(options, rules, in, out, err);
        return std::string("done");
    });
    return run.m_bStarted && run.Finished() && run.m_result == "done";
}
