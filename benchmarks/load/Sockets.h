// Sockets of the programs that wait in their calls: the two ends of a measured relay, and the bare relays themselves.
// Owner: whoever asked for the descriptor. Threads: any. Failure: a line on standard error and exit code 1, but for the
// transfers, which answer false where the other side has gone.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace velt_load {

// What a client sends ahead of each of its exchanges with the sink.
struct Order {
    std::uint64_t take;  // bytes that follow
    std::uint64_t give;  // bytes to be answered to them
};

[[noreturn]] void Fail(char const* what);
int ListenOn(std::string const& address, unsigned short port);  // says on standard output which port it became
int AcceptFrom(int listener, int flags);                        // -1: nobody is there now; TCP_NODELAY else
int ConnectTo(sockaddr_in const& address, int flags = 0);       // with TCP_NODELAY
int ConnectAsClient(sockaddr_in const& address);                // the same from 127.0.0.2
bool SendAll(int fd, char const* data, std::size_t length);
bool ReceiveAll(int fd, char* data, std::size_t length);
bool Discard(int fd, std::uint64_t length);

}  // namespace velt_load
