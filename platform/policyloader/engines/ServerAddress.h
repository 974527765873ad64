// ServerAddress: where a scan server beside the gateway listens: "/path/of/a/socket", "127.0.0.1:783" or "[::1]:783".
// A value; any thread.  Names are not looked up: a scan never waits for a name server.
// Failure: a text of another form gives nothing, and ReadServers tells of it as EngineFailure of Rules.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/socket.h>

namespace policyloader {

struct ServerAddress {
    std::string text;  // as it was configured
    sockaddr_storage address = {};
    socklen_t length = 0;

    bool isLocal() const { return address.ss_family == AF_UNIX; }
    static std::optional<ServerAddress> parse(std::string_view text);
};

// Each text may hold several, with blanks or commas between.
std::vector<ServerAddress> ReadServers(std::vector<std::string_view> const& texts);

}  // namespace policyloader
