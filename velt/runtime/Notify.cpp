#include <velt/runtime/Notify.h>

#ifdef VELT_WITH_SYSTEMD

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace VELT {

namespace {

constexpr int kMostListed = 16;  // a message must fit one datagram

// Empty for a socket that is closed.
std::string AddressOf(int listener) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (listener == -1 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "";
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string OpenAddresses(std::atomic<int> const* listeners, int count) {
    std::string all;
    int open = 0;
    for (int i = 0; i < count; ++i) {
        std::string const address = AddressOf(listeners[i]);
        if (!address.empty() && ++open <= kMostListed) all += " " + address;
    }
    if (open > kMostListed) all += " and " + std::to_string(open - kMostListed) + " more";
    return all;
}

std::string Processes() {
    return "monitor " + std::to_string(::getppid()) + ", newest worker " + std::to_string(::getpid());
}

}  // namespace

void NotifyReady(std::atomic<int> const* listeners, int count) {
    if (!std::getenv("NOTIFY_SOCKET")) return;
    std::string const open = OpenAddresses(listeners, count);
    std::string const message =
        (open.empty() ? "STATUS=No port is open; " : "READY=1\nSTATUS=Accepting on" + open + "; ") + Processes();
    ::sd_notify(0, message.c_str());
}

void NotifyRetrying(std::string const& directory) {
    if (!std::getenv("NOTIFY_SOCKET")) return;
    ::sd_notify(0, ("READY=1\nSTATUS=Retrying from " + directory + "; " + Processes()).c_str());
}

void NotifyStopping() { ::sd_notify(0, "STOPPING=1\nSTATUS=Workers drain"); }

}  // namespace VELT

#else

namespace VELT {

void NotifyReady(std::atomic<int> const*, int) {}

void NotifyRetrying(std::string const&) {}

void NotifyStopping() {}

}  // namespace VELT

#endif
