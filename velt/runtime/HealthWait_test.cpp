// How the reader of a health request waits: poll is played by the test, so this is a program of its own.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <velt/runtime/HealthRequest.h>

namespace {

struct Wait {
    int fd;
    short events;
    int timeoutMs;
};

// Errors that the next calls of poll end with, 0 for a timeout; then there is input.
std::deque<int> s_errors;
std::deque<Wait> s_waits;

}  // namespace

extern "C" int __wrap_poll(pollfd* watched, nfds_t count, int timeoutMs) {
    EXPECT_EQ(count, 1u);
    s_waits.push_back({watched->fd, watched->events, timeoutMs});
    if (s_errors.empty()) {
        watched->revents = POLLIN;
        return 1;
    }
    errno = s_errors.front();
    s_errors.pop_front();
    return errno == 0 ? 0 : -1;
}

namespace {

constexpr std::string_view kRequest = "GET / HTTP/1.0\r\n\r\n";

class WaitTest : public ::testing::Test {
protected:
    // The path, or the text of the failure, when poll ends with these errors first; the client has left.
    std::string After(std::deque<int> errors) {
        s_errors = std::move(errors);
        s_waits.clear();
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        EXPECT_EQ(::write(ends[1], kRequest.data(), kRequest.size()), static_cast<ssize_t>(kRequest.size()));
        ::close(ends[1]);
        std::string const result = Read(ends[0]);
        ::close(ends[0]);
        for (Wait const& wait : s_waits) EXPECT_EQ(wait.fd, ends[0]);
        return result;
    }

private:
    static std::string Read(int socket) {
        char path[128] = "#";
        try {
            VELT::read_request_info(socket, path, sizeof path);
        } catch (VELT::ProxyHealthIOError const& failure) {
            return failure.what();
        }
        return path;
    }
};

TEST_F(WaitTest, IsForInputAndASecondLong) {
    EXPECT_EQ(After({}), "/");
    ASSERT_EQ(s_waits.size(), 1u);
    EXPECT_EQ(s_waits[0].events, POLLIN);
    EXPECT_EQ(s_waits[0].timeoutMs, 1000);
}

TEST_F(WaitTest, GoesRoundAgainAfterASignalAndAfterATemporaryFailure) {
    EXPECT_EQ(After({EINTR, EAGAIN, EAGAIN, EINTR, EINTR}), "/");
    ASSERT_EQ(s_waits.size(), 6u);
    for (Wait const& wait : s_waits) EXPECT_EQ(wait.timeoutMs, 1000);
}

TEST_F(WaitTest, EndsWithAnyOtherFailureAndWithATimeout) {
    for (int const error : {0, EBADF, EFAULT, EINVAL, ENOMEM}) {
        EXPECT_EQ(After({EINTR, error}), "Error waiting for client") << error;
        EXPECT_EQ(s_waits.size(), 2u) << error;
    }
}

}  // namespace
