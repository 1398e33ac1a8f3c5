#pragma once
// The options of a rule, declared once, typed, beside the rule: a struct whose members are the
// option values, with their defaults as initial values, and a constexpr list that names each
// member for the rule specs of tools and tests (`Rule:name=value`) and says what it does.
//
//     struct MyRuleOptions {
//         bool m_bKeepKeys = false;
//         int m_maxChildren = 0;
//         static constexpr RuleOption<MyRuleOptions> kOptions[] = {
//             {"keepKeys", &MyRuleOptions::m_bKeepKeys, "keeps the key columns"},
//             {"maxChildren", &MyRuleOptions::m_maxChildren, "at most this many; 0: no limit"},
//         };
//     };
//
// The rule table (SQOSURuleRegistry.cpp) registers the rule with this struct, and its factory
// receives the struct filled in, so that the constructor call names the members and a
// misspelt option cannot compile. Parsing, printing and listing read the same list.

#include <array>
#include <cstddef>
#include <string_view>
#include <variant>

// The member of an options struct that holds one option: a bool or an int.
template <class Options>
using RuleOptionMember = std::variant<bool Options::*, int Options::*>;

template <class Options>
struct RuleOption {
    const char* m_name;
    RuleOptionMember<Options> m_member;
    const char* m_description;
};

// For a rule without options.
struct NoRuleOptions {
    static constexpr std::array<RuleOption<NoRuleOptions>, 0> kOptions{};
};

// True when every option of Options has a name of its own that a rule spec can spell: not
// empty, and without the separators of specs (':', '=', ',') or blanks.
template <class Options>
constexpr bool RuleOptionsAreWellNamed() {
    constexpr std::string_view kSeparators = ":=, \t";
    for (std::size_t i = 0; i < std::size(Options::kOptions); ++i) {
        const std::string_view name = Options::kOptions[i].m_name;
        if (name.empty() || name.find_first_of(kSeparators) != std::string_view::npos)
            return false;
        for (std::size_t j = 0; j < i; ++j) {
            if (name == Options::kOptions[j].m_name)
                return false;
        }
    }
    return true;
}
