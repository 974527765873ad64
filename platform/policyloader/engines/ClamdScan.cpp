#include <policyloader/engines/ClamdScan.h>

namespace policyloader {
namespace {

constexpr std::size_t kHeldBytes = 64u << 10;

}  // namespace

void ClamdServers::failed(std::string const& server) {
    rota.failed(server);
    pool.drop(server);
}

ClamdScan::ClamdScan(ClamdServers& servers, ClamdSettings const& settings, Patience& patience)
    : m_servers(servers),
      m_settings(settings),
      m_patience(patience),
      m_order(servers.rota.order(settings.servers)),
      m_failure(FailureId::ServerAway, "no virus scan server") {}

void ClamdScan::data(std::string_view piece) {
    m_total += piece.size();
    m_tooLarge = m_tooLarge || (m_settings.maxBytes && m_total > m_settings.maxBytes);
    if (m_tooLarge) m_session.reset();
    if (m_tooLarge || m_answer) return;
    m_held.append(piece);
    if (m_held.size() < kHeldBytes) return;
    pass(false);
    m_held.clear();
    m_whole = false;
}

void ClamdScan::end() {
    if (m_tooLarge || m_total == 0 || m_answer) return;
    pass(true);
}

// What a session throws is the end of the patience with its server.
template <class Call>
auto ClamdScan::waiting(Call&& call) {
    try {
        return call(*m_session);
    } catch (EngineFailure const& failure) {
        m_servers.failed(m_session->server());
        throw EngineFailure(failure.id(), m_session->server() + ": " + failure.what());
    }
}

void ClamdScan::pass(bool last) {
    if (!m_session) return begin(last);
    m_early = !waiting([&](ClamdSession& session) { return session.send(m_held, last, m_patience); });
    if (m_early) receive();
}

// Until one server has taken what is held, or has spoken.
void ClamdScan::begin(bool last) {
    while (!m_answer) {
        m_session = connect();
        m_early = !waiting([&](ClamdSession& session) { return session.begin(m_held, last, m_patience); });
        if (!m_early) return;
        receive();
    }
}

// A kept session of a server first: the server may have left it meanwhile, which says nothing of the server.
std::unique_ptr<ClamdSession> ClamdScan::connect() {
    while (m_next < m_order.size()) {
        auto const& server = *m_order[m_next];
        m_keptTried = !m_keptTried;
        if (m_keptTried) {
            if (auto kept = m_servers.pool.take(server.text)) return kept;
            continue;
        }
        ++m_next;
        try {
            return std::make_unique<ClamdSession>(server, m_patience);
        } catch (EngineFailure const& failure) {
            m_failure = EngineFailure(failure.id(), server.text + ": " + failure.what());
            m_servers.failed(server.text);
        }
    }
    throw m_failure;
}

// Gets what the server said; where it left without a word or said rubbish, and all of the content is here, the next
// one may be asked.
void ClamdScan::receive() {
    m_answer = waiting([&](ClamdSession& session) { return session.answer(m_patience); });
    if (!m_answer) return lost(FailureId::ServerAway, "left before it had answered");
    bool const tooEarly = m_early && m_answer->kind == ClamdAnswer::Clean;
    if (tooEarly) return lost(FailureId::ServerAnswer, "judged what it had not seen to its end");
    if (m_answer->kind == ClamdAnswer::Rubbish) lost(FailureId::ServerAnswer, "answered " + m_answer->text);
}

void ClamdScan::lost(FailureId id, std::string const& what) {
    m_failure = EngineFailure(id, m_session->server() + ": " + what);
    if (id == FailureId::ServerAnswer) m_servers.failed(m_session->server());
    m_session.reset();
    m_answer.reset();
    if (!m_whole) throw m_failure;
}

std::optional<std::string> ClamdScan::answer() {
    if (m_tooLarge || m_total == 0) return std::nullopt;
    while (!m_answer) {
        if (!m_session) begin(true);
        if (!m_answer) receive();
    }
    return judge();
}

std::optional<std::string> ClamdScan::judge() {
    auto const answer = std::move(*m_answer);
    std::string const server = m_session->server();
    if (!m_early && answer.kind != ClamdAnswer::Refused) m_servers.pool.keep(std::move(m_session));
    m_session.reset();
    if (answer.kind == ClamdAnswer::Clean) return std::nullopt;
    if (answer.kind == ClamdAnswer::Found) return answer.text;
    throw EngineFailure(FailureId::ServerRefused, server + ": " + answer.text);
}

}  // namespace policyloader
