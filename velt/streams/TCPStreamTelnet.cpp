// The telnet commands in a stream's input: taken out of each buffer, in place, and handed to the stream's handler.
#include <velt/streams/TCPStream.h>

#include <algorithm>
#include <cstring>

#include <velt/streams/TelnetEscapeHandler.h>

namespace VELT {

namespace {

constexpr unsigned kDataMark = 242;
constexpr unsigned kInterrupt = 244;
constexpr unsigned kWill = 251;
constexpr unsigned kWont = 252;
constexpr unsigned kDo = 253;
constexpr unsigned kDont = 254;
constexpr unsigned kIac = 255;

// Where the parser stands. The number is also how many bytes of the unfinished sequence the buffer is taken to hold.
enum State : unsigned {
    kData = 0,
    kEscaped = 1,      // IAC
    kCommand = 2,      // IAC and WILL, WONT, DO, DONT or IP
    kInterrupted = 3,  // IAC IP and a byte that was no DM: only a DM ends it
};

void TellOption(TelnetEscapeHandler& handler, unsigned command, int option) {
    switch (command) {
        case kWill:
            return handler.on_will(option);
        case kWont:
            return handler.on_wont(option);
        case kDo:
            return handler.on_do(option);
        default:
            return handler.on_dont(option);
    }
}

}  // namespace

TelnetEscapeHandler::~TelnetEscapeHandler() = default;

void TCPStream::set_escape_handler(TelnetEscapeHandler* handler) {
    escape_handler = handler;
    telnet_state = kData;
    telnet_command = 0;
}

// The bytes before `kept` stay. A sequence takes back what is there of it, which is less than its length where its head
// came at the end of an earlier buffer.
void TCPStream::handle_telnet(char* data, unsigned& length) {
    if (!escape_handler || (telnet_state == kData && !std::memchr(data, kIac, length))) return;
    unsigned kept = 0;
    for (unsigned at = 0; at < length; ++at) {
        data[kept++] = data[at];
        auto const byte = static_cast<unsigned char>(data[at]);
        if (escape_handler) kept -= std::min(kept, TelnetByte(byte, at == 0));
    }
    // The head of a sequence is not shown as data.
    length = kept - std::min<unsigned>(kept, telnet_state);
}

// How many bytes, the last of which is this one, are no data.
unsigned TCPStream::TelnetByte(unsigned char byte, bool first) {
    switch (telnet_state) {
        case kData:
            if (byte == kIac) telnet_state = kEscaped;
            return 0;
        case kEscaped:
            return TelnetCommand(byte, first);
        case kCommand:
            return TelnetOption(byte);
        default:
            return byte == kDataMark ? TelnetMark(3) : 0;
    }
}

unsigned TCPStream::TelnetCommand(unsigned char byte, bool first) {
    telnet_command = byte;
    switch (byte) {
        case kDataMark:
            return TelnetMark(2);
        case kInterrupt:
            escape_handler->on_interrupt();
            telnet_state = kCommand;
            return 0;
        case kWill:
        case kWont:
        case kDo:
        case kDont:
            telnet_state = kCommand;
            return 0;
        case kIac:  // one byte of data; its other half is gone already where that ended the last buffer
            telnet_state = kData;
            return first ? 0 : 1;
        default:
            escape_handler->on_command(byte);
            telnet_state = kData;
            return 2;
    }
}

// A mark right behind an interrupt takes two bytes, so that the IAC of the interrupt stays as data where it is in the
// same buffer: readers count on it.
unsigned TCPStream::TelnetOption(unsigned char byte) {
    if (telnet_command == kInterrupt) {
        if (byte == kDataMark) return TelnetMark(kCommand);
        telnet_state = kInterrupted;
        return 0;
    }
    TellOption(*escape_handler, telnet_command, byte);
    telnet_state = kData;
    return 3;
}

unsigned TCPStream::TelnetMark(unsigned removed) {
    escape_handler->on_data_mark();
    telnet_state = kData;
    return removed;
}

}  // namespace VELT
