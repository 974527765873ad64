// The floor that every comparison of servers prints: accept, receive, send, close, one after the other, and no more.
#include <sys/socket.h>
#include <unistd.h>

#include "Options.h"
#include "Sockets.h"

namespace velt_load {

namespace {

void ServeOne(int client) {
    char block[4096];
    ssize_t const got = ::recv(client, block, sizeof block, 0);
    if (got > 0) ::send(client, block, static_cast<std::size_t>(got), MSG_NOSIGNAL);
    ::close(client);
}

}  // namespace

int RunServe(Options const& options) {
    int const listener = ListenOn(options.address, options.port);
    for (;;) {
        int const client = AcceptFrom(listener, 0);
        if (client != -1) ServeOne(client);
    }
}

}  // namespace velt_load
