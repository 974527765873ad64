#include "velt/scanning/ScanRequests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "testing/ScriptedStream.h"

using namespace VELT;

namespace {

// Takes so much of each write, as a socket does: nothing of 2 GiB and more, of which it says so by errno.
class Socket {
public:
    explicit Socket(unsigned most) : m_most(most) {}
    virtual ~Socket() = default;
    virtual int send(unsigned length, bool more, unsigned* sent) {
        calls.push_back(length);
        held.emplace_back(length, more);
        errno = EMSGSIZE;
        if (length >= 0x7FFFFFFFu) return -1;
        *sent = std::min(length, m_most);
        taken += *sent;
        return 0;
    }

    std::vector<unsigned> calls;
    std::vector<std::pair<unsigned, bool>> held;  // the same, and whether more was to follow
    unsigned long taken = 0;

private:
    unsigned m_most;
};

scan_requests::Body BodyFor(Socket& socket) {
    return scan_requests::Body(
        [&socket](char const*, unsigned length, bool more, unsigned* sent) { return socket.send(length, more, sent); });
}

int WriteBlock(Socket& socket, unsigned length) {
    scan_requests::Body body = BodyFor(socket);
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
        int send(unsigned, bool, unsigned*) override {
            errno = ENOBUFS;
            return -1;
        }
    } broken;
    EXPECT_EQ(WriteBlock(broken, 100000), ENOBUFS);
    EXPECT_EQ(WriteBlock(broken, 10), ENOBUFS);
}

TEST(RequestBody, LeavesWithWhatComesBeforeIt) {
    char const few[16]{};
    for (unsigned const length : {10u, 100000u}) {
        Socket socket(0xFFFFFFFFu);
        scan_requests::Body body = BodyFor(socket);
        unsigned sent = 0;
        EXPECT_EQ(body.Begin("get setup_scan\n\n"), 0);
        EXPECT_EQ(body.write(few, 16, &sent), 0);
        EXPECT_EQ(body.write(few, length, &sent), 0);
        EXPECT_EQ(body.Send(), 0);
        using Calls = std::vector<std::pair<unsigned, bool>>;
        EXPECT_EQ(socket.held,
                  length == 10 ? (Calls{{16, true}, {26, false}}) : (Calls{{16, true}, {16, true}, {length, false}}));
    }
}
