// MailRules: what a policy says about headers, size, recipients and attachments of mail, compiled; and how it judges.
// Of the rules that fit a message all count, up to an exception that fits the message itself.
// Owner: shared, immutable; any thread.  Units: bytes.  Failure: an error(), as every RuleSet.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <policyloader/engines/MailFacts.h>
#include <policyloader/engines/RulePatterns.h>
#include <policyloader/engines/RuleSet.h>
#include <policyloader/engines/RuleText.h>
#include <policyloader/engines/RulesCache.h>

namespace policyloader {

// All that a rule says has to hold at once. Numbers are those that have to be exceeded.
struct MailRule : RuleHead {
    using Number = std::optional<std::uint64_t>;

    // Names of fields, or their beginnings with a "*"; one of them has to be as it is said.
    std::vector<std::string> header;
    std::vector<std::string> missing;
    std::vector<std::string> repeated;
    bool hasValues = false;  // one of `header` has a value that fits
    Number fields;
    Number headerSize;
    Number size;
    Number recipients;

    // Of one and the same attachment; and how many such ones.
    std::vector<std::string> types;
    bool hasNames = false;
    Number attachmentSize;
    Number attachments;

    bool isOfHeader() const { return !header.empty() || !missing.empty() || !repeated.empty(); }
    bool isOfAttachments() const { return !types.empty() || hasNames || attachmentSize || attachments; }
    bool isOfMessage() const { return isOfHeader() || fields || headerSize || size || recipients; }
};

struct MailFinding {
    std::size_t rule;
    std::vector<std::size_t> attachments;  // those that it is about
};

class MailRules : public RuleSet<MailRule> {
public:
    explicit MailRules(std::vector<Rule const*> const& rules);

    bool needSize() const { return m_needSize; }
    bool needRecipients() const { return m_needRecipients; }
    bool needTypes() const { return m_needTypes; }
    bool needAttachments() const { return m_needAttachments; }
    void fit(PatternScratch& scratch) const;  // before the calls below

    // Whether what a rule says of the header holds, by rule.
    std::vector<bool> fitHeader(std::vector<EntityHead::Field> const& fields, PatternScratch const& scratch) const;
    // In the order of the rules, without those that are exceptions.
    std::vector<MailFinding> judge(MailFacts const& facts, PatternScratch const& scratch) const;

private:
    void add(Rule const& rule);
    std::vector<bool> valuesIn(std::vector<EntityHead::Field> const& fields, PatternScratch const& scratch) const;

    RulePatterns m_values;
    FileNamePatterns m_names;
    bool m_needSize = false;
    bool m_needRecipients = false;
    bool m_needTypes = false;
    bool m_needAttachments = false;
};

class MailCache final : public RulesCache<MailRules> {};

}  // namespace policyloader
