#include "testing/ScannerPeer.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "testing/Waiting.h"

namespace velt_testing {

namespace {

constexpr int kPatienceMs = kPatienceSeconds * 1000;

bool IsReadable(int fd) {
    pollfd one{fd, POLLIN, 0};
    return ::poll(&one, 1, kPatienceMs) == 1;
}

// What comes next, at most so much; empty at the end.
std::string Receive(int fd, std::size_t most) {
    std::string text(most, '\0');
    ssize_t const count = IsReadable(fd) ? ::recv(fd, text.data(), most, MSG_DONTWAIT) : -1;
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return text;
}

// All of it, or as much of it as the client takes: it may have left.
void Say(int fd, std::string const& text) {
    for (std::size_t went = 0; went < text.size();) {
        pollfd one{fd, POLLOUT, 0};
        ::poll(&one, 1, kPatienceMs);
        ssize_t const count = ::send(fd, text.data() + went, text.size() - went, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count <= 0) return;
        went += static_cast<std::size_t>(count);
    }
}

void CloseHard(Fd& fd) {
    linger const none{1, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    fd.Close();
}

}  // namespace

ScannerPeer::~ScannerPeer() { Finish(); }

void ScannerPeer::Converse(Conversation steps) {
    m_threads.emplace_back([this, steps = std::move(steps), turn = m_turns++] {
        try {
            Have(steps, turn);
        } catch (Ended const&) {
        }
    });
}

void ScannerPeer::Pass() {
    std::lock_guard const hold(m_lock);
    ++m_passes;
    m_changed.notify_all();
}

bool ScannerPeer::IsHeld() const {
    std::lock_guard const hold(m_lock);
    return m_held > 0;
}

void ScannerPeer::Finish() {
    for (std::thread& one : m_threads) one.join();
    m_threads.clear();
}

unsigned ScannerPeer::connections() const {
    std::lock_guard const hold(m_lock);
    return m_connections;
}

Fd ScannerPeer::TakeTurn(unsigned turn) {
    std::unique_lock hold(m_lock);
    m_changed.wait(hold, [&] { return m_connections == turn; });
    hold.unlock();
    Fd fd = IsReadable(m_listener.fd()) ? m_listener.Accept() : Fd();
    int const on = 1;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // one step does not wait for another's receipt
    hold.lock();
    ++m_connections;
    m_changed.notify_all();
    return fd;
}

void ScannerPeer::Have(Conversation const& steps, unsigned turn) {
    Fd fd = TakeTurn(turn);
    EXPECT_GE(fd.get(), 0) << "nobody came for a conversation";
    if (fd.get() < 0) return;
    for (std::string const& step : steps) {
        std::string const text = step.substr(2);
        if (step[0] == 'C') Hear(fd.get(), text);
        if (step[0] == 'S') Say(fd.get(), text);
        if (step[0] == 'X') Do(fd, text);
    }
}

void ScannerPeer::Hear(int fd, std::string const& text) {
    std::string heard;
    while (heard.size() < text.size()) {
        std::string const more = Receive(fd, text.size() - heard.size());
        if (more.empty()) break;
        heard += more;
    }
    EXPECT_EQ(heard, text);
    if (heard != text) throw Ended();
}

void ScannerPeer::Do(Fd& fd, std::string const& deed) {
    if (deed == "close") fd.Close();
    if (deed == "reset") CloseHard(fd);
    if (deed == "end") {
        EXPECT_TRUE(IsReadable(fd.get())) << "the client did not close";
        EXPECT_EQ(Receive(fd.get(), 4096), "") << "after the last step";
    }
    if (deed == "pass") {
        std::unique_lock hold(m_lock);
        ++m_held;
        EXPECT_TRUE(m_changed.wait_for(hold, std::chrono::seconds(kPatienceSeconds), [this] { return m_passes > 0; }));
        --m_passes;
        --m_held;
    }
}

}  // namespace velt_testing
