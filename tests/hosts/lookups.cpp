// lookups: asks Resolver what a test asks it, with the system's own name server. Each line of input is a request, each
// line of output its answer, in words:
//   a NAME                    CODE ADDRESS...
//   mx NAME EXCHANGERS MAX    CODE ADDRESS...
//   records NAME              CODE, then SECTION/TYPE/NAME for each record of the answer to an MX query
//   reverse ADDRESS           true NAME, or false and the name that stood there, "before"
//   byaddr ADDRESS            NAME ALIAS..., or null
//   score ADDRESS LINE        the score of a line of inside.txt for a client of that address
//   port NAME PROTOCOL        the port
//   exclude NAME...           the names that are this machine from now on
//   forbid 0|1                whether reverse look-ups are forbidden
//   initialise                SHORTNAME LONGNAME EXCLUDED...; "-" stands for an empty name
//   peers, hardware           the addresses of the interfaces
#include <arpa/inet.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <velt/Config.h>
#include <velt/connection/TCPConnection.h>
#include <velt/lookup/NetPolicy.h>
#include <velt/lookup/Resolver.h>
#include <velt/runtime/Proxy.h>
#include <velt/streams/NetUtils.h>

namespace {

using VELT::Resolver;
using Words = std::vector<std::string>;

Words Found(int code, std::vector<KORnet::IPAddr> const& addresses) {
    Words words{std::to_string(code)};
    for (KORnet::IPAddr const& address : addresses) words.push_back(address.str());
    return words;
}

sockaddr_in AddressOf(std::string const& text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_aton(text.c_str(), &address.sin_addr);
    return address;
}

Words Hosts(Words const& request) {
    std::vector<KORnet::IPAddr> addresses;
    int const code = Resolver().a_resolve(request.at(0).c_str(), addresses, 1);
    return Found(code, addresses);
}

Words Exchangers(Words const& request) {
    std::vector<KORnet::IPAddr> addresses;
    auto const limit = [&](std::size_t i) { return static_cast<unsigned>(std::stoul(request.at(i))); };
    int const code = Resolver().mx_resolve(request.at(0).c_str(), addresses, limit(1), limit(2));
    return Found(code, addresses);
}

class Message : public Resolver {
public:
    Words Records(std::string const& name) {
        answer_length = sizeof answer;
        int code = query_resolver(name.c_str(), ns_c_in, ns_t_mx, answer, answer_length);
        if (code == 0) code = init_result(big_answer ? big_answer.get() : answer);
        Words words{std::to_string(code)};
        for (int section = 0; code == 0 && section < ns_s_max; ++section) Append(static_cast<ns_sect>(section), words);
        return words;
    }

private:
    void Append(ns_sect which, Words& words) {
        ns_rr record;
        for (int index = 0; Parserr(which, index, record) == 0; ++index)
            words.push_back(std::to_string(which) + '/' + std::to_string(record.type) + '/' + record.name);
    }
};

Words Records(Words const& request) { return Message().Records(request.at(0)); }

Words Reverse(Words const& request) {
    sockaddr_in address = AddressOf(request.at(0));
    std::string name = "before";
    bool const found = Resolver::reverse_lookup(name, &address);
    return {found ? "true" : "false", name};
}

Words ByAddress(Words const& request) {
    sockaddr_in address = AddressOf(request.at(0));
    void* buffer = nullptr;
    hostent* const host = VELT::GetHostByAddr(reinterpret_cast<char*>(&address.sin_addr), &buffer);
    if (!host) return {buffer ? "no host but a buffer" : "null"};
    Words words{host->h_name};
    for (char** alias = host->h_aliases; *alias; ++alias) words.push_back(*alias);
    std::free(host);
    std::free(buffer);
    return words;
}

Words Score(Words const& request) {
    VELT::TCPConnection end;
    end.m_address = AddressOf(request.at(0));
    std::string line = request.at(1);
    for (std::size_t i = 2; i < request.size(); ++i) line += ' ' + request[i];
    auto const check = VELT::NetPolicyCheck::create_policy(line.c_str());
    return {check ? std::to_string(check->score(nullptr, end)) : "none"};
}

Words Port(Words const& request) { return {std::to_string(VELT::StrToPort(request.at(0), request.at(1).c_str()))}; }

Words Exclude(Words const& request) {
    Resolver::s_excludedhosts = request;
    return {};
}

Words Forbid(Words const& request) {
    Resolver::s_reverse_lookups_banned = request.at(0) == "1";
    return {};
}

Words Peers(Words const&) {
    Words words;
    for (sockaddr_in* const address : VELT::getinterface_addresses()) {
        words.push_back(::inet_ntoa(address->sin_addr));
        std::free(address);
    }
    return words;
}

Words Hardware(Words const&) { return VELT::getinterface_mac_addresses(); }

std::string OrDash(std::string const& name) { return name.empty() ? "-" : name; }

Words Initialise(Words const&) {
    static VELT::Proxy* const proxy = new VELT::Proxy;  // there is one for the whole process
    VELT::Proxy::s_pProxyInstance = proxy;
    Resolver::s_excludedhosts.clear();
    VELT::Config config;
    Resolver::initialise(&config);
    Words words{OrDash(VELT::Proxy::GetProxyHostName(false)), OrDash(VELT::Proxy::GetProxyHostName(true))};
    for (std::string const& name : Resolver::s_excludedhosts) words.push_back(OrDash(name));
    return words;
}

std::map<std::string, std::function<Words(Words const&)>> const kRequests = {
    {"a", Hosts},         {"mx", Exchangers},         {"records", Records},
    {"reverse", Reverse}, {"byaddr", ByAddress},      {"score", Score},
    {"port", Port},       {"exclude", Exclude},       {"forbid", Forbid},
    {"peers", Peers},     {"initialise", Initialise}, {"hardware", Hardware},
};

Words Split(std::string const& line) {
    std::istringstream in(line);
    Words words;
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

}  // namespace

int main() {
    Resolver::start();
    for (std::string line; std::getline(std::cin, line);) {
        Words request = Split(line);
        auto const answer = kRequests.at(request.at(0));
        request.erase(request.begin());
        for (std::string const& word : answer(request)) std::cout << word << ' ';
        std::cout << std::endl;
    }
}
