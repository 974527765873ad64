#include "Announcement.h"

#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

#include <QXlog/Names.h>
#include <velt/errors/ErrnoEvents.h>
#include <velt/logging/Log.h>
#include <velt/scanning/RSMgr.h>

#include "ScannerdEvents.h"

namespace scannerd {
namespace {

constexpr int kPauseMs = 500;  // before the next look for a manager

int s_monitorsEnd = -1;  // of two sockets: closed when the monitor has ended

void LetGo() {
    if (s_monitorsEnd >= 0) ::close(s_monitorsEnd);
    s_monitorsEnd = -1;
}

void Report(QXlog::Event const& event, sockaddr_in const& address) {
    VELT::LogEvent(event, [&] { return KORlog::InfoBag(names::PORT(ntohs(address.sin_port))); });
}

// A device says nothing of its end, and may always seem readable.
bool IsSocket(int fd) {
    struct stat found {};
    return fd >= 0 && ::fstat(fd, &found) == 0 && S_ISSOCK(found.st_mode);
}

// In order, the daemon's workers and this process get the signal that ends the monitor: its end is what counts.
[[noreturn]] void Live(Facts const& facts, int monitor, std::function<void()> const& leavePorts,
                       std::function<void()> const& leaveRights) {
    ::signal(SIGHUP, SIG_IGN);
    ::prctl(PR_SET_NAME, "announcer");
    leavePorts();
    {
        Announcer announcer(facts);
        announcer.Round();
        ::send(monitor, "1", 1, MSG_NOSIGNAL);
        leaveRights();
        announcer.Watch(monitor);
    }
    ::_exit(0);
}

// A gateway that starts after the daemon asks a manager that knows of it.
void AwaitFirstRound() {
    char byte;
    while (::recv(s_monitorsEnd, &byte, 1, 0) < 0 && errno == EINTR) continue;
}

}  // namespace

Announcer::Announcer(Facts const& facts) : m_facts(facts) {
    for (sockaddr_in const& address : facts.addresses) m_places.push_back({address});
}

Announcer::~Announcer() {
    for (Place& place : m_places) VELT::RSMgrFreeResource(place.handle);
}

bool Announcer::Tell(Place& place) {
    sockaddr_in address = place.address;
    if (address.sin_addr.s_addr == htonl(INADDR_ANY)) address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int const scans = static_cast<int>(m_facts.scansAtOnce);
    return VELT::RSMgrSetupResource(place.handle, scans, 0, 0, &address, m_facts.name.data()) >= 0 &&
           VELT::RSMgrAvailable(place.handle) >= 0;
}

// Without a manager there is nobody to refuse; one that refuses is asked on, and reported once.
void Announcer::Say(Place& place) {
    if (!VELT::RSMgrResourceCtlHandle(place.handle)) return;
    bool const told = Tell(place);
    bool const reported = std::exchange(place.refused, !told);
    if (told) return Report(events::ANNOUNCED, place.address);
    VELT::RSMgrFreeResource(place.handle);
    if (!reported) Report(events::ANNOUNCEMENT_FAILED, place.address);
}

void Announcer::Round() {
    for (Place& place : m_places)
        if (place.handle < 0) Say(place);
}

void Announcer::DropLost() {
    for (Place& place : m_places) {
        if (!IsSocket(place.handle) || VELT::RSMgrResourceAvailable(place.handle)) continue;
        VELT::RSMgrFreeResource(place.handle);
        Report(events::ANNOUNCEMENT_LOST, place.address);
    }
}

// What was lost is said again after a pause, as whoever hangs up may do so again and again.
void Announcer::Watch(int monitor) {
    for (;;) {
        std::vector<pollfd> watched{{monitor, POLLIN, 0}};
        for (Place const& place : m_places)
            if (IsSocket(place.handle)) watched.push_back({place.handle, POLLIN, 0});
        bool const all = std::all_of(m_places.begin(), m_places.end(), [](Place const& p) { return p.handle >= 0; });
        int const ready = ::poll(watched.data(), watched.size(), all ? -1 : kPauseMs);
        if (ready > 0 && watched[0].revents) return;
        if (ready == 0)
            Round();
        else
            DropLost();
    }
}

void Announce(Facts const& facts, std::function<void()> const& leavePorts, std::function<void()> const& leaveRights) {
    std::fflush(nullptr);
    int ends[2] = {-1, -1};
    bool const paired = ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0;
    s_monitorsEnd = ends[1];
    if (paired) ::pthread_atfork(nullptr, nullptr, LetGo);
    pid_t const child = paired ? ::fork() : -1;
    int const error = errno;
    if (child == 0) Live(facts, ends[0], leavePorts, leaveRights);
    if (paired) ::close(ends[0]);
    if (child > 0) AwaitFirstRound();
    if (child < 0) VELT::LogEvent(events::NO_ANNOUNCER, [&] { return VELT::_find_errno(error); });
}

}  // namespace scannerd
