#include <policyloader/engines/MailRules.h>

#include <algorithm>
#include <cctype>
#include <unordered_map>

#include <policyloader/engines/FileTypes.h>
#include <policyloader/engines/HeaderText.h>
#include <policyloader/engines/TextCase.h>
#include <policyloader/engines/TextDecoder.h>

namespace policyloader {
namespace {

using Names = std::vector<std::string>;

std::string SmallLetters(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

Names ReadNames(Rule const& rule, char const* attribute) {
    Names names;
    auto const text = rule.get(attribute);
    ForEachWord(text.value_or(""), [&](std::string_view word) { names.push_back(SmallLetters(word)); });
    if (text && names.empty()) Fail(rule, std::string(attribute) + " names no header field");
    return names;
}

// How often fields of a name stand in a header.
class FieldCounts {
public:
    explicit FieldCounts(std::vector<EntityHead::Field> const& fields) {
        for (auto const& [name, value] : fields) ++m_counts[SmallLetters(name)];
    }
    // The most frequent one of those that the name stands for.
    std::size_t most(std::string const& name) const {
        if (name.back() != '*') {
            auto const at = m_counts.find(name);
            return at == m_counts.end() ? 0 : at->second;
        }
        std::size_t most = 0;
        for (auto const& [one, count] : m_counts)
            if (count > most && FitsBeginning(name, one)) most = count;
        return most;
    }
    template <class Wanted>
    bool any(Names const& names, Wanted&& wanted) const {
        return std::any_of(names.begin(), names.end(), [&](auto const& name) { return wanted(most(name)); });
    }

private:
    std::unordered_map<std::string, std::size_t> m_counts;
};

bool Exceeds(std::uint64_t number, MailRule::Number const& limit) { return !limit || number > *limit; }

bool FitsMessage(MailRule const& rule, std::size_t id, MailFacts const& facts) {
    return facts.header[id] && Exceeds(facts.fields, rule.fields) && Exceeds(facts.headerSize, rule.headerSize) &&
           Exceeds(facts.size, rule.size) && Exceeds(facts.recipients, rule.recipients);
}

// The attachments of one message, as the rules go through them.
class Attachments {
public:
    Attachments(MailFacts const& facts, FileNamePatterns const& names, PatternScratch const& scratch)
        : m_all(facts.attachments), m_excepted(m_all.size()) {
        for (auto const& one : m_all) m_namedBy.push_back(names.find(one.names, scratch));
    }

    std::vector<std::size_t> fitting(MailRule const& rule, std::size_t id) const {
        std::vector<std::size_t> list;
        for (std::size_t i = 0; i < m_all.size(); ++i)
            if (!m_excepted[i] && fits(i, rule, id)) list.push_back(i);
        return list;
    }
    void except(std::vector<std::size_t> const& list) {
        for (auto const i : list) m_excepted[i] = true;
    }

private:
    bool fits(std::size_t i, MailRule const& rule, std::size_t id) const {
        auto const& named = m_namedBy[i];
        bool const kind = (rule.types.empty() && !rule.hasNames) ||
                          std::find(named.begin(), named.end(), id) != named.end() ||
                          TypesFit(rule.types, m_all[i].types, rule.allows());
        return kind && Exceeds(m_all[i].size, rule.attachmentSize);
    }

    std::vector<Attachment> const& m_all;
    std::vector<std::vector<std::size_t>> m_namedBy;  // rules
    std::vector<bool> m_excepted;
};

}  // namespace

MailRules::MailRules(std::vector<Rule const*> const& rules) {
    reading([&] {
        for (auto const* rule : rules) add(*rule);
        m_values.compile();
        m_names.compile();
    });
}

void MailRules::add(Rule const& rule) {
    MailRule made;
    static_cast<RuleHead&>(made) = ReadRuleHead(rule);
    made.header = ReadNames(rule, "header");
    made.missing = ReadNames(rule, "missing");
    made.repeated = ReadNames(rule, "repeated");
    made.fields = ReadRuleNumber(rule, "fields");
    made.headerSize = ReadRuleNumber(rule, "header-size");
    made.size = ReadRuleNumber(rule, "size");
    made.recipients = ReadRuleNumber(rule, "recipients");
    made.types = ReadRuleTypes(rule);
    made.hasNames = m_names.addGlobs(rule, size(), "attachment");
    made.attachmentSize = ReadRuleNumber(rule, "attachment-size");
    made.attachments = ReadRuleNumber(rule, "attachments");
    made.hasValues = rule.get("match").has_value();
    if (made.hasValues && made.header.empty()) Fail(rule, "match goes with header");
    if (made.hasValues) m_values.addPattern(rule, size(), "match");
    if (!made.isOfMessage() && !made.isOfAttachments()) Fail(rule, "it says nothing about a message");
    m_needSize |= made.size.has_value();
    m_needRecipients |= made.recipients.has_value();
    m_needTypes |= !made.types.empty();
    m_needAttachments |= made.isOfAttachments();
    m_rules.push_back(std::move(made));
}

void MailRules::fit(PatternScratch& scratch) const {
    for (auto const* const database : {m_values.database(), m_names.database()})
        if (database) scratch.fit(*database);
}

// As written, and as its reader sees it.
std::vector<bool> MailRules::valuesIn(std::vector<EntityHead::Field> const& fields,
                                      PatternScratch const& scratch) const {
    std::vector<bool> fits(size());
    if (!m_values.database()) return fits;
    std::vector<std::size_t> found;
    for (auto const& [name, value] : fields) {
        auto const concerns = [&, &fieldName = name](std::size_t id) {
            auto const& names = rule(id).header;
            return rule(id).hasValues && std::any_of(names.begin(), names.end(),
                                                     [&](auto const& one) { return FitsBeginning(one, fieldName); });
        };
        bool any = false;
        for (std::size_t id = 0; id < size() && !any; ++id) any = !fits[id] && concerns(id);
        if (!any) continue;
        found.clear();
        auto const written = OneLine(ToCleanUtf8(value)), seen = OneLine(DecodedHeader(value));
        m_values.find(written, scratch, found);
        if (seen != written) m_values.find(seen, scratch, found);
        for (auto const id : found)
            if (!fits[id] && concerns(id)) fits[id] = true;
    }
    return fits;
}

std::vector<bool> MailRules::fitHeader(std::vector<EntityHead::Field> const& fields,
                                       PatternScratch const& scratch) const {
    auto fits = valuesIn(fields, scratch);
    FieldCounts const counts(fields);
    for (std::size_t id = 0; id < size(); ++id) {
        auto const& one = rule(id);
        bool const there = one.hasValues || one.header.empty() || counts.any(one.header, [](auto n) { return n > 0; });
        bool const missing = one.missing.empty() || counts.any(one.missing, [](auto n) { return n == 0; });
        bool const repeated = one.repeated.empty() || counts.any(one.repeated, [](auto n) { return n > 1; });
        fits[id] = (fits[id] || !one.hasValues) && there && missing && repeated;
    }
    return fits;
}

std::vector<MailFinding> MailRules::judge(MailFacts const& facts, PatternScratch const& scratch) const {
    std::vector<MailFinding> findings;
    Attachments attachments(facts, m_names, scratch);
    for (std::size_t id = 0; id < size(); ++id) {
        auto const& one = rule(id);
        if (!FitsMessage(one, id, facts)) continue;
        std::vector<std::size_t> about;
        if (one.isOfAttachments()) {
            about = attachments.fitting(one, id);
            if (about.size() <= one.attachments.value_or(0)) continue;
        }
        if (!one.allows())
            findings.push_back({id, std::move(about)});
        else if (about.empty())
            break;
        else
            attachments.except(about);
    }
    return findings;
}

}  // namespace policyloader
