// Receive: takes what follows DATA from the client into the message's spool.
// It always reads on to the end of the message, so that the session stays in step, unless the client leaves or is
// slower than it may be. Thread: the session's. Failure: in the result; nothing throws.
#pragma once

#include <string_view>

#include "Message.h"
#include "core/DataDecoder.h"

namespace VELT {
class TCPStream;
}

namespace smtp {

struct ReceiveResult {
    enum class End { Complete, Closed, TimedOut };
    End end = End::Complete;
    bool spoolFailed = false;
    DataDecoder::Fault fault = DataDecoder::Fault::None;
    std::size_t receivedHeaders = 0;
};

// `front` goes into the spool before the content. `minRate`: bytes per second; slower is silence; 0: any rate. Fills
// size, leadingDots and eightBit of the message.
ReceiveResult Receive(VELT::TCPStream& stream, DataDecoder::Limits limits, std::string_view front, unsigned minRate,
                      Message& message);

bool HasEightBit(char const* data, std::size_t length);

}  // namespace smtp
