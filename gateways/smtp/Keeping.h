// What cannot be delivered now is kept in files of the deferred directory, from which a retryer takes it.
// Thread: the session's. Failure: false, and an event that says why; nothing is then kept, or another event says that
// something may be.
#pragma once

#include <string>
#include <vector>

#include "Delivery.h"
#include "Message.h"
#include "Report.h"
#include "SmtpSettings.h"
#include "core/Outcome.h"
#include "core/RetryFormat.h"

namespace smtp {

// Whose message it is.
struct KeptFrom {
    ReportingSession& session;
    SessionSettings const& settings;
    std::string const& auditId;
    std::string const& conversationId;
    std::string const& helloName;
    bool inbound;
};

// Keeps the message, a file for each group, for those recipients whose fate may be another at a second try; their fate
// is Kept then. Where nobody else has the message all groups are kept or none, as its client can be told to send it
// again; otherwise as many as can be.
void KeepRest(KeptFrom const& from, Message const& message, std::vector<Delivery::Group> const& groups,
              std::vector<RecipientFate>& fates);

// Keeps a notification to the sender of the message. `name` of its file, by which it is known: it is kept once, however
// often it is asked for. `unsure`: the next server may have it.
bool KeepNotification(KeptFrom const& from, Message const& message, std::string const& text, std::string const& name,
                      bool unsure = false);

// What a file says of the session and the time; sender, recipients and content are the caller's.
RetryEnvelope EnvelopeOf(KeptFrom const& from);

// Of a file that was not kept, and cannot be taken back: somebody may deliver it all the same.
void ReportNotUndone(KeptFrom const& from, std::string const& path, int error);

std::string EnginesText();  // the versions of this process's engines
inline constexpr char const* kServersJudge = "remote";

// Who judges mail for these recipients by the policies of the session: the versions of this process's engines, or
// kServersJudge where servers have a say, whose signatures change without a word to anybody.
std::string JudgesOf(ReportingSession& session, std::vector<std::string> const& recipients);

}  // namespace smtp
