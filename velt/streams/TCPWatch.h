// TCPWatch: waits for input on several streams at once.
// Owner: the stack of the waiting thread; the streams are borrowed. Units: milliseconds. Failure: Wait answers -1.
#pragma once

#include <poll.h>

#include <velt/Export.h>

namespace VELT {

class TCPStream;

class VELT_API TCPWatch {
public:
    void Watch(TCPStream* stream);         // a null or closed stream, and one beyond the 64th, is left out
    int Wait(int timeout_ms);              // the count of streams with news, 0 when the time ran out
    bool HasTriggered(TCPStream* stream);  // input, an error, or the peer is gone

private:
    static constexpr unsigned s_limit = 64;

    pollfd m_watched[s_limit];
    unsigned m_count = 0;
};

}  // namespace VELT
