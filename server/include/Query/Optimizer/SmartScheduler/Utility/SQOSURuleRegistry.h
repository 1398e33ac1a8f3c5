#pragma once
// The one table of rewrite rules that tools and tests apply by name: for each rule, how to
// construct it with its options and what it does in one line; and the named sequences of
// rules (pipelines). Listing, selecting, disabling and documenting rules all read this
// table, so a new rule becomes available everywhere by adding one row to it
// (SQOSURuleRegistry.cpp).
//
// A rule is named in text as `Name` or `Name:option=value[:option=value...]`; a boolean
// option given without a value (`Name:option`) is set to true. Lists of rules separate the
// specs with commas.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"

struct RuleInfo;

// What a rule is constructed with besides its options.
struct RuleContext {
    ARpGateway* m_pRp = nullptr;
    ServerStatistics* m_pStatistics = nullptr;
};

// One option of a rule: a named constructor argument with its default.
struct RuleOptionInfo {
    enum Kind { kBool, kInt };
    const char* m_name;
    Kind m_kind;
    long long m_default;
    const char* m_description;
};

// The value of every option of one rule, defaults filled in.
class RuleOptionValues {
public:
    explicit RuleOptionValues(const RuleInfo& info);
    // Reading an option the rule does not declare, or as the wrong kind, is a programming
    // error of the table's factory.
    bool GetBool(std::string_view name) const;
    long long GetInt(std::string_view name) const;
    void Set(std::string_view name, long long value);
    bool IsDefault(std::string_view name) const;

private:
    size_t IndexOf(std::string_view name) const;

    const RuleInfo* m_pInfo;
    std::vector<long long> m_values;
};

struct RuleInfo {
    const char* m_name;  // the class name
    const char* m_description;
    std::vector<RuleOptionInfo> m_options;
    std::unique_ptr<RewriteRule> (*m_create)(const RuleContext& context,
                                             const RuleOptionValues& options);
    // How the rule is applied to a request root; null means the driver (ApplyRule). A rule
    // that must be prepared before the driver runs supplies its own sequence here.
    void (*m_apply)(RewriteRule& rule, RqNode& root) = nullptr;
};

// A rule chosen by name, with the values of its options.
class RuleSpec {
public:
    explicit RuleSpec(const RuleInfo& info) : m_pInfo(&info), m_options(info) {}
    const RuleInfo& GetInfo() const { return *m_pInfo; }
    const char* GetName() const { return m_pInfo->m_name; }
    const RuleOptionValues& GetOptions() const { return m_options; }
    RuleOptionValues& GetOptions() { return m_options; }
    // The rule and its options as text, options left out where they keep their defaults; it
    // parses back to the same rule and options.
    std::string ToString() const;

private:
    const RuleInfo* m_pInfo;
    RuleOptionValues m_options;
};

struct PipelineInfo {
    const char* m_name;
    const char* m_description;
    std::vector<const char*> m_rules;  // rule specs, in the order they are applied
};

class RuleRegistry {
public:
    // Every rule, in the table's (alphabetical) order.
    static const std::vector<RuleInfo>& Rules();
    // By exact name; null when there is none.
    static const RuleInfo* FindRule(std::string_view name);
    static const std::vector<PipelineInfo>& Pipelines();
    static const PipelineInfo* FindPipeline(std::string_view name);

    // Parsing raises an ErrorMessage: kErr_UnknownRewriteRule (argument: the name) for an
    // unknown rule, a text message for an unknown option or a value of the wrong kind.
    static RuleSpec ParseRuleSpec(std::string_view text);
    // Comma-separated specs; blank text gives no rules.
    static std::vector<RuleSpec> ParseRuleList(std::string_view text);
    // The same over another table, whose rows must outlive the specs (tests of options).
    static RuleSpec ParseRuleSpec(std::string_view text, const std::vector<RuleInfo>& table);
    static std::vector<RuleSpec> ParseRuleList(std::string_view text,
                                               const std::vector<RuleInfo>& table);
    static std::vector<RuleSpec> PipelineRules(const PipelineInfo& pipeline);

    static std::unique_ptr<RewriteRule> Create(const RuleSpec& spec, const RuleContext& context);
    // Constructs the rule and applies it to `root` as the optimizer would.
    static void Apply(const RuleSpec& spec, const RuleContext& context, RqNode& root);
};
