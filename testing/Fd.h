// Fd: a descriptor of a test's. Owner: the scope that it lives in, which closes it. Thread: any. Failure: none; -1 is
// none.
#pragma once

#include <unistd.h>

#include <utility>

namespace velt_testing {

class Fd {
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    ~Fd() { Close(); }
    Fd(Fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }
    void Close() {
        if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
    }

private:
    int m_fd;
};

}  // namespace velt_testing
