#include "Notification.h"

#include <KORnet/Addr.h>

#include "Report.h"
#include "core/Headers.h"

namespace smtp {
namespace {

constexpr std::size_t kHeaderToReturn = 16384;

// Read past the buffering: a message that is on disk alone has no memory to be buffered in.
std::string FirstHeader(VELT::ScannerStream& spool) {
    std::string header(kHeaderToReturn, '\0');
    std::size_t length = 0;
    for (long count = spool.seek(0, 0) < 0 ? 0 : 1; count > 0 && length < header.size();) {
        count = spool.read(header.data() + length, static_cast<unsigned long>(header.size() - length));
        if (count > 0) length += static_cast<std::size_t>(count);
    }
    header.resize(length);
    return header;
}

}  // namespace

std::string NotificationOf(NotificationOrigin const& origin, Message const& message,
                           std::vector<RecipientFate> const& fates) {
    std::string const header = FirstHeader(*message.spool);
    NotificationFacts facts;
    facts.reportingHost = origin.reportingHost;
    facts.sender = message.senderText();
    facts.helloName = origin.helloName;
    facts.auditId = origin.auditId;
    facts.messageId = origin.messageId;
    facts.arrival = KORnet::rfc2822Date(origin.arrival);
    facts.header = header;
    for (std::size_t i = 0; i < fates.size(); ++i) {
        if (fates[i].taken()) continue;
        facts.failed.push_back(
            {message.recipients[i].address, StatusOf(fates[i].reply), OneLine(fates[i].reply), fates[i].remote});
    }
    return DeliveryNotification(facts);
}

}  // namespace smtp
