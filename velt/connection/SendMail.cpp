// Sending a spooled message to a mail peer in the dot-stuffed form of RFC 5321, section 4.5.2.
#include <velt/connection/Connection.h>
#include <velt/runtime/Clock.h>
#include <velt/streams/ScannerStream.h>
#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace VELT {

namespace {

// The pieces of one line as they go out: a stuffed dot, the line, and its end. A piece of an overlong line has no end,
// and the piece that goes on with it is never stuffed.
struct LinePieces {
    std::array<char const*, 3> buffers;
    std::array<unsigned, 3> lengths;
    unsigned count = 0;

    void Add(char const* data, unsigned length) {
        buffers[count] = data;
        lengths[count++] = length;
    }
    LinePieces(char const* line, unsigned length, bool begins, bool ends) {
        if (begins && length > 0 && line[0] == '.') Add(".", 1);
        Add(line, length);
        if (ends) Add("\r\n", 2);
    }
    void Drop(unsigned sent) {
        unsigned first = 0;
        while (first < count && sent >= lengths[first]) sent -= lengths[first++];
        std::copy(buffers.begin() + first, buffers.begin() + count, buffers.begin());
        std::copy(lengths.begin() + first, lengths.begin() + count, lengths.begin());
        count -= first;
        if (count == 0) return;
        buffers[0] += sent;
        lengths[0] -= sent;
    }
};

// What poll(2) fails with beside a signal.
bool IsFailedWait(int error) { return error == ENOMEM || error == EINVAL || error == EFAULT; }

// A wait of a vectored write that fails makes it a success of less than all. A mail may not lose bytes in its middle:
// after a signal the rest is sent again, and any other failure is told.
int SendLine(TCPStream& out, LinePieces& pieces) {
    for (;;) {
        unsigned sent = 0;
        errno = 0;
        int const result = out.writev(pieces.count, pieces.lengths.data(), pieces.buffers.data(), &sent);
        int const error = errno;
        if (result != 0 || (error != EINTR && !IsFailedWait(error))) return result;
        pieces.Drop(sent);
        if (pieces.count == 0) return 0;
        if (error != EINTR) return error;
    }
}

}  // namespace

int Connection::SendMailStream(ScannerStream* mail, TCPStream* out) {
    if (!out) return -1;
    auto last = Clock::getTime();
    mail->seek(0, 0);
    for (bool continuing = false;;) {
        char* line = nullptr;
        bool ioDone = false;
        LINE_STATE_T state = LINE_COMPLETE;
        int const length = mail->getline(line, true, ioDone, state, true);
        if (length < 0 || !line) return 0;

        LinePieces pieces(line, static_cast<unsigned>(length), !continuing, state != LINE_OVERFLOW);
        if (auto const now = Clock::getTime(); now != last) {
            last = now;
            if (!MailStreamCallback(static_cast<long>(now))) return 0;
        }
        if (int const result = SendLine(*out, pieces)) return result;
        continuing = state == LINE_OVERFLOW;
    }
}

}  // namespace VELT
