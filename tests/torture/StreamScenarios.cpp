// A stream of a connected socket: all that takes bytes in, and all that lets them out.
#include <poll.h>
#include <sys/socket.h>
#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <array>

#include "Peer.h"
#include "Scenario.h"

using VELT::TCPStream;

namespace torture {

namespace {

constexpr unsigned kBytes = 12000;    // three times the buffer
constexpr unsigned kLongLine = 9000;  // more than the buffer
constexpr unsigned kNoLimit = 0x7FFFFFFF;
constexpr int kRefusals = 20;  // in a row, of a send that never waits

std::string LinesWithALongOne() {
    return Numbered(kBytes / 4) + std::string(kLongLine, 'x') + "\r\n" + Numbered(kBytes / 4);
}

// --- In: each takes all that comes, and says whether that was all ---

bool TakeLines(TCPStream& from, std::string& got) {
    for (;;) {
        char* line = nullptr;
        bool io_done = false;
        VELT::LINE_STATE_T state;
        int const length = from.getline(line, true, io_done, state, true);
        if (state != VELT::LINE_COMPLETE && state != VELT::LINE_OVERFLOW) return length == 0;
        got.append(line, static_cast<std::size_t>(length));
        if (state == VELT::LINE_COMPLETE) got += "\r\n";
    }
}

bool TakeBlocks(TCPStream& from, std::string& got) {
    for (;;) {
        char* data = nullptr;
        bool io_done = false;
        int const count = from.readdata(data, kNoLimit, true, io_done);
        if (count <= 0) return count == 0;
        got.append(data, static_cast<std::size_t>(count));
    }
}

bool TakeAtOnce(TCPStream& from, std::string& got) {
    std::size_t const length = LinesWithALongOne().size();
    got.resize(length);
    return from.read(got.data(), static_cast<unsigned>(length)) == 0;
}

bool TakeReceives(TCPStream& from, std::string& got) {
    for (std::array<char, 1000> block;;) {
        unsigned received = 0;
        if (from.RecvDataFlagged(block.data(), block.size(), 0, &received) != 0) return false;
        if (received == 0) return true;
        got.append(block.data(), received);
    }
}

template <bool (*take)(TCPStream&, std::string&)>
class Input : public Scenario {
public:
    Input() : m_text(LinesWithALongOne()), m_feeder(m_line.far, m_text) {}
    bool Act() override {
        bool const said = take(*m_stream, m_got);
        m_stream.reset();
        return said;
    }
    std::string Judge() override { return Compare("input", m_got, m_text); }

private:
    std::string const m_text;
    std::string m_got;
    Line m_line;
    Feeder m_feeder;  // waits for the stream's end
    std::unique_ptr<TCPStream> m_stream = std::make_unique<TCPStream>(m_line.near);
};

// --- Out: each lets a text out, and says whether all of it went ---

bool PutAtOnce(TCPStream& to, std::string const& text) {
    return to.write(text.data(), static_cast<unsigned>(text.size())) == 0;
}

bool PutBySend(TCPStream& to, std::string const& text) {
    unsigned sent = 0;
    auto const length = static_cast<unsigned>(text.size());
    return to.SendDataFlagged(text.data(), length, MSG_NOSIGNAL, &sent) == 0 && sent == length;
}

// The call says 0 also where the wait failed; the count tells.
bool PutPieces(TCPStream& to, std::string const& text) {
    constexpr unsigned kPieces = 100;  // more than go in one call
    std::array<char const*, kPieces> pieces;
    std::array<unsigned, kPieces> lengths;
    auto const total = static_cast<unsigned>(text.size());
    for (unsigned i = 0, from = 0; i < kPieces; ++i) {
        unsigned const end = total * (i + 1) / kPieces;
        pieces[i] = text.data() + from;
        lengths[i] = end - from;
        from = end;
    }
    unsigned sent = 0;
    return to.writev(kPieces, lengths.data(), pieces.data(), &sent) == 0 && sent == total;
}

bool PutLines(TCPStream& to, std::string const& text) {
    for (std::size_t from = 0, end; (end = text.find("\r\n", from)) != text.npos; from = end + 2)
        if (to.PutLine(text.substr(from, end - from), true) != 0) return false;
    return true;
}

bool PutWithoutWaiting(TCPStream& to, std::string const& text) {
    std::string_view left = text;
    for (int refusals = 0; !left.empty() && refusals < kRefusals; ++refusals) {
        int const sent = to.SendDataNonBlocked(left.data(), static_cast<unsigned>(left.size()));
        left.remove_prefix(static_cast<std::size_t>(sent));
        if (sent > 0) refusals = 0;
        pollfd room{to.GetSocket(), POLLOUT, 0};
        ::ppoll(&room, 1, nullptr, nullptr);  // of this scenario, not of the library: never fails
    }
    return left.empty();
}

template <bool (*put)(TCPStream&, std::string const&)>
class Output : public Scenario {
public:
    bool Act() override {
        bool const said = put(*m_stream, m_text);
        m_stream.reset();
        return said;
    }
    std::string Judge() override { return Compare("output", m_collector.Got(), m_text); }

private:
    std::string const m_text = LinesWithALongOne();
    Line m_line;
    Collector m_collector{m_line.far};  // waits for the stream's end
    std::unique_ptr<TCPStream> m_stream = std::make_unique<TCPStream>(m_line.near);
};

}  // namespace

std::vector<NamedScenario> StreamScenarios() {
    return {
        {"take_lines", &Make<Input<TakeLines>>},
        {"take_blocks", &Make<Input<TakeBlocks>>},
        {"take_at_once", &Make<Input<TakeAtOnce>>},
        {"take_receives", &Make<Input<TakeReceives>>},
        {"put_at_once", &Make<Output<PutAtOnce>>},
        {"put_by_send", &Make<Output<PutBySend>>},
        {"put_pieces", &Make<Output<PutPieces>>},
        {"put_lines", &Make<Output<PutLines>>},
        {"put_without_waiting", &Make<Output<PutWithoutWaiting>>},
    };
}

}  // namespace torture
