#include <QXStats/QXCounter.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "testing/Sockets.h"
#include "velt/streams/WrappedCalls.h"

extern "C" {
int __real_poll(pollfd* watched, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd* watched, nfds_t count, int timeout_ms);
ssize_t __real_recv(int fd, void* data, size_t length, int flags);
ssize_t __wrap_recv(int fd, void* data, size_t length, int flags);
ssize_t __real_send(int fd, void const* data, size_t length, int flags);
ssize_t __wrap_send(int fd, void const* data, size_t length, int flags);
ssize_t __real_writev(int fd, iovec const* pieces, int count);
ssize_t __wrap_writev(int fd, iovec const* pieces, int count);
}

namespace {

bool Fails(std::vector<int>& next = velt_testing::failures) {
    if (next.empty()) return false;
    errno = next.back();
    next.pop_back();
    return true;
}

}  // namespace

int __wrap_poll(pollfd* watched, nfds_t count, int timeout_ms) {
    velt_testing::waits.push_back(timeout_ms);
    return Fails(velt_testing::pollFailures) ? -1 : __real_poll(watched, count, timeout_ms);
}
ssize_t __wrap_recv(int fd, void* data, size_t length, int flags) {
    return Fails() ? -1 : __real_recv(fd, data, length, flags);
}
ssize_t __wrap_send(int fd, void const* data, size_t length, int flags) {
    velt_testing::sendFlags = flags;
    return Fails() ? -1 : __real_send(fd, data, length, flags);
}
ssize_t __wrap_writev(int fd, iovec const* pieces, int count) {
    return Fails() ? -1 : __real_writev(fd, pieces, count);
}

using namespace VELT;
using namespace velt_testing;

