// ScriptedScanner: a scanner server that answers every scan alike, the test file found or not.
// Owner: the test. Threads: one of its own, which serves one connection after the other. Failure: none.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <string>
#include <thread>

#include "testing/Sockets.h"

namespace velt_testing {

class ScriptedScanner {
public:
    explicit ScriptedScanner(bool finds) : m_finds(finds), m_serving([this] { Serve(); }) {}
    ~ScriptedScanner() {
        ::shutdown(m_listener.fd(), SHUT_RDWR);
        m_serving.join();
    }
    unsigned short port() const { return m_listener.port(); }
    void Finds(bool finds) { m_finds = finds; }

    static std::string HearTo(int peer, std::string const& end) {
        std::string heard;
        char byte;
        while (heard.find(end) == heard.npos && ::recv(peer, &byte, 1, 0) == 1) heard += byte;
        return heard;
    }
    static void Say(int peer, std::string const& text) { ::send(peer, text.data(), text.size(), MSG_NOSIGNAL); }

    static constexpr char const* endOfFile = "STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
    static constexpr char const* ok = "State OK\n\n";
    static constexpr char const* scanned = "State OK\nsize 0\noutput_in_input 1\ncached 0\ninput_modified 0\n\n";
    static constexpr char const* found = "msr.sr.result\nclassname ss 12\nKORAVScannerinfecteditems sl 1\n\n\n";

private:
    void Serve() {
        for (int fd; (fd = ::accept(m_listener.fd(), nullptr, nullptr)) >= 0;) {
            Fd const peer(fd);
            HearTo(fd, endOfFile);
            Say(fd, ok);
            HearTo(fd, "get scan\n\n");
            Say(fd, std::string(scanned) + (m_finds ? found : "\n") + "\n");
        }
    }
    Listener m_listener;
    std::atomic<bool> m_finds;
    std::thread m_serving;
};

}  // namespace velt_testing
