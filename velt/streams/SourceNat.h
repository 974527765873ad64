// SourceNat: what a stream knows of the interception of its connection: the handle, if it is intercepted.
// Owner: the stream that derives from it; it owns the handle and closes it. Thread: the stream's. Failure: -1, with
// which nothing else has changed; nothing throws. Units: ports in host order where they are numbers of their own.
#pragma once

#include <netinet/in.h>

#include <string>

#include <velt/Export.h>
#include <velt/streams/Qxtrans.h>

namespace VELT {

class VELT_API SourceNat {
public:
    SourceNat() = default;
    ~SourceNat();
    SourceNat(SourceNat const&) = delete;
    SourceNat& operator=(SourceNat const&) = delete;

    // Before `socket` connects to `remote`, which is to see `source`. `local` is not looked at.
    int SetSourceAddr(int socket, sockaddr_in* local, sockaddr_in* remote, sockaddr_in* source);
    int SetSourceAddr(int socket, std::string const& address, unsigned short port, sockaddr_in* remote);
    // Announces a data connection of a file transfer; the device's answer, or -1.
    int SetFTPRule(int socket, sockaddr_in* first, sockaddr_in* second, bool flag);
    // Both ends of a connected socket, and the peer as the device has it. `flag`: the session is transparent. An
    // intercepted connection keeps its handle whatever the flag says.
    int ConnectionInfo(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local, bool& flag);
    // Gives `other` a copy of the handle in place of its own; where there is none, `other` has none afterwards either.
    int SetRedirection(SourceNat* other);
    bool Asymmetric() const;  // answers come back by another route; false with no handle

    void SetNATInfo(int fd) { nat_fd = fd; }
    int GetNATInfo() const { return nat_fd; }

private:
    int nat_fd = -1;
};

}  // namespace VELT
