#include "Channel.h"

#include <cerrno>

#include <velt/streams/TCPStream.h>

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

Channel::Input Channel::ReadLine(std::string_view& line) {
    bool const gather = m_stream.is_line_buffered() && m_replies.size() < kMaxGathered;
    if (!gather && !Flush()) return Input::Closed;
    char* text = nullptr;
    bool done = false;
    VELT::LINE_STATE_T state;
    errno = 0;
    int const length = m_stream.getline(text, true, done, state, false);
    if (state == VELT::LINE_OVERFLOW) return SkipLine();
    if (state != VELT::LINE_COMPLETE || length < 0) {
        return length < 0 && errno == ETIMEDOUT ? Input::TimedOut : Input::Closed;
    }
    line = std::string_view(text, static_cast<std::size_t>(length));
    return Input::Line;
}

Channel::Input Channel::SkipLine() { return m_stream.empty_overflow() ? Input::TooLong : Input::Closed; }

}  // namespace smtp
