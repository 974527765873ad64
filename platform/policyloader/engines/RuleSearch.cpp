#include <policyloader/engines/RuleSearch.h>

#include <algorithm>
#include <memory>

#include <strings.h>

#include <policyloader/engines/HeaderText.h>
#include <policyloader/engines/HtmlText.h>
#include <policyloader/engines/TextDecoder.h>

namespace policyloader {

// One text against the rules of one context.
class RuleSearch::Search final : private MatchHandler {
public:
    Search(RuleSearch& owner, Where where, Component& component)
        : m_owner(owner),
          m_where(where),
          m_component(component),
          m_stream(*owner.m_rules->patterns(where), owner.m_scratch, *this) {}
    void data(std::string_view text) { m_stream.data(text); }
    void finish() { m_stream.finish(); }

private:
    void matched(unsigned pattern) override {
        bool const inHead = m_where == Where::Subject || m_where == Where::Header;
        m_owner.matched(m_owner.m_rules->ruleOf(m_where, pattern), inHead, m_component);
    }

    RuleSearch& m_owner;
    Where m_where;
    Component& m_component;
    PatternStream m_stream;
};

// A text as it stands, and where it is HTML also the way that its reader sees it.
class RuleSearch::BodyScan final : public ComponentScan {
public:
    BodyScan(RuleSearch& owner, EntityHead const& head, Component& component)
        : m_decoder(head.charset), m_search(owner, Where::Body, component) {
        if (head.subtype == "html") m_seen = std::make_unique<Search>(owner, Where::Body, component);
    }
    void data(std::string_view piece) override { search(m_decoder.decode(piece)); }
    void end() override {
        search(m_decoder.finish());
        m_search.finish();
        if (!m_seen) return;
        m_seen->data(m_html.finish());
        m_seen->finish();
    }

private:
    void search(std::string_view text) {
        m_search.data(text);
        if (m_seen) m_seen->data(m_html.decode(text));
    }

    TextDecoder m_decoder;
    Search m_search;
    HtmlText m_html;
    std::unique_ptr<Search> m_seen;  // null: no HTML
};

void RuleSearch::begin(std::shared_ptr<ContentRules const> const& rules) {
    if (m_rules != rules) {
        for (std::size_t where = 0; where < kWheres; ++where)
            if (auto const* const patterns = rules->patterns(static_cast<Where>(where))) m_scratch.fit(*patterns);
        m_rules = rules;
    }
    m_matches.assign(m_rules->size(), {});
}

void RuleSearch::matched(std::size_t rule, bool inHead, Component& component) {
    auto& match = m_matches[rule];
    if (!match.component) match.component = &component;
    match.inHead |= inHead;
}

void RuleSearch::searchText(Where where, std::string_view text, Component& component) {
    if (!m_rules->patterns(where) || text.empty()) return;
    Search search(*this, where, component);
    search.data(text);
    search.finish();
}

void RuleSearch::searchHeader(EntityHead const& head, Component& component) {
    std::string whole;
    for (auto const& [name, value] : head.fields) {
        auto const decoded = DecodedHeader(value);
        if (strcasecmp(name.c_str(), "Subject") == 0) searchText(Where::Subject, decoded, component);
        if (m_rules->patterns(Where::Header)) whole.append(ToCleanUtf8(name)).append(": ").append(decoded).append("\n");
    }
    searchText(Where::Header, whole, component);
}

// Of the outermost message: those inside it may well be bare.
void RuleSearch::lookForMissing(EntityHead const& head, Component& component) {
    for (auto const& [wanted, rule] : m_rules->missing()) {
        auto const isIt = [name = wanted.c_str()](auto const& field) {
            return strcasecmp(field.first.c_str(), name) == 0;
        };
        bool const there = std::any_of(head.fields.begin(), head.fields.end(), isIt);
        if (!there) matched(rule, true, component);
    }
}

void RuleSearch::head(EntityHead const& head, Component& component) {
    if (head.ofMessage && component.depth() == 1) lookForMissing(head, component);
    if (head.ofMessage && (m_rules->patterns(Where::Header) || m_rules->patterns(Where::Subject)))
        searchHeader(head, component);
    for (auto const& name : head.names) searchText(Where::Attachment, ToCleanUtf8(name), component);
}

std::unique_ptr<ComponentScan> RuleSearch::open(EntityHead const& head, Component& component) {
    if (!head.isText() || !m_rules->patterns(Where::Body)) return nullptr;
    return std::make_unique<BodyScan>(*this, head, component);
}

}  // namespace policyloader
