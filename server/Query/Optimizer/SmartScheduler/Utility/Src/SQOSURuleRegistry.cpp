#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

#include "Platform/ErrorMessage.h"
#include "Platform/SystemUtility.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

namespace {

// The rules, alphabetically. A rule's options are its constructor arguments after the
// gateway, named as the rule's members name them.
const std::vector<RuleInfo>& RuleTable() {
    static const std::vector<RuleInfo> table = {
        {"RemoveRedundantOrderBy",
         "Deletes every ORDER BY but the outermost one (and that one too when a join of two "
         "tables comes first) and marks every node's target unknown.",
         {},
         [](const RuleContext& context, const RuleOptionValues&) -> std::unique_ptr<RewriteRule> {
             return std::make_unique<RemoveRedundantOrderBy>(context.m_pRp);
         }},
    };
    return table;
}

const std::vector<PipelineInfo>& PipelineTable() {
    static const std::vector<PipelineInfo> table = {
        // The order in which the optimizer typically applies the rules to a request that reads
        // database tables, groups and sorts: orderings first, then key columns, orphan
        // columns, unsupported filters and finally the local aggregation and sorts. Rules
        // take their place here as they are written.
        {"default", "The typical run of the optimizer over a request.", {"RemoveRedundantOrderBy"}},
        {"none", "No rule: reads and prints the request.", {}},
    };
    return table;
}

std::string_view Trim(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

[[noreturn]] void Fail(const std::string& message) {
    ZK_THROW(ErrorMessage(ZKString::FromUtf8(message)));
}

std::string OptionNames(const RuleInfo& info) {
    std::string names;
    for (const RuleOptionInfo& option : info.m_options) {
        if (!names.empty())
            names += ", ";
        names += option.m_name;
    }
    return names;
}

const RuleOptionInfo* FindOption(const RuleInfo& info, std::string_view name) {
    for (const RuleOptionInfo& option : info.m_options) {
        if (name == option.m_name)
            return &option;
    }
    return nullptr;
}

void ParseOption(RuleSpec& spec, std::string_view text) {
    const RuleInfo& info = spec.GetInfo();
    const size_t equals = text.find('=');
    const std::string_view name = Trim(text.substr(0, equals));
    const RuleOptionInfo* option = FindOption(info, name);
    if (option == nullptr) {
        if (info.m_options.empty())
            Fail(std::string(info.m_name) + " takes no options (found '" + std::string(name) +
                 "')");
        Fail(std::string(info.m_name) + " has no option '" + std::string(name) +
             "'; its options: " + OptionNames(info));
    }
    if (equals == std::string_view::npos) {
        // A boolean option named alone is switched on, as on a command line.
        if (option->m_kind != RuleOptionInfo::kBool)
            Fail(std::string(info.m_name) + ":" + option->m_name + " needs a value");
        spec.GetOptions().Set(option->m_name, 1);
        return;
    }
    const ZKString value = ZKString::FromUtf8(Trim(text.substr(equals + 1)));
    if (option->m_kind == RuleOptionInfo::kBool) {
        bool flag = false;
        if (!BaseStringUtil::BooleanFrom(value, flag))
            Fail(std::string(info.m_name) + ":" + option->m_name + " takes true or false, not '" +
                 value.ToUtf8() + "'");
        spec.GetOptions().Set(option->m_name, flag ? 1 : 0);
    } else {
        long long number = 0;
        if (!BaseStringUtil::IntFrom(value, number))
            Fail(std::string(info.m_name) + ":" + option->m_name + " takes an integer, not '" +
                 value.ToUtf8() + "'");
        spec.GetOptions().Set(option->m_name, number);
    }
}

const RuleInfo* FindIn(const std::vector<RuleInfo>& table, std::string_view name) {
    for (const RuleInfo& info : table) {
        if (name == info.m_name)
            return &info;
    }
    return nullptr;
}

}  // namespace

RuleOptionValues::RuleOptionValues(const RuleInfo& info) : m_pInfo(&info) {
    for (const RuleOptionInfo& option : info.m_options)
        m_values.push_back(option.m_default);
}

size_t RuleOptionValues::IndexOf(std::string_view name) const {
    for (size_t i = 0; i < m_pInfo->m_options.size(); ++i) {
        if (name == m_pInfo->m_options[i].m_name)
            return i;
    }
    ZK_LOGIC_ERROR(
        ZKString::FromUtf8(std::string(m_pInfo->m_name) + " has no option " + std::string(name)));
}

bool RuleOptionValues::GetBool(std::string_view name) const {
    const size_t i = IndexOf(name);
    ZK_ASSERT(m_pInfo->m_options[i].m_kind == RuleOptionInfo::kBool);
    return m_values[i] != 0;
}

long long RuleOptionValues::GetInt(std::string_view name) const {
    const size_t i = IndexOf(name);
    ZK_ASSERT(m_pInfo->m_options[i].m_kind == RuleOptionInfo::kInt);
    return m_values[i];
}

void RuleOptionValues::Set(std::string_view name, long long value) {
    m_values[IndexOf(name)] = value;
}

bool RuleOptionValues::IsDefault(std::string_view name) const {
    const size_t i = IndexOf(name);
    return m_values[i] == m_pInfo->m_options[i].m_default;
}

std::string RuleSpec::ToString() const {
    std::string text = m_pInfo->m_name;
    for (const RuleOptionInfo& option : m_pInfo->m_options) {
        if (m_options.IsDefault(option.m_name))
            continue;
        text += ":";
        text += option.m_name;
        text += "=";
        if (option.m_kind == RuleOptionInfo::kBool)
            text += m_options.GetBool(option.m_name) ? "true" : "false";
        else
            text += std::to_string(m_options.GetInt(option.m_name));
    }
    return text;
}

const std::vector<RuleInfo>& RuleRegistry::Rules() {
    return RuleTable();
}

const RuleInfo* RuleRegistry::FindRule(std::string_view name) {
    return FindIn(RuleTable(), name);
}

const std::vector<PipelineInfo>& RuleRegistry::Pipelines() {
    return PipelineTable();
}

const PipelineInfo* RuleRegistry::FindPipeline(std::string_view name) {
    for (const PipelineInfo& pipeline : PipelineTable()) {
        if (name == pipeline.m_name)
            return &pipeline;
    }
    return nullptr;
}

RuleSpec RuleRegistry::ParseRuleSpec(std::string_view text) {
    return ParseRuleSpec(text, RuleTable());
}

std::vector<RuleSpec> RuleRegistry::ParseRuleList(std::string_view text) {
    return ParseRuleList(text, RuleTable());
}

RuleSpec RuleRegistry::ParseRuleSpec(std::string_view text, const std::vector<RuleInfo>& table) {
    const size_t colon = text.find(':');
    const std::string_view name = Trim(text.substr(0, colon));
    if (name.empty())
        Fail("a rule name is missing");
    const RuleInfo* info = FindIn(table, name);
    if (info == nullptr)
        ZK_THROW(ErrorMessage(kErr_UnknownRewriteRule, name));
    RuleSpec spec(*info);
    if (colon == std::string_view::npos)
        return spec;
    std::string_view rest = text.substr(colon + 1);
    while (true) {
        const size_t next = rest.find(':');
        ParseOption(spec, rest.substr(0, next));
        if (next == std::string_view::npos)
            break;
        rest = rest.substr(next + 1);
    }
    return spec;
}

std::vector<RuleSpec> RuleRegistry::ParseRuleList(std::string_view text,
                                                  const std::vector<RuleInfo>& table) {
    std::vector<RuleSpec> specs;
    if (Trim(text).empty())
        return specs;
    while (true) {
        const size_t comma = text.find(',');
        specs.push_back(ParseRuleSpec(text.substr(0, comma), table));
        if (comma == std::string_view::npos)
            break;
        text = text.substr(comma + 1);
    }
    return specs;
}

std::vector<RuleSpec> RuleRegistry::PipelineRules(const PipelineInfo& pipeline) {
    std::vector<RuleSpec> specs;
    for (const char* text : pipeline.m_rules)
        specs.push_back(ParseRuleSpec(text));
    return specs;
}

std::unique_ptr<RewriteRule> RuleRegistry::Create(const RuleSpec& spec,
                                                  const RuleContext& context) {
    return spec.GetInfo().m_create(context, spec.GetOptions());
}

void RuleRegistry::Apply(const RuleSpec& spec, const RuleContext& context, RqNode& root) {
    std::unique_ptr<RewriteRule> rule = Create(spec, context);
    if (spec.GetInfo().m_apply != nullptr)
        spec.GetInfo().m_apply(*rule, root);
    else
        rule->ApplyRule(root);
}