namespace {

unsigned long DataErrors() { return QXStats::QXCounter("comms.data").value(); }

// The waits of the calls in `work`, each once however often it is repeated.
template <class Work>
std::vector<int> WaitsOf(Work work) {
    waits.clear();
    work();
    std::vector<int> found = waits;
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

// The system refuses to wait for anything while this lives.
class NoPoll {
public:
    NoPoll() {
        ::getrlimit(RLIMIT_NOFILE, &m_usual);
        rlimit const none{0, m_usual.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoPoll() { ::setrlimit(RLIMIT_NOFILE, &m_usual); }

private:
    rlimit m_usual{};
};

// A stream and the other end of its connection.
class TCPStreamIO : public ::testing::Test {
protected:
    static BufferPool& Pool() {
        static BufferPool pool(4096, 0);
        return pool;
    }
    void SetUp() override {
        TCPStream::initialise(nullptr);
        TCPStream::set_pool(&Pool());
        UsePair(SocketPair());
    }
    void UsePair(std::pair<Fd, Fd> ends) {
        stream = std::make_unique<TCPStream>(ends.first.release());
        peer = std::move(ends.second);
        stream->set_timeout(10000);
    }
    void PeerSays(std::string const& text) {
        ASSERT_EQ(::send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    std::string PeerGot() { return ReadAvailable(peer.get()); }
    // Reads all that comes until `total` bytes are there or the stream closes.
    std::thread PeerDrains(std::string& got, std::size_t total) {
        return std::thread([this, &got, total] {
            pollfd one{peer.get(), POLLIN, 0};
            while (got.size() < total && ::poll(&one, 1, 10000) == 1) got += ReadAvailable(peer.get());
        });
    }

    std::unique_ptr<TCPStream> stream;
    Fd peer;
    char room[256];
    unsigned count = 99;
};

std::string Pattern(std::size_t length) {
    std::string text(length, 0);
    for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 7 + i / 251);
    return text;
}

}  // namespace

TEST_F(TCPStreamIO, ReceivesWhatOneReadGave) {
    PeerSays("hello");
    EXPECT_EQ(stream->read(room, sizeof room, &count), 0);
    EXPECT_EQ(std::string(room, count), "hello");
}

TEST_F(TCPStreamIO, LooksAheadWithAFlag) {
    PeerSays("hello");
    EXPECT_EQ(stream->RecvDataFlagged(room, 3, MSG_PEEK, &count), 0);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(stream->read(room, sizeof room, &count), 0);
    EXPECT_EQ(std::string(room, count), "hello");
}

TEST_F(TCPStreamIO, MeetsTheEndAsZeroBytes) {
    peer.Close();
    EXPECT_EQ(stream->read(room, sizeof room, &count), 0);
    EXPECT_EQ(count, 0u);
}

TEST_F(TCPStreamIO, WithATimeoutOfZeroOnlyLooks) {
    stream->set_timeout(0);
    EXPECT_EQ(stream->read(room, sizeof room, &count), 110);
    EXPECT_EQ(count, 0u);
    PeerSays("x");
    EXPECT_EQ(stream->read(room, sizeof room, &count), 0);
    EXPECT_EQ(count, 1u);
}

TEST_F(TCPStreamIO, WaitsOnThroughSignals) {
    int const to = peer.get();
    Alarm alarm(4, [to] { (void)::send(to, "late", 4, MSG_NOSIGNAL); });
    EXPECT_EQ(stream->read(room, sizeof room, &count), 0);
    EXPECT_EQ(std::string(room, count), "late");
    EXPECT_GE(Alarm::ticks(), 4);
}

using Waits = std::vector<int>;

TEST_F(TCPStreamIO, WaitsAsLongAsItsTimeoutSays) {
    for (unsigned const timeout : {0u, 1u, 10000u, 0x7FFFFFFFu}) {
        Waits const asTold{static_cast<int>(timeout)};
        stream->set_timeout(timeout);
        PeerSays("abc");
        EXPECT_EQ(WaitsOf([&] { stream->RecvDataFlagged(room, 1, 0, &count); }), asTold);
        EXPECT_EQ(WaitsOf([&] { stream->read(room, 1, &count); }), asTold);
        EXPECT_EQ(WaitsOf([&] { stream->read(room, 1); }), asTold);
        EXPECT_EQ(WaitsOf([&] { stream->SendDataFlagged("x", 1, 0, &count); }), asTold);
        EXPECT_EQ(WaitsOf([&] { stream->write("x", 1); }), asTold);
        EXPECT_EQ(WaitsOf([&] { stream->PutLine("x", true); }), asTold);
        EXPECT_EQ(WaitsOf([&] { stream->SendDataNonBlocked("x", 1); }), Waits{0});
        EXPECT_EQ(WaitsOf([&] { stream->IsStillConnected(); }), Waits{0});
    }
}

TEST_F(TCPStreamIO, WithATimeoutOfZeroNothingWaits) {
    stream->set_timeout(0);
    char* data = nullptr;
    bool io_done = false;
    LINE_STATE_T state;
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->read(room, 1, &count), 110); }), Waits{0});
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->read(room, 1), 110); }), Waits{0});
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->getline(data, true, io_done, state, true), -1); }), Waits{0});
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->readdata(data, 9, true, io_done), -1); }), Waits{0});
    Fill(stream->GetSocket());
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->write("x", 1), 110); }), Waits{0});
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->PutLine("x", true), 110); }), Waits{0});
}

// A signal starts the wait anew, with all of its time.
TEST_F(TCPStreamIO, SignalsShortenNoWait) {
    Waits const whole{10000};
    {
        int const to = peer.get();
        Alarm alarm(3, [to] { (void)::send(to, "late", 4, MSG_NOSIGNAL); });
        EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->read(room, sizeof room, &count), 0); }), whole);
    }
    EXPECT_GT(waits.size(), 1u);
    Fill(stream->GetSocket());
    int const from = peer.get();
    Alarm alarm(3, [from] {
        static char sink[1 << 16];
        while (::recv(from, sink, sizeof sink, MSG_DONTWAIT) > 0) {
        }
    });
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->write("x", 1), 0); }), whole);
    EXPECT_GT(waits.size(), 1u);
}

TEST_F(TCPStreamIO, ReceiveThatFindsNothingAfterAllWaitsAgain) {
    PeerSays("hello");
    failures = {EAGAIN, EINTR, EAGAIN};
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->read(room, sizeof room, &count), 0); }), Waits{10000});
    EXPECT_EQ(waits.size(), 4u);
    EXPECT_EQ(std::string(room, count), "hello");
}

