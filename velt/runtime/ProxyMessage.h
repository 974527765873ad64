// ProxyMessage: the messages between a monitor and its workers, one byte on the wire.
// A message is: payload length (2 bytes, high byte first), type (1 byte), payload. What the library itself sends has no
// payload. Messages of other types are read and dropped, so that a host may use numbers of its own.
#pragma once

namespace VELT {

enum ProxyMessage : unsigned char {
    MSG_RELEASE_ME = 3,  // worker to monitor: this worker may be asked to leave
    MSG_STOPPING = 4,    // worker to monitor: this worker accepts no more
    MSG_LEAVE = 5,       // monitor to worker: sets ServiceLoop::bProxyShutdown
};

inline constexpr int kProxyMessageHeader = 3;  // bytes

}  // namespace VELT
