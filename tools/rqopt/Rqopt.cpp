// rqopt's run: the catalog and session, the request, the rules one after another with what
// each did, and the exit status.

#include "Rqopt.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

#include "BuiltinCatalog.h"
#include "Platform/CompatFlags.h"
#include "Platform/ErrorMessage.h"
#include "Platform/Repository.h"
#include "Platform/SystemUtility.h"
#include "Query/Optimizer/Request/SQORRqDumpout.h"
#include "Query/Optimizer/Request/SQORRqList.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/Request/SQORRqVerifier.h"
#include "Query/Optimizer/RequestSql/SQORSqlCheck.h"
#include "Query/Optimizer/RequestSql/SQORSqlRenderer.h"
#include "Query/Optimizer/RequestText/SQORTextCatalog.h"
#include "Query/Optimizer/RequestText/SQORTextRequest.h"
#include "Query/Optimizer/RequestText/SQORTextSuggest.h"
#include "TextDiff.h"

#ifndef RQ_VERSION
#define RQ_VERSION "unknown"
#endif

namespace {

// Server-wide flags outlive a session; resetting them on the way out keeps one run from
// leaking its settings into the next run in the same process (tests, the golden runner).
class ServerFlagsReset {
public:
    ~ServerFlagsReset() { SUCompatFlag::Reset(); }
};

// Reads a whole stream, refusing more than the text formats accept so that a huge input is
// not held in memory only to be refused.
bool ReadAll(std::istream& in, const std::string& what, std::string& text, std::string& error) {
    text.clear();
    char buffer[64 * 1024];
    while (in) {
        in.read(buffer, sizeof buffer);
        text.append(buffer, static_cast<size_t>(in.gcount()));
        if (text.size() > kRqTextMaxInputBytes) {
            error = "cannot read " + what + ": it is larger than the " +
                    std::to_string(kRqTextMaxInputBytes / (std::size_t{1024} * 1024)) +
                    " MiB an input may have";
            return false;
        }
    }
    if (in.bad()) {
        error = "cannot read " + what;
        return false;
    }
    return true;
}

bool ReadWholeFile(const std::string& path, std::string& text, std::string& error) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        error = "cannot read '" + path + "': it is a directory";
        return false;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "cannot read '" + path + "': " + std::strerror(errno);
        return false;
    }
    return ReadAll(file, "'" + path + "'", text, error);
}

// How many columns the request returns: those of its outermost list, wherever the request
// node puts it (a cache or write request holds its list below itself). -1 without a list.
int ResultColumnCount(RqHandleNode& root) {
    RqNode* request = root.GetRqNode();
    if (request == nullptr)
        return -1;
    RqAbstractList* list = dynamic_cast<RqAbstractList*>(request);
    if (list == nullptr) {
        RqAbstractListVector lists;
        RqNodeUtility::GetChildRqLists(request, lists);
        list = lists.empty() ? nullptr : lists.front();
    }
    if (list == nullptr)
        return -1;
    const RqProjection* projection = list->GetProjection();
    return projection != nullptr ? projection->GetNumColumns() : 0;
}

std::vector<std::string> CompatFlagNames() {
    std::vector<std::string> names;
    for (const CompatFlagInfo& info : CompatFlagCatalog::All())
        names.push_back(ZKString(info.m_name).ToUtf8());
    return names;
}

struct RuleTime {
    std::string m_name;
    double m_milliseconds;
    bool m_bChanged;
};

// The statement of a request for --sql, or why there is none. A request without one is an
// answer, not a failure of the tool, so it is printed as an SQL comment in its place.
std::string StatementText(const SqlRenderResult& rendered) {
    if (!rendered.IsOk())
        return "-- no SQL statement: " + rendered.Describe() + "\n";
    return rendered.m_sql + ";\n";
}

class RqoptRun {
public:
    RqoptRun(const RqoptOptions& options, std::istream& in, std::ostream& out, std::ostream& err,
             RqoptCheckResult* pCheck)
        : m_options(options), m_in(in), m_out(out), m_err(err), m_pCheck(pCheck) {}

