// The ways to the resource manager behind the RSMgr functions, each with its own means: opening a handle, asking by it,
// and reading the settings. docs/formats/resource-manager.md has the requests and records byte by byte.
// Owner, threads and failure: as told in RSMgr.h.
#pragma once

#include <cstdint>

namespace VELT::manager {

enum Request : unsigned long {
    kSetup = 1,
    kAvailable = 2,
    kUnAvailable = 3,
    kWait = 4,
    kIsUp = 5,
    kServersInUse = 6,
    kName = 7,
};

struct WaitRecord {
    std::int32_t timeout;  // seconds; the others are the answer
    std::int32_t id;
    std::int32_t sequence;
    std::uint32_t address;  // network order
    std::uint32_t port;     // its low 16 bits, network order
};
static_assert(sizeof(WaitRecord) == 20);

struct SetupRecord {
    std::int32_t values[3];
    std::uint32_t address;
    std::uint32_t port;
    char* name;  // 32 bytes, closed by a zero
};

constexpr int kControl = -1;  // in the place of a resource's number
constexpr unsigned kNameBytes = 32;

struct Settings {
    int cache, cacheSeconds, connectTimeout, dataTimeout;
};

struct Backend {
    bool (*isThere)();
    int (*open)(int resource);  // a descriptor that is moved up already, or -1
    int (*ask)(int handle, Request request, void* argument);
    bool (*isActive)();
    bool (*readSettings)(Settings& settings);  // true: all four
};

extern Backend const g_device;

int MoveUp(int fd);  // out of the numbers that select() can name; the same descriptor where the limit forbids that

}  // namespace VELT::manager
