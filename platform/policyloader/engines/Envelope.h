// Envelope: what the host's session tells of a mail that is not in its text: from whom, to whom, and who brought it.
// A value; any thread. Every text is printable ASCII, safe in a header.  Failure: none; what is not told is empty.
#pragma once

#include <string>
#include <vector>

class IKORPropertyBag;

namespace policyloader {

struct Envelope {
    bool isKnown = false;  // there is a sender, be it the null sender
    std::string sender;
    std::vector<std::string> recipients;
    std::string clientAddress;
    std::string clientName;

    static Envelope read(IKORPropertyBag const* session);  // null: nothing is told
};

}  // namespace policyloader
