#include <policyloader/engines/FormatRules.h>

#include <policyloader/engines/FileTypes.h>

namespace policyloader {

FormatRules::FormatRules(std::vector<Rule const*> const& rules) {
    reading([&] {
        for (auto const* rule : rules) add(*rule);
        m_names.compile();
    });
}

void FormatRules::add(Rule const& rule) {
    FormatRule made{ReadRuleHead(rule), ReadRuleTypes(rule), false, ReadRuleNumber(rule, "size").value_or(0)};
    made.hasNames = m_names.addGlobs(rule, size(), "match");
    if (made.types.empty() && !made.hasNames && made.above == 0) Fail(rule, "type, match and size are missing");
    m_needTypes |= !made.types.empty();
    m_rules.push_back(std::move(made));
}

std::size_t FormatRules::firstFor(FileFacts const& file, PatternScratch const& scratch) const {
    std::vector<bool> named(size());
    for (auto const id : m_names.find(file.names, scratch)) named[id] = true;
    for (std::size_t id = 0; id < size(); ++id) {
        auto const& one = rule(id);
        bool const sizeAlone = one.types.empty() && !one.hasNames;
        bool const fits = sizeAlone || named[id] || TypesFit(one.types, file.types, one.allows());
        if (fits && (one.above == 0 || file.size > one.above)) return id;
    }
    return size();
}

}  // namespace policyloader
