#include <policyloader/engines/Envelope.h>

#include <eFabric/Property.h>
#include <eFabric/SessionNames.h>

namespace policyloader {
namespace {

namespace names = eFabric::session;

std::string Safe(char const* text) {
    std::string safe = text ? text : "";
    for (char& c : safe)
        if (c < ' ' || c > '~') c = '?';
    return safe;
}

std::string TextOf(IKORPropertyBag const& session, char const* name) {
    auto const* const property = session.GetProperty(name);
    return Safe(property ? property->GetNarrow() : nullptr);
}

}  // namespace

Envelope Envelope::read(IKORPropertyBag const* session) {
    Envelope envelope;
    if (!session) return envelope;
    envelope.isKnown = session->GetProperty(names::kSender) != nullptr;
    envelope.sender = TextOf(*session, names::kSender);
    envelope.clientAddress = TextOf(*session, names::kClientAddress);
    envelope.clientName = TextOf(*session, names::kClientName);
    auto const* const recipients = session->GetProperty(names::kRecipients);
    for (unsigned i = 0; recipients && i < recipients->GetCount(); ++i)
        envelope.recipients.push_back(Safe(recipients->GetNarrowAt(i)));
    return envelope;
}

}  // namespace policyloader