    int Execute(const std::vector<RuleSpec>& rules, size_t uncut) {
        ServerFlagsReset resetServerFlags;
        int status = LoadCatalog();
        if (status == kRqoptOk)
            status = SetUpSession();
        if (status == kRqoptOk)
            status = ReadRequest();
        if (status != kRqoptOk)
            return status;
        if (m_options.m_bisect >= 0) {
            m_err << "rqopt: bisect: applying " << rules.size() << " of " << uncut << " rules";
            if (!rules.empty())
                m_err << "; the last is " << rules.back().ToString();
            m_err << "\n";
        }
        try {
            // The rules rewrite the tree in place: the SQL of the request as read and the
            // check need a copy of it.
            if (m_options.m_bSql || m_options.m_bCheckSql)
                m_pOriginal.Reset(m_root->DeepCopy(false));
            if (m_options.m_bCheckSqlEach)
                StartCheckEach();
            status = ApplyRules(rules);
            if (status == kRqoptOk && m_options.m_bSql)
                PrintSql();
            if (status == kRqoptOk && m_options.m_bCheckSql)
                status = CheckSql();
        } catch (const std::exception& e) {
            // Printing a rewritten tree and running SQL are all that is left to fail here.
            m_err << "rqopt: " << e.what() << "\n";
            status = kRqoptRuleFailed;
        }
        if (m_options.m_bTime)
            PrintTimes();
        return status;
    }

private:
    int InputError(const std::string& message) {
        m_err << "rqopt: " << message << "\n";
        return kRqoptUsage;
    }

    int LoadCatalog() {
        std::string text(RqoptBuiltinCatalog());
        std::string name = kRqoptBuiltinCatalogName;
        if (!m_options.m_catalog.empty()) {
            name = m_options.m_catalog;
            std::string error;
            if (!ReadWholeFile(name, text, error))
                return InputError(error);
        }
        try {
            m_catalog = RqCatalogText::Read(text, name);
        } catch (const RqTextError& e) {
            m_err << e.what() << "\n";
            return kRqoptUsage;
        } catch (const ErrorMessage& e) {
            return InputError(name + ": " + e.what());
        }
        m_catalogName = name;
        return kRqoptOk;
    }

    int SetUpSession() {
        try {
            m_catalog.ApplyServerFlags();
            m_pSession = m_catalog.MakeSession();
        } catch (const ErrorMessage& e) {
            return InputError(m_catalogName + ": " + e.what());
        }
        for (const auto& [name, value] : m_options.m_session) {
            const ZKString wideName = ZKString::FromUtf8(name);
            const ZKString wideValue = ZKString::FromUtf8(value);
            long long number = 0;
            if (BaseStringUtil::IntFrom(wideValue, number))
                m_pSession->SetIntegerSessionProperty(wideName, number);
            else
                m_pSession->SetStringSessionProperty(wideName, wideValue);
        }
        for (const auto& [name, value] : m_options.m_flags) {
            const int status = SetFlag(name, value);
            if (status != kRqoptOk)
                return status;
        }
        return kRqoptOk;
    }

    int SetFlag(const std::string& name, const std::string& value) {
        const CompatFlagInfo* info = CompatFlagCatalog::Find(ZKString::FromUtf8(name));
        if (info == nullptr) {
            return InputError("--flag: unknown compatibility flag '" + name + "'" +
                              DidYouMean(name, CompatFlagNames()));
        }
        const ZKString wideValue = ZKString::FromUtf8(value);
        if (!info->m_bServerScope) {
            try {
                m_pSession->SetCompatFlagFromText(info->m_name, wideValue);
            } catch (const ErrorMessage& e) {
                return InputError(std::string("--flag: ") + e.what());
            }
            return kRqoptOk;
        }
        const std::string flagName = ZKString(info->m_name).ToUtf8();
        if (info->m_bIsInt) {
            long long number = 0;
            if (!BaseStringUtil::IntFrom(wideValue, number) || number < INT_MIN || number > INT_MAX)
                return InputError("--flag: " + flagName + " takes an integer, not '" + value + "'");
            SUCompatFlag::SetInt(info->m_name, static_cast<int>(number));
        } else {
            bool flag = false;
            if (!BaseStringUtil::BooleanFrom(wideValue, flag))
                return InputError("--flag: " + flagName + " takes true or false, not '" + value +
                                  "'");
            SUCompatFlag::SetBool(info->m_name, flag);
        }
        return kRqoptOk;
    }

