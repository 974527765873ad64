// All that is said to the resource manager's device: docs/formats/resource-manager.md.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include <velt/scanning/RSMgrBackends.h>

namespace VELT::manager {

namespace {

constexpr char const* kControlDevice = "/dev/qxrmgrctl";
constexpr char const* kManagerEntry = "/proc/qxrmgr";
constexpr char const* kSettingsEntry = "/proc/qxrmgr/settings";
constexpr int kFirstHighDescriptor = 1024;

bool DeviceIsThere() { return ::access(kControlDevice, F_OK) == 0; }

int OpenNode(char const* path) {
    int const fd = ::open(path, O_RDONLY | O_CLOEXEC);
    return fd < 0 ? fd : MoveUp(fd);
}

int OpenControlDevice() { return OpenNode(kControlDevice); }

int OpenResourceDevice(int resource) {
    char path[32];
    std::snprintf(path, sizeof path, "/dev/qxrmgr%d", resource);
    return OpenNode(path);
}

int AskDevice(int handle, Request request, void* argument) { return ::ioctl(handle, request, argument); }

bool DeviceIsActive() {
    if (::access(kManagerEntry, R_OK) != 0) return false;
    int const handle = OpenControlDevice();
    if (handle < 0) return false;
    bool const active = AskDevice(handle, kServersInUse, nullptr) > 0;
    ::close(handle);
    return active;
}

bool ReadDeviceSettings(Settings& settings) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const entry(std::fopen(kSettingsEntry, "re"), &std::fclose);
    return entry && std::fscanf(entry.get(), "%d %d %d %d", &settings.cache, &settings.cacheSeconds,
                                &settings.connectTimeout, &settings.dataTimeout) == 4;
}

}  // namespace

int MoveUp(int fd) {
    int const moved = ::fcntl(fd, F_DUPFD_CLOEXEC, kFirstHighDescriptor);
    if (moved < 0) return fd;
    ::close(fd);
    return moved;
}

Backend const g_device{DeviceIsThere, OpenControlDevice, OpenResourceDevice,
                       AskDevice,     DeviceIsActive,    ReadDeviceSettings};

}  // namespace VELT::manager
