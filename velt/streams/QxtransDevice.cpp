// All that is said to the interception device: docs/formats/interception-device.md has its requests byte by byte.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>

#include <velt/streams/Qxtrans.h>
#include <velt/streams/QxtransBackends.h>

namespace VELT::interception::device {

namespace {

constexpr char const* kDevice = "/dev/qxnat";
constexpr char const* kInterfaces = "/proc/qxnat/interfaces";
constexpr char const* kStatus = "/proc/qxnat/status";

enum Request : unsigned long {
    kSetSourceAddress = 0,
    kConnectionInfo = 2,
    kAsymmetricRoute = 4,
    kAddFtpRuleFirst = 5,
    kAddFtpRuleSecond = 6,
    kAttachFtp = 7,
};

struct NatRecord {
    sockaddr_in local;   // our end, as getsockname gives it
    sockaddr_in source;  // of this and the next the device looks at port and address alone
    sockaddr_in target;
};
static_assert(sizeof(NatRecord) == 48);

void CopyPortAndAddress(sockaddr_in const& from, sockaddr_in& to) {
    to.sin_port = from.sin_port;
    to.sin_addr = from.sin_addr;
}

bool Open(int* handle) {
    *handle = ::open(kDevice, O_RDONLY | O_CLOEXEC);
    return *handle >= 0;
}

// The device is told which connection the transfer belongs to.
int Attach(int socket, int* handle, NatRecord& record) {
    if (!Open(handle)) return -1;
    socklen_t localLength = sizeof record.local;
    socklen_t sourceLength = sizeof record.source;
    ::getsockname(socket, Generic(&record.local), &localLength);
    ::getpeername(socket, Generic(&record.source), &sourceLength);
    return ::ioctl(*handle, kAttachFtp, &record) == 0 ? 0 : -1;
}

}  // namespace

bool ReadInterfaces() {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const entry(std::fopen(kInterfaces, "r"), &std::fclose);
    unsigned first = 0, second = 0;
    if (!entry || std::fscanf(entry.get(), "%x %x", &first, &second) != 2) return false;
    qxtrans_ipaddrs[0] = first;
    qxtrans_ipaddrs[1] = second;
    return true;
}

bool IsPresent() { return ::access(kStatus, F_OK) == 0; }

// A system takes the number of this request for its own question about block sizes, and answers it with 0 and a size in
// the first bytes, before a device sees it.
int ConnectionInfo(sockaddr_in* destination, int* handle) {
    if (!Open(handle)) return 0;
    sockaddr_in const peer = *destination;
    int const answer = ::ioctl(*handle, kConnectionInfo, destination);
    if (answer == 0 && destination->sin_family != AF_INET) *destination = peer;
    if (answer != 1 && answer != 2) CloseHandle(*handle);
    return answer;
}

// The socket gets a port of its own on the interface that the device watches; the device puts `source` in its place.
int SetSourceAddress(int* handle, int socket, sockaddr_in const& remote, sockaddr_in const& source) {
    if (*handle < 0 && !Open(handle)) {
        ::syslog(LOG_INFO, "FAILURE GETTING NAT DEVICE");
        return -1;
    }
    NatRecord record{};
    record.local.sin_family = AF_INET;
    record.local.sin_addr.s_addr = htonl(qxtrans_ipaddrs[0]);
    if (::bind(socket, Generic(&record.local), sizeof record.local) != 0) {
        ::syslog(LOG_INFO, "FAILURE BINDING TO INTERACE");
        return -1;
    }
    socklen_t length = sizeof record.local;
    ::getsockname(socket, Generic(&record.local), &length);
    CopyPortAndAddress(source, record.source);
    CopyPortAndAddress(remote, record.target);
    return ::ioctl(*handle, kSetSourceAddress, &record);
}

int SetFtpRule(int socket, int* handle, sockaddr_in const& first, sockaddr_in const& second, bool flag) {
    NatRecord record{};
    if (*handle < 0 && Attach(socket, handle, record) != 0) return -1;
    CopyPortAndAddress(second, record.source);
    CopyPortAndAddress(first, record.target);
    return ::ioctl(*handle, flag ? kAddFtpRuleFirst : kAddFtpRuleSecond, &record);
}

bool AsymmetricRoute(int handle) { return ::ioctl(handle, kAsymmetricRoute, 0) == 0; }

}  // namespace VELT::interception::device
