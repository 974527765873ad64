#include <velt/streams/Qxtrans.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include <velt/streams/QxtransBackends.h>

namespace VELT {

int qxtrans_initialised = 0;
int qxtrans_active = 0;
std::uint32_t qxtrans_ipaddrs[2] = {0, 0};

namespace interception {

void CloseHandle(int& fd) {
    if (fd < 0) return;
    ::close(fd);
    fd = -1;
}

}  // namespace interception

namespace {

using namespace interception;

Interception s_chosen = Interception::Device;

// The first connections are asked about by several threads at once, who all find the same.
std::atomic_ref<int> Active() { return std::atomic_ref<int>(qxtrans_active); }

bool IsActive() {
    int active = Active().load(std::memory_order_relaxed);
    if (active == 0) {
        active = s_chosen == Interception::Netfilter || device::IsPresent() ? 1 : -1;
        Active().store(active, std::memory_order_relaxed);
    }
    return active > 0;
}

bool FindEnds(int socket, sockaddr_in* peer, sockaddr_in* local) {
    socklen_t localLength = sizeof *local;
    socklen_t peerLength = sizeof *peer;
    return ::getsockname(socket, Generic(local), &localLength) == 0 &&
           ::getpeername(socket, Generic(peer), &peerLength) == 0;
}

}  // namespace

void qxtrans_select(Interception chosen) { s_chosen = chosen; }

Interception qxtrans_named(std::string_view name) {
    if (name == "netfilter") return Interception::Netfilter;
    return name == "off" ? Interception::Off : Interception::Device;
}

void qxtrans_init() {
    if (qxtrans_initialised) return;
    if (s_chosen == Interception::Device) qxtrans_initialised = device::ReadInterfaces();
    if (s_chosen != Interception::Netfilter) return;
    netfilter::Initialise();
    qxtrans_initialised = 1;
}

int qxtrans_prepare_listener(int socket) {
    return s_chosen == Interception::Netfilter ? netfilter::PrepareListener(socket) : 0;
}

int qxtrans_connection_info(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local, int* nat_fd) {
    CloseHandle(*nat_fd);
    if (!FindEnds(socket, peer, local)) return -1;
    *destination = *peer;
    if (!qxtrans_initialised || !IsActive()) return 0;
    if (s_chosen == Interception::Netfilter) return netfilter::ConnectionInfo(socket, local, nat_fd);
    return device::ConnectionInfo(destination, nat_fd);
}

int qxtrans_set_source_address(int* nat_fd, int socket, sockaddr_in*, sockaddr_in* remote, sockaddr_in* source) {
    if (Active().load(std::memory_order_relaxed) < 0 || !qxtrans_initialised) return -1;
    if (s_chosen == Interception::Netfilter) return netfilter::SetSourceAddress(nat_fd, socket, *source);
    return device::SetSourceAddress(nat_fd, socket, *remote, *source);
}

int qxtrans_set_ftp_rule(int socket, int* nat_fd, sockaddr_in* first, sockaddr_in* second, bool flag) {
    if (s_chosen != Interception::Device) return -1;
    return device::SetFtpRule(socket, nat_fd, *first, *second, flag);
}

bool qxtrans_asymmetric_route(int nat_fd) {
    return s_chosen == Interception::Device && device::AsymmetricRoute(nat_fd);
}

}  // namespace VELT
