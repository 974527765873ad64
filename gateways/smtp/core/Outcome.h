// What became of each recipient, and what the client is told about the message as a whole.
// Values only, any thread.
//   nobody has it      -> one refusal, 4xx as soon as a second try may help; nothing was passed on, nothing is lost
//   everybody has it, or it waits or is held here for them -> 250
//   some have it       -> 250, and the sender is told of the others by a notification
// A message of which a part was passed on is never answered by 4xx: the client would send it again, and some would get
// it twice. What is only held is given up again where the client is to keep the message.
#pragma once

#include <string>
#include <vector>

#include "Reply.h"

namespace smtp {

struct RecipientFate {
    enum class Kind {
        Delivered,  // the next server took it
        Kept,       // waits in a file here, until the next server takes it
        Held,       // policy has the message in quarantine, and nobody is to be told
        Refused,    // policy, here
        Failed,     // the next server, or the way to it
    };
    Kind kind = Kind::Failed;
    Reply reply;           // why not: 4xx or 5xx
    std::string remote;    // the server that said so; empty: this gateway
    bool reached = false;  // the server was there
    bool unsure = false;   // it got the whole message, and its answer was not heard

    bool passedOn() const { return kind == Kind::Delivered || kind == Kind::Kept; }
    bool taken() const { return passedOn() || kind == Kind::Held; }
    bool temporary() const { return kind == Kind::Failed && reply.group() == 4; }  // a second try may help
};

struct Decision {
    Reply reply;
    bool notify = false;  // those not delivered to must be reported to the sender
};

Decision Decide(std::vector<RecipientFate> const& fates, std::string const& auditId);

// What the client is told when the notification could not be handed over: a refusal for good. It is then the client who
// tells the sender, and the text says that others have the message; it does not send it again, so that nobody gets it
// twice.
Reply WithoutNotification(std::vector<RecipientFate> const& fates);

}  // namespace smtp
