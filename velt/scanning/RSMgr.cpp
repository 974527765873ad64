#include <velt/scanning/RSMgr.h>

#include <unistd.h>

#include <atomic>
#include <cstring>

#include <velt/scanning/RSMgrBackends.h>

namespace VELT {

using namespace manager;

namespace {

std::atomic<Backend const*> s_chosen{nullptr};

Backend const& Manager() {
    if (Backend const* const chosen = s_chosen) return *chosen;
    for (Backend const* const one : {&g_device, &g_socket}) {
        if (!one->isThere()) continue;
        s_chosen = one;
        return *one;
    }
    return g_device;
}

int AskOpen(int handle, Request request, void* argument) {
    return handle < 0 ? -1 : Manager().ask(handle, request, argument);
}

}  // namespace

void manager::Choose(Backend const* backend) { s_chosen = backend; }

bool RSMgrResourceCtlHandle(int& handle) {
    int const opened = Manager().openControl();
    if (opened >= 0) handle = opened;
    return handle >= 0;
}

bool RSMgrResourceHandle(int& handle, int n) {
    handle = -1;
    handle = Manager().open(n);
    return handle >= 0;
}

void RSMgrFreeResource(int& handle) {
    if (handle < 0) return;
    ::close(handle);
    handle = -1;
}

int RSMgrResourceAttributes(int& handle, char* name) { return AskOpen(handle, kName, name); }

int RSMgrSetupResource(int& handle, int first, int second, int third, sockaddr_in* address, char* name) {
    if (handle < 0) return -1;
    char copy[kNameBytes] = {};
    if (name) std::strncpy(copy, name, kNameBytes - 1);
    SetupRecord record{{first, second, third}, 0, 0, copy};
    if (address) {
        record.address = address->sin_addr.s_addr;
        record.port = address->sin_port;
    }
    return Manager().ask(handle, kSetup, &record);
}

int RSMgrAvailable(int& handle) { return AskOpen(handle, kAvailable, nullptr); }

int RSMgrUnAvailable(int& handle) { return AskOpen(handle, kUnAvailable, nullptr); }

int RSMgrWaitForResource(int& handle, int timeout, sockaddr_in* address, int* id, int* sequence) {
    WaitRecord record{timeout, 0, 0, 0, 0};
    int const resource = AskOpen(handle, kWait, &record);
    if (resource < 0) return -1;
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = record.address;
    address->sin_port = static_cast<in_port_t>(record.port);
    *id = record.id;
    *sequence = record.sequence;
    return resource;
}

bool RSMgrResourceAvailable(int& handle) { return AskOpen(handle, kIsUp, nullptr) == 1; }

bool RSMgrActive() { return Manager().isActive(); }

void RSMgrAttributes(bool& cache, int& cache_time, int& conn_timeout, int& data_timeout) {
    cache = true;
    cache_time = 30;
    Settings settings;
    if (!Manager().readSettings(settings)) return;
    conn_timeout = settings.connectTimeout;
    data_timeout = settings.dataTimeout;
    if (settings.cache)
        cache_time = settings.cacheSeconds;
    else
        cache = false;
}

}  // namespace VELT