TEST_F(TCPStreamIO, ReceiveThatFailsWithoutAReasonAnswersMinusOne) {
    PeerSays("hello");
    failures = {0};
    EXPECT_EQ(stream->read(room, sizeof room, &count), -1);
    EXPECT_EQ(count, 0u);
}

TEST_F(TCPStreamIO, WaitThatFailsGivesItsErrnoUncounted) {
    unsigned long const before = DataErrors();
    {
        NoPoll const none;
        EXPECT_EQ(stream->read(room, sizeof room, &count), EINVAL);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(stream->write("x", 1, &count), EINVAL);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(stream->SendDataNonBlocked("x", 1), 0);
    }
    EXPECT_EQ(DataErrors(), before);
    EXPECT_EQ(PeerGot(), "");
}

TEST_F(TCPStreamIO, SendThatIsPutOffIsCountedAndTriedAgain) {
    unsigned long const before = DataErrors();
    failures = {EINTR, EAGAIN};
    EXPECT_EQ(stream->write("hello", 5, &count), 0);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(DataErrors(), before + 2);
    EXPECT_EQ(PeerGot(), "hello");
}

TEST_F(TCPStreamIO, GivesTheErrnoOfAFailedReceive) {
    UsePair({Fd(::open("/dev/null", O_RDWR)), Fd()});
    EXPECT_EQ(stream->read(room, sizeof room, &count), ENOTSOCK);
    EXPECT_EQ(count, 0u);
}

TEST_F(TCPStreamIO, ReadsAllThatIsAskedForInHoweverManyPieces) {
    std::string const text = Pattern(200);
    for (std::size_t cut = 1; cut < text.size(); cut += 13) {
        PeerSays(text.substr(0, cut));
        int const to = peer.get();
        std::string const rest = text.substr(cut);
        Alarm alarm(1, [to, &rest] { (void)::send(to, rest.data(), rest.size(), MSG_NOSIGNAL); });
        ASSERT_EQ(stream->read(room, 200), 0);
        ASSERT_EQ(std::string(room, 200), text);
    }
}

TEST_F(TCPStreamIO, ReadOfAllFailsWhereTheStreamEndsBefore) {
    PeerSays("short");
    peer.Close();
    EXPECT_EQ(stream->read(room, 10), -1);
}

TEST_F(TCPStreamIO, ReadOfAllGivesTheCodeOfAFailure) {
    PeerSays("short");
    stream->set_timeout(0);
    EXPECT_EQ(stream->read(room, 10), 110);
    EXPECT_EQ(stream->read(room, 0), 0);
}

TEST_F(TCPStreamIO, SendsItAll) {
    EXPECT_EQ(stream->write("hello ", 6, &count), 0);
    EXPECT_EQ(count, 6u);
    EXPECT_EQ(stream->SendData("you", 3, &count), 0);
    EXPECT_EQ(stream->write("!", 1), 0);
    EXPECT_EQ(PeerGot(), "hello you!");
}

TEST_F(TCPStreamIO, SendOfNothingFailsButWriteOfNothingSucceeds) {
    unsigned long const before = DataErrors();
    peer.Close();
    EXPECT_EQ(stream->SendDataFlagged("", 0, 0, &count), -1);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(stream->write("", 0, &count), -1);
    EXPECT_EQ(stream->write("", 0), 0);
    EXPECT_EQ(DataErrors(), before) << "the system was not asked";
}

TEST_F(TCPStreamIO, SendsWithTheFlagsOfItsCaller) {
    for (int const flag : {0, static_cast<int>(MSG_DONTROUTE), static_cast<int>(MSG_MORE)}) {
        EXPECT_EQ(stream->SendDataFlagged("x", 1, flag, &count), 0);
        EXPECT_EQ(sendFlags & (MSG_DONTROUTE | MSG_MORE), flag);
    }
}

