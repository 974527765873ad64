#include <policyloader/engines/ContentRules.h>

#include <cstdlib>

namespace policyloader {
namespace {

struct WhereName {
    std::string_view name;
    Where where;
};
constexpr WhereName kWhereNames[] = {
    {"subject", Where::Subject},
    {"header", Where::Header},
    {"body", Where::Body},
    {"attachment", Where::Attachment},
};

double ReadWeight(Rule const& rule) {
    auto const text = rule.get("weight");
    if (!text) return 1;
    std::string const copy(*text);
    char* end = nullptr;
    double const value = std::strtod(copy.c_str(), &end);
    if (copy.empty() || *end != '\0' || !(value >= -1e9 && value <= 1e9)) Fail(rule, "weight is not a number");
    return value;
}

// "body", or several with commas between; nothing or "any": all.
std::vector<Where> ReadWheres(Rule const& rule) {
    std::vector<Where> wheres;
    std::string_view rest = rule.get("where").value_or("any");
    while (!rest.empty()) {
        std::size_t const comma = rest.find(',');
        std::string_view const word = rest.substr(0, comma);
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
        std::size_t const before = wheres.size();
        for (auto const& row : kWhereNames)
            if (word == row.name || word == "any") wheres.push_back(row.where);
        if (wheres.size() == before) Fail(rule, "where is none of subject, header, body, attachment, any");
    }
    if (wheres.empty()) Fail(rule, "where is empty");
    return wheres;
}

std::string ReadExpression(Rule const& rule) {
    if (auto expression = ReadRuleRegex(rule, "match")) return *expression;
    auto const phrase = rule.get("match").value_or("");
    if (phrase.empty()) Fail(rule, "match is missing");
    return PhraseExpression(phrase);
}

}  // namespace

ContentRules::ContentRules(std::vector<Rule const*> const& rules) {
    reading([&] {
        for (auto const* rule : rules) add(*rule);
        for (auto& context : m_contexts) context.compile();
    });
}

void ContentRules::add(Rule const& rule) {
    ContentRule made{ReadRuleHead(rule), ReadWeight(rule)};
    if (auto const missing = rule.get("missing")) {
        if (rule.get("match") || missing->empty()) Fail(rule, "missing names one header field, and goes without match");
        m_missing.emplace_back(*missing, m_rules.size());
        m_rules.push_back(std::move(made));
        return;
    }
    addPatterns(rule);
    m_rules.push_back(std::move(made));
}

void ContentRules::addPatterns(Rule const& rule) {
    auto const expression = ReadExpression(rule);
    for (auto const where : ReadWheres(rule)) m_contexts[static_cast<std::size_t>(where)].add(rule, size(), expression);
}

}  // namespace policyloader
