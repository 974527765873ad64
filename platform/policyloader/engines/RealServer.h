// RealServer: a server program of the system that a test starts on a local socket of its own, and ends as it likes.
// Owner: the test; its end kills what still runs.  Threads: the test's.
// Failure: fails the test when nobody listens in time.
#pragma once

#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <testing/Fd.h>

namespace policyloader {

class RealServer {
public:
    RealServer(std::vector<std::string> command, std::string socket)
        : m_command(std::move(command)), m_socket(std::move(socket)) {}
    ~RealServer() { stop(SIGKILL); }
    RealServer(RealServer const&) = delete;
    RealServer& operator=(RealServer const&) = delete;

    static bool isInstalled(char const* program) { return ::access(program, X_OK) == 0; }

    void start() {
        spawn();
        auto const limit = std::chrono::steady_clock::now() + std::chrono::seconds(90);
        while (!listens()) {
            ASSERT_LT(std::chrono::steady_clock::now(), limit) << m_command.front();
            ASSERT_EQ(::waitpid(m_leader, nullptr, WNOHANG), 0) << m_command.front() << " has ended";
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    // It and all that it has started.
    void stop(int signal) {
        if (m_leader <= 0) return;
        ::kill(-m_leader, signal);
        ::waitpid(m_leader, nullptr, 0);
        m_leader = -1;
        ::unlink(m_socket.c_str());
    }

private:
    void spawn() {
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        for (int const fd : {0, 1, 2}) ::posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        std::vector<char*> arguments;
        for (auto& word : m_command) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        EXPECT_EQ(::posix_spawn(&m_leader, arguments.front(), &actions, &attributes, arguments.data(), environ), 0);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
    }
    bool listens() const {
        velt_testing::Fd const probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        m_socket.copy(address.sun_path, sizeof address.sun_path - 1);
        return ::connect(probe.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
    }

    std::vector<std::string> m_command;
    std::string const m_socket;
    pid_t m_leader = -1;
};

}  // namespace policyloader
