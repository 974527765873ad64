// ScriptedServer: a server on a local socket that does to each connection what a test says.
// Owner: the test; its end ends the connections and waits for the threads.  Threads: one for accepting, one for each
// connection.  Failure: fails the test.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <testing/Fd.h>

namespace policyloader {

class ScriptedServer {
public:
    // With the descriptor and the number of the connection, from 0; it is closed when the script returns.
    using Script = std::function<void(int fd, int connection)>;

    ScriptedServer(std::string path, Script script) : m_path(std::move(path)), m_script(std::move(script)) {
        m_listener = velt_testing::Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(m_listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << m_path;
        EXPECT_EQ(::listen(m_listener.get(), 64), 0);
        m_thread = std::thread([this] { accept(); });
    }
    ~ScriptedServer() {
        ::shutdown(m_listener.get(), SHUT_RDWR);
        m_thread.join();
        {
            std::lock_guard<std::mutex> const guard(m_mutex);
            for (auto const& connection : m_connections) ::shutdown(connection.get(), SHUT_RDWR);
        }
        for (auto& thread : m_threads) thread.join();
        ::unlink(m_path.c_str());
    }

    std::string const& path() const { return m_path; }
    int connections() const { return m_count; }

private:
    void accept() {
        for (;;) {
            int const fd = ::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            std::lock_guard<std::mutex> const guard(m_mutex);
            m_connections.emplace_back(fd);
            m_threads.emplace_back([this, fd, number = m_count++] {
                m_script(fd, number);
                ::shutdown(fd, SHUT_RDWR);
            });
        }
    }

    std::string const m_path;
    Script const m_script;
    velt_testing::Fd m_listener;
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<velt_testing::Fd> m_connections;
    std::vector<std::thread> m_threads;  // of the accepting thread alone until it ends
    std::atomic<int> m_count{0};
};

// Helpers of scripts. False: the other side is gone.
inline bool ReadExactly(int fd, char* room, std::size_t size) {
    while (size > 0) {
        ssize_t const got = ::recv(fd, room, size, 0);
        if (got <= 0) return false;
        room += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

inline bool Say(int fd, std::string const& text) {
    return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

inline void WaitForTheOtherSideToLeave(int fd) {
    char byte = 0;
    while (::recv(fd, &byte, 1, 0) > 0) continue;
}

}  // namespace policyloader