    int ReadRequest() {
        std::string text;
        std::string name = m_options.m_input;
        if (name == "-") {
            name = "<stdin>";
            std::string error;
            // A closed standard input arrives as a stream already in error (see main).
            if (m_in.bad() || !ReadAll(m_in, "the standard input", text, error))
                return InputError(error.empty() ? "cannot read the standard input" : error);
        } else {
            std::string error;
            if (!ReadWholeFile(name, text, error))
                return InputError(error);
        }
        try {
            m_root.Reset(RqTextReader::Read(text, name, m_pSession.get()));
        } catch (const RqTextError& e) {
            m_err << e.what() << "\n";
            return kRqoptUsage;
        } catch (const std::exception& e) {
            return InputError(name + ": " + e.what());
        }
        // The rules take a well-formed tree for granted; a malformed one is the input's
        // fault and is reported as such rather than left to trip a rule's assertion.
        const std::vector<RqViolation> violations = RqVerifier::Verify(*m_root);
        if (!violations.empty()) {
            return InputError(name + ": the request is malformed:\n" +
                              RqVerifier::Describe(violations).ToUtf8());
        }
        return kRqoptOk;
    }

    std::string Render(const std::string& canonical) const {
        if (!m_options.m_bDump)
            return canonical;
        return RqDumpout::StringFrom(m_root.Get(), m_pSession.get()).ToUtf8();
    }

    SqlCheckOptions CheckOptions() const {
        SqlCheckOptions options;
        options.m_seed = m_options.m_seed;
        options.m_rows = m_options.m_rows;
        return options;
    }

    std::string DataText() const {
        return "(seed " + std::to_string(m_options.m_seed) + ", " +
               std::to_string(m_options.m_rows) + " rows per table)";
    }

    void PrintSql() {
        const SqlRenderResult before = SqlRenderer::Render(*m_pOriginal, m_pSession.get());
        const SqlRenderResult after = SqlRenderer::Render(*m_root, m_pSession.get());
        m_out << "-- as read\n" << StatementText(before);
        if (before.IsOk() && after.IsOk() && before.m_sql == after.m_sql)
            m_out << "-- after the rules: the same statement\n";
        else
            m_out << "-- after the rules\n" << StatementText(after);
    }

    void RecordCheck(const SqlCheckOutcome& outcome, const RqNode& read, const RqNode& rewritten) {
        if (m_pCheck == nullptr)
            return;
        m_pCheck->m_bChecked = true;
        m_pCheck->m_outcome = outcome;
        m_pCheck->m_readProblem = SqlRenderer::Render(read, m_pSession.get()).m_problem;
        m_pCheck->m_rewrittenProblem = SqlRenderer::Render(rewritten, m_pSession.get()).m_problem;
    }

    int CheckSql() {
        SqlCheckSession check(m_pSession.get(), CheckOptions());
        // Both requests' literals go into the data before either runs, so that a filter of
        // either side finds rows.
        check.AddLiterals(*m_pOriginal);
        check.AddLiterals(*m_root);
        const SqlRunResult before = check.Run(*m_pOriginal);
        const SqlRunResult after = check.Run(*m_root);
        const SqlCheckOutcome outcome = check.Compare(before, after);
        RecordCheck(outcome, *m_pOriginal, *m_root);
        m_out << outcome.Report();
        if (outcome.m_kind == SqlCheckOutcome::kDifferent) {
            m_err << "rqopt: the rules changed the result of the request " << DataText() << "\n";
            return kRqoptRuleFailed;
        }
        return kRqoptOk;
    }

