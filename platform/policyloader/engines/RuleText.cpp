#include <policyloader/engines/RuleText.h>

#include <cctype>
#include <charconv>
#include <cstring>

namespace policyloader {
namespace {

constexpr std::string_view kRegexMark = "regex:";
constexpr char kSpecial[] = "\\^$.|?*+()[]{}#";

void AppendLetter(std::string& expression, char c) {
    if (std::strchr(kSpecial, c)) expression.push_back('\\');
    expression.push_back(c);
}

}  // namespace

void Fail(Rule const& rule, std::string const& reason) {
    auto const& place = rule.place();
    throw std::invalid_argument(std::string(place.file) + ":" + std::to_string(place.line) + ":" +
                                std::to_string(place.column) + ": rule \"" +
                                std::string(rule.get("name").value_or("")) + "\": " + reason);
}

RuleHead ReadRuleHead(Rule const& rule) {
    RuleHead head{std::string(rule.get("name").value_or("")), std::string(rule.get("action").value_or(""))};
    if (head.name.empty()) Fail(rule, "name is missing");
    return head;
}

std::optional<std::uint64_t> ReadRuleNumber(Rule const& rule, char const* attribute) {
    auto const text = rule.get(attribute);
    if (!text) return std::nullopt;
    std::uint64_t number = 0;
    auto const [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (error != std::errc() || end != text->data() + text->size())
        Fail(rule, std::string(attribute) + " is not a number");
    return number;
}

std::optional<std::string> ReadRuleRegex(Rule const& rule, char const* attribute) {
    auto const text = rule.get(attribute).value_or("");
    if (text.substr(0, kRegexMark.size()) != kRegexMark) return std::nullopt;
    if (text.size() == kRegexMark.size()) Fail(rule, std::string(attribute) + " has an empty expression");
    return std::string(text.substr(kRegexMark.size()));
}

std::string PhraseExpression(std::string_view phrase) {
    std::string out;
    bool blank = false;
    for (char const c : phrase) {
        bool const isBlank = std::isspace(static_cast<unsigned char>(c));
        if (isBlank && !blank) out += "\\s+";
        blank = isBlank;
        if (!isBlank) AppendLetter(out, c);
    }
    return out;
}

std::string GlobExpression(std::string_view glob) {
    std::string out = "^";
    for (char const c : glob) {
        if (c == '*')
            out += ".*";
        else if (c == '?')
            out += '.';
        else
            AppendLetter(out, c);
    }
    return out + '$';
}

}  // namespace policyloader
