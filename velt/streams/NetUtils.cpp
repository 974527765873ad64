#include <velt/streams/NetUtils.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include <velt/streams/NameMatch.h>

namespace VELT {

namespace {

bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Splits one command line; see Tokenize.
class Words {
public:
    explicit Words(std::vector<std::string>& out) : m_out(out) {}

    void Read(char const* at) {
        while (*at && (IsBlank(*at) || *at == ',')) ++at;
        while (*at) at = Take(at);
        if (!m_pending.empty()) m_out.push_back(std::move(m_pending));
    }

private:
    char const* Take(char const* at) {
        char const c = *at++;
        if (c == '\\') return TakeEscaped(at);
        if (m_quote ? c == m_quote : c == '"' || c == '\'') {
            m_quote = c;
            return at;
        }
        if (m_quote || !IsBlank(c)) {
            m_pending += c;
            return at;
        }
        m_out.push_back(std::move(m_pending));
        m_pending.clear();
        while (IsBlank(*at)) ++at;
        return at;
    }
    char const* TakeEscaped(char const* at) {
        if (!*at) return at;
        m_pending += *at == 'n' ? '\n' : *at == 't' ? '\t' : *at;
        return at + 1;
    }

    std::vector<std::string>& m_out;
    std::string m_pending;
    char m_quote = 0;  // once set it stays: what follows the first quote is one word
};

struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Asks the system about each interface in the order of its list; `take` gets the answers, a failed one is skipped.
template <class Take>
void ForEachInterface(unsigned long request, Take take) {
    std::unique_ptr<std::FILE, Closer> const list(std::fopen("/proc/net/dev", "re"));
    if (!list) return;
    int const fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    char line[2048];
    for (int number = 0; std::fgets(line, sizeof line, list.get()); ++number) {
        if (number < 2) continue;  // the headings
        line[std::strcspn(line, ":")] = 0;
        ifreq query{};
        static_assert(IFNAMSIZ == 16);
        if (std::sscanf(line, "%15s", query.ifr_name) != 1) continue;
        if (::ioctl(fd, request, &query) == 0) take(query);
    }
    ::close(fd);
}

std::string HexDigits(char const* address) {
    constexpr std::size_t bytes = 6;
    char digits[2 * bytes + 1];
    for (std::size_t i = 0; i < bytes; ++i)
        std::snprintf(digits + 2 * i, 3, "%02x", static_cast<unsigned>(static_cast<unsigned char>(address[i])));
    return digits;
}

long NumberOfService(std::string const& name, char const* protocol) {
    char room[8192];
    servent entry;
    servent* found = nullptr;
    ::getservbyname_r(name.c_str(), protocol, &entry, room, sizeof room, &found);
    return found ? ntohs(static_cast<std::uint16_t>(found->s_port)) : 65535;
}

}  // namespace

int Tokenize(char const* text, std::vector<std::string>& tokens) {
    if (text) Words(tokens).Read(text);
    return 0;
}

void StrToLowerCase(char* text) {
    if (!text) return;
    for (; *text; ++text) {
        int const c = static_cast<unsigned char>(*text);
        if (std::isupper(c)) *text = static_cast<char>(std::tolower(c));
    }
}

bool IsAllDigits(std::string const& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

short StrToPort(std::string const& text, char const* protocol) {
    long const port = IsAllDigits(text) ? std::strtol(text.c_str(), nullptr, 10) : NumberOfService(text, protocol);
    return static_cast<short>(port);
}

short StrToTCPPort(std::string const& text) { return StrToPort(text, "tcp"); }
short StrToUDPPort(std::string const& text) { return StrToPort(text, "udp"); }

int StrCompare(char const* pattern, char const* name, bool fold) { return name_match(pattern, name, fold); }
char const* SetMatch(char const* set, int c, bool fold) { return set_match(set, c, fold); }
int NameCaseMatch(std::string const& pattern, std::string const& name) {
    return name_match(pattern.c_str(), name.c_str(), true);
}

hostent* GetHostByAddr(char* address, void** buffer) {
    constexpr std::size_t room = 1024;
    auto* const host = static_cast<hostent*>(std::malloc(sizeof(hostent)));
    *buffer = std::malloc(room);
    hostent* found = nullptr;
    int code = 0;
    if (host && *buffer) ::gethostbyaddr_r(address, 4, AF_INET, host, static_cast<char*>(*buffer), room, &found, &code);
    if (found) return found;
    std::free(host);
    std::free(*buffer);
    *buffer = nullptr;
    return nullptr;
}

int getinterfacename(int socket, sockaddr* address, unsigned* length) { return ::getsockname(socket, address, length); }

std::vector<sockaddr_in*> getinterface_addresses() {
    std::vector<sockaddr_in*> addresses;
    ForEachInterface(SIOCGIFDSTADDR, [&](ifreq const& answer) {
        auto* const entry = static_cast<sockaddr_in*>(std::malloc(sizeof(sockaddr_in)));
        if (!entry) return;
        std::memcpy(entry, &answer.ifr_dstaddr, sizeof *entry);
        addresses.push_back(entry);
    });
    return addresses;
}

std::vector<std::string> getinterface_mac_addresses() {
    std::vector<std::string> addresses;
    ForEachInterface(SIOCGIFHWADDR, [&](ifreq const& answer) {
        std::string const digits = HexDigits(answer.ifr_hwaddr.sa_data);
        if (digits != "000000000000") addresses.push_back(digits);
    });
    return addresses;
}

}  // namespace VELT