    // Runs the request as read once, in the session every later check of --check-sql-each
    // shares. A request that cannot be compared as read cannot be compared after any rule
    // either: it is said once, and no rule is checked.
    void StartCheckEach() {
        m_pEach = std::make_unique<SqlCheckSession>(m_pSession.get(), CheckOptions());
        m_eachOriginal = m_pEach->Run(*m_root);
        if (!m_eachOriginal.m_bComparable) {
            m_out << "# as read: not comparable " << DataText() << ": " << m_eachOriginal.m_reason
                  << "; no rule is checked\n";
            m_pEach.reset();
            if (m_pCheck != nullptr) {
                m_pCheck->m_bChecked = true;
                m_pCheck->m_outcome.m_kind = SqlCheckOutcome::kNotComparable;
                m_pCheck->m_outcome.m_reason = "the original request: " + m_eachOriginal.m_reason;
                m_pCheck->m_readProblem = m_pCheck->m_rewrittenProblem =
                    SqlRenderer::Render(*m_root, m_pSession.get()).m_problem;
            }
            return;
        }
        m_out << "# as read: " << m_eachOriginal.m_rows.m_rows.size() << " rows " << DataText()
              << "\n";
    }

    // Compares the request after a rule that changed it with the request as read.
    int CheckAfterRule(const std::string& name) {
        const SqlRunResult now = m_pEach->Run(*m_root);
        const SqlCheckOutcome outcome = m_pEach->Compare(m_eachOriginal, now);
        if (m_pCheck != nullptr) {
            m_pCheck->m_bChecked = true;
            m_pCheck->m_outcome = outcome;
            m_pCheck->m_readProblem = SqlProblem::kNone;
            m_pCheck->m_rewrittenProblem = SqlRenderer::Render(*m_root, m_pSession.get()).m_problem;
        }
        m_out << "# " << name << ": " << outcome.Report();
        if (outcome.m_kind == SqlCheckOutcome::kDifferent) {
            m_err << "rqopt: " << name << " changed the result of the request " << DataText()
                  << "; the rules after it were not applied\n";
            return kRqoptRuleFailed;
        }
        return kRqoptOk;
    }

    int ApplyRules(const std::vector<RuleSpec>& rules) {
        const bool bPerRule = m_options.m_bDiff || m_options.m_bPrintAfterEach;
        // The SQL options print instead of the rewritten request.
        const bool bPrintRequest =
            !bPerRule && !m_options.m_bSql && !m_options.m_bCheckSql && !m_options.m_bCheckSqlEach;
        // Whether a rule changed the request is decided on the canonical text, which is the
        // same for equivalent trees.
        std::string canonical = RqTextWriter::Write(*m_root, m_pSession.get());
        std::string shown = Render(canonical);
        const int columns = ResultColumnCount(*m_root);
        ServerStatistics statistics;
        const RuleContext context{m_pSession.get(), &statistics};

        for (const RuleSpec& spec : rules) {
            const std::string name = spec.ToString();
            const auto start = std::chrono::steady_clock::now();
            try {
                RuleRegistry::Apply(spec, context, *m_root);
            } catch (const std::exception& e) {
                // An ErrorMessage reads "[nnnnn] text"; cancellation and stack exhaustion
                // arrive as exceptions of their own and are reported the same way.
                RecordTime(name, start, true);
                m_err << "rqopt: " << name << ": " << e.what() << "\n";
                return kRqoptRuleFailed;
            }
            RecordTime(name, start, false);

            // The printer relies on a well-formed tree, so the verifier runs after every rule
            // whether or not it was asked for.
            const std::vector<RqViolation> violations = RqVerifier::Verify(*m_root);
            if (!violations.empty()) {
                m_err << "rqopt: " << name << " left the request malformed:\n"
                      << RqVerifier::Describe(violations).ToUtf8();
                return kRqoptRuleFailed;
            }
            if (m_options.m_bVerifyEach) {
                const int now = ResultColumnCount(*m_root);
                if (now != columns) {
                    m_err << "rqopt: " << name << " changed the number of result columns from "
                          << columns << " to " << now << "\n";
                    return kRqoptRuleFailed;
                }
            }

            std::string after = RqTextWriter::Write(*m_root, m_pSession.get());
            const bool bChanged = after != canonical;
            m_times.back().m_bChanged = bChanged;
            if (!bChanged) {
                if (bPerRule || m_pEach != nullptr)
                    m_out << "# " << name << ": no change\n";
                continue;
            }
            canonical = std::move(after);
            std::string afterShown = Render(canonical);
            if (m_options.m_bDiff)
                m_out << UnifiedDiff(shown, afterShown, "before " + name, "after " + name);
            if (m_options.m_bPrintAfterEach)
                m_out << "# after " << name << "\n" << afterShown;
            shown = std::move(afterShown);
            if (m_pEach != nullptr) {
                const int status = CheckAfterRule(name);
                if (status != kRqoptOk)
                    return status;
            }
        }
        if (bPrintRequest)
            m_out << shown;
        return kRqoptOk;
    }

