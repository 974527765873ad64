#include <policyloader/engines/ContentEngine.h>

#include <memory>

#include <glib.h>
#include <gmime/gmime-utils.h>
#include <strings.h>

#include <policyloader/engines/CharsetNames.h>
#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/HtmlText.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/TextDecoder.h>

namespace policyloader {
namespace {

std::string DecodeHeader(std::string const& value) {
    std::unique_ptr<char, void (*)(void*)> const text(
        g_mime_utils_header_decode_text(nullptr, WithKnownCharsets(value).c_str()), &g_free);
    return text ? ToCleanUtf8(text.get()) : std::string();
}

}  // namespace

// One text against the rules of one context.
class ContentEngine::Search final : private MatchHandler {
public:
    Search(ContentEngine& engine, Where where, Component& component)
        : m_engine(engine),
          m_where(where),
          m_component(component),
          m_stream(*engine.m_rules->patterns(where), engine.m_scratch, *this) {}
    void data(std::string_view text) { m_stream.data(text); }
    void finish() { m_stream.finish(); }

private:
    void matched(unsigned pattern) override {
        m_engine.matched(m_engine.m_rules->ruleOf(m_where, pattern), m_where, m_component);
    }

    ContentEngine& m_engine;
    Where m_where;
    Component& m_component;
    PatternStream m_stream;
};

// A text as it stands, and where it is HTML also the way that its reader sees it.
class ContentEngine::BodyScan final : public ComponentScan {
public:
    BodyScan(ContentEngine& engine, EntityHead const& head, Component& component)
        : m_decoder(head.charset), m_search(engine, Where::Body, component) {
        if (head.subtype == "html") m_seen = std::make_unique<Search>(engine, Where::Body, component);
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

bool ContentEngine::begin(ScanPlan const& plan) {
    m_plan = &plan;
    if (!plan.content) return false;
    if (!plan.rules->error().empty()) throw EngineFailure(FailureId::Rules, plan.rules->error());
    if (m_rules != plan.rules) {
        for (std::size_t where = 0; where < kWheres; ++where)
            if (auto const* const patterns = plan.rules->patterns(static_cast<Where>(where))) m_scratch.fit(*patterns);
        m_rules = plan.rules;
    }
    m_matches.assign(m_rules->size(), {});
    return true;
}

void ContentEngine::matched(std::size_t rule, Where where, Component& component) {
    auto& match = m_matches[rule];
    if (!match.component) match.component = &component;
    match.inHead |= where == Where::Subject || where == Where::Header;
}

void ContentEngine::searchText(Where where, std::string_view text, Component& component) {
    if (!m_rules->patterns(where) || text.empty()) return;
    Search search(*this, where, component);
    search.data(text);
    search.finish();
}

void ContentEngine::searchHeader(EntityHead const& head, Component& component) {
    std::string whole;
    for (auto const& [name, value] : head.fields) {
        auto const decoded = DecodeHeader(value);
        if (strcasecmp(name.c_str(), "Subject") == 0) searchText(Where::Subject, decoded, component);
        if (m_rules->patterns(Where::Header)) whole.append(ToCleanUtf8(name)).append(": ").append(decoded).append("\n");
    }
    searchText(Where::Header, whole, component);
}

void ContentEngine::head(EntityHead const& head, Component& component) {
    if (head.ofMessage && (m_rules->patterns(Where::Header) || m_rules->patterns(Where::Subject)))
        searchHeader(head, component);
    if (!head.fileName.empty()) searchText(Where::Attachment, ToCleanUtf8(head.fileName), component);
}

std::unique_ptr<ComponentScan> ContentEngine::open(EntityHead const& head, Component& component) {
    if (!head.isText() || !m_rules->patterns(Where::Body)) return nullptr;
    return std::make_unique<BodyScan>(*this, head, component);
}

std::string const& ContentEngine::actionOf(std::size_t rule) const {
    auto const& action = m_rules->rule(rule).action;
    return action.empty() ? m_plan->contentAction : action;
}

void ContentEngine::report(ResultSet& results) {
    double sum = 0;
    bool any = false;
    for (std::size_t rule = 0; rule < m_matches.size(); ++rule) {
        if (!m_matches[rule].component) continue;
        any = true;
        sum += m_rules->rule(rule).weight;
    }
    if (!any || sum < m_plan->threshold) return;

    auto& result = results.add(name(), type());
    std::string action, description;
    for (std::size_t rule = 0; rule < m_matches.size(); ++rule) {
        if (!m_matches[rule].component) continue;
        result.addComponent(*m_matches[rule].component);
        result.addName(m_rules->rule(rule).name);
        if (m_matches[rule].inHead) result.forbidReplacing();
        if (action.empty() || m_plan->isStronger(actionOf(rule), action)) action = actionOf(rule);
    }
    for (auto const& found : result.names()) description.append(description.empty() ? "" : ", ").append(found);
    result.setDescription(description);
    result.setAction(action);
}

}  // namespace policyloader
