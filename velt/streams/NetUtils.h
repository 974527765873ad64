// Free functions for command lines, ports, name patterns and the interfaces of this machine.
// Any thread. Ports are in host order. Nothing throws on account of the system; the answer says that it failed.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include <velt/Export.h>

namespace VELT {

// Appends the words of a command line; always 0. The first quote makes all that follows it one word, whatever further
// quotes there are. A backslash takes the next byte as it is, but `\n` and `\t`.
VELT_API int Tokenize(char const* text, std::vector<std::string>& tokens);

VELT_API void StrToLowerCase(char* text);            // in place; null is allowed
VELT_API bool IsAllDigits(std::string const& text);  // true for an empty text

// A number, cut to 16 bits, or the name of a service; an unknown name gives -1. An empty text is port 0.
VELT_API short StrToPort(std::string const& text, char const* protocol);
VELT_API short StrToTCPPort(std::string const& text);
VELT_API short StrToUDPPort(std::string const& text);

VELT_API int StrCompare(char const* pattern, char const* name, bool fold);  // as name_match
VELT_API char const* SetMatch(char const* set, int c, bool fold);           // as set_match
VELT_API int NameCaseMatch(std::string const& pattern, std::string const& name);

// The host of the four bytes of `address`, or null. The caller frees the host and `*buffer`, which it points into.
VELT_API hostent* GetHostByAddr(char* address, void** buffer);

VELT_API int getinterfacename(int socket, sockaddr* address, unsigned* length);
// One entry per interface that has an address; of a point-to-point link it is the peer's. The caller frees each.
VELT_API std::vector<sockaddr_in*> getinterface_addresses();
VELT_API std::vector<std::string> getinterface_mac_addresses();  // twelve digits each, without those that are all 0

}  // namespace VELT
