// The parser of DNS messages, from the header to the list of exchangers, against the system's resolver library.
#include <arpa/nameser.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <velt/lookup/Resolver.h>

#include "fuzz/Input.h"
#include "fuzz/NameText.h"

using velt_fuzz::Require;

namespace {

class GivenAnswer : public VELT::Resolver {
public:
    int Take(unsigned char* bytes, std::size_t length) {
        answer_length = static_cast<int>(length);
        return init_result(bytes);
    }
};

// What the answer to an MX query says, read by the system's library: exchangers by name.
struct Exchanger {
    int preference;
    std::vector<in_addr_t> addresses;
};
using Exchangers = std::map<std::string, Exchanger>;
constexpr unsigned kLimit = 10;
constexpr int kMalformed = -1;

// The target of a record, as text; empty where it is not one.
std::string Target(ns_msg& reference, ns_rr const& record, std::size_t offset) {
    unsigned char labels[NS_MAXCDNAME];
    unsigned char const* const at = record.rdata + offset;
    if (ns_name_unpack(ns_msg_base(reference), ns_msg_end(reference), at, labels, sizeof labels) < 0) return {};
    auto const size = static_cast<std::size_t>(ns_msg_end(reference) - ns_msg_base(reference));
    return velt_fuzz::Walked(ns_msg_base(reference), at) < size ? velt_fuzz::NameText(labels) : std::string();
}

// 0, or that it is malformed: then the rest does not matter.
int ReadExchangers(ns_msg& reference, Exchangers& found) {
    for (int i = 0; i < ns_msg_count(reference, ns_s_an); ++i) {
        ns_rr record;
        if (ns_parserr(&reference, ns_s_an, i, &record) != 0) return kMalformed;
        if (record.type != ns_t_mx) continue;
        std::string const name = record.rdlength < 3 ? "" : Target(reference, record, 2);
        if (name.empty()) return kMalformed;
        if (name.size() > 255) continue;
        if (found.size() >= kLimit) return 0;
        int const preference = record.rdata[0] << 8 | record.rdata[1];
        auto const [place, isNew] = found.try_emplace(name, Exchanger{preference, {}});
        place->second.preference = std::min(place->second.preference, preference);
    }
    return 0;
}

int ReadAddresses(ns_msg& reference, Exchangers& found) {
    for (int i = ns_msg_count(reference, ns_s_ar) - 1; i >= 0; --i) {
        ns_rr record;
        if (ns_parserr(&reference, ns_s_ar, i, &record) != 0) return kMalformed;
        auto const owner = found.find(record.name);
        if (record.type != ns_t_a || record.rdlength < 4 || owner == found.end()) continue;
        in_addr_t address;
        std::memcpy(&address, record.rdata, sizeof address);
        owner->second.addresses.push_back(address);
    }
    return 0;
}

void LeaveOutOwn(Exchangers& found, std::string const& own) {
    auto const self = found.find(own);
    if (self == found.end()) return;
    int const preference = self->second.preference;
    for (auto each = found.begin(); each != found.end();)
        each = each->second.preference >= preference ? found.erase(each) : std::next(each);
}

void CheckExchangers(GivenAnswer& parser, ns_msg& reference) {
    VELT::Resolver::s_excludedhosts = {"localhost", "a.test"};
    VELT::Resolver::Lookup lookup;
    int const code = parser.parse_mx_query(&lookup, kLimit);
    Exchangers expected;
    bool const good = ReadExchangers(reference, expected) == 0 && ReadAddresses(reference, expected) == 0;
    Require((code == 0) == good, "exchangers or none");
    if (!good) return;
    for (std::string const& own : VELT::Resolver::s_excludedhosts) LeaveOutOwn(expected, own);
    Require(lookup.size() == expected.size(), "as many exchangers");
    int before = 0;
    for (VELT::Resolver::Record const& record : lookup) {
        auto const same = expected.find(record.name);
        Require(same != expected.end() && same->second.preference == record.preference, "the same exchanger");
        Require(record.preference >= before, "in the order of preference");
        before = record.preference;
        std::vector<in_addr_t> addresses;
        for (auto const& node : record.addresses) addresses.push_back(node.address.s_addr);
        Require(addresses == same->second.addresses, "the same addresses in the same order");
    }
}

// A name in a record's data: what points to an alias, a server or an exchanger.
void CheckTarget(ns_msg& reference, ns_rr const& record) {
    bool const hasName = record.type == ns_t_ptr || record.type == ns_t_cname || record.type == ns_t_ns;
    std::size_t const offset = record.type == ns_t_mx ? 2 : 0;
    if (!(hasName || record.type == ns_t_mx) || record.rdlength <= offset) return;
    char text[1026];
    int const length = VELT::Resolver::ns_name_uncompress2(ns_msg_base(reference), ns_msg_end(reference),
                                                           record.rdata + offset, text, sizeof text);
    std::string const expected = Target(reference, record, offset);
    Require(length < 0 || expected == text, "the same target");
}

void CheckRecord(GivenAnswer& parser, ns_msg& reference, ns_sect section, int index) {
    ns_rr record;
    ns_rr expected;
    int const code = parser.Parserr(section, index, record);
    Require((code == 0) == (ns_parserr(&reference, section, index, &expected) == 0), "the same record or none");
    if (code != 0) return;
    Require(std::strcmp(record.name, expected.name) == 0, "the same name");
    Require(record.type == expected.type && record.rr_class == expected.rr_class, "the same type");
    Require(record.ttl == expected.ttl && record.rdlength == expected.rdlength, "the same fields");
    Require(section == ns_s_qd || record.rdata == expected.rdata, "the same data");
    if (section != ns_s_qd) CheckTarget(reference, record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 2048) return 0;
    std::unique_ptr<unsigned char[]> const bytes(new unsigned char[size]);
    std::copy(data, data + size, bytes.get());
    GivenAnswer parser;
    ns_msg reference;
    int const code = parser.Take(bytes.get(), size);
    Require((code == 0) == (ns_initparse(bytes.get(), static_cast<int>(size), &reference) == 0), "the same verdict");
    if (code != 0) return 0;
    for (int section = 0; section < ns_s_max; ++section) {
        int const count = std::min<int>(ns_msg_count(reference, static_cast<ns_sect>(section)), 100);
        for (int index = 0; index <= count; ++index)
            CheckRecord(parser, reference, static_cast<ns_sect>(section), index);
        for (int index = count; index >= 0; --index)
            CheckRecord(parser, reference, static_cast<ns_sect>(section), index);
    }
    CheckExchangers(parser, reference);
    return 0;
}