// A host's own stream needs to say but one of them anew.
TEST_F(TCPStreamIO, WritesGoThroughTheSendThatAHostMaySayAnew) {
    class Small : public TCPStream {
    public:
        using TCPStream::TCPStream;
        int SendData(char const* data, unsigned length, unsigned* sent) override {
            ++calls;
            return TCPStream::SendData(data, std::min(length, 2u), sent);
        }
        using TCPStream::SendData;
        int calls = 0;
    };
    Small small(stream->GetSocket());
    stream->SetSocket(-1);
    BufferedStream& base = small;
    EXPECT_EQ(base.write("abc", 3, &count), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(small.write("defgh", 5), 0);
    EXPECT_EQ(small.calls, 4);
    EXPECT_EQ(PeerGot(), "abdefgh");
}

TEST_F(TCPStreamIO, SendOfNothingAsksTheSystemNothing) {
    UsePair(SocketPair(SOCK_SEQPACKET | SOCK_NONBLOCK));
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->SendDataFlagged("x", 0, 0, &count), -1); }), Waits{});
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->write("x", 0), 0); }), Waits{});
    pollfd one{peer.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&one, 1, 0), 0) << "not even an empty record went";
}

TEST_F(TCPStreamIO, SendsBeyondWhatThePeerTakesAtOnce) {
    std::string const text = Pattern(3 << 20);
    std::string got;
    std::thread drain = PeerDrains(got, text.size());
    EXPECT_EQ(stream->write(text.data(), static_cast<unsigned>(text.size()), &count), 0);
    drain.join();
    EXPECT_EQ(count, text.size());
    EXPECT_TRUE(got == text);
}

TEST_F(TCPStreamIO, SendTimesOutWithWhatWentAndCountsIt) {
    unsigned long const before = DataErrors();
    std::string const text = Pattern(8 << 20);
    stream->set_timeout(0);
    EXPECT_EQ(stream->SendDataFlagged(text.data(), static_cast<unsigned>(text.size()), 0, &count), 110);
    EXPECT_GT(count, 0u);
    EXPECT_LT(count, text.size());
    EXPECT_EQ(DataErrors(), before + 1);
    EXPECT_EQ(PeerGot(), text.substr(0, count));
}

TEST_F(TCPStreamIO, SendToAPeerThatIsGoneIsAnErrorAndNoSignal) {
    std::signal(SIGPIPE, SIG_DFL);
    unsigned long const before = DataErrors();
    peer.Close();
    EXPECT_EQ(stream->write("x", 1), EPIPE);
    EXPECT_EQ(DataErrors(), before + 1);
}

TEST_F(TCPStreamIO, SendOfTooMuchIsRefusedUnseen) {
    for (unsigned const length : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        errno = 0;
        EXPECT_EQ(stream->SendDataFlagged(nullptr, length, 0, &count), -1);
        EXPECT_EQ(errno, EMSGSIZE);
        EXPECT_EQ(count, 0u);
    }
    EXPECT_EQ(PeerGot(), "");
}

TEST_F(TCPStreamIO, SendWaitsOnThroughSignals) {
    Fill(stream->GetSocket());
    int const from = peer.get();
    Alarm alarm(4, [from] {
        static char sink[1 << 16];
        while (::recv(from, sink, sizeof sink, MSG_DONTWAIT) > 0) {
        }
    });
    EXPECT_EQ(stream->write("x", 1), 0);
    EXPECT_GE(Alarm::ticks(), 4);
}

TEST_F(TCPStreamIO, VectoredSendJoinsItsBuffers) {
    char const* buffers[] = {"one ", "", "two ", "three"};
    unsigned lengths[] = {4, 0, 4, 5};
    EXPECT_EQ(stream->SendData(4, buffers, lengths, &count), 0);
    EXPECT_EQ(count, 13u);
    EXPECT_EQ(PeerGot(), "one two three");
    EXPECT_EQ(stream->writev(4, lengths, buffers, &count), 0);
    EXPECT_EQ(PeerGot(), "one two three");
    EXPECT_EQ(lengths[0] + lengths[3], 9u) << "the caller's lengths stay";
}

