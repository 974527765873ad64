// The texts that this gateway adds to mail: the Received: line and delivery status notifications (RFC 3464).
// Values only, any thread. Lines end in CRLF. Failure: none; foreign text is made printable and cut.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace smtp {

struct ReceivedFacts {
    std::string helloName;      // what the client called itself
    std::string clientAddress;  // dotted
    std::string byName;         // this host
    std::string protocol;       // "SMTP" or "ESMTP"
    std::string id;             // audit id
    std::string recipient;      // named only when it is the only one; empty otherwise
    std::string date;           // RFC 5322
};

std::string ReceivedLine(ReceivedFacts const& facts);

struct FailedRecipient {
    std::string address;
    std::string status;      // "5.7.1"
    std::string diagnostic;  // "554 5.7.1 refused: ..."
    std::string remote;      // the server that said so; empty: this gateway
};

struct NotificationFacts {
    std::string reportingHost;  // this host
    std::string sender;         // who is told
    std::string helloName;      // from whom the message came
    std::string auditId;        // of the message
    std::string messageId;      // left part of the notification's own Message-ID
    std::string arrival;        // RFC 5322 date
    std::vector<FailedRecipient> failed;
    std::string_view header;  // the header block of the message; only its first part is returned to the sender
};

// The whole notification, ready for DATA but for dot stuffing.
std::string DeliveryNotification(NotificationFacts const& facts);

}  // namespace smtp
