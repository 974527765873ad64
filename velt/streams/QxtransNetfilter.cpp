// Interception by the system's packet filter: TPROXY hands a connection to a transparent listener as it is, REDIRECT
// rewrites where it goes and remembers it. What no device is needed for has an event descriptor for its handle: it is
// handed on, copied and closed like one.
#include <arpa/inet.h>
#include <linux/netfilter_ipv4.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <velt/runtime/Proxy.h>
#include <velt/streams/QxtransBackends.h>

namespace VELT::interception::netfilter {

namespace {

constexpr in_addr_t kNobodysAddress = 0xC0000201;  // 192.0.2.1, kept for examples

bool s_bindTells = true;  // an address can be bound to exactly when it is one of this machine

bool CanBind(in_addr address) {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in probe{};
    probe.sin_family = AF_INET;
    probe.sin_addr = address;
    bool const bound = ::bind(fd, Generic(&probe), sizeof probe) == 0;
    CloseHandle(fd);
    return bound;
}

// The proxy's list is as old as the process; an address that came later would make the gateway connect to itself.
bool IsOwn(sockaddr_in const& address) {
    if (Proxy::s_pProxyInstance && Proxy::IsLoopbackConnection(address)) return true;
    return s_bindTells && CanBind(address.sin_addr);
}

bool Enable(int socket, int option) {
    int const on = 1;
    return ::setsockopt(socket, SOL_IP, option, &on, sizeof on) == 0;
}

bool Open(int* handle) {
    if (*handle < 0) *handle = ::eventfd(0, EFD_CLOEXEC);
    return *handle >= 0;
}

int Failed(char const* what) {
    ::syslog(LOG_INFO, "Interception: %s: %s", what, std::strerror(errno));
    return -1;
}

// False where nothing was redirected.
bool FindRedirected(int socket, sockaddr_in& original) {
    socklen_t length = sizeof original;
    return ::getsockopt(socket, SOL_IP, SO_ORIGINAL_DST, &original, &length) == 0 && !IsOwn(original);
}

}  // namespace

void Initialise() {
    in_addr nobodys{};
    nobodys.s_addr = htonl(kNobodysAddress);
    s_bindTells = !CanBind(nobodys);
}

int PrepareListener(int socket) { return Enable(socket, IP_TRANSPARENT) ? 0 : -1; }

// No handle means no session: served as if it had come to the gateway, it would go past what it was meant for.
int ConnectionInfo(int socket, sockaddr_in* local, int* handle) {
    sockaddr_in original{};
    if (IsOwn(*local)) {
        if (!FindRedirected(socket, original)) return 0;
        *local = original;
    }
    return Open(handle) ? 2 : Failed("no handle for a connection");
}

// The port is chosen as late as the connect, so that it has to be free towards this server only.
int SetSourceAddress(int* handle, int socket, sockaddr_in const& source) {
    if (!Open(handle)) return Failed("no handle for a connection");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = source.sin_addr;
    if (!Enable(socket, IP_TRANSPARENT)) return Failed("cannot take the client's address");
    Enable(socket, IP_BIND_ADDRESS_NO_PORT);
    return ::bind(socket, Generic(&address), sizeof address) == 0 ? 0 : Failed("cannot bind to the client's address");
}

}  // namespace VELT::interception::netfilter
