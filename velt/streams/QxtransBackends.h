// The interceptions behind the qxtrans_ functions, each by its own means. What they have in common, the names of a
// socket's ends and the closing of an old handle, is done before they are asked.
// Owner, threads and failure: as told in Qxtrans.h.
#pragma once

#include <netinet/in.h>

namespace VELT::interception {

inline sockaddr* Generic(sockaddr_in* address) { return reinterpret_cast<sockaddr*>(address); }

void CloseHandle(int& fd);

namespace device {
bool ReadInterfaces();
bool IsPresent();
int ConnectionInfo(sockaddr_in* destination, int* handle);
int SetSourceAddress(int* handle, int socket, sockaddr_in const& remote, sockaddr_in const& source);
int SetFtpRule(int socket, int* handle, sockaddr_in const& first, sockaddr_in const& second, bool flag);
bool AsymmetricRoute(int handle);
}  // namespace device

namespace netfilter {
void Initialise();
int PrepareListener(int socket);
int ConnectionInfo(int socket, sockaddr_in* local, int* handle);
int SetSourceAddress(int* handle, int socket, sockaddr_in const& source);
}  // namespace netfilter

}  // namespace VELT::interception
