#include "Connections.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <system_error>
#include <utility>

#include "Now.h"

namespace rmgrd {

namespace {

constexpr std::size_t kMostClients = 8192;
constexpr std::size_t kOtherDescriptors = 600;  // of probes, and what a process has anyhow
constexpr int kBacklog = 512;
constexpr double kAcceptPause = 0.1;  // seconds
constexpr std::size_t kMostEvents = 64;

// The numbers of what is watched; those of clients come after these.
constexpr std::uint64_t kEvent = 0;
constexpr std::uint64_t kListener = 1;

[[noreturn]] void Fail(std::string const& what) { throw std::system_error(errno, std::generic_category(), what); }

void Drain(int event) {
    std::uint64_t count;
    [[maybe_unused]] ssize_t const drained = ::read(event, &count, sizeof count);
}

std::size_t MostClients() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return kMostClients;
    std::size_t const room = std::min<std::size_t>(limit.rlim_cur, kMostClients + kOtherDescriptors);
    return room > 2 * kOtherDescriptors ? room - kOtherDescriptors : room / 2;
}

}  // namespace

Connections::Descriptor::~Descriptor() {
    if (fd >= 0) ::close(fd);
}

Connections::Connections(std::string path, Host& host)
    : m_path(std::move(path)), m_host(host), m_most(MostClients()), m_lastNumber(kListener) {
    m_set.fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (m_set.fd < 0) Fail("epoll_create1");
    m_event.fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_event.fd < 0) Fail("eventfd");
    Listen();
    if (Watch(m_event.fd, kEvent) && Watch(m_listener.fd, kListener)) return;
    int const error = errno;
    ::unlink(m_path.c_str());
    errno = error;
    Fail("epoll_ctl");
}

Connections::~Connections() {
    for (auto const& [number, client] : m_clients) ::close(client.fd);
    ::unlink(m_path.c_str());
}

// Of two managers on one path the one that listens stays.
void Connections::Listen() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    errno = ENAMETOOLONG;
    if (m_path.size() >= sizeof address.sun_path) Fail(m_path);
    std::memcpy(address.sun_path, m_path.c_str(), m_path.size());
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    int const fd = m_listener.fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) Fail("socket");
    if (::connect(fd, generic, sizeof address) == 0) {
        errno = EADDRINUSE;
        Fail(m_path);
    }
    ::unlink(m_path.c_str());
    if (::bind(fd, generic, sizeof address) != 0 || ::chmod(m_path.c_str(), 0660) != 0 || ::listen(fd, kBacklog) != 0)
        Fail(m_path);
}

void Connections::Wake() {
    std::uint64_t const one = 1;
    [[maybe_unused]] ssize_t const written = ::write(m_event.fd, &one, sizeof one);
}

bool Connections::Watch(int fd, std::uint64_t number) const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number;
    return ::epoll_ctl(m_set.fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

// --- a turn ---

// What is heard of a client may end others, so each is found by its number, which no other will ever have.
void Connections::Turn(int timeoutMs) {
    Sweep();
    std::array<epoll_event, kMostEvents> events;
    int const count = ::epoll_wait(m_set.fd, events.data(), kMostEvents, WatchListener(timeoutMs));
    bool someoneComes = false;
    for (int i = 0; i < count; ++i) {
        std::uint64_t const number = events[i].data.u64;
        if (number == kEvent)
            Drain(m_event.fd);
        else if (number == kListener)
            someoneComes = true;
        else
            Hear(number, events[i].events);
    }
    if (someoneComes) Accept();  // who goes makes room first
}

// Where the system has no descriptor to spare, the queue is left alone for a moment.
void Connections::LeaveListenerAlone() {
    epoll_event event{};
    event.data.u64 = kListener;
    ::epoll_ctl(m_set.fd, EPOLL_CTL_MOD, m_listener.fd, &event);
    m_pausesUntil = Now() + kAcceptPause;
}

// How long this turn may last.
int Connections::WatchListener(int timeoutMs) {
    if (m_pausesUntil == 0) return timeoutMs;
    double const left = m_pausesUntil - Now();
    if (left > 0) return std::min(timeoutMs, static_cast<int>(std::ceil(left * 1000)));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kListener;
    ::epoll_ctl(m_set.fd, EPOLL_CTL_MOD, m_listener.fd, &event);
    m_pausesUntil = 0;
    return timeoutMs;
}

// Who has closed hears no answer, so nothing is asked any more.
void Connections::Hear(std::uint64_t number, std::uint32_t events) {
    auto const found = m_clients.find(number);
    if (found == m_clients.end() || found->second.ended) return;
    if (events & EPOLLHUP)
        Leave(found->second);
    else
        Read(found->second);
}

void Connections::Read(Client& client) {
    VELT::manager::Question question;
    ssize_t const count = ::recv(client.fd, &question, sizeof question, MSG_DONTWAIT | MSG_TRUNC);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count == 0)
        Leave(client);
    else if (count != sizeof question || !m_host.Take(client, question))
        End(client);
}

// One of those who come; the next turn tells whether there are others.
void Connections::Accept() {
    int const fd = ::accept4(m_listener.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0 && errno != EAGAIN) LeaveListenerAlone();
    if (fd < 0) return;
    bool const isRefused = !Welcome(fd);
    if (isRefused && !m_refuses) m_host.Refused();
    m_refuses = isRefused;
}

// Mostly it has asked already; it is watched for what comes after that.
bool Connections::Welcome(int fd) {
    if (!MakeRoom()) {
        ::close(fd);
        return false;
    }
    std::uint64_t const number = ++m_lastNumber;
    Client& client = m_clients.emplace_hint(m_clients.end(), number, Client{number, fd})->second;
    Read(client);
    if (client.ended || Watch(fd, number)) return true;
    End(client);
    return false;
}

bool Connections::MakeRoom() {
    if (m_clients.size() >= m_most) Sweep();
    if (m_clients.size() < m_most) return true;
    auto const old =
        std::find_if(m_clients.begin(), m_clients.end(), [this](auto const& one) { return m_host.MayGo(one.second); });
    if (old == m_clients.end()) return false;
    End(old->second);
    Sweep();
    return true;
}

// --- what is said to clients, and their end ---

void Connections::Send(Client& client, VELT::manager::Answer const& answer) {
    if (::send(client.fd, &answer, sizeof answer, MSG_NOSIGNAL | MSG_DONTWAIT) != sizeof answer) End(client);
}

void Connections::End(Client& client) {
    if (client.ended) return;
    ::shutdown(client.fd, SHUT_RDWR);
    Leave(client);
}

void Connections::EndAll(std::function<bool(Client const&)> const& which) {
    for (auto& [number, client] : m_clients)
        if (which(client)) End(client);
}

// Nothing more is said; the descriptor goes with the sweep.
void Connections::Leave(Client& client) {
    client.ended = true;
    m_ended.push_back(client.number);
    m_host.Leave(client);
}

void Connections::Sweep() {
    for (std::uint64_t const number : m_ended) {
        auto const found = m_clients.find(number);
        ::close(found->second.fd);
        m_clients.erase(found);
    }
    m_ended.clear();
}

}  // namespace rmgrd