TEST_F(TCPStreamIO, VectoredSendTakesAnyNumberOfBuffers) {
    for (unsigned number = 0; number < 300; number = number * 2 + 1) {
        std::vector<std::string> texts;
        for (unsigned i = 0; i < number; ++i) texts.push_back(Pattern(i % 5 == 3 ? 0 : i % 70));
        std::vector<char const*> buffers;
        std::vector<unsigned> lengths;
        std::string all;
        for (auto const& text : texts) {
            buffers.push_back(text.data());
            lengths.push_back(static_cast<unsigned>(text.size()));
            all += text;
        }
        EXPECT_EQ(stream->SendData(number, buffers.data(), lengths.data(), &count), 0);
        EXPECT_EQ(count, all.size());
        EXPECT_EQ(PeerGot(), all);
    }
}

TEST_F(TCPStreamIO, VectoredSendGoesOnWhereItWasCut) {
    std::vector<std::string> texts;
    std::vector<char const*> buffers;
    std::vector<unsigned> lengths;
    std::string all;
    for (int i = 0; i < 150; ++i) texts.push_back(Pattern(i % 7 == 0 ? 0 : 10007u + static_cast<unsigned>(i) * 131u));
    for (auto const& text : texts) {
        buffers.push_back(text.data());
        lengths.push_back(static_cast<unsigned>(text.size()));
        all += text;
    }
    std::string got;
    std::thread drain = PeerDrains(got, all.size());
    EXPECT_EQ(stream->SendData(150, buffers.data(), lengths.data(), &count), 0);
    drain.join();
    EXPECT_EQ(count, all.size());
    EXPECT_TRUE(got == all);
}

TEST_F(TCPStreamIO, VectoredSendTimesOutUncounted) {
    unsigned long const before = DataErrors();
    std::string const text = Pattern(8 << 20);
    char const* buffers[] = {text.data()};
    unsigned lengths[] = {static_cast<unsigned>(text.size())};
    stream->set_timeout(0);
    EXPECT_EQ(stream->SendData(1, buffers, lengths, &count), 110);
    EXPECT_EQ(PeerGot(), text.substr(0, count));
    EXPECT_EQ(DataErrors(), before);
}

TEST_F(TCPStreamIO, VectoredSendThatASignalInterruptsEndsAsASuccessThatIsShort) {
    Fill(stream->GetSocket());
    char const* buffers[] = {"more"};
    unsigned lengths[] = {4};
    Alarm alarm;
    EXPECT_EQ(stream->SendData(1, buffers, lengths, &count), 0);
    EXPECT_EQ(count, 0u);
}

TEST_F(TCPStreamIO, VectoredSendEndsAsASuccessWhateverEndsItsWait) {
    unsigned long const before = DataErrors();
    char const* buffers[] = {"more"};
    unsigned lengths[] = {4};
    {
        NoPoll const none;
        EXPECT_EQ(stream->SendData(1, buffers, lengths, &count), 0);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(stream->writev(1, lengths, buffers, &count), 0);
        EXPECT_EQ(stream->PutLine("more", true), 0);
    }
    EXPECT_EQ(PeerGot(), "");
    EXPECT_EQ(DataErrors(), before);
}

TEST_F(TCPStreamIO, VectoredSendThatIsPutOffIsTriedAgain) {
    unsigned long const before = DataErrors();
    char const* buffers[] = {"one ", "two"};
    unsigned lengths[] = {4, 3};
    failures = {EAGAIN, EINTR};
    EXPECT_EQ(stream->SendData(2, buffers, lengths, &count), 0);
    EXPECT_EQ(count, 7u);
    EXPECT_EQ(PeerGot(), "one two");
    EXPECT_EQ(DataErrors(), before);
}

TEST_F(TCPStreamIO, VectoredSendOfNothingAsksTheSystemNothing) {
    char const* buffers[] = {"x", "y"};
    unsigned lengths[] = {0, 0};
    count = 99;
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->SendData(2, buffers, lengths, &count), 0); }), Waits{});
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(WaitsOf([&] { EXPECT_EQ(stream->writev(0, lengths, buffers, &count), 0); }), Waits{});
}

