#include "Exchangers.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>

#include <velt/lookup/Resolver.h>

namespace smtp {
namespace {

constexpr unsigned kMaxExchangers = 20;
constexpr unsigned kMaxAddresses = 40;

// Codes of a look-up that settle the matter.
constexpr int kHostNotFound = 3;
constexpr int kNoData = 10;

Reply NotNow() { return {451, "4.4.3", "domain could not be looked up"}; }

// The answer to a query for exchangers, before and after this machine was taken out of it.
class Query : public VELT::Resolver {
public:
    int Ask(std::string const& domain) {
        answer_length = sizeof answer;
        std::string const absolute = domain + '.';  // no list of search domains is for mail
        int code = query_resolver(absolute.c_str(), ns_c_in, ns_t_mx, answer, answer_length);
        if (code == 0) code = init_result(big_answer ? big_answer.get() : answer);
        if (code == 0) code = CountExchangers();
        return code ? code : parse_mx_query(&m_found, kMaxExchangers);
    }

    unsigned named() const { return m_named; }  // exchangers that the domain has, this machine among them
    bool isNullMx() const { return m_named == 1 && m_found.size() == 1 && std::string_view(m_found[0].name) == "."; }

    void Addresses(std::vector<KORnet::IPAddr>& out) {
        for (Record const& exchanger : m_found) {
            if (exchanger.addresses.empty()) a_resolve(exchanger.name, out, kMaxAddresses);
            for (IPaddressNode const& node : exchanger.addresses) out.emplace_back(ntohl(node.address.s_addr));
            if (out.size() >= kMaxAddresses) break;
        }
        if (out.size() > kMaxAddresses) out.resize(kMaxAddresses);
    }
    bool onlyThisMachine() const { return m_named > 0 && m_found.empty(); }

private:
    int CountExchangers() {
        ns_rr record;
        for (int index = 0; index < counts[ns_s_an]; ++index) {
            if (int const code = Parserr(ns_s_an, index, record)) return code;
            m_named += record.type == ns_t_mx;
        }
        return 0;
    }

    Lookup m_found;
    unsigned m_named = 0;
};

// A domain without exchangers is its own.
Reply OwnAddress(std::string const& domain, std::vector<KORnet::IPAddr>& out) {
    if (VELT::Resolver().a_resolve(domain.c_str(), out, kMaxAddresses) != 0) return NotNow();
    if (out.empty()) return {554, "5.4.4", "domain has no mail exchanger and no address"};
    return {250, "", ""};
}

Reply Literal(std::string const& text, std::vector<KORnet::IPAddr>& out) {
    if (!IsDottedQuad(text)) return {550, "5.4.4", "no route to this address"};
    out.emplace_back(text);
    return {250, "", ""};
}

}  // namespace

bool IsDottedQuad(std::string const& text) {
    in_addr binary;
    return inet_pton(AF_INET, text.c_str(), &binary) == 1;
}

Reply FindExchangers(std::string const& domain, std::vector<KORnet::IPAddr>& out) {
    if (domain.size() > 2 && domain.front() == '[') return Literal(domain.substr(1, domain.size() - 2), out);
    Query query;
    int const code = query.Ask(domain);
    if (code == kHostNotFound) return {550, "5.1.2", "domain does not exist"};
    if (code != 0 && code != kNoData) return NotNow();
    if (query.named() == 0) return OwnAddress(domain, out);
    if (query.isNullMx()) return {556, "5.1.10", "domain takes no mail"};
    if (query.onlyThisMachine()) return {554, "5.4.6", "mail goes in circles: the domain's mail exchanger is this one"};
    query.Addresses(out);
    // An exchanger whose name cannot be looked up now may have an address tomorrow.
    if (out.empty()) return {451, "4.4.4", "domain has no mail exchanger with an address"};
    return {250, "", ""};
}

}  // namespace smtp
