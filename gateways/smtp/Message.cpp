#include "Message.h"

#include <eFabric/Property.h>
#include <eFabric/SessionNames.h>

#include "core/Reply.h"

namespace smtp {
namespace {

constexpr std::size_t kShown = 20;

}  // namespace

Content Message::contentOf(VELT::ScannerStream* bytes) const {
    Content content;
    content.spool = bytes;
    content.plain = bytes == spool.get() && !leadingDots;
    content.eightBit = eightBit;
    return content;
}

std::string ListOf(std::vector<std::string> const& addresses) {
    std::string out;
    for (std::size_t i = 0; i < addresses.size() && i < kShown; ++i) {
        if (i) out += ' ';
        out += '<' + addresses[i] + '>';
    }
    if (addresses.size() > kShown) out += " and " + std::to_string(addresses.size() - kShown) + " more";
    return out;
}

void AddFacts(IKORPropertyBag* bag, Message const& message, std::string const& client, std::string const& hello) {
    namespace names = eFabric::session;
    bag->NewProperty(names::kSender)->SetNarrow(message.senderText().c_str());
    auto* const recipients = bag->NewProperty(names::kRecipients);
    for (Recipient const& one : message.recipients) recipients->AddNarrow(one.address.c_str());
    bag->NewProperty(names::kClientAddress)->SetNarrow(client.c_str());
    bag->NewProperty(names::kClientName)->SetNarrow(Printable(hello).c_str());
}

std::string ListOf(std::vector<Recipient> const& recipients) {
    std::vector<std::string> addresses;
    for (Recipient const& one : recipients) addresses.push_back(one.address);
    return ListOf(addresses);
}

}  // namespace smtp
