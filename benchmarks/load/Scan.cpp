// Contents to clamd over its local socket, each client in one session: what the engine can do when nothing else is to
// be done.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Crowd.h"
#include "Options.h"
#include "Sockets.h"

namespace velt_load {

namespace {

using std::string_view_literals::operator""sv;

int ConnectLocal(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) Usage();
    path.copy(address.sun_path, path.size());
    int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1 || ::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) Fail("connect");
    return fd;
}

// The command, the content as one piece, and its end.
std::string Request(std::string const& content) {
    std::uint32_t const length = htonl(static_cast<std::uint32_t>(content.size()));
    std::string request("zINSTREAM\0", 10);
    request.append(reinterpret_cast<char const*>(&length), sizeof length).append(content);
    return request.append(4, '\0');
}

class Session {
public:
    Session(std::string const& path, std::string const& request) : m_fd(ConnectLocal(path)), m_request(request) {
        if (!SendAll(m_fd, "zIDSESSION", 11)) Fail("session");
    }
    ~Session() { ::close(m_fd); }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    bool Clean() {
        if (!SendAll(m_fd, m_request.data(), m_request.size())) return false;
        char answer[512];
        ssize_t const count = ::recv(m_fd, answer, sizeof answer, 0);
        return count > 0 && std::string_view(answer, static_cast<std::size_t>(count)).ends_with(": OK\0"sv);
    }

private:
    int const m_fd;
    std::string const& m_request;
};

}  // namespace

int RunScan(Options const& options) {
    if (options.socket.empty() || options.sessions == 0 || options.file.empty()) Usage();
    std::string const request = Request(FileText(options.file));
    RunCrowd("scans", options.clients, options.sessions, [&] {
        auto const session = std::make_shared<Session>(options.socket, request);
        return Work([session] { return session->Clean(); });
    });
    return 0;
}

}  // namespace velt_load
