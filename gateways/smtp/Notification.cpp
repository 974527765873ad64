#include "Notification.h"

#include <KORnet/Addr.h>

#include "Report.h"
#include "core/Headers.h"

namespace smtp {
namespace {

constexpr std::size_t kHeaderToReturn = 16384;

std::string FirstHeader(VELT::ScannerStream& spool) {
    std::string header;
    if (spool.seek(0, 0) < 0) return header;
    while (header.size() < kHeaderToReturn && header.find("\r\n\r\n") == std::string::npos) {
        char* data = nullptr;
        bool done = false;
        int const count = spool.readdata(data, static_cast<unsigned>(kHeaderToReturn), true, done);
        if (count <= 0) break;
        header.append(data, static_cast<std::size_t>(count));
    }
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
