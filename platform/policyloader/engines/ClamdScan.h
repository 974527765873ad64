// ClamdScan: one content on its way to a virus scan server, and the server's judgement of it.
// A server that cannot be reached, or fails while all of the content is still held here, is followed by the next one.
// Owner: the anti-virus engine.  Threads: the scan's.  Units: bytes.
// Failure: EngineFailure of Server...; nothing but the server's own word makes a content clean.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <policyloader/engines/ClamdSession.h>
#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ServerRota.h>

namespace policyloader {

// What the scans of the process share.
struct ClamdServers {
    ServerRota rota;
    ClamdPool pool;

    void failed(std::string const& server);
};

// What the policy says of the servers.
struct ClamdSettings {
    std::vector<ServerAddress> servers;  // empty: none is asked
    std::string error;                   // of an address that cannot be read
    double seconds = 60;                 // of waiting, for all contents of one object
    std::uint64_t maxBytes = 0;          // larger contents are not asked about; 0: all are
};

class ClamdScan {
public:
    ClamdScan(ClamdServers& servers, ClamdSettings const& settings, Patience& patience);

    void data(std::string_view piece);
    void end();  // nothing more comes: the server begins to scan
    // Waits for the judgement: the name of what was found; nothing: clean, or larger than is asked about.
    std::optional<std::string> answer();

private:
    template <class Call>
    auto waiting(Call&& call);
    std::unique_ptr<ClamdSession> connect();
    void pass(bool last);
    void begin(bool last);
    void receive();
    void lost(FailureId id, std::string const& what);
    std::optional<std::string> judge();

    ClamdServers& m_servers;
    ClamdSettings const& m_settings;
    Patience& m_patience;
    std::vector<ServerAddress const*> m_order;
    std::size_t m_next = 0;    // in the order
    bool m_keptTried = false;  // of that one
    EngineFailure m_failure;   // the last one, if no server is left
    std::unique_ptr<ClamdSession> m_session;
    std::string m_held;  // what no server has had yet, or all of it
    std::uint64_t m_total = 0;
    bool m_whole = true;  // m_held is all of it
    bool m_early = false;
    bool m_tooLarge = false;
    std::optional<ClamdAnswer> m_answer;
};

}  // namespace policyloader
