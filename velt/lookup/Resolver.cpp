#include <velt/lookup/Resolver.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <resolv.h>

#include <cerrno>
#include <new>

namespace VELT {

int Resolver::s_max_buffersize = 0x2000;
bool Resolver::s_reverse_lookups_banned = false;
std::vector<std::string> Resolver::s_excludedhosts;

namespace {

constexpr int kStackBuffer = 2048;
constexpr int kFirstHeapBuffer = 4096;  // doubled from there
constexpr int kAgain = 2;
constexpr int kUnknownHost = 3;
constexpr int kNoData = 10;

int ResolverCode() {
    switch (h_errno) {
        case NETDB_SUCCESS:  // a failure that tells nothing
        case TRY_AGAIN:
        case NO_RECOVERY:
            return kAgain;
        case HOST_NOT_FOUND:
            return kUnknownHost;
        case NO_DATA:
            return kNoData;
        default:
            return h_errno;
    }
}

int FailedSearch(int result) { return result == 0 ? kAgain : ResolverCode(); }

KORnet::IPAddr ToAddress(in_addr address) { return KORnet::IPAddr(ntohl(address.s_addr)); }

int AppendHost(hostent const& host, std::vector<KORnet::IPAddr>& addresses) {
    if (host.h_addrtype != AF_INET || host.h_length != sizeof(in_addr)) return EPROTO;
    for (char** each = host.h_addr_list; *each; ++each)
        addresses.push_back(ToAddress(*reinterpret_cast<in_addr const*>(*each)));
    return 0;
}

}  // namespace

Resolver::Resolver() : answer_length(0), message_id(0), message_flags(0), message_end(answer), message(answer) {
    for (int i = 0; i < ns_s_max; ++i) {
        sections[i] = nullptr;
        counts[i] = 0;
    }
    SetSection(ns_s_max);
}

Resolver::~Resolver() = default;

void Resolver::start() { res_init(); }

int Resolver::query_resolver(char const* name, int query_class, int type, unsigned char* buffer, int& length) {
    big_answer.reset();
    int const needed = res_search(name, query_class, type, buffer, length);
    if (needed <= 0) return FailedSearch(needed);
    if (needed <= length) {
        length = needed;
        return 0;
    }
    if (needed > s_max_buffersize) return ERANGE;
    big_answer.reset(new (std::nothrow) unsigned char[static_cast<std::size_t>(needed)]);
    if (!big_answer) return ERANGE;
    int const got = res_search(name, query_class, type, big_answer.get(), needed);
    if (got <= 0) return FailedSearch(got);
    if (got > needed) return ERANGE;
    length = got;
    return 0;
}

int Resolver::mx_resolve(char const* name, std::vector<KORnet::IPAddr>& addresses, unsigned max_exchangers,
                         unsigned max_addresses) {
    answer_length = sizeof answer;
    if (int const code = query_resolver(name, ns_c_in, ns_t_mx, answer, answer_length)) return code;
    if (int const code = init_result(big_answer ? big_answer.get() : answer)) return code;
    Lookup lookup;
    if (int const code = parse_mx_query(&lookup, static_cast<int>(max_exchangers))) return code;
    for (Record const& exchanger : lookup) {
        if (addresses.size() >= max_addresses) break;
        if (exchanger.addresses.empty()) a_resolve(exchanger.name, addresses, max_addresses);
        for (IPaddressNode const& node : exchanger.addresses)
            if (addresses.size() < max_addresses) addresses.push_back(ToAddress(node.address));
    }
    return 0;
}

int Resolver::a_resolve(char const* name, std::vector<KORnet::IPAddr>& addresses, unsigned) {
    hostent storage;
    hostent* host = nullptr;
    int error = 0;
    char buffer[kStackBuffer];
    int code = ::gethostbyname_r(name, &storage, buffer, sizeof buffer, &host, &error);
    std::unique_ptr<char[]> heap;
    for (int size = kFirstHeapBuffer; !host && code == ERANGE && size <= s_max_buffersize; size *= 2) {
        heap.reset(new (std::nothrow) char[static_cast<std::size_t>(size)]);
        if (!heap) return ERANGE;
        code = ::gethostbyname_r(name, &storage, heap.get(), static_cast<std::size_t>(size), &host, &error);
    }
    return host ? AppendHost(*host, addresses) : code;
}

// A name too long for the buffer is asked for again with the same one, as often as a larger one would be tried: a name
// server that answers differently by then is heard, a name that stays so long is no name.
bool Resolver::reverse_lookup(std::string& name, sockaddr_in* address) {
    if (s_reverse_lookups_banned) return false;
    hostent storage;
    hostent* host = nullptr;
    int error = 0;
    char buffer[kStackBuffer];
    auto const ask = [&] {
        return ::gethostbyaddr_r(&address->sin_addr, sizeof address->sin_addr, AF_INET, &storage, buffer, sizeof buffer,
                                 &host, &error);
    };
    int code = ask();
    for (int size = kFirstHeapBuffer; !host && code == ERANGE && size <= s_max_buffersize; size *= 2) code = ask();
    if (!host || !host->h_name) return false;
    name = host->h_name;
    return true;
}

}  // namespace VELT