TEST_F(TCPStreamIO, VectoredSendOfTooMuchIsASuccessOfNothing) {
    char const* buffers[] = {nullptr, nullptr};
    unsigned lengths[] = {0x40000000, 0x3FFFFFFF};
    errno = 0;
    EXPECT_EQ(stream->SendData(2, buffers, lengths, &count), 0);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(count, 0u);
    unsigned wrapping[] = {0xFFFFFFFF, 0xFFFFFFFF};
    errno = 0;
    EXPECT_EQ(stream->SendData(2, buffers, wrapping, &count), 0);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(TCPStreamIO, VectoredSendGivesTheErrnoOfAFailure) {
    std::signal(SIGPIPE, SIG_IGN);
    unsigned long const before = DataErrors();
    peer.Close();
    char const* buffers[] = {"x"};
    unsigned lengths[] = {1};
    EXPECT_EQ(stream->SendData(1, buffers, lengths, &count), EPIPE);
    EXPECT_EQ(DataErrors(), before);
}

TEST_F(TCPStreamIO, LineLeavesInOneSystemCall) {
    UsePair(SocketPair(SOCK_SEQPACKET | SOCK_NONBLOCK));
    EXPECT_EQ(stream->PutLine("250 OK", true), 0);
    EXPECT_EQ(stream->PutLine(std::string("221 bye"), true), 0);
    EXPECT_EQ(stream->PutLine("bare", false), 0);
    EXPECT_EQ(stream->PutLine("", true), 0);
    for (char const* record : {"250 OK\r\n", "221 bye\r\n", "bare", "\r\n"}) {
        ssize_t const got = ::recv(peer.get(), room, sizeof room, 0);
        EXPECT_EQ(std::string(room, static_cast<std::size_t>(got)), record);
    }
}

TEST_F(TCPStreamIO, LineOfNothingNeedsNoSystemCall) {
    peer.Close();
    EXPECT_EQ(stream->PutLine("", false), 0);
}

TEST_F(TCPStreamIO, SendThatNeverWaitsTellsWhatWent) {
    EXPECT_EQ(stream->SendDataNonBlocked("hello", 5), 5);
    EXPECT_EQ(PeerGot(), "hello");
    Fill(stream->GetSocket());
    EXPECT_EQ(stream->SendDataNonBlocked("hello", 5), 0);
    peer.Close();
    EXPECT_EQ(stream->SendDataNonBlocked("hello", 5), 0);
}

TEST_F(TCPStreamIO, SendThatNeverWaitsDoesNotWaitOnABlockingSocketEither) {
    UsePair(SocketPair(SOCK_STREAM));
    std::string const text = Pattern(8 << 20);
    int const sent = stream->SendDataNonBlocked(text.data(), static_cast<unsigned>(text.size()));
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(text.size()));
}

TEST_F(TCPStreamIO, SendThatNeverWaitsGivesBackALengthThatIsTooMuch) {
    EXPECT_EQ(stream->SendDataNonBlocked(nullptr, 0x7FFFFFFF), 0x7FFFFFFF);
    EXPECT_EQ(static_cast<unsigned>(stream->SendDataNonBlocked(nullptr, 0xFFFFFFF0)), 0xFFFFFFF0u);
    EXPECT_EQ(PeerGot(), "");
}

TEST_F(TCPStreamIO, PeerThatIsSilentOrHasSaidSomethingIsConnected) {
    EXPECT_TRUE(stream->IsStillConnected());
    PeerSays("x");
    EXPECT_TRUE(stream->IsStillConnected());
    EXPECT_EQ(stream->read(room, sizeof room, &count), 0);
    EXPECT_EQ(count, 1u) << "the look takes no byte";
}

TEST_F(TCPStreamIO, PeerThatHungUpIsNotConnected) {
    peer.Close();
    EXPECT_FALSE(stream->IsStillConnected());
}

TEST_F(TCPStreamIO, PeerThatHungUpIsNotConnectedThoughItsLastWordsAreUnread) {
    PeerSays("bye");
    peer.Close();
    EXPECT_FALSE(stream->IsStillConnected());
    EXPECT_EQ(stream->read(room, sizeof room, &count), 0);
    EXPECT_EQ(count, 3u);
}

TEST_F(TCPStreamIO, SocketThatWasNeverConnectedHasHungUp) {
    TCPStream unconnected;
    unconnected.CreateSocket(AF_INET);
    EXPECT_FALSE(unconnected.IsStillConnected());
}

