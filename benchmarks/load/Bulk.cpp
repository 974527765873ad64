// Many bytes to a sink: on each connection one piece after the other, and the sink's word that it has it all.
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "Options.h"
#include "Sockets.h"

namespace velt_load {

namespace {

constexpr std::size_t kWriteBytes = 256 * 1024;
constexpr std::size_t kPieceBytes = 64 * kWriteBytes;

bool SendPiece(int fd) {
    static std::array<char, kWriteBytes> const block{};
    Order const order{kPieceBytes, 1};
    if (!SendAll(fd, reinterpret_cast<char const*>(&order), sizeof order)) return false;
    for (std::size_t left = kPieceBytes; left > 0; left -= block.size()) {
        if (!SendAll(fd, block.data(), block.size())) return false;
    }
    char word;
    return ReceiveAll(fd, &word, 1);
}

void SendPieces(Options const& options, double begun, std::atomic<unsigned long>& pieces) {
    int const fd = ConnectAsClient(options.target.address);
    while (Now() - begun < options.seconds) {
        if (!SendPiece(fd)) Fail("bulk");
        ++pieces;
    }
    ::close(fd);
}

}  // namespace

int RunBulk(Options const& options) {
    if (options.target.address.sin_port == 0 || options.connections == 0 || options.seconds == 0) Usage();
    std::atomic<unsigned long> pieces{0};
    double const begun = Now();
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < options.connections; ++i)
        clients.emplace_back([&] { SendPieces(options, begun, pieces); });
    for (std::thread& client : clients) client.join();
    double const seconds = Now() - begun;
    unsigned long const bytes = pieces * kPieceBytes;
    std::printf("{\"bytes\":%lu,\"seconds\":%.3f,\"gb_per_second\":%.4f}\n", bytes, seconds,
                static_cast<double>(bytes) / 1e9 / seconds);
    return 0;
}

}  // namespace velt_load
