#include "velt/scanning/ScanRequests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "testing/ScriptedStream.h"

using namespace VELT;

namespace {

// Takes so much of each write, as a socket does: nothing of 2 GiB and more, of which it says so by errno.
class Socket : public BufferedStream {
public:
    explicit Socket(unsigned most) : m_most(most) {}
    int read(char*, unsigned, unsigned* received) override { return *received = 0; }
    int write(char const*, unsigned length, unsigned* sent) override {
        calls.push_back(length);
        errno = EMSGSIZE;
        if (length >= 0x7FFFFFFFu) return -1;
        *sent = std::min(length, m_most);
        taken += *sent;
        return 0;
    }
    int writev(unsigned, unsigned*, char const**, unsigned*) override { return EBADF; }

    std::vector<unsigned> calls;
    unsigned long taken = 0;

private:
    unsigned m_most;
};

int WriteBlock(Socket& socket, unsigned length) {
    scan_requests::Body body(socket);
    unsigned sent = 0;
    char const few[16]{};  // what is larger goes out as it is, and the socket looks at nothing of it
    int const error = body.write(few, length, &sent);
    return error ? error : body.Send();
}

}  // namespace

TEST(RequestBody, OfGibibytesGoesOutInWritesThatASocketTakes) {
    for (unsigned const length : {0x7FFFFFFEu, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        Socket socket(0xFFFFFFFFu);
        EXPECT_EQ(WriteBlock(socket, length), 0) << length;
        EXPECT_EQ(socket.taken, length);
        EXPECT_LT(*std::max_element(socket.calls.begin(), socket.calls.end()), 0x7FFFFFFFu);
    }
}

TEST(RequestBody, OfWhichAWriteTakesNothingIsAFailureAndNoEndlessLoop) {
    Socket socket(0);
    EXPECT_EQ(WriteBlock(socket, 100000), EIO);
    EXPECT_EQ(socket.calls.size(), 1u);
}

TEST(RequestBody, GoesOnBehindWhatAWriteTook) {
    Socket socket(30000);
    EXPECT_EQ(WriteBlock(socket, 100000), 0);
    EXPECT_EQ(socket.calls, (std::vector<unsigned>{100000, 70000, 40000, 10000}));
}

TEST(RequestBody, FailsByTheErrnoOfAWriteThatNamesNone) {
    class Broken : public Socket {
    public:
        Broken() : Socket(0) {}
        int write(char const*, unsigned, unsigned*) override {
            errno = ENOBUFS;
            return -1;
        }
    } broken;
    EXPECT_EQ(WriteBlock(broken, 100000), ENOBUFS);
    EXPECT_EQ(WriteBlock(broken, 10), ENOBUFS);
}
