// Round trips of a small message, one after the other on one connection.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "Options.h"
#include "Sockets.h"
#include "Tally.h"

namespace velt_load {

namespace {

constexpr std::size_t kMessageBytes = 64;  // each way

bool RoundTrip(int fd) {
    std::array<char, kMessageBytes> message{};
    Order const order{kMessageBytes - sizeof order, kMessageBytes};
    std::memcpy(message.data(), &order, sizeof order);
    return SendAll(fd, message.data(), message.size()) && ReceiveAll(fd, message.data(), message.size());
}

}  // namespace

int RunPing(Options const& options) {
    if (options.target.address.sin_port == 0 || options.seconds == 0) Usage();
    int const fd = ConnectAsClient(options.target.address);
    Latencies nanoseconds;
    unsigned long trips = 0;
    double const begun = Now();
    double now = begun;
    while (now - begun < options.seconds) {
        if (!RoundTrip(fd)) Fail("ping");
        double const before = now;
        now = Now();
        nanoseconds.Add((now - before) * 1e3);
        ++trips;
    }
    ::close(fd);
    std::printf("{\"trips\":%lu,\"seconds\":%.3f,\"rate\":%.1f,\"latency_us\":{\"p50\":%.1f,\"p99\":%.1f}}\n", trips,
                now - begun, static_cast<double>(trips) / (now - begun), static_cast<double>(nanoseconds.At(0.5)) / 1e3,
                static_cast<double>(nanoseconds.At(0.99)) / 1e3);
    return 0;
}

}  // namespace velt_load
