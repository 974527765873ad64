// Resolver: the three look-ups of a proxy: addresses of a host, mail exchangers of a domain, name of an address.
// It parses the answer to an MX query itself (DnsMessage.cpp, DnsName.cpp), so that it takes the addresses that came
// along, sorts by preference, and leaves out this machine and all that would lead back to it.
// Owner: one object per use, 1 KiB of answer inside; the settings are the class's, written by initialise alone before
// threads start. Threads: one per object; a thread that uses mx_resolve calls start() first. All look-ups may wait for
// a name server for as long as the system's resolver does. Failure: codes, never an exception: 0; 2 try again; 3 no
// such host; 10 no such data; 34 answer too long; 19 no such record; 90 malformed message; 71 not an IPv4 address;
// otherwise h_errno or errno.
#pragma once

#include <arpa/nameser.h>
#include <netinet/in.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <KORnet/Addr.h>
#include <velt/Export.h>

namespace VELT {

class Config;

class VELT_API Resolver {
public:
    // An address at the place where a sockaddr_in has it; nothing else is filled.
    struct IPaddressNode {
        std::uint16_t unused[2];
        in_addr address;  // network order
        std::uint64_t padding;
    };

    // One mail exchanger.
    struct Record {
        int preference = INT_MAX;
        char name[256] = "";
        std::vector<IPaddressNode> addresses;
    };

    struct CmpRecordPref {
        bool operator()(Record const& a, Record const& b) const { return a.preference < b.preference; }
    };

    // Exact, so that the case of letters counts.
    struct IsEqualRecordName {
        char const* text;
        bool operator()(Record const& record) const;
    };

    class VELT_API Lookup : public std::vector<Record> {
    public:
        // False: `max` records are held already, also when one of them has this name. A name that a record cannot hold
        // is left out; a known one keeps its better preference.
        bool AddMX(unsigned max, char const* name, int preference);
        bool AddAddress(char const* name, in_addr const* address);  // dropped when nobody has the name; always true
        void SortByPreference();                                    // best first; equal ones in any order

        // For each name of this machine: drops its record, all of the same preference and all worse ones. Sort first.
        void RemoveSameServerMXAnswers();
    };

    Resolver();
    ~Resolver();
    Resolver(Resolver const&) = delete;
    Resolver& operator=(Resolver const&) = delete;

    // Learns the names of this machine and the settings; once, at start-up. With a dead name server it waits for each
    // local address.
    static void initialise(Config* config);
    static void start();  // the calling thread's own resolver state

    // Appends all addresses of the host; `max` is not looked at. A host that is not known can come back as 0 with
    // nothing appended.
    int a_resolve(char const* name, std::vector<KORnet::IPAddr>& addresses, unsigned max);

    // Appends the addresses of the domain's exchangers in delivery order. A domain without any, or with none but this
    // machine, gives 0 with nothing appended: falling back to the domain's own address is the caller's decision.
    int mx_resolve(char const* name, std::vector<KORnet::IPAddr>& addresses, unsigned max_exchangers,
                   unsigned max_addresses);

    // False leaves `name` as it is.
    static bool reverse_lookup(std::string& name, sockaddr_in* address);

    // The steps of mx_resolve.
    int query_resolver(char const* name, int query_class, int type, unsigned char* buffer, int& length);
    int init_result(unsigned char* start);
    void SetSection(ns_sect which);
    static int SectionLength(unsigned char const* start, unsigned char const* end, ns_sect which, int count);
    int Parserr(ns_sect which, int index, ns_rr& record);  // index -1: the next one
    int parse_mx_query(Lookup* lookup, int max);

    // Names: packed to labels, labels to text (RFC 1035 escapes), and both. The count of bytes or -1 with errno set.
    static int ns_name_unpack2(unsigned char const* message, unsigned char const* end, unsigned char const* source,
                               unsigned char* destination, std::size_t size);
    static int ns_name_ntop2(unsigned char const* source, char* destination, std::size_t size);
    static int ns_name_uncompress2(unsigned char const* message, unsigned char const* end, unsigned char const* source,
                                   char* destination, std::size_t size);

    // Read at the cursor and move it on; the caller knows that the bytes are there.
    static int expand(char* name, unsigned char const* message, int length, unsigned char const*& cursor);
    static std::uint16_t getShort(unsigned char const*& cursor);
    static std::uint32_t getLong(unsigned char const*& cursor);

    static int s_max_buffersize;                      // bytes
    static bool s_reverse_lookups_banned;             // setting ForbidReverseLookups
    static std::vector<std::string> s_excludedhosts;  // the names that are this machine

private:
    int ReadHeader();
    bool Skip(int index);
    int ReadRecord(ns_rr& record);
    int ReadExchangers(Lookup& lookup, unsigned max);
    int ReadAddresses(Lookup& lookup);

protected:
    // The answer and the state of its parser. A subclass that has its answer from elsewhere sets answer_length first
    // and hands the answer to init_result.
    unsigned char answer[1024];
    std::unique_ptr<unsigned char[]> big_answer;  // null while the answer fits
    int answer_length;
    ns_sect section;  // under the cursor
    int rr_index;     // of the next record there, -1 for none
    std::uint16_t message_id;
    std::uint16_t message_flags;
    unsigned char const* cursor;
    unsigned char const* sections[4];  // null: empty
    std::uint16_t counts[4];
    unsigned char const* message_end;
    unsigned char const* message;
};

}  // namespace VELT
