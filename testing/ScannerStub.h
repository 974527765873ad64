// ScannerStub: a scanner process that answers every request at once: each item is clean and stays as it was. It does
// not look at the content, of which it knows nothing but the length.
// Owner: the test or benchmark; it outlives the client's use of it. Threads: one of its own, and one for each
// connection; the verbs are the caller's. Units: bytes. Failure: std::system_error where it cannot listen.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <system/Descriptor.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace velt_testing {

class ScannerStub {
public:
    ScannerStub() : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof m_address;
        auto* const generic = reinterpret_cast<sockaddr*>(&m_address);
        if (::bind(m_listener.get(), generic, length) || ::listen(m_listener.get(), 16) ||
            ::getsockname(m_listener.get(), generic, &length))
            throw std::system_error(errno, std::generic_category(), "ScannerStub");
        m_accepting = std::thread([this] { Accept(); });
    }
    ~ScannerStub() {  // when the client's ends are closed
        ::shutdown(m_listener.get(), SHUT_RDWR);
        m_accepting.join();
        for (std::thread& one : m_serving) one.join();
    }
    ScannerStub(ScannerStub const&) = delete;
    ScannerStub& operator=(ScannerStub const&) = delete;

    sockaddr_in& address() { return m_address; }
    unsigned connections() const { return m_connections; }
    unsigned open() const { return m_open; }               // of these
    unsigned long received() const { return m_received; }  // of all, before the answers to it went out

private:
    void Accept() {
        for (;;) {
            int const fd = ::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            ++m_connections;
            ++m_open;
            m_serving.emplace_back([this, fd] {
                Serve(fd);
                ::close(fd);
                --m_open;
            });
        }
    }

    void Serve(int fd) {
        std::string text;
        char block[65536];
        for (ssize_t count; (count = ::recv(fd, block, sizeof block, 0)) > 0;) {
            m_received += static_cast<unsigned long>(count);
            text.append(block, static_cast<std::size_t>(count));
            while (std::size_t const length = Request(text)) {
                std::string_view const answer = text.starts_with("get scan\n") ? kVerdict : kOk;
                if (::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return;
                text.erase(0, length);
            }
        }
    }

    // The length of the request at the front; 0: it is not whole yet.
    static std::size_t Request(std::string const& text) {
        std::size_t const head = text.find("\n\n");
        if (head == text.npos) return 0;
        if (!text.starts_with("get setup_scan\n")) return head + 2;
        std::size_t const section = text.find("\r\n", head + 2);
        if (section == text.npos) return 0;
        std::size_t const file = text.find("\nfilename "), size = text.find("\nsize ");
        std::size_t const content = file < head ? 0 : std::strtoul(text.c_str() + size + 6, nullptr, 10);
        return section + 2 + content <= text.size() ? section + 2 + content : 0;
    }

    static constexpr std::string_view kOk = "State OK\n\n";
    static constexpr std::string_view kVerdict =
        "State OK\nsize 0\noutput_in_input 1\ncached 0\ninput_modified 0\n\n"
        "msr.triggered sl 0\nmsr.modified sl 0\n\n\r\n";

    Descriptor const m_listener;
    sockaddr_in m_address{};
    std::atomic<unsigned> m_connections{0};
    std::atomic<unsigned> m_open{0};
    std::atomic<unsigned long> m_received{0};
    std::vector<std::thread> m_serving;  // of the accepting thread, until that has ended
    std::thread m_accepting;
};

}  // namespace velt_testing
