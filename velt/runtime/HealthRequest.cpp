#include <velt/runtime/HealthRequest.h>

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace VELT {

namespace {

constexpr std::size_t kMostBytes = 1023;
constexpr int kWaitMs = 1000;  // for each piece

[[noreturn]] void Fail(char const* text) { throw ProxyHealthIOError(KORtk::Here(), text); }

void WaitForClient(int socket) {
    for (;;) {
        pollfd client{socket, POLLIN, 0};
        int const ready = ::poll(&client, 1, kWaitMs);
        if (ready > 0) return;
        if (ready == 0 || (errno != EINTR && errno != EAGAIN)) Fail("Error waiting for client");
    }
}

bool EndsHead(std::string_view text) { return text.find("\n\n") != text.npos || text.find("\r\n\r\n") != text.npos; }

std::string_view ReadHead(int socket, char* work) {
    std::size_t have = 0;
    while (have < kMostBytes) {
        WaitForClient(socket);
        ssize_t const got = ::read(socket, work + have, kMostBytes - have);
        if (got < 1) Fail("Error reading from client");
        have += static_cast<std::size_t>(got);
        if (EndsHead({work, have})) break;
    }
    return {work, have};
}

std::string_view CutAt(std::string_view text, char end) { return text.substr(0, text.find(end)); }

}  // namespace

void read_request_info(int socket, char* dest, unsigned size) {
    dest[0] = 0;
    char work[kMostBytes + 1] = {};
    std::string_view line = CutAt(ReadHead(socket, work), '\0');
    if (line.find('\n') == line.npos) Fail("Invalid request");
    line = CutAt(CutAt(line, '\n'), '\r');
    if (line.substr(0, 4) != "GET ") Fail("Invalid verb");
    std::string_view const path = CutAt(line.substr(4), ' ');
    std::size_t const length = path.copy(dest, size - 1);
    dest[length] = 0;
}

}  // namespace VELT
