// The far end of a measured relay: it throws away what it was told to take, and answers what it was told to give. Each
// client has a thread, which waits in its calls: nothing is faster to answer.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>

#include "Options.h"
#include "Sockets.h"

namespace velt_load {

namespace {

bool Give(int client, std::uint64_t length) {
    static std::array<char, 64 * 1024> const block{};
    while (length > 0) {
        std::size_t const part = std::min<std::uint64_t>(length, block.size());
        if (!SendAll(client, block.data(), part)) return false;
        length -= part;
    }
    return true;
}

void ServeClient(int client) {
    Order order{};
    while (ReceiveAll(client, reinterpret_cast<char*>(&order), sizeof order) && Discard(client, order.take) &&
           Give(client, order.give)) {
    }
    ::close(client);
}

}  // namespace

int RunSink(Options const& options) {
    int const listener = ListenOn(options.address, options.port);
    for (;;) {
        int const client = AcceptFrom(listener, 0);
        if (client != -1) std::thread(ServeClient, client).detach();
    }
}

}  // namespace velt_load
