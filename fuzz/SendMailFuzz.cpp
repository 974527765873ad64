// A spooled mail on its way to a mail peer, against a plain dot-stuffer that sees the whole text at once. Neither where
// the mail lies nor how it got there nor what was read of it before makes a difference to what the peer gets; a write
// that fails ends it there.
#include <velt/connection/Connection.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "fuzz/Input.h"
#include "testing/SpoolRoom.h"

using velt_fuzz::Require;

namespace {

constexpr std::array<unsigned, 4> kMemory{2, 9, 64, 1024};

// What goes out in one write: a line with its end, or a piece of a line that is longer than `room`.
std::vector<std::string> DotStuffed(std::string const& mail, std::size_t room) {
    std::vector<std::string> writes;
    bool begins = true;
    for (std::size_t at = 0;;) {
        std::size_t const feed = mail.find('\n', at);
        bool const whole = feed != std::string::npos && feed - at < room;
        if (!whole && mail.size() - at < room) return writes;  // a last line without its end stays
        std::string text = mail.substr(at, whole ? feed - at : room);
        at += text.size() + (whole ? 1 : 0);
        if (!text.empty() && text.back() == '\r') text.pop_back();
        writes.push_back((begins && text.substr(0, 1) == "." ? "." : "") + text + (whole ? "\r\n" : ""));
        begins = whole;
    }
}

std::string Joined(std::vector<std::string> const& texts, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < std::min(count, texts.size()); ++i) all += texts[i];
    return all;
}

// A peer that takes each write whole, but for those that a signal ends early and the one that fails.
class Peer : public VELT::TCPStream {
public:
    Peer(unsigned interruptedEach, unsigned failsAt) : m_interruptedEach(interruptedEach), m_failsAt(failsAt) {}

    int writev(unsigned count, unsigned* lengths, char const** buffers, unsigned* sent) override {
        Require(count <= 3, "no more than a dot, a line and its end");
        if (m_failsAt > 0 && writes.size() + 1 == m_failsAt) return EPIPE;
        std::string text;
        for (unsigned i = 0; i < count; ++i) text.append(buffers[i], lengths[i]);
        if (m_interruptedEach > 0 && ++m_calls % m_interruptedEach != 0) {
            text.resize(text.size() / 2);
            errno = EINTR;
        } else
            errno = 0;
        *sent = static_cast<unsigned>(text.size());
        writes.push_back(text);
        return 0;
    }
    std::vector<std::string> writes;

private:
    unsigned m_interruptedEach;  // 0: never; n: all but each n-th are
    unsigned m_failsAt;          // 0: never
    unsigned m_calls = 0;
};

class Session : public VELT::Connection {
public:
    void Start() override {}
};

void Fill(VELT::ScannerStream& mail, std::string const& text, unsigned piece) {
    for (std::size_t at = 0; at < text.size(); at += piece) {
        std::string const part = text.substr(at, piece);
        Require(velt_testing::Put(mail, part) == static_cast<long>(part.size()), "a whole write");
    }
}

// A host that looks into the mail first.
void Look(VELT::ScannerStream& mail, unsigned how, unsigned place) {
    char* data = nullptr;
    bool ioDone = false;
    unsigned got = 0;
    std::array<char, 32> block;
    if (how & 1) mail.seek(place, 0);
    if (how & 2) velt_testing::NextLine(mail, how & 4);
    if (how & 8) mail.readdata(data, place, true, ioDone);
    if (how & 16) mail.read(block.data(), block.size());
    if (how & 32) mail.trickle_read(block.data(), block.size(), &got);
}

VELT::BufferPool* Pool(unsigned which) {
    static auto const& pools = *new std::array<VELT::BufferPool*, kMemory.size()>{
        new VELT::BufferPool(kMemory[0], 0), new VELT::BufferPool(kMemory[1], 0), new VELT::BufferPool(kMemory[2], 0),
        new VELT::BufferPool(kMemory[3], 0)};
    return pools[which];
}

struct Case {
    explicit Case(velt_fuzz::Input& input)
        : memory(input.Byte() % kMemory.size()),
          toDisk(input.Byte() % 2),
          piece(input.Byte() + 1),
          look(input.Byte()),
          place(input.Byte()),
          interruptedEach(input.Byte() % 8),
          failsAt(input.Byte() % 32),
          text(input.Rest()) {}

    unsigned memory;
    bool toDisk;  // also what memory has room for
    unsigned piece, look, place;
    unsigned interruptedEach, failsAt;
    std::string text;
};

void CheckWhole(Session& session, VELT::ScannerStream& mail, std::vector<std::string> const& expected) {
    Peer peer(0, 0);
    Require(session.SendMailStream(&mail, &peer) == 0, "a whole mail");
    Require(peer.writes == expected, "the same lines, a write each");
}

void CheckInterrupted(Session& session, VELT::ScannerStream& mail, unsigned each,
                      std::vector<std::string> const& expected) {
    Peer peer(each, 0);
    Require(session.SendMailStream(&mail, &peer) == 0, "a whole mail in spite of signals");
    Require(Joined(peer.writes, peer.writes.size()) == Joined(expected, expected.size()), "the same bytes");
}

void CheckFailed(Session& session, VELT::ScannerStream& mail, unsigned at, std::vector<std::string> const& expected) {
    Peer peer(0, at);
    bool const fails = at > 0 && at <= expected.size();
    Require(session.SendMailStream(&mail, &peer) == (fails ? EPIPE : 0), "the error of the write");
    Require(Joined(peer.writes, peer.writes.size()) == Joined(expected, fails ? at - 1 : expected.size()),
            "the bytes up to the failure");
}

}  // namespace

// Seven bytes tell how the mail is kept and how the peer takes it; the rest is the mail.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static velt_testing::SpoolRoom const room;
    static Session& session = *new Session;
    velt_fuzz::Input input(data, size);
    Case const c(input);
    VELT::ScannerStream::s_bufferpool = Pool(c.memory);
    VELT::ScannerStream mail("mail", false);
    if (c.toDisk) {
        Require(mail.setsize(kMemory[c.memory] + 1) && mail.setsize(0), "a mail on disk");
    }
    Fill(mail, c.text, c.piece);
    Look(mail, c.look, c.place);
    auto const expected = DotStuffed(c.text, kMemory[c.memory] - 1);
    CheckWhole(session, mail, expected);
    CheckInterrupted(session, mail, c.interruptedEach, expected);
    CheckFailed(session, mail, c.failsAt, expected);
    Require(velt_testing::ReadAll(mail) == c.text, "the mail as it was");
    return 0;
}
