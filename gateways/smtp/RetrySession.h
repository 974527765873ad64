// RetrySession: one try to deliver a mail that waits in a file.
// It looks whether the mail is due and its destination may be tried, delivers to the recipients that still wait, and
// leaves the file with what became of it: removed, or at rest. A recipient that cannot be reached for good, or for too
// long, is told to the sender by a notification, which waits in a file of its own; nobody is told of a notification.
// Before the message's bytes go out the file says so: should this process die, or the answer be lost, the next try is
// known to be one that may bring the mail a second time, and is counted.
// Verdicts are those of the gateway, unless the signatures are others by now, or are those of servers, which tell
// nobody when they have others. Mail that was released from the quarantine is not judged again; mail that is held there
// is not delivered. Owner: whoever runs it; it owns the file, and its lock. Thread: one; Active is called by another.
// Failure: events, and the file stays.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <velt/scanning/ScanContext.h>

#include "BackOff.h"
#include "ClockWatch.h"
#include "Delivery.h"
#include "Keeping.h"
#include "Message.h"
#include "Quarantine.h"
#include "Report.h"
#include "RetryFile.h"
#include "SmtpSettings.h"
#include "VerdictReport.h"

namespace smtp {

class RetrySession : public ReportingSession {
public:
    RetrySession(int fd, std::string const& directory, std::string const& name);

    void Run() override;
    bool Active(char const* path) override;
    void InitialiseConnectionClass(bool transparent, VELT::Config& config) override;
    void getConnectionAttributes(IKORPropertyBag* bag) override;

private:
    class Attempt;

    void Work();
    void Adopt();  // what the file says of the session that the mail came in
    void Decide();
    void Try(Attempt& attempt);
    void TakeRecipients();
    RetryFault TakeMessage();
    std::vector<Verdict> Verdicts();
    std::string Judges();
    std::vector<Verdict> ScanAgain();
    void Hold(std::vector<Verdict>& verdicts);
    void NoteHeld(std::vector<Verdict> const& verdicts);
    bool BeginContent();
    void Settle(std::vector<RecipientFate> fates);
    void GiveUpUntried();
    bool BeginTelling();
    bool TellSender(std::vector<RecipientFate> const& fates);
    std::string ReportName(std::vector<RecipientFate> const& fates) const;
    void Finish(RetryStatus const& status);
    void PutBack(RetryStatus status, RecipientFate const& fate);
    void ReportGivenUp(std::vector<RecipientFate> const& fates);
    void ReportReleased();
    void ReportHeld();
    void ReportDamaged(RetryFault fault);
    void ReportStatusLost();
    void SkipGap();
    bool SkipJump();
    void Rest();
    std::int64_t Age() const;  // seconds
    bool IsTooOld() const;
    std::string Destination() const;
    KeptFrom From();
    RetryStatus::Recipient& StateOf(RetryStatus& status, std::size_t recipient) const;

    std::string const m_directory;
    std::string const m_name;  // of the file, without the suffix
    RetryFile m_file;
    std::optional<SessionSettings> m_settings;
    std::optional<Delivery> m_delivery;
    Message m_message;                   // for those that wait
    std::vector<std::size_t> m_waiting;  // where they stand in the file
    VELT::ScanContext m_scan;
    VerdictReport m_report;
    std::optional<Quarantine> m_held;  // nobody has what it holds before the file says that it is there
    std::string m_hello;
    std::time_t m_now = 0;  // when this began, by the clock as it is set now
    std::optional<ClockJump> m_jump;
    bool m_wasUnsure = false;   // before this try; what may have arrived once may have for ever
    bool m_wasTelling = false;  // the same of a notification
    bool m_noteFailed = false;
};

}  // namespace smtp
