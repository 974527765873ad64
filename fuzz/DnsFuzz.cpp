// The parser of DNS messages against the one of the system's resolver library.
#include <arpa/nameser.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include <velt/lookup/Resolver.h>

#include "fuzz/Input.h"

using velt_fuzz::Require;

namespace {

class GivenAnswer : public VELT::Resolver {
public:
    int Take(unsigned char* bytes, std::size_t length) {
        answer_length = static_cast<int>(length);
        return init_result(bytes);
    }
};

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
}

// The bytes that a name which is known to be right goes over.
std::size_t Walked(unsigned char const* message, unsigned char const* at) {
    std::size_t seen = 0;
    while (*at != 0) {
        bool const pointer = *at >= 0xC0;
        seen += pointer ? 2u : *at + 1u;
        at = pointer ? message + (at[0] & 0x3F) * 256 + at[1] : at + *at + 1;
    }
    return seen;
}

void CheckNames(unsigned char const* bytes, std::size_t size) {
    unsigned char const* const end = bytes + size;
    for (unsigned char const* at = bytes; at < end; ++at) {
        unsigned char labels[NS_MAXCDNAME];
        unsigned char expected[NS_MAXCDNAME];
        int const length = VELT::Resolver::ns_name_unpack2(bytes, end, at, labels, sizeof labels);
        int const reference = ns_name_unpack(bytes, end, at, expected, sizeof expected);
        bool const overlong = reference > 0 && Walked(bytes, at) >= size;  // counts as a loop here already
        Require(length == reference || (length == -1 && overlong), "the same length");
        char text[1026];
        if (length > 0) Require(VELT::Resolver::ns_name_ntop2(labels, text, sizeof text) > 0, "a text for each name");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 2048) return 0;
    std::unique_ptr<unsigned char[]> const bytes(new unsigned char[size]);
    std::copy(data, data + size, bytes.get());
    CheckNames(bytes.get(), size);
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
    VELT::Resolver::s_excludedhosts = {"localhost", "a.test"};
    VELT::Resolver::Lookup lookup;
    if (parser.parse_mx_query(&lookup, 10) == 0) Require(lookup.size() <= 10, "no more than the limit");
    return 0;
}