    void RecordTime(const std::string& name, std::chrono::steady_clock::time_point start,
                    bool bFailed) {
        const std::chrono::duration<double, std::milli> elapsed =
            std::chrono::steady_clock::now() - start;
        m_times.push_back({bFailed ? name + " (failed)" : name, elapsed.count(), false});
    }

    void PrintTimes() {
        size_t width = 5;  // "total"
        double total = 0;
        for (const RuleTime& time : m_times) {
            width = std::max(width, time.m_name.size());
            total += time.m_milliseconds;
        }
        std::ostringstream report;
        report << std::fixed << std::setprecision(3);
        report << std::left << std::setw(static_cast<int>(width)) << "rule" << std::right
               << std::setw(12) << "ms"
               << "  changed\n";
        for (const RuleTime& time : m_times) {
            report << std::left << std::setw(static_cast<int>(width)) << time.m_name << std::right
                   << std::setw(12) << time.m_milliseconds << "  "
                   << (time.m_bChanged ? "yes" : "no") << "\n";
        }
        report << std::left << std::setw(static_cast<int>(width)) << "total" << std::right
               << std::setw(12) << total << "\n";
        m_err << report.str();
    }

    const RqoptOptions& m_options;
    std::istream& m_in;
    std::ostream& m_out;
    std::ostream& m_err;
    RqCatalog m_catalog;
    std::string m_catalogName;
    std::unique_ptr<RpSession> m_pSession;
    Heap<RqHandleNode> m_root;
    Heap<RqNode> m_pOriginal;                  // the request as read, for --sql and --check-sql
    std::unique_ptr<SqlCheckSession> m_pEach;  // --check-sql-each, while rules are checked
    SqlRunResult m_eachOriginal;
    RqoptCheckResult* m_pCheck;
    std::vector<RuleTime> m_times;
};

}  // namespace

namespace {

// Output that could not be written (a full disk, a closed standard output) is a failure of
// the run, however well the rules went: whoever reads the output would see a truncated one.
int FinishOutput(std::ostream& out, std::ostream& err, int status) {
    out.flush();
    if (!out.fail())
        return status;
    err << "rqopt: cannot write the output: " << std::strerror(errno) << "\n";
    return status == kRqoptOk ? kRqoptOutputFailed : status;
}

}  // namespace

int RunRqopt(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
             std::ostream& err) {
    RqoptOptions options;
    std::string error;
    if (!ParseRqoptArgs(args, options, error)) {
        err << "rqopt: " << error << "\n";
        return kRqoptUsage;
    }
    if (options.m_bHelp) {
        PrintRqoptHelp(out);
        return FinishOutput(out, err, kRqoptOk);
    }
    if (options.m_bVersion) {
        out << "rqopt " << RQ_VERSION << "\n";
        return FinishOutput(out, err, kRqoptOk);
    }
    if (options.m_bListRules) {
        PrintRqoptRuleList(out, options.m_bMarkdown);
        return FinishOutput(out, err, kRqoptOk);
    }
    std::vector<RuleSpec> rules;
    size_t uncut = 0;
    if (!ResolveRqoptRules(options, rules, error, &uncut)) {
        err << "rqopt: " << error << "\n";
        return kRqoptUsage;
    }
    const int status = RqoptRun(options, in, out, err, nullptr).Execute(rules, uncut);
    return FinishOutput(out, err, status);
}

int RunRqoptWith(const RqoptOptions& options, const std::vector<RuleSpec>& rules, std::istream& in,
                 std::ostream& out, std::ostream& err, RqoptCheckResult* pCheck) {
    if (pCheck != nullptr)
        *pCheck = RqoptCheckResult();
    const int status = RqoptRun(options, in, out, err, pCheck).Execute(rules, rules.size());
    return FinishOutput(out, err, status);
}
