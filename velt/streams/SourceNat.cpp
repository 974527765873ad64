#include <velt/streams/SourceNat.h>

#include <sys/socket.h>
#include <unistd.h>

namespace VELT {

namespace {

void CloseHandle(int& fd) {
    if (fd < 0) return;
    ::close(fd);
    fd = -1;
}

sockaddr* Generic(sockaddr_in* address) { return reinterpret_cast<sockaddr*>(address); }

}  // namespace

int qxtrans_connection_info(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local, int* nat_fd) {
    CloseHandle(*nat_fd);
    socklen_t localLength = sizeof *local;
    socklen_t peerLength = sizeof *peer;
    if (::getsockname(socket, Generic(local), &localLength) != 0) return -1;
    if (::getpeername(socket, Generic(peer), &peerLength) != 0) return -1;
    *destination = *peer;
    return 0;
}

SourceNat::~SourceNat() { CloseHandle(nat_fd); }

int SourceNat::ConnectionInfo(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local, bool& flag) {
    flag = false;
    return qxtrans_connection_info(socket, peer, destination, local, &nat_fd);
}

bool SourceNat::Asymmetric() const { return false; }

}  // namespace VELT
