#include "Channel.h"

#include <sys/socket.h>

#include <cerrno>

#include <velt/streams/TCPStream.h>

#include "Patience.h"

namespace smtp {
namespace {

constexpr std::size_t kMaxGathered = 8192;  // bytes of replies that wait for company

}  // namespace

bool Channel::Flush() {
    if (m_replies.empty()) return true;
    int const error = m_stream.write(m_replies.data(), static_cast<unsigned>(m_replies.size()));
    m_replies.clear();
    return error == 0;
}

// Not where input is left unread: closing resets such a connection, and what has not gone by then is lost.
bool Channel::FlushLast() {
    char* unread = nullptr;
    if (m_replies.empty() || m_stream.buffereddata(unread) != 0) return Flush();
    unsigned sent = 0;
    int const error =
        m_stream.SendDataFlagged(m_replies.data(), static_cast<unsigned>(m_replies.size()), MSG_MORE, &sent);
    m_replies.clear();
    return error == 0;
}

Channel::Input Channel::ReadLine(std::string_view& line) {
    bool const gather = m_stream.is_line_buffered() && m_replies.size() < kMaxGathered;
    if (!gather && !Flush()) return Input::Closed;
    Patience patience(m_stream);
    Input const input = ReadPiece(line, patience);
    return input == Input::TooLong ? SkipLine(patience) : input;
}

Channel::Input Channel::ReadPiece(std::string_view& line, Patience& patience) {
    char* text = nullptr;
    VELT::LINE_STATE_T state;
    int length = 0;
    do {
        bool done = false;
        errno = 0;
        length = m_stream.getline(text, false, done, state, false);
        if (state == VELT::LINE_OVERFLOW) return Input::TooLong;
        if (state == VELT::LINE_COMPLETE && length >= 0) {
            line = std::string_view(text, static_cast<std::size_t>(length));
            return Input::Line;
        }
        if (state != VELT::LINE_INCOMPLETE) return length < 0 && errno == ETIMEDOUT ? Input::TimedOut : Input::Closed;
    } while (patience.More());
    return Input::TimedOut;
}

// Drops the rest of a line of which the first part did not fit.
Channel::Input Channel::SkipLine(Patience& patience) {
    std::string_view rest;
    Input input = Input::TooLong;
    while (input == Input::TooLong && patience.More()) input = ReadPiece(rest, patience);
    if (input == Input::TooLong) return Input::TimedOut;
    return input == Input::Line ? Input::TooLong : input;
}

}  // namespace smtp
