// SourceNat: what a stream knows of the interception of its connection. Without an interception device a connection
// went where its peer says, and no handle is ever open.
// Owner: the stream that derives from it. Thread: the stream's. Failure: -1; nothing throws.
#pragma once

#include <netinet/in.h>

#include <velt/Export.h>

namespace VELT {

class VELT_API SourceNat {
public:
    SourceNat() = default;
    ~SourceNat();
    SourceNat(SourceNat const&) = delete;
    SourceNat& operator=(SourceNat const&) = delete;

    // Fills in both ends of a connected socket and where the peer meant to go. `flag`: the device plugs it through.
    int ConnectionInfo(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local, bool& flag);
    bool Asymmetric() const;  // answers come back by another route; false with no handle

private:
    int nat_fd = -1;
};

// 0, or -1 where an end of the connection has no name. Any handle in `nat_fd` is closed first.
int qxtrans_connection_info(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local, int* nat_fd);

}  // namespace VELT
