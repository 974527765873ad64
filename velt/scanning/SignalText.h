// SignalText: text into a file from where nothing may be allocated, such as a signal handler.
// Owner: a block of code; the destructor writes what is left and closes the file. Thread: one. Failure: silent; without
// a file nothing is written.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace VELT {

class SignalText {
public:
    SignalText(int directory, char const* name)
        : m_fd(::openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)) {}
    ~SignalText() {
        Flush();
        if (m_fd >= 0) ::close(m_fd);
    }
    SignalText(SignalText const&) = delete;
    SignalText& operator=(SignalText const&) = delete;

    SignalText& operator<<(char const* text) {
        for (; text && *text; ++text) Put(*text);
        return *this;
    }
    SignalText& operator<<(long number) { return Number(number < 0 ? 0 : static_cast<unsigned long>(number), 10); }
    SignalText& Hex(unsigned long number) { return *this << "0x", Number(number, 16); }

private:
    SignalText& Number(unsigned long number, unsigned base) {
        char digits[24];
        char* digit = digits + sizeof digits;
        *--digit = '\0';
        do *--digit = "0123456789abcdef"[number % base];
        while ((number /= base) != 0);
        return *this << digit;
    }
    void Put(char c) {
        if (m_used == sizeof m_buffer) Flush();
        m_buffer[m_used++] = c;
    }
    void Flush() {
        for (std::size_t at = 0; m_fd >= 0 && at < m_used;) {
            ssize_t const written = ::write(m_fd, m_buffer + at, m_used - at);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) break;
            at += static_cast<std::size_t>(written);
        }
        m_used = 0;
    }

    int m_fd;
    std::size_t m_used = 0;
    char m_buffer[1024];
};

}  // namespace VELT
