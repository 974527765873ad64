#include <velt/streams/SourceNat.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <velt/streams/QxtransBackends.h>

namespace VELT {

SourceNat::~SourceNat() { interception::CloseHandle(nat_fd); }

int SourceNat::SetSourceAddr(int socket, sockaddr_in* local, sockaddr_in* remote, sockaddr_in* source) {
    return qxtrans_set_source_address(&nat_fd, socket, local, remote, source);
}

int SourceNat::SetSourceAddr(int socket, std::string const& address, unsigned short port, sockaddr_in* remote) {
    sockaddr_in source{};
    if (::inet_aton(address.c_str(), &source.sin_addr) == 0) return -1;
    source.sin_family = AF_INET;
    source.sin_port = htons(port);
    return SetSourceAddr(socket, nullptr, remote, &source);
}

int SourceNat::SetFTPRule(int socket, sockaddr_in* first, sockaddr_in* second, bool flag) {
    return qxtrans_set_ftp_rule(socket, &nat_fd, first, second, flag);
}

int SourceNat::ConnectionInfo(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local, bool& flag) {
    int const answer = qxtrans_connection_info(socket, peer, destination, local, &nat_fd);
    flag = answer == 2;
    return answer >= 0 && answer <= 2 ? 0 : -1;
}

int SourceNat::SetRedirection(SourceNat* other) {
    interception::CloseHandle(other->nat_fd);
    if (nat_fd < 0) return 0;
    other->nat_fd = ::dup(nat_fd);
    if (other->nat_fd < 0) return -1;
    ::fcntl(other->nat_fd, F_SETFD, FD_CLOEXEC);
    return 0;
}

bool SourceNat::Asymmetric() const { return nat_fd >= 0 && qxtrans_asymmetric_route(nat_fd); }

}  // namespace VELT
