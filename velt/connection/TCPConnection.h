// TCPConnection: the record of one end of a session: its stream, address and names.
// Owner: the Connection that holds it; it owns its stream. Threads: none but the session's. Ports are in host order.
// Failure: a name that cannot be found is the empty text, and is looked up again at the next call.
#pragma once

#include <netinet/in.h>

#include <string>

#include <velt/Export.h>

namespace VELT {

class TCPStream;

class VELT_API TCPConnection {
public:
    TCPConnection();
    ~TCPConnection();  // deletes the stream, which closes its socket
    TCPConnection(TCPConnection const&) = delete;
    TCPConnection& operator=(TCPConnection const&) = delete;

    // The host name; an empty one is first looked up in reverse, which may block for a name server. Lives until m_host
    // changes. Never null.
    char const* get_host() const;
    sockaddr_in* get_address() { return &m_address; }
    sockaddr_in const* get_address() const { return &m_address; }

    // A second connect through a record that still has a stream overwrites the pointer: who reconnects deletes the old
    // stream first, or keeps it.
    TCPStream* m_stream;         // owned; null when there is none
    sockaddr_in m_address;       // the peer's
    mutable std::string m_host;  // empty until looked up
    std::string m_addressText;   // dotted
    unsigned short m_port;
    bool m_flag;  // false at every start; nothing in the library sets it
};

}  // namespace VELT
