// The resource manager as a daemon, velt-rmgrd: one connection to its socket is one handle.
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system/SystemPath.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <string>

#include <velt/scanning/RSMgrBackends.h>

namespace VELT::manager {

namespace {

using Steady = std::chrono::steady_clock;

constexpr int kAnswerSeconds = 5;  // beyond what the question itself allows
constexpr int kSearch = 0;         // the resource that waits: its first question opens it, and hears a refusal

// A late answer would be taken for that of the next question: nothing more is said on this connection.
int GiveUp(int handle, int error) {
    ::shutdown(handle, SHUT_RDWR);
    errno = error;
    return -1;
}

bool IsReadable(int handle, Steady::time_point until) {
    for (;;) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Steady::now()).count();
        pollfd one{handle, POLLIN, 0};
        int const ready = ::poll(&one, 1, static_cast<int>(std::clamp<long long>(left, 0, 1 << 30)));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return false;
        if (ready == 0 && left <= 0) return false;
    }
}

// What the answer says, and errno.
int Exchange(int handle, Question const& question, Answer& answer, long long seconds = 0) {
    auto const until = Steady::now() + std::chrono::seconds(seconds + kAnswerSeconds);
    if (::send(handle, &question, sizeof question, MSG_NOSIGNAL) != sizeof question) return GiveUp(handle, EIO);
    if (!IsReadable(handle, until)) return GiveUp(handle, ETIMEDOUT);
    if (::recv(handle, &answer, sizeof answer, MSG_DONTWAIT | MSG_TRUNC) != sizeof answer) return GiveUp(handle, EIO);
    if (answer.result < 0) errno = answer.error;
    return std::max(answer.result, -1);
}

Question About(Request request, int value = 0) {
    Question question{};
    question.request = static_cast<std::uint32_t>(request);
    question.values[0] = value;
    return question;
}

bool FindSocket(sockaddr_un& address) {
    try {
        std::string const path = SystemPath(kSocketPath);
        address.sun_family = AF_UNIX;
        errno = ENAMETOOLONG;
        if (path.size() >= sizeof address.sun_path) return false;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        return true;
    } catch (std::bad_alloc const&) {
        errno = ENOMEM;
        return false;
    }
}

// A full queue of connections is waited for like an answer.
int Connect() {
    sockaddr_un address{};
    if (!FindSocket(address)) return -1;
    int const fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    timeval const limit{kAnswerSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    int const error = errno;
    ::close(fd);
    errno = error;
    return -1;
}

int Open(int resource) {
    int const fd = Connect();
    if (fd < 0) return -1;
    if (resource == kSearch) return MoveUp(fd);
    Answer answer;
    if (Exchange(fd, About(kOpen, resource), answer) >= 0) return MoveUp(fd);
    int const error = errno;
    ::close(fd);
    errno = error;
    return -1;
}

int OpenControl() { return Open(kControl); }

// What stands for the control handle on the socket is no resource.
int OpenResource(int resource) {
    if (resource >= 0) return Open(resource);
    errno = ENOENT;
    return -1;
}

// Opens the control handle for one question.
int AskOnce(Request request, Answer& answer) {
    int const handle = OpenControl();
    if (handle < 0) return -1;
    int const result = Exchange(handle, About(request), answer);
    ::close(handle);
    return result;
}

bool SocketIsThere() {
    int const handle = OpenControl();
    if (handle >= 0) ::close(handle);
    return handle >= 0;
}

int AskToWait(int handle, WaitRecord& record) {
    Answer answer;
    int const resource =
        Exchange(handle, About(kWait, std::max(record.timeout, 0)), answer, std::max(record.timeout, 0));
    if (resource < 0) return -1;
    record.id = answer.values[0];
    record.sequence = answer.values[1];
    record.address = static_cast<std::uint32_t>(answer.values[2]);
    record.port = static_cast<std::uint32_t>(answer.values[3]);
    return resource;
}

int AskForName(int handle, char* name) {
    Answer answer;
    if (Exchange(handle, About(kName), answer) < 0) return -1;
    answer.name[sizeof answer.name - 1] = '\0';
    std::strcpy(name, answer.name);
    return 0;
}

int Announce(int handle, SetupRecord const& record) {
    Question question = About(kSetup);
    std::copy(std::begin(record.values), std::end(record.values), question.values);
    question.address = record.address;
    question.port = record.port;
    std::memcpy(question.name, record.name, kNameBytes);
    Answer answer;
    return Exchange(handle, question, answer);
}

// The manager hangs up on a resource that has gone. Several threads may look at once, since nothing is exchanged.
int IsConnected(int handle) {
    char byte;
    return ::recv(handle, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EINTR);
}

int AskSocket(int handle, Request request, void* argument) {
    if (request == kIsUp) return IsConnected(handle);
    if (request == kWait) return AskToWait(handle, *static_cast<WaitRecord*>(argument));
    if (request == kName) return AskForName(handle, static_cast<char*>(argument));
    if (request == kSetup) return Announce(handle, *static_cast<SetupRecord*>(argument));
    Answer answer;
    return Exchange(handle, About(request), answer);
}

bool SocketIsActive() {
    Answer answer;
    return AskOnce(kServersInUse, answer) > 0;
}

bool ReadSocketSettings(Settings& settings) {
    Answer answer;
    if (AskOnce(kSettings, answer) < 0) return false;
    settings = {answer.values[0], answer.values[1], answer.values[2], answer.values[3]};
    return true;
}

}  // namespace

Backend const g_socket{SocketIsThere, OpenControl, OpenResource, AskSocket, SocketIsActive, ReadSocketSettings};

}  // namespace VELT::manager
