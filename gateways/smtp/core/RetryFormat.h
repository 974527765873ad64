// The form of a mail that waits in a file to be delivered: "<name>.rmd"; docs/formats/rmd.md has the grammar.
//   first line | envelope | slot | slot | message
// The first line has the lengths and checksums of what never changes; the two slots say how far the delivery is, and
// take turns, so that one of them is whole whenever a write is cut off.
// Values only, any thread. Sizes in bytes, times in seconds since 1970. Failure: an enum that says what is wrong with a
// file; a bad one is never taken for a good one, as each part has a checksum of its own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace smtp {

enum class RetryFault {
    None,
    Unreadable,      // the system's, in errno
    NotOurs,         // another user's, or one that anybody may write to
    MoreNames,       // than the one: it would be delivered once by each
    NotARetryFile,   // does not begin as one
    OtherVersion,    // one of a later release
    Truncated,       // shorter, or longer, than it says itself
    HeadDamaged,     // first line or envelope
    StatusDamaged,   // neither slot is whole
    MessageDamaged,  // the bytes of the message are others
};

char const* TextOf(RetryFault fault);

struct RetryRecipient {
    std::string address;
    std::string identity;  // by whose policy it was judged
};

struct RetryEnvelope {
    std::string auditId;
    std::string conversationId;
    std::string sender;  // empty: the null path
    std::string helloName;
    std::string clientAddress;
    std::string server;   // "address:port" that the client meant to reach; empty: by the settings
    std::string engines;  // what judged it; empty: nothing did, and nothing has to
    std::string action;   // of the policy that says to keep the mail; empty: it only has to be delivered
    std::string finding;  // what that was about
    std::int64_t taken = 0;
    bool inbound = false;
    bool plain = false;      // no line begins with ".", every line ends in CRLF
    bool eightBit = false;   // some byte is above 127
    bool rewritten = false;  // policy changed the message; these are the bytes that it made
    std::vector<RetryRecipient> recipients;
};

struct RetryStatus {
    enum class Recipient : char {
        Waiting = 'w',
        Delivered = 'd',
        Failed = 'f',  // for good, and the sender was told as far as he is
        Held = 'h',    // until somebody releases the mail
    };
    std::uint64_t sequence = 0;  // of two slots the higher one holds
    unsigned tries = 0;
    std::int64_t last = 0;      // when the last try began; 0: none was made
    std::int64_t due = 0;       // when the next one is; 0: as soon as its destination may be tried; below: see asked()
    std::int64_t skipped = 0;   // seconds of its age that do not count: nobody tried, or the clock was set
    bool unsure = false;        // the last try may have delivered: its answer was not heard, or not noted
    bool telling = false;       // a notification about some recipient may have been written, which is not noted yet
    std::int64_t released = 0;  // when it was, of a mail that was held
    std::vector<Recipient> recipients;
    std::string reason;  // of the last failure; printable

    bool waits() const;  // for some recipient
    bool isHeld() const;

    // Since when somebody wants a try, be its time there or not; 0: nobody does.
    std::int64_t asked() const { return due < 0 && due > INT64_MIN ? -due : 0; }
};

struct RetryLayout {
    std::uint64_t envelopeLength = 0;
    std::uint64_t slotLength = 0;
    std::uint64_t messageLength = 0;
    std::uint32_t envelopeSum = 0;
    std::uint32_t messageSum = 0;

    static constexpr std::uint64_t kFirstLine = 80;
    static constexpr std::uint64_t kMaxEnvelope = 64 << 20;
    static constexpr std::uint64_t kMaxMessage = 0xFFFFFFFF;
    static constexpr std::size_t kMaxReason = 300;
    static constexpr std::uint64_t kMaxSequence = INT64_MAX;        // no status comes behind it
    static constexpr std::int64_t kMaxSeconds = 1'000'000'000'000;  // of a time and a span, either way

    std::uint64_t slot(unsigned which) const { return kFirstLine + envelopeLength + (which % 2) * slotLength; }
    std::uint64_t message() const { return slot(0) + 2 * slotLength; }
    std::uint64_t end() const { return message() + messageLength; }
    bool operator==(RetryLayout const&) const = default;
};

std::uint64_t SlotLength(std::size_t recipients);
std::uint32_t Checksum(std::string_view bytes, std::uint32_t before = 0);  // CRC-32; goes on from one block to the next

std::string WriteFirstLine(RetryLayout const& layout);  // exactly kFirstLine bytes
RetryFault ReadFirstLine(std::string_view bytes, RetryLayout& out);

std::string WriteEnvelope(RetryEnvelope const& envelope);
RetryFault ReadEnvelope(std::string_view bytes, RetryLayout const& layout, RetryEnvelope& out);

// Exactly SlotLength(status.recipients.size()) bytes. A reason that is too long is cut.
std::string WriteSlot(RetryStatus const& status);
bool ReadSlot(std::string_view bytes, std::size_t recipients, RetryStatus& out);  // false: not whole

}  // namespace smtp
