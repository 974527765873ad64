// What became of each recipient, and what the client is told about the message as a whole.
// Values only, any thread.
//   nobody has it      -> one refusal, 4xx as soon as a second try may help; nothing was passed on, nothing is lost
//   everybody has it   -> 250
//   some have it       -> 250, and the sender is told of the others by a notification
// A message of which a part was passed on is never answered by 4xx or 5xx while the rest can still be reported: the
// client would send it again, and some would get it twice.
#pragma once

#include <string>
#include <vector>

#include "Reply.h"

namespace smtp {

struct RecipientFate {
    enum class Kind {
        Delivered,  // the next server took it
        Refused,    // policy, here
        Failed,     // the next server, or the way to it
    };
    Kind kind = Kind::Failed;
    Reply reply;         // why not: 4xx or 5xx
    std::string remote;  // the server that said so; empty: this gateway
};

struct Decision {
    Reply reply;
    bool notify = false;  // those not delivered to must be reported to the sender
};

Decision Decide(std::vector<RecipientFate> const& fates, std::string const& auditId);

// What the client is told when the notification could not be handed over. Mail that policy refused stays refused, as
// somebody else has the message already; but mail that the next server did not take would be lost without a word, so
// that the client keeps it and tries again, at the price of a second copy for those who have it.
Reply WithoutNotification(std::vector<RecipientFate> const& fates, Reply const& accepted);

}  // namespace smtp
