#include <policyloader/engines/ServerAddress.h>

#include <charconv>
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <policyloader/engines/EngineFailure.h>

namespace policyloader {
namespace {

constexpr char kSeparators[] = ", \t\r\n";

template <class Address>
void Store(ServerAddress& made, Address const& address) {
    std::memcpy(&made.address, &address, sizeof address);
    made.length = sizeof address;
}

bool ReadPath(ServerAddress& made, std::string_view path) {
    sockaddr_un address = {};
    if (path.size() >= sizeof address.sun_path || path.find('\0') != std::string_view::npos) return false;
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    Store(made, address);
    return true;
}

bool ReadHost(ServerAddress& made, std::string const& host, std::uint16_t port) {
    sockaddr_in four = {};
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    if (::inet_pton(AF_INET, host.c_str(), &four.sin_addr) == 1) {
        Store(made, four);
        return true;
    }
    sockaddr_in6 six = {};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(port);
    bool const bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (!bracketed || ::inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &six.sin6_addr) != 1) return false;
    Store(made, six);
    return true;
}

bool ReadHostAndPort(ServerAddress& made, std::string_view text) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string_view::npos) return false;
    auto const digits = text.substr(colon + 1);
    std::uint16_t port = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || end != digits.data() + digits.size() || port == 0) return false;
    return ReadHost(made, std::string(text.substr(0, colon)), port);
}

}  // namespace

std::optional<ServerAddress> ServerAddress::parse(std::string_view text) {
    if (text.empty()) return std::nullopt;
    ServerAddress made;
    made.text = text;
    bool const read = text.front() == '/' ? ReadPath(made, text) : ReadHostAndPort(made, text);
    return read ? std::optional(made) : std::nullopt;
}

std::vector<ServerAddress> ReadServers(std::vector<std::string_view> const& texts) {
    std::vector<ServerAddress> servers;
    for (auto rest : texts) {
        for (;;) {
            rest.remove_prefix(std::min(rest.find_first_not_of(kSeparators), rest.size()));
            if (rest.empty()) break;
            auto const word = rest.substr(0, rest.find_first_of(kSeparators));
            rest.remove_prefix(word.size());
            auto server = ServerAddress::parse(word);
            if (!server) throw EngineFailure(FailureId::Rules, "no address of a server: " + std::string(word));
            servers.push_back(std::move(*server));
        }
    }
    return servers;
}

}  // namespace policyloader
