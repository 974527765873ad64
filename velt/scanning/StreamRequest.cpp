#include <velt/scanning/StreamRequest.h>

#include <cerrno>
#include <string_view>

#include <velt/streams/BufferedStream.h>

namespace VELT {

namespace {

constexpr int kHeadersRead = 0;
constexpr int kPeerClosed = -1;
constexpr int kBadLine = -2;
constexpr int kNoHeader = -3;

}  // namespace

// A line longer than the stream's buffer comes in pieces: what follows the first of them belongs to its value.
int StreamRequest::read_headers(BufferedStream* stream) {
    clear();
    m_failure = 0;
    std::string name, value;
    bool unfinished = false;
    for (unsigned long bytes = 0;;) {
        char* line = nullptr;
        LINE_STATE_T state = LINE_CLOSED;
        bool io_done = false;
        int const length = stream->getline(line, true, io_done, state, true);
        if (length < 0) {
            m_failure = errno ? errno : EIO;
            break;
        }
        if (!line) return kPeerClosed;
        std::string_view const text(line, static_cast<std::size_t>(length));
        if ((bytes += text.size() + 1) > s_mostBytes) return kBadLine;
        if (unfinished) {
            value += text;
        } else {
            if (text.empty()) break;
            std::size_t const space = text.find(' ');
            if (space == text.npos) return kBadLine;
            name = text.substr(0, space);
            value = text.substr(space + 1);
        }
        unfinished = state == LINE_OVERFLOW;
        if (!unfinished) insert_or_assign(name, value);
    }
    return empty() ? kNoHeader : kHeadersRead;
}

}  // namespace VELT
