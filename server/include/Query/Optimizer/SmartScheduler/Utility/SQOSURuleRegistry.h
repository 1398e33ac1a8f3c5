#pragma once
// The one table of rewrite rules that tools and tests apply by name: for each rule, how to
// construct it with its options and what it does in one line; and the named sequences of
// rules (pipelines). Listing, selecting, disabling and documenting rules all read this
// table, so a new rule becomes available everywhere by adding one row to it
// (SQOSURuleRegistry.cpp).
//
// A rule is named in text as `Name` or `Name:option=value[:option=value...]`; a boolean
// option given without a value (`Name:option`) is set to true. Lists of rules separate the
// specs with commas. A rule's options are declared once, typed, in its options struct
// (SQOSURuleOptions.h).

#include <any>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Query/Optimizer/SmartScheduler/Utility/SQOSURewriteRule.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleOptions.h"

// What a rule is constructed with besides its options.
struct RuleContext {
    ARpGateway* m_pRp = nullptr;
    ServerStatistics* m_pStatistics = nullptr;
};

// One option as the registry shows it, read from the rule's typed declaration (a bool reads
// as 0 or 1).
struct RuleOptionInfo {
    enum Kind { kBool, kInt };
    const char* m_name;
    Kind m_kind;
    long long m_default;
    const char* m_description;
};

struct RuleInfo {
    const char* m_name = nullptr;  // the class name
    const char* m_description = nullptr;
    std::vector<RuleOptionInfo> m_options;
    // The rule's options struct at its defaults, and the access to option i of such a struct,
    // as the registry holds it without its type.
    std::any m_defaults;
    long long (*m_getOption)(const std::any& options, size_t i) = nullptr;
    void (*m_setOption)(std::any& options, size_t i, long long value) = nullptr;
    std::function<std::unique_ptr<RewriteRule>(const RuleContext&, const std::any& options)>
        m_create;
    // How the rule is applied to a request root; null means the driver (ApplyRule). A rule
    // that must be prepared before the driver runs supplies its own sequence here.
    void (*m_apply)(RewriteRule& rule, RqNode& root) = nullptr;

    // The row of a rule whose options are declared by `Options` (SQOSURuleOptions.h).
    // `create` receives the options filled in:
    //     RuleInfo::Make<MyRuleOptions>("MyRule", "What it does.",
    //         [](const RuleContext& c, const MyRuleOptions& o) -> std::unique_ptr<RewriteRule> {
    //             return std::make_unique<MyRule>(c.m_pRp, o.m_bKeepKeys);
    //         })
    template <class Options>
    static RuleInfo Make(const char* name, const char* description,
                         std::unique_ptr<RewriteRule> (*create)(const RuleContext&, const Options&),
                         void (*apply)(RewriteRule&, RqNode&) = nullptr);
};

// A rule chosen by name, with the values of its options.
class RuleSpec {
public:
    explicit RuleSpec(const RuleInfo& info) : m_pInfo(&info), m_options(info.m_defaults) {}
    const RuleInfo& GetInfo() const { return *m_pInfo; }
    const char* GetName() const { return m_pInfo->m_name; }
    // The options struct the rule was registered with.
    template <class Options>
    const Options& GetOptions() const;
    const std::any& GetOptionValues() const { return m_options; }
    // Option i of the rule's list, as a number (a bool is 0 or 1).
    long long GetOption(size_t i) const { return m_pInfo->m_getOption(m_options, i); }
    void SetOption(size_t i, long long value) { m_pInfo->m_setOption(m_options, i, value); }
    // The rule and its options as text, options left out where they keep their defaults; it
    // parses back to the same rule and options.
    std::string ToString() const;

private:
    const RuleInfo* m_pInfo;
    std::any m_options;
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
    // unknown rule, a text message for an unknown option or a value of the wrong kind or
    // out of range.
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

// ---- Implementation of the templates ---------------------------------------------------------

namespace rule_options_detail {

// The member pointer of option i. A rule without options has no option to read or write.
template <class Options>
const RuleOptionMember<Options>& Member(size_t i) {
    if constexpr (std::size(Options::kOptions) == 0) {
        ZK_LOGIC_ERROR(ZKString(L"a rule without options has no option to read or write"));
    } else {
        ZK_ASSERT(i < std::size(Options::kOptions));
        return Options::kOptions[i].m_member;
    }
}

template <class Options>
long long Get(const std::any& options, size_t i) {
    const Options& values = std::any_cast<const Options&>(options);
    return std::visit([&](auto member) { return static_cast<long long>(values.*member); },
                      Member<Options>(i));
}

template <class Options>
void Set(std::any& options, size_t i, long long value) {
    Options& values = std::any_cast<Options&>(options);
    std::visit(
        [&](auto member) {
            using Value = std::remove_reference_t<decltype(values.*member)>;
            values.*member = static_cast<Value>(value);
        },
        Member<Options>(i));
}

}  // namespace rule_options_detail

template <class Options>
RuleInfo RuleInfo::Make(const char* name, const char* description,
                        std::unique_ptr<RewriteRule> (*create)(const RuleContext&, const Options&),
                        void (*apply)(RewriteRule&, RqNode&)) {
    static_assert(RuleOptionsAreWellNamed<Options>(),
                  "every option needs a name of its own, without ':', '=', ',' or blanks");
    RuleInfo info;
    info.m_name = name;
    info.m_description = description;
    info.m_defaults = Options{};
    for (size_t i = 0; i < std::size(Options::kOptions); ++i) {
        const RuleOption<Options>& option = Options::kOptions[i];
        const bool bIsBool = std::holds_alternative<bool Options::*>(option.m_member);
        info.m_options.push_back(
            {option.m_name, bIsBool ? RuleOptionInfo::kBool : RuleOptionInfo::kInt,
             rule_options_detail::Get<Options>(info.m_defaults, i), option.m_description});
    }
    info.m_getOption = &rule_options_detail::Get<Options>;
    info.m_setOption = &rule_options_detail::Set<Options>;
    info.m_create = [create](const RuleContext& context, const std::any& options) {
        return create(context, std::any_cast<const Options&>(options));
    };
    info.m_apply = apply;
    return info;
}

template <class Options>
const Options& RuleSpec::GetOptions() const {
    const Options* options = std::any_cast<Options>(&m_options);
    ZK_ASSERT(options != nullptr);
    return *options;
}
