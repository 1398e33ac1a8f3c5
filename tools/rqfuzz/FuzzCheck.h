#pragma once
// One request checked under a sequence of rules, the way rqopt --check-sql-each checks it
// (the run is rqopt's own, driven in-process): read and verify the request, run it on
// SQLite, apply the rules one by one, verify after each and compare the result after each
// rule that changed the request with the original's. The check repeats on a few data seeds
// and stops at the first failure.
//
// With isolation on, each check runs in a child process, so that a rule that trips an
// assertion, crashes or loops is reported as a failure of that rule instead of ending the
// campaign.

#include <cstdint>
#include <string>
#include <vector>

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

struct FuzzVerdict {
    enum Kind {
        kPass,           // comparable on some seed, and every rule kept the result
        kNotComparable,  // no seed gave a determined result for the request as read
        kInvalid,        // the request did not read or verify: the generator's fault
        kDifferent,      // a rule changed the result
        kViolation,      // a rule left the tree malformed
        kRuleError,      // a rule raised an error
        kCrash,          // the check died (assertion, signal), or its rules ran out of time
    };
    Kind m_kind = kNotComparable;
    std::string m_rule;                // the failing rule, for the failures
    uint64_t m_seed = 0;               // the data seed of the failure
    std::string m_detail;              // the report, or why the request was not comparable
    std::vector<std::string> m_fired;  // the rules that changed the request
    bool m_bRendered = true;           // whether the request as read rendered to SQL
    // Whether the request as read returned no row on every seed it was compared on: such a
    // check shows little, and many of them mean the generator's filters are too strict.
    bool m_bEmpty = false;
    // A rule after which a determined result became undetermined (a row limit or a break
    // filter that lost the order that chose its rows): not a wrong result on the data at
    // hand, but a result the engine may pick differently; reported apart from failures.
    std::string m_undetermined;

    bool IsFailure() const { return m_kind >= kDifferent; }
    static const char* KindName(Kind kind);
};

struct FuzzCheckOptions {
    std::string m_catalog;  // a catalog file; empty: the built-in sample catalog
    std::vector<uint64_t> m_seeds{1, 2};
    uint32_t m_rows = 30;
    bool m_bIsolate = true;      // run each check in a child process
    unsigned m_timeLimitS = 60;  // per isolated check
};

class FuzzChecker {
public:
    explicit FuzzChecker(const FuzzCheckOptions& options) : m_options(options) {}
    // Checks `text` under `rules`, which may come from any rule table that outlives them.
    FuzzVerdict Check(const std::string& text, const std::vector<RuleSpec>& rules) const;
    const FuzzCheckOptions& GetOptions() const { return m_options; }

private:
    FuzzVerdict CheckInProcess(const std::string& text, const std::vector<RuleSpec>& rules) const;
    FuzzVerdict CheckIsolated(const std::string& text, const std::vector<RuleSpec>& rules) const;
    // Whether the rules, applied and verified without the SQLite check, finish within the
    // time limit of a check: tells a looping rule from a slow check.
    bool RulesAloneFinish(const std::string& text, const std::vector<RuleSpec>& rules) const;

    FuzzCheckOptions m_options;
};
