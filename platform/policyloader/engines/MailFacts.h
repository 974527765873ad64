// MailFacts: what is known of one message when its rules are asked.
// Owner: the mail filter engine, for one scan.  Threads: the scan's.  Units: bytes.  Failure: none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <policyloader/engines/Component.h>
#include <policyloader/engines/EntityHead.h>

namespace policyloader {

// A part that is no text of the message, or has a name.
struct Attachment {
    Component* component;
    std::vector<std::string> names;  // UTF-8; each that some reader may take it for
    std::vector<std::string> types;  // by its content, the most certain first, then what it is declared to be
    std::uint64_t size = 0;
};

struct MailFacts {
    std::vector<bool> header;  // by rule: what it says of the header holds
    std::uint64_t fields = 0;
    std::uint64_t headerSize = 0;
    std::uint64_t size = 0;
    std::uint64_t recipients = 0;
    std::vector<Attachment> attachments;
};

}  // namespace policyloader