TEST_F(TCPStreamIO, SocketInErrorIsNotConnected) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Fd(ends[0]).Close();
    TCPStream broken(ends[1]);
    EXPECT_FALSE(broken.IsStillConnected());
}

TEST_F(TCPStreamIO, PeerThatClosedItsDirectionIsNotConnected) {
    ::shutdown(peer.get(), SHUT_WR);
    EXPECT_FALSE(stream->IsStillConnected());
}

TEST_F(TCPStreamIO, PeerIsTakenForConnectedWhenTheLookFails) {
    peer.Close();
    NoPoll const none;
    EXPECT_TRUE(stream->IsStillConnected());
}

TEST_F(TCPStreamIO, FlushDropsAllThatIsThereAndKeepsTheTimeout) {
    PeerSays(Pattern(60000));
    char* line = nullptr;
    bool io_done = false;
    ASSERT_EQ(stream->readdata(line, 10, true, io_done), 10);
    stream->flush();
    EXPECT_EQ(stream->set_timeout(10000), 10000u);
    PeerSays("new\n");
    LINE_STATE_T state;
    EXPECT_EQ(stream->getline(line, true, io_done, state, true), 3);
    EXPECT_STREQ(line, "new");
}

TEST_F(TCPStreamIO, FlushWaitsForNothing) {
    for (unsigned const there : {0u, 1u, 4095u, 4096u, 60000u}) {
        PeerSays(Pattern(there));
        EXPECT_EQ(WaitsOf([&] { stream->flush(); }), Waits{0});
        EXPECT_EQ(stream->set_timeout(10000), 10000u);
        char* data = nullptr;
        EXPECT_EQ(stream->buffereddata(data), 0);
        pollfd one{stream->GetSocket(), POLLIN, 0};
        EXPECT_EQ(::poll(&one, 1, 0), 0);
    }
}

TEST_F(TCPStreamIO, LinesComeThroughTheBuffer) {
    PeerSays("one\r\ntwo\r\nthr");
    char* line = nullptr;
    bool io_done = false;
    LINE_STATE_T state;
    EXPECT_EQ(stream->getline(line, false, io_done, state, true), 3);
    EXPECT_EQ(stream->getline(line, false, io_done, state, true), 3);
    EXPECT_STREQ(line, "two");
    EXPECT_EQ(stream->getline(line, false, io_done, state, true), -1);
    EXPECT_EQ(state, LINE_INCOMPLETE);
    EXPECT_EQ(errno, 0);
    stream->set_timeout(0);
    EXPECT_EQ(stream->getline(line, true, io_done, state, true), -1);
    EXPECT_EQ(state, LINE_CLOSED);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(TCPStreamIO, BufferIsTakenAtTheFirstReadAndGivenBackAtTheEnd) {
    static BufferPool pool(128, 1);
    TCPStream::set_pool(&pool);
    unsigned size = 0;
    char* const only = pool.obtain_buffer(size);
    pool.release_buffer(only);
    PeerSays("x\n");
    char* data = nullptr;
    bool io_done = false;
    ASSERT_EQ(stream->readdata(data, 1, true, io_done), 1);
    EXPECT_EQ(data, only);
    stream.reset();
    EXPECT_EQ(pool.obtain_buffer(size), only);
    pool.release_buffer(only);
    TCPStream::set_pool(nullptr);
    EXPECT_EQ(TCPStream().get_pool(), nullptr);
}

TEST(TCPStreamTimeout, IsZeroUntilADefaultIsSet) { EXPECT_EQ(TCPStream().set_timeout(5), 0u); }

TEST(TCPStreamTimeout, IsTakenFromTheDefaultWhenTheStreamIsBuilt) {
    TCPStream::set_default_timeout(0);
    TCPStream early;
    TCPStream::set_default_timeout(60000);
    TCPStream late;
    TCPStream::set_default_timeout(0);
    EXPECT_EQ(early.set_timeout(5), 0u);
    EXPECT_EQ(late.set_timeout(5), 60000u);
    EXPECT_EQ(late.set_timeout(6), 5u);
}
