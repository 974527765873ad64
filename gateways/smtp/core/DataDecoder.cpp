#include "DataDecoder.h"

#include <algorithm>

#include "Address.h"

namespace smtp {
namespace {

char const* Find(char const* from, char const* to, char wanted) {
    void const* const found = std::memchr(from, wanted, static_cast<std::size_t>(to - from));
    return found ? static_cast<char const*>(found) : to;
}

constexpr std::string_view kReceived = "received:";

}  // namespace

void DataDecoder::Fail(Fault fault) {
    if (m_fault == Fault::None) m_fault = fault;
}

void DataDecoder::Grow(char const* from, char const* to) {
    std::size_t const count = static_cast<std::size_t>(to - from);
    if (m_inHeader && m_lineLength < m_lineHead.size()) {
        std::memcpy(m_lineHead.data() + m_lineLength, from, std::min(count, m_lineHead.size() - m_lineLength));
    }
    m_lineLength += count;
    m_size += count;
    if (m_inHeader && m_limits.header && m_headerSize + m_lineLength > m_limits.header) Fail(Fault::HeaderTooLarge);
    if (m_limits.size && m_size > m_limits.size) Fail(Fault::MessageTooLarge);
    if (m_limits.line && m_lineLength + 2 > m_limits.line) Fail(Fault::LineTooLong);
}

void DataDecoder::EndHeaderLine() {
    if (m_lineLength == 0) m_inHeader = false;
    m_headerSize += m_lineLength + 2;
    if (m_limits.header && m_headerSize > m_limits.header) Fail(Fault::HeaderTooLarge);
    if (m_lineLength >= kReceived.size() && EqualNoCase({m_lineHead.data(), kReceived.size()}, kReceived)) {
        ++m_receivedHeaders;
    }
}

void DataDecoder::EndLine() {
    if (m_inHeader) EndHeaderLine();
    m_size += 2;
    if (m_limits.size && m_size > m_limits.size) Fail(Fault::MessageTooLarge);
    m_lineLength = 0;
    m_state = State::LineStart;
}

// The byte that begins a line, or that follows the "." which began it.
char const* DataDecoder::StartLine(char const* at) {
    bool const afterDot = m_state == State::Dot;
    if (*at == '.' && !afterDot) {
        m_state = State::Dot;
        return at + 1;
    }
    if (*at == '.') m_leadingDots = true;
    m_state = State::Text;
    return at;
}

// Inside a line: on to its CR. A LF that comes first is a bare one.
char const* DataDecoder::Text(char const* at, char const* end) {
    char const* const lf = Find(at, end, '\n');
    char const* const cr = Find(at, lf, '\r');
    Grow(at, cr);
    if (cr < lf) {
        m_state = State::Cr;
        return cr + 1;
    }
    if (lf == end) return end;
    Fail(Fault::BareLineEnd);
    return lf + 1;
}

char const* DataDecoder::Step(char const* at, char const* end) {
    switch (m_state) {
        case State::Dot:
            if (*at != '\r') return StartLine(at);
            m_state = State::DotCr;
            return at + 1;
        case State::LineStart:
            return StartLine(at);
        case State::Text:
            return Text(at, end);
        case State::Cr:
        case State::DotCr:
            if (*at != '\n') {
                Fail(Fault::BareLineEnd);
                m_state = State::Text;
                return at;
            }
            if (m_state == State::DotCr) {
                m_state = State::End;
            } else {
                EndLine();
            }
            return at + 1;
        case State::End:
            break;
    }
    return at;
}

}  // namespace smtp
