#include <policyloader/engines/ClamdSession.h>

#include <algorithm>
#include <array>

#include <arpa/inet.h>
#include <unistd.h>

namespace policyloader {
namespace {

constexpr std::string_view kBeginSession("zIDSESSION\0", 11);
constexpr std::string_view kBeginStream("zINSTREAM\0", 10);
constexpr std::string_view kEndStream("\0\0\0\0", 4);
constexpr std::size_t kMostKept = 16;               // for each server
constexpr auto kKeptFor = std::chrono::seconds(5);  // the server itself closes what rests for long
constexpr std::size_t kMostAnswer = 4096;

std::array<char, 4> LengthOf(std::string_view piece) {
    std::uint32_t const length = htonl(static_cast<std::uint32_t>(piece.size()));
    std::array<char, 4> bytes;
    std::copy_n(reinterpret_cast<char const*>(&length), bytes.size(), bytes.begin());
    return bytes;
}

}  // namespace

ClamdSession::ClamdSession(ServerAddress const& address, Patience& patience)
    : m_server(address.text), m_connection(address, patience) {}

bool ClamdSession::begin(std::string_view piece, bool last, Patience& patience) {
    std::vector<std::string_view> pieces;
    if (m_requests++ == 0) pieces.push_back(kBeginSession);
    pieces.push_back(kBeginStream);
    return transfer(std::move(pieces), piece, last, patience);
}

bool ClamdSession::send(std::string_view piece, bool last, Patience& patience) {
    return transfer({}, piece, last, patience);
}

bool ClamdSession::transfer(std::vector<std::string_view> pieces, std::string_view piece, bool last,
                            Patience& patience) {
    auto const length = LengthOf(piece);
    if (!piece.empty()) pieces.emplace_back(length.data(), length.size());
    if (!piece.empty()) pieces.push_back(piece);
    if (last) pieces.push_back(kEndStream);
    return m_connection.send(std::move(pieces), patience);
}

std::optional<ClamdAnswer> ClamdSession::answer(Patience& patience) {
    std::string text;
    char room[512];
    while (text.find('\0') == std::string::npos && text.size() < kMostAnswer) {
        std::size_t const got = m_connection.receive(room, sizeof room, patience);
        if (got == 0) return std::nullopt;
        text.append(room, got);
    }
    if (text.find('\0') != text.size() - 1) return ClamdAnswer{ClamdAnswer::Rubbish, PrintableAnswer(text)};
    text.pop_back();
    return ClamdAnswer::parse(text, m_requests);
}

ClamdPool::ClamdPool() : m_process(::getpid()) {}

// The connections of a forked process are its parent's: two that ask over the same one would get each other's answers.
void ClamdPool::leaveToParent() {
    if (m_process == ::getpid()) return;
    m_process = ::getpid();
    m_kept.clear();
}

void ClamdPool::drop(std::string const& server) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    m_kept.erase(server);
}

std::unique_ptr<ClamdSession> ClamdPool::take(std::string const& server) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    leaveToParent();
    auto const at = m_kept.find(server);
    if (at == m_kept.end()) return nullptr;
    auto& kept = at->second;
    auto const now = Clock::now();
    while (!kept.empty()) {
        Kept latest = std::move(kept.back());
        kept.pop_back();
        if (now - latest.since < kKeptFor && latest.session->isUsable()) return std::move(latest.session);
    }
    m_kept.erase(at);
    return nullptr;
}

void ClamdPool::keep(std::unique_ptr<ClamdSession> session) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    leaveToParent();
    auto& kept = m_kept[session->server()];
    kept.erase(std::remove_if(kept.begin(), kept.end(),
                              [now = Clock::now()](Kept const& one) { return now - one.since >= kKeptFor; }),
               kept.end());
    if (kept.size() < kMostKept) kept.push_back({std::move(session), Clock::now()});
}

}  // namespace policyloader
