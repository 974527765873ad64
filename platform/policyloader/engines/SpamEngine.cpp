#include <policyloader/engines/SpamEngine.h>

#include <cstdio>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/RspamdClient.h>
#include <policyloader/engines/SpamdClient.h>

namespace policyloader {

namespace {

SpamJudgement Ask(SpamSettings const& spam, ServerAddress const& server, SpamQuestion const& question,
                  Patience& patience) {
    return spam.source == SpamSettings::Rspamd ? AskRspamd(server, question, patience)
                                               : AskSpamd(server, question, patience);
}

// Until one server judges. The failure is that of the last one asked.
SpamJudgement AskInTurn(ServerRota& rota, SpamSettings const& spam, SpamQuestion const& question) {
    Patience patience(spam.seconds);
    EngineFailure last(FailureId::ServerAway, "no spam scan server");
    for (auto const* const server : rota.order(spam.servers)) {
        try {
            return Ask(spam, *server, question, patience);
        } catch (EngineFailure const& failure) {
            rota.failed(server->text);
            last = EngineFailure(failure.id(), server->text + ": " + failure.what());
            if (failure.id() == FailureId::ServerSlow) break;
        }
    }
    throw last;
}

}  // namespace

class SpamEngine::Collector final : public ComponentScan {
public:
    explicit Collector(SpamEngine& engine) : m_engine(engine) {}
    void data(std::string_view piece) override {
        m_engine.m_tooLarge =
            m_engine.m_tooLarge || m_engine.m_message.size() + piece.size() > m_engine.m_plan->spam.maxBytes;
        if (!m_engine.m_tooLarge) m_engine.m_message.append(piece);
    }
    void end() override {}

private:
    SpamEngine& m_engine;
};

bool SpamEngine::begin(ScanPlan const& plan) {
    m_plan = &plan;
    m_message.clear();
    m_tooLarge = false;
    m_collects = plan.spam.source != SpamSettings::Rules;
    if (!plan.spam.isOn) return false;
    if (!plan.spam.error.empty()) throw EngineFailure(FailureId::Rules, plan.spam.error);
    if (!plan.spam.rules->error().empty()) throw EngineFailure(FailureId::Rules, plan.spam.rules->error());
    m_search.begin(plan.spam.rules);
    return true;
}

// The first look alone: others are of the same object.
std::unique_ptr<ComponentScan> SpamEngine::object(Component&) {
    if (!m_collects) return nullptr;
    m_collects = false;
    return std::make_unique<Collector>(*this);
}

SpamJudgement SpamEngine::judgeByRules() const {
    SpamJudgement judgement;
    judgement.threshold = kSpamThreshold;
    auto const& rules = *m_plan->spam.rules;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        if (!m_search.match(i).component) continue;
        judgement.tests.emplace_back(rules.rule(i).name, rules.rule(i).weight);
        judgement.score += rules.rule(i).weight;
    }
    return judgement;
}

bool SpamEngine::asksServer() const { return m_plan->spam.source != SpamSettings::Rules && !m_tooLarge; }

void SpamEngine::report(ResultSet& results) {
    auto const& spam = m_plan->spam;
    auto judgement =
        asksServer() ? AskInTurn(*m_servers, spam, {m_message, Envelope::read(m_plan->session)}) : judgeByRules();
    if (spam.threshold) judgement.threshold = *spam.threshold;
    auto& result = results.add(name(), type());
    result.setSpam(judgement, spam.actionThreshold);
    char text[80];
    std::snprintf(text, sizeof text, "score %.1f, threshold %.1f", judgement.score, judgement.threshold);
    result.setDescription(text);
    if (judgement.score >= spam.actionThreshold.value_or(judgement.threshold)) result.setAction(spam.action);
}

}  // namespace policyloader
