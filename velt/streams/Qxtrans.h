// qxtrans_: the functions that ask whoever intercepts connections. One of them was chosen for the process:
//   device     the character device /dev/qxnat with its entries in /proc/qxnat (docs/formats/interception-device.md);
//              where they are missing, nothing is intercepted
//   netfilter  the system's own packet filter, by TPROXY or REDIRECT (docs/interception.md)
//   off        nothing is intercepted
// A connection that is intercepted has a handle, a descriptor, as long as its stream keeps it.
// Owner: a handle is its stream's. Threads: qxtrans_select and qxtrans_init at start-up, the others any, each on a
// socket and handle of its own. Failure: -1; nothing throws. What the device refuses goes to syslog as well.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string_view>

#include <velt/Export.h>

namespace VELT {

enum class Interception { Device, Netfilter, Off };

extern VELT_API int qxtrans_initialised;           // 1: the interception can be asked
extern VELT_API int qxtrans_active;                // 0: not asked yet; 1: it is there; -1: it is not
extern VELT_API std::uint32_t qxtrans_ipaddrs[2];  // host order; outbound connections bind to the first one

// Before qxtrans_init, and before there is a thread. An unknown name stands for the device.
VELT_API void qxtrans_select(Interception chosen);
VELT_API Interception qxtrans_named(std::string_view name);  // "device", "netfilter" or "off"

// Once per process, and again where it did not succeed. That there is nothing to be asked is no failure.
VELT_API void qxtrans_init();

// Makes a socket fit to listen for intercepted connections, before it is bound. 0, or -1 with errno.
VELT_API int qxtrans_prepare_listener(int socket);

// Who is at both ends of an accepted socket: `peer`, `local` where it was going, and `destination`, a copy of the peer
// that the device may rewrite. A handle in `nat_fd` is closed first; it holds one afterwards only for the answers 1 and
// 2. The answers: 0 not intercepted; 1 intercepted, and served like one that is not; 2 intercepted, and transparent;
// others are failures.
// By the device `local` is the socket's own name. By netfilter it is the original destination: that name where TPROXY
// brought the connection, what SO_ORIGINAL_DST says where REDIRECT did. The answer is 2 if it is no address of this
// machine and 0 if it is one: who came to the gateway itself talks to the gateway, which never connects to itself.
VELT_API int qxtrans_connection_info(int socket, sockaddr_in* peer, sockaddr_in* destination, sockaddr_in* local,
                                     int* nat_fd);

// Before a socket connects to `remote`: the server is to see `source`. By netfilter it sees that address with a port
// that is free. `local` is not looked at.
VELT_API int qxtrans_set_source_address(int* nat_fd, int socket, sockaddr_in* local, sockaddr_in* remote,
                                        sockaddr_in* source);

// Announces a data connection of a file transfer; the device's answer, or -1. `flag` chooses between its two kinds.
VELT_API int qxtrans_set_ftp_rule(int socket, int* nat_fd, sockaddr_in* first, sockaddr_in* second, bool flag);

// Whether answers come back by another route than past the device. Netfilter cannot tell.
VELT_API bool qxtrans_asymmetric_route(int nat_fd);

}  // namespace VELT
