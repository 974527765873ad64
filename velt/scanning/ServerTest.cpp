#include "velt/scanning/ServerTest.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <mutex>

#include "velt/logging/Keys.h"

extern "C" {
std::time_t __real_time(std::time_t* out);
std::time_t __wrap_time(std::time_t* out);
unsigned __wrap_sleep(unsigned seconds);
int __real_pthread_create(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
}

namespace {

constexpr unsigned kCacheStepSeconds = 30;

// Threads outlive the test that made them, and main.
struct Sleepers {
    std::mutex lock;
    std::condition_variable changed;
    unsigned started = 0;
    std::size_t stackBytes = 0;  // of the latest
    unsigned asleep = 0;
    unsigned long arrivals = 0;
    unsigned long looks = 0;
    std::vector<unsigned> pauses;
};
Sleepers& s_sleepers = *new Sleepers;
std::atomic<bool> s_noThreads{false};

}  // namespace

std::time_t __wrap_time(std::time_t* out) {
    std::time_t const shown = velt_testing::FixedTime::Shown();
    if (shown == 0) return __real_time(out);
    if (out) *out = shown;
    return shown;
}

unsigned __wrap_sleep(unsigned seconds) {
    velt_testing::SparedNew const notes;
    std::unique_lock hold(s_sleepers.lock);
    if (seconds != kCacheStepSeconds) {
        s_sleepers.pauses.push_back(seconds);
        return 0;
    }
    unsigned long const look = s_sleepers.looks;
    ++s_sleepers.asleep;
    ++s_sleepers.arrivals;
    s_sleepers.changed.notify_all();
    s_sleepers.changed.wait(hold, [&] { return s_sleepers.looks != look; });
    --s_sleepers.asleep;
    return 0;
}

int __wrap_pthread_create(pthread_t* thread, pthread_attr_t const* how, void* (*entry)(void*), void* argument) {
    velt_testing::SparedNew const system;
    if (s_noThreads) return EAGAIN;
    std::size_t stackBytes = 0;  // before the call: a sanitizer enlarges it there
    if (entry == &VELT::cachehandler) ::pthread_attr_getstacksize(how, &stackBytes);
    int const error = __real_pthread_create(thread, how, entry, argument);
    std::lock_guard const hold(s_sleepers.lock);
    if (error != 0 || entry != &VELT::cachehandler) return error;
    ++s_sleepers.started;
    s_sleepers.stackBytes = stackBytes;
    return error;
}

namespace velt_testing {

using namespace VELT;

std::vector<unsigned> Pauses() {
    std::lock_guard const hold(s_sleepers.lock);
    return s_sleepers.pauses;
}

void ForgetPauses() {
    std::lock_guard const hold(s_sleepers.lock);
    s_sleepers.pauses.clear();
}

unsigned CacheThreadsStarted() {
    std::lock_guard const hold(s_sleepers.lock);
    return s_sleepers.started;
}

std::size_t CacheThreadStackBytes() {
    std::lock_guard const hold(s_sleepers.lock);
    return s_sleepers.stackBytes;
}

void LetCacheThreadsLook() {
    std::unique_lock hold(s_sleepers.lock);
    s_sleepers.changed.wait(hold, [] { return s_sleepers.asleep == s_sleepers.started; });
    unsigned long const expected = s_sleepers.arrivals + s_sleepers.asleep;
    ++s_sleepers.looks;
    s_sleepers.changed.notify_all();
    s_sleepers.changed.wait(hold, [&] { return s_sleepers.arrivals >= expected; });
}

void RefuseThreads(bool on) { s_noThreads = on; }

void WaitingSession::LogConnectionAttributes(KORlog::InfoBag& bag) const { bag |= QXPROP_AUDIT_ID(std::string("a-1")); }

ServerTest::ServerTest() {
    NewList();
    ForgetPauses();
    ScannerServer::LsConnTimeout = 5;
    ScannerServer::LsDataTimeout = 20;
    ScannerServer::s_usethreads = true;
}

ServerTest::~ServerTest() { RefuseThreads(false); }

ScannerServer& ServerTest::Server(int id) { return *ScannerServer::findserver(sequence, id, id, &listener.address()); }

ServerTest::Wire ServerTest::Connected(std::string const& answer) {
    auto [ours, peer] = SocketPair();
    Say(peer, answer);
    return {new TCPStream(ours.release()), std::move(peer)};
}

Fd ServerTest::Kept(ScannerServer& server) {
    Wire wire = Connected(good);
    int handle = -1;
    server.end_connection(handle, wire.stream, true);
    EXPECT_EQ(Heard(wire.peer), stasis);
    return std::move(wire.peer);
}

bool ServerTest::IsClosed(Fd const& peer) {
    char byte;
    ssize_t const count = ::recv(peer.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno == ECONNRESET);
}

void ServerTest::Say(Fd const& peer, std::string const& text) {
    EXPECT_EQ(::send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

}  // namespace velt_testing
