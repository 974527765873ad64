// The ways to the resource manager behind the RSMgr functions, each with its own means: opening a handle, asking by it,
// and reading the settings. docs/formats/resource-manager.md has the requests and records byte by byte.
// Owner, threads and failure: as told in RSMgr.h.
#pragma once

#include <cstdint>

#include <velt/Export.h>
#include <velt/scanning/RSMgrWire.h>

namespace VELT::manager {

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

struct Settings {
    int cache, cacheSeconds, connectTimeout, dataTimeout;
};

struct Backend {
    bool (*isThere)();
    int (*openControl)();       // a descriptor that is moved up already, or -1
    int (*open)(int resource);  // likewise; no resource has a number below 0
    int (*ask)(int handle, Request request, void* argument);
    bool (*isActive)();
    bool (*readSettings)(Settings& settings);  // true: all four
};

extern Backend const g_device;
extern Backend const g_socket;

// The way of this process from now on. Null: the device where it is there, else the socket where it answers; what is
// found first stays.
VELT_API void Choose(Backend const* backend);

int MoveUp(int fd);  // out of the numbers that select() can name; the same descriptor where the limit forbids that

}  // namespace VELT::manager
