// What the two ends of the resource manager's socket say: one connection is one handle, each packet is one question or
// one answer, and nothing is said unasked. docs/formats/resource-manager.md tells it byte by byte.
// Owner and threads: plain values. Units: seconds; addresses in network order. Failure: a packet of another size is
// none of this, and ends the connection.
#pragma once

#include <cstdint>

namespace VELT::manager {

constexpr char const* kSocketPath = "/run/velt/rmgrd.socket";  // below VELT_ROOT

enum Request : unsigned long {
    kOpen = 0,  // the socket's alone: names the resource of this connection
    kSetup = 1,
    kAvailable = 2,
    kUnAvailable = 3,
    kWait = 4,
    kIsUp = 5,  // never asked over the socket: a resource that goes down has its connections closed
    kServersInUse = 6,
    kName = 7,
    kSettings = 8,  // the socket's alone
};

constexpr int kControl = -1;  // in the place of a resource's number
constexpr unsigned kNameBytes = 32;

struct Question {
    std::uint32_t request;
    std::int32_t values[3];  // kOpen: the resource; kWait: the timeout; kSetup: its three values
    std::uint32_t address;   // of kSetup, as the next two
    std::uint32_t port;      // its low 16 bits
    char name[kNameBytes];   // closed by a zero
};
static_assert(sizeof(Question) == 56);

struct Answer {
    std::int32_t result;     // below 0: `error` says why
    std::int32_t error;      // an errno value
    std::int32_t values[4];  // kWait: id, sequence, address, port; kSettings: the four numbers
    char name[kNameBytes];   // of kName, closed by a zero
};
static_assert(sizeof(Answer) == 56);

}  // namespace VELT::manager
