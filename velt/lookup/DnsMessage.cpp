// The parser of a DNS message. Nothing outside message..message_end is ever read, whatever the message says.
#include <resolv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include <velt/lookup/Resolver.h>

namespace VELT {

namespace {

constexpr int kHeaderSize = 12;  // id, flags and four counts
constexpr int kTypeAndClass = 4;
constexpr int kFixedPart = 10;        // of a record behind its name: type, class, TTL and data length
constexpr int kLengthAt = 8;          // the data length in that
constexpr int kMinExchangerData = 3;  // preference and the shortest name
constexpr int kAddressData = 4;
constexpr std::size_t kNameText = 1026;

// What a function that sets errno failed with; never 0.
int FailureCode() { return errno != 0 ? errno : EMSGSIZE; }

// The length of what follows a record's name; -1 where the message ends before it is told.
long RecordLength(unsigned char const* after_name, unsigned char const* end, ns_sect which) {
    if (which == ns_s_qd) return kTypeAndClass;
    if (end - after_name < kFixedPart) return -1;
    return kFixedPart + (after_name[kLengthAt] << 8 | after_name[kLengthAt + 1]);
}

}  // namespace

int Resolver::init_result(unsigned char* start) {
    message = start;
    message_end = start + answer_length;
    std::fill(std::begin(sections), std::end(sections), nullptr);
    std::fill(std::begin(counts), std::end(counts), 0);
    SetSection(ns_s_max);
    int const code = ReadHeader();
    if (code != 0) std::fill(std::begin(counts), std::end(counts), 0);  // no record of a bad message can be had
    return code;
}

int Resolver::ReadHeader() {
    if (answer_length < kHeaderSize) return EMSGSIZE;
    unsigned char const* next = message;
    message_id = getShort(next);
    message_flags = getShort(next);
    for (auto& count : counts) count = getShort(next);
    for (int i = 0; i < ns_s_max; ++i) {
        if (counts[i] == 0) continue;
        int const length = SectionLength(next, message_end, static_cast<ns_sect>(i), counts[i]);
        if (length < 0) return FailureCode();
        sections[i] = next;
        next += length;
    }
    return next == message_end ? 0 : EMSGSIZE;
}

int Resolver::SectionLength(unsigned char const* start, unsigned char const* end, ns_sect which, int count) {
    unsigned char const* next = start;
    for (; count > 0; --count) {
        int const name = dn_skipname(next, end);
        if (name < 0) return -1;
        next += name;
        long const rest = RecordLength(next, end, which);
        if (rest < 0 || end - next < rest) {
            errno = EMSGSIZE;
            return -1;
        }
        next += rest;
    }
    return static_cast<int>(next - start);
}

void Resolver::SetSection(ns_sect which) {
    section = which;
    bool const real = which < ns_s_max;
    rr_index = real ? 0 : -1;
    cursor = real ? sections[which] : nullptr;
}

int Resolver::Parserr(ns_sect which, int index, ns_rr& record) {
    if (static_cast<unsigned>(which) >= ns_s_max) return ENODEV;
    if (which != section) SetSection(which);
    if (index == -1) index = rr_index;
    if (index < 0 || index >= counts[which]) return ENODEV;
    if (index < rr_index) SetSection(which);
    if (index > rr_index && !Skip(index)) return FailureCode();
    if (int const code = ReadRecord(record)) return code;
    if (++rr_index > counts[which]) SetSection(static_cast<ns_sect>(which + 1));
    return 0;
}

bool Resolver::Skip(int index) {
    int const length = SectionLength(cursor, message_end, section, index - rr_index);
    if (length < 0) return false;
    cursor += length;
    rr_index = index;
    return true;
}

int Resolver::ReadRecord(ns_rr& record) {
    int const name = dn_expand(message, message_end, cursor, record.name, sizeof record.name);
    if (name < 0) return FailureCode();
    unsigned char const* next = cursor + name;
    if (message_end - next < kTypeAndClass) return EMSGSIZE;
    record.type = getShort(next);
    record.rr_class = getShort(next);
    record.ttl = 0;
    record.rdlength = 0;
    record.rdata = nullptr;
    if (section != ns_s_qd) {
        if (message_end - next < kFixedPart - kTypeAndClass) return EMSGSIZE;
        record.ttl = getLong(next);
        record.rdlength = getShort(next);
        if (message_end - next < record.rdlength) return EMSGSIZE;
        record.rdata = next;
        next += record.rdlength;
    }
    cursor = next;
    return 0;
}

int Resolver::parse_mx_query(Lookup* lookup, int max) {
    if (int const code = ReadExchangers(*lookup, static_cast<unsigned>(max))) return code;
    if (int const code = ReadAddresses(*lookup)) return code;
    lookup->SortByPreference();
    lookup->RemoveSameServerMXAnswers();
    return 0;
}

int Resolver::ReadExchangers(Lookup& lookup, unsigned max) {
    for (int i = 0; i < counts[ns_s_an]; ++i) {
        ns_rr record;
        if (int const code = Parserr(ns_s_an, i, record)) return code;
        if (record.type != ns_t_mx) continue;
        if (record.rdlength < kMinExchangerData) return EMSGSIZE;
        unsigned char const* data = record.rdata;
        int const preference = getShort(data);
        char name[kNameText];
        if (ns_name_uncompress2(message, message_end, data, name, sizeof name) < 0) return FailureCode();
        if (!lookup.AddMX(max, name, preference)) break;
    }
    return 0;
}

// Backwards: the addresses of one host come out in the reverse of the message's order.
int Resolver::ReadAddresses(Lookup& lookup) {
    for (int i = counts[ns_s_ar] - 1; i >= 0; --i) {
        ns_rr record;
        if (int const code = Parserr(ns_s_ar, i, record)) return code;
        if (record.type != ns_t_a || record.rdlength < kAddressData) continue;
        in_addr address;
        std::memcpy(&address, record.rdata, sizeof address);
        lookup.AddAddress(record.name, &address);
    }
    return 0;
}

}  // namespace VELT
