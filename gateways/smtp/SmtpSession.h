// SmtpSession: one client of the mail gateway.
// It takes a message, has it scanned for each identity among its recipients, brings it to the next server, and only
// then answers: a client that was told 250 knows that the next server has the message or, where the settings say so,
// that the message waits in a file until that server takes it.
// Owner: whoever runs it. Thread: one. Failure: every way in which a message is not delivered is a 4xx or 5xx answer
// and an event; nothing throws out of Start.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <velt/scanning/ScanContext.h>

#include "Channel.h"
#include "Delivery.h"
#include "Keeping.h"
#include "Message.h"
#include "Receiver.h"
#include "Report.h"
#include "SmtpSettings.h"
#include "VerdictReport.h"
#include "core/Command.h"
#include "core/Outcome.h"

namespace smtp {

class SmtpSession : public ReportingSession {
public:
    void Start() override;
    void InitialiseConnectionClass(bool transparent, VELT::Config& config) override;
    void getConnectionAttributes(IKORPropertyBag* bag) override;  // the envelope, for the scan engines

private:
    struct VerbRow {
        Verb verb;
        void (SmtpSession::*handler)(Command const&);
        bool movesMail;     // does not count as an idle command
        char const* usage;  // the answer to a malformed one
    };
    static std::array<VerbRow, 11> const s_verbs;

    void Serve();
    bool NextCommand();
    void Handle(std::string_view line);
    void Dispatch(Command const& command);
    void CloseOn(Channel::Input input);

    void Ehlo(Command const& command);
    void Helo(Command const& command);
    void Mail(Command const& command);
    void Rcpt(Command const& command);
    void Data(Command const& command);
    void Rset(Command const& command);
    void Noop(Command const& command);
    void Vrfy(Command const& command);
    void Expn(Command const& command);
    void Help(Command const& command);
    void Quit(Command const& command);

    bool ReadMailParameters(std::string_view text);
    Reply CheckRecipient(Mailbox const& mailbox);
    bool Serves(std::string const& domain) const;

    void TakeMessage();
    ReceiveResult ReceiveMessage();
    Reply Disturbance(ReceiveResult const& received);
    Reply ScanAndDeliver();
    Reply Deliver(std::vector<Verdict> const& verdicts);
    Reply TellSender(std::vector<RecipientFate> const& fates, Reply const& accepted);
    KeptFrom KeptNow();
    bool IsClientGone(std::vector<RecipientFate> const& fates);
    void ReportMessage(Reply const& reply);
    std::string ReceivedFor() const;

    void Say(int code, char const* status, std::string text);
    void Wrong(Reply const& reply);  // an error that counts
    void Abandon();                  // forgets the transaction
    void End(Reply const& reply);    // the session's last words

    std::optional<SessionSettings> m_settings;
    std::optional<Channel> m_channel;
    std::optional<Delivery> m_delivery;
    std::string m_hello;  // what the client calls itself; empty before EHLO
    bool m_extended = false;
    bool m_ended = false;
    unsigned m_errors = 0;
    unsigned m_idleCommands = 0;
    unsigned long m_accepted = 0;
    Reply m_lastReply;
    Message m_message;
    VELT::ScanContext m_scan;
    VerdictReport m_report;
};

}  // namespace smtp
