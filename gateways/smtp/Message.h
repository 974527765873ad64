// Message: one message between its client and the next server: envelope, content, and what is known of both.
// Owner: the session; it is made anew for each transaction. Thread: the session's. Sizes in bytes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <eFabric/Interned.h>
#include <velt/streams/ScannerStream.h>

#include "core/Address.h"

class IKORPropertyBag;

namespace smtp {

struct Recipient {
    std::string address;
    std::string domain;  // lower case; empty for <Postmaster>
    InternedString identity;
};

// What a transaction with the next server carries behind DATA.
struct Content {
    VELT::ScannerStream* spool = nullptr;  // either this
    std::string_view text;                 // or this
    bool plain = false;     // no line begins with ".", every line ends in CRLF: the bytes are the wire form
    bool eightBit = false;  // to be declared as BODY=8BITMIME

    std::uint64_t size() const { return spool ? spool->size() : text.size(); }
};

struct Message {
    bool open = false;  // MAIL was accepted
    Mailbox sender;
    std::vector<Recipient> recipients;
    unsigned putOff = 0;            // recipients that were told to come with another message
    bool eightBitDeclared = false;  // BODY=8BITMIME

    std::unique_ptr<VELT::ScannerStream> spool;  // Received: line and content, as they go on
    std::uint64_t size = 0;                      // of what the client sent
    bool leadingDots = false;                    // some line begins with "."
    bool eightBit = false;                       // some byte is above 127

    Content contentOf(VELT::ScannerStream* bytes) const;  // of the spool, or of what a scan made of it

    std::string senderText() const { return sender.null ? std::string() : sender.str(); }
};

// Recipients' addresses as an event shows them: the first few, and how many more.
std::string ListOf(std::vector<std::string> const& addresses);
std::string ListOf(std::vector<Recipient> const& recipients);

// What the scan engines are told of a session that a message came in.
void AddFacts(IKORPropertyBag* bag, Message const& message, std::string const& client, std::string const& hello);

}  // namespace smtp
