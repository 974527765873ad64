// A relay as it is written first: a thread for each client, which waits for either side, receives and sends.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "Options.h"
#include "Sockets.h"

namespace velt_load {

namespace {

constexpr std::size_t kBlockBytes = 64 * 1024;
constexpr int kWaitMs = 60000;

bool Pass(int from, int to, char* block) {
    ssize_t const count = ::recv(from, block, kBlockBytes, 0);
    return count > 0 && SendAll(to, block, static_cast<std::size_t>(count));
}

void Relay(int client, sockaddr_in target) {
    int const server = ConnectTo(target);
    auto const block = std::make_unique_for_overwrite<char[]>(kBlockBytes);
    pollfd ends[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
    for (bool open = true; open && ::poll(ends, 2, kWaitMs) > 0;) {
        if (ends[0].revents) open = Pass(client, server, block.get());
        if (open && ends[1].revents) open = Pass(server, client, block.get());
    }
    ::close(client);
    ::close(server);
}

}  // namespace

int RunRelayLoop(Options const& options) {
    if (options.target.address.sin_port == 0) Usage();
    int const listener = ListenOn(options.address, options.port);
    for (;;) {
        int const client = AcceptFrom(listener, 0);
        if (client != -1) std::thread(Relay, client, options.target.address).detach();
    }
}

}  // namespace velt_load
