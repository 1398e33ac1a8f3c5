#include "Query/Optimizer/SmartScheduler/Utility/SQOSURuleRegistry.h"

#include <limits>

#include "Platform/ErrorMessage.h"
#include "Platform/SystemUtility.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAddPKToLeaf.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUAssignTargets.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSUDeleteOrphanCols.h"
#include "Query/Optimizer/SmartScheduler/Utility/SQOSURemoveRedundantOrderBy.h"

namespace {

// The rules, alphabetically. A rule's options are its constructor arguments after the
// gateway, declared in its options struct.
const std::vector<RuleInfo>& RuleTable() {
    static const std::vector<RuleInfo> table = {
        RuleInfo::Make<NoRuleOptions>(
            "AddPKToLeaf",
            "Makes every block sent to an object-framework source project the primary-key "
            "columns of the tables whose rows its joins multiply (of every table when it "
            "computes a column or filters on last-update columns), and moves its computed "
            "columns into an outer block that the server evaluates.",
            [](const RuleContext& context, const NoRuleOptions&) -> std::unique_ptr<RewriteRule> {
                return std::make_unique<AddPKToLeaf>(context.m_pRp);
            }),
        RuleInfo::Make<NoRuleOptions>(
            "AssignTargets",
            "Not a rewrite: the server's target assignment between two rules. A node whose "
            "target type is unknown gets the type of the source it is still bound to, or the "
            "server's own engine when it is bound to none.",
            [](const RuleContext& context, const NoRuleOptions&) -> std::unique_ptr<RewriteRule> {
                return std::make_unique<AssignTargets>(context.m_pRp);
            }),
        RuleInfo::Make<NoRuleOptions>(
            "DeleteOrphanCols",
            "Deletes from nested blocks the projected columns that no enclosing block, join, "
            "sort or break reads, and renumbers the join columns that point past them.",
            [](const RuleContext& context, const NoRuleOptions&) -> std::unique_ptr<RewriteRule> {
                return std::make_unique<DeleteOrphanCols>(context.m_pRp);
            }),
        RuleInfo::Make<NoRuleOptions>(
            "RemoveRedundantOrderBy",
            "Deletes every ORDER BY but the outermost one (and that one too when a join of two "
            "tables comes first) and marks every node's target unknown.",
            [](const RuleContext& context, const NoRuleOptions&) -> std::unique_ptr<RewriteRule> {
                return std::make_unique<RemoveRedundantOrderBy>(context.m_pRp);
            }),
    };
    return table;
}

const std::vector<PipelineInfo>& PipelineTable() {
    static const std::vector<PipelineInfo> table = {
        // The order in which the optimizer typically applies the rules to a request that reads
        // database tables, groups and sorts: orderings first, then key columns, orphan
        // columns, unsupported filters and finally the local aggregation and sorts. Rules
        // take their place here as they are written. AssignTargets stands in for the server's
        // target assignment after the rule that hands every node back to it.
        {"default",
         "The typical run of the optimizer over a request.",
         {"RemoveRedundantOrderBy", "AssignTargets", "AddPKToLeaf", "DeleteOrphanCols"}},
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

// The position of the option in the rule's list; the list's size when there is none.
size_t FindOption(const RuleInfo& info, std::string_view name) {
    size_t i = 0;
    while (i < info.m_options.size() && name != info.m_options[i].m_name)
        ++i;
    return i;
}

void ParseOption(RuleSpec& spec, std::string_view text) {
    const RuleInfo& info = spec.GetInfo();
    const size_t equals = text.find('=');
    const std::string_view name = Trim(text.substr(0, equals));
    const size_t index = FindOption(info, name);
    if (index == info.m_options.size()) {
        if (info.m_options.empty())
            Fail(std::string(info.m_name) + " takes no options (found '" + std::string(name) +
                 "')");
        Fail(std::string(info.m_name) + " has no option '" + std::string(name) +
             "'; its options: " + OptionNames(info));
    }
    const RuleOptionInfo& option = info.m_options[index];
    const std::string what = std::string(info.m_name) + ":" + option.m_name;
    if (equals == std::string_view::npos) {
        // A boolean option named alone is switched on, as on a command line.
        if (option.m_kind != RuleOptionInfo::kBool)
            Fail(what + " needs a value");
        spec.SetOption(index, 1);
        return;
    }
    const ZKString value = ZKString::FromUtf8(Trim(text.substr(equals + 1)));
    if (option.m_kind == RuleOptionInfo::kBool) {
        bool flag = false;
        if (!BaseStringUtil::BooleanFrom(value, flag))
            Fail(what + " takes true or false, not '" + value.ToUtf8() + "'");
        spec.SetOption(index, flag ? 1 : 0);
    } else {
        long long number = 0;
        if (!BaseStringUtil::IntFrom(value, number) || number < std::numeric_limits<int>::min() ||
            number > std::numeric_limits<int>::max())
            Fail(what + " takes an integer from " +
                 std::to_string(std::numeric_limits<int>::min()) + " to " +
                 std::to_string(std::numeric_limits<int>::max()) + ", not '" + value.ToUtf8() +
                 "'");
        spec.SetOption(index, number);
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

std::string RuleSpec::ToString() const {
    std::string text = m_pInfo->m_name;
    for (size_t i = 0; i < m_pInfo->m_options.size(); ++i) {
        const RuleOptionInfo& option = m_pInfo->m_options[i];
        const long long value = GetOption(i);
        if (value == option.m_default)
            continue;
        text += ":";
        text += option.m_name;
        text += "=";
        if (option.m_kind == RuleOptionInfo::kBool)
            text += value != 0 ? "true" : "false";
        else
            text += std::to_string(value);
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
    return spec.GetInfo().m_create(context, spec.GetOptionValues());
}

void RuleRegistry::Apply(const RuleSpec& spec, const RuleContext& context, RqNode& root) {
    std::unique_ptr<RewriteRule> rule = Create(spec, context);
    if (spec.GetInfo().m_apply != nullptr)
        spec.GetInfo().m_apply(*rule, root);
    else
        rule->ApplyRule(root);
}
