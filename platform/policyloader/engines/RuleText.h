// RuleText: what the rules of all engines have in common in how they are written.
// Free functions; any thread.  Failure: std::invalid_argument, whose text names the place of the rule.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <policyloader/store/Rule.h>

namespace policyloader {

inline constexpr std::string_view kAllowAction = "EFABRIC:ALLOWTHRU";  // lets a thing pass that a later rule would not

[[noreturn]] void Fail(Rule const& rule, std::string const& reason);

// What every rule has.
struct RuleHead {
    std::string name;
    std::string action;  // empty: the section's

    bool allows() const { return action == kAllowAction; }
};
RuleHead ReadRuleHead(Rule const& rule);

// A decimal number; nothing: the rule does not have the attribute.
std::optional<std::uint64_t> ReadRuleNumber(Rule const& rule, char const* attribute);
// The expression behind "regex:"; nothing: what stands there is no expression.
std::optional<std::string> ReadRuleRegex(Rule const& rule, char const* attribute);

// A phrase as an expression: its letters as they are, a blank for any run of white space, so that a wrapped line
// counts.
std::string PhraseExpression(std::string_view phrase);
// A whole text as an expression: "*" for any characters, "?" for one.
std::string GlobExpression(std::string_view glob);

// Each that stands between the commas, without blanks around it.
template <class Take>
void ForEachWord(std::string_view list, Take&& take) {
    while (!list.empty()) {
        std::size_t const comma = list.find(',');
        auto word = list.substr(0, comma);
        list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
        while (!word.empty() && word.front() == ' ') word.remove_prefix(1);
        while (!word.empty() && word.back() == ' ') word.remove_suffix(1);
        if (!word.empty()) take(word);
    }
}

}  // namespace policyloader
