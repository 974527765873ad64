// NotificationOf: the delivery status notification (RFC 3464) about the recipients that a message did not reach.
// Thread: the session's. Failure: none; a message that cannot be read has its header left out.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "Message.h"
#include "core/Outcome.h"

namespace smtp {

struct NotificationOrigin {
    std::string reportingHost;
    std::string auditId;
    std::string helloName;  // of the client that the message came from
    std::time_t arrival;
    std::string messageId;  // left part of the notification's own Message-ID
};

// Of fates that are not taken. The whole text, ready to be sent.
std::string NotificationOf(NotificationOrigin const& origin, Message const& message,
                           std::vector<RecipientFate> const& fates);

}  // namespace smtp
