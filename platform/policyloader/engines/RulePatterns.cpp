#include <policyloader/engines/RulePatterns.h>

#include <algorithm>
#include <map>

#include <policyloader/engines/RuleText.h>

namespace policyloader {
namespace {

// Without blanks and points at its end.
std::string_view Effective(std::string_view name) {
    std::size_t const last = name.find_last_not_of(" .");
    return last == std::string_view::npos ? name : name.substr(0, last + 1);
}

class Finder final : private MatchHandler {
public:
    Finder(RulePatterns const& patterns, std::vector<std::size_t>& rules) : m_patterns(patterns), m_rules(rules) {}
    void run(PatternScratch const& scratch, std::string_view text) {
        PatternStream stream(*m_patterns.database(), scratch, *this);
        stream.data(text);
        stream.finish();
    }

private:
    void matched(unsigned pattern) override { m_rules.push_back(m_patterns.ruleOf(pattern)); }

    RulePatterns const& m_patterns;
    std::vector<std::size_t>& m_rules;
};

}  // namespace

std::string OneLine(std::string_view text) {
    std::string out(text);
    std::replace_if(
        out.begin(), out.end(), [](unsigned char c) { return c < ' '; }, '_');
    return out;
}

void RulePatterns::add(Rule const& rule, std::size_t id, std::string expression) {
    m_patterns.push_back({std::move(expression), Pattern::Text});
    m_sources.push_back(&rule);
    m_ruleOf.push_back(id);
}

void RulePatterns::addPattern(Rule const& rule, std::size_t id, char const* attribute) {
    auto expression = ReadRuleRegex(rule, attribute);
    add(rule, id, expression ? std::move(*expression) : GlobExpression(rule.get(attribute).value_or("")));
}

bool RulePatterns::addGlobs(Rule const& rule, std::size_t id, char const* attribute) {
    std::size_t const before = m_patterns.size();
    if (auto expression = ReadRuleRegex(rule, attribute))
        add(rule, id, std::move(*expression));
    else
        ForEachWord(rule.get(attribute).value_or(""), [&](auto glob) { add(rule, id, GlobExpression(glob)); });
    return m_patterns.size() > before;
}

void RulePatterns::compile() {
    if (m_patterns.empty()) return;
    try {
        m_database = std::make_unique<PatternDatabase>(m_patterns);
    } catch (PatternError const& problem) {
        Fail(*m_sources[problem.index()], problem.what());
    }
    m_patterns = {};
    m_sources = {};
}

void RulePatterns::find(std::string_view text, PatternScratch const& scratch, std::vector<std::size_t>& rules) const {
    if (database()) Finder(*this, rules).run(scratch, text);
}

bool FileNamePatterns::addGlobs(Rule const& rule, std::size_t id, char const* attribute) {
    if (ReadRuleHead(rule).allows()) m_exceptions.insert(id);
    return RulePatterns::addGlobs(rule, id, attribute);
}

std::set<std::size_t> FileNamePatterns::findOne(std::string const& name, PatternScratch const& scratch) const {
    std::vector<std::size_t> rules;
    std::string const whole = OneLine(Effective(name));
    RulePatterns::find(whole, scratch, rules);
    std::size_t const slash = whole.find_last_of("/\\");
    if (slash != std::string::npos) RulePatterns::find(std::string_view(whole).substr(slash + 1), scratch, rules);
    return {rules.begin(), rules.end()};
}

std::vector<std::size_t> FileNamePatterns::find(std::vector<std::string> const& names,
                                                PatternScratch const& scratch) const {
    std::vector<std::size_t> rules;
    if (!database()) return rules;
    std::map<std::size_t, std::size_t> fitting;  // names, by rule
    for (auto const& name : names)
        for (auto const id : findOne(name, scratch)) ++fitting[id];
    for (auto const& [id, count] : fitting)
        if (count == names.size() || m_exceptions.count(id) == 0) rules.push_back(id);
    return rules;
}

}  // namespace policyloader
