#include "SmtpSession.h"

#include <KORtk/Exception.h>

#include <algorithm>
#include <charconv>
#include <exception>
#include <iterator>

#include <velt/streams/NetUtils.h>
#include <velt/streams/TCPStream.h>

#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace smtp {
namespace {

constexpr unsigned kMaxPutOff = 1000;  // recipients of one message that get a 452, before the client is a flood

// A server behind this one might take such a local part for a whole address, and this gateway for its client.
bool IsRouted(std::string const& local) { return local.find_first_of("@%!") != std::string::npos; }

Reply PathReply(PathError error, bool sender) {
    switch (error) {
        case PathError::NonAscii:
            return {553, "5.6.7", "address is not ASCII"};
        case PathError::TooLong:
            return {501, sender ? "5.1.7" : "5.1.3", "address too long"};
        case PathError::BadDomain:
            return {501, sender ? "5.1.8" : "5.1.2", "bad domain in address"};
        case PathError::NullForbidden:
            return {501, "5.1.3", "recipient missing"};
        default:
            return {501, sender ? "5.1.7" : "5.1.3", "bad address syntax"};
    }
}

}  // namespace

void SmtpSession::InitialiseConnectionClass(bool, VELT::Config&) { Count(); }

void SmtpSession::Start() {
    ++Count().sessions;
    m_settings.emplace(GetConfig());
    if (m_transparent) m_settings->RelayTo(m_server);
    m_channel.emplace(*m_source.m_stream);
    m_delivery.emplace(*this, *m_settings);
    if (m_settings->keep.enabled) m_delivery->LimitTo(m_settings->keep.after);
    try {
        Serve();
    } catch (std::exception const&) {  // out of memory, mostly: the client keeps what it has
        End({421, "4.3.0", "internal error"});
    } catch (KORtk::Exception const&) {
        End({421, "4.3.0", "internal error"});
    }
    m_lastReply.code == 221 ? m_channel->FlushLast() : m_channel->Flush();
    m_delivery->Close();
    Note(events::SESSION, [&](KORlog::InfoBag& bag) {
        bag |= names::COUNT(m_accepted);
        bag |= names::REPLY(OneLine(m_lastReply));
    });
}

void SmtpSession::Serve() {
    m_source.m_stream->set_timeout(m_settings->commandTimeoutMs);
    m_channel->Say({220, "", m_settings->greetingName + " ESMTP Velt"});
    while (!m_ended && NextCommand()) {
    }
}

bool SmtpSession::NextCommand() {
    std::string_view line;
    Channel::Input const input = m_channel->ReadLine(line);
    if (input == Channel::Input::TooLong) {
        Wrong({500, "5.5.2", "line too long"});
    } else if (input == Channel::Input::Line) {
        Handle(line);
    } else {
        CloseOn(input);
        return false;
    }
    return true;
}

void SmtpSession::CloseOn(Channel::Input input) {
    bool const silent = input == Channel::Input::TimedOut;
    if (silent) End({421, "4.4.2", m_settings->greetingName + " closes the connection: nothing heard for too long"});
    if (!silent && !m_message.open) return;
    ++Count().clientsGone;
    Note(events::CLIENT_GONE, [&](KORlog::InfoBag& bag) { bag |= names::REPLY(OneLine(m_lastReply)); });
}

void SmtpSession::Handle(std::string_view line) {
    if (line.size() + 1 > m_settings->maxCommandLine) return Wrong({500, "5.5.2", "line too long"});
    if (TrimLineEnd(line) == LineEnd::BareLf) return Wrong({500, "5.5.2", "a command ends in CRLF"});
    if (HasControl(line)) return Wrong({500, "5.5.2", "control character in command"});
    Dispatch(ParseCommand(line));
}

void SmtpSession::Dispatch(Command const& command) {
    auto const row =
        std::find_if(s_verbs.begin(), s_verbs.end(), [&](VerbRow const& one) { return one.verb == command.verb; });
    if (command.verb == Verb::Foreign) return End({421, "4.7.0", "this is a mail server"});
    if (row == s_verbs.end()) return Wrong({500, "5.5.2", "command unknown"});
    if (!row->movesMail && ++m_idleCommands > m_settings->maxIdleCommands) {
        return End({421, "4.7.0", "too many commands without mail"});
    }
    if (!command.wellFormed) return Wrong({501, "5.5.4", std::string("usage: ") + row->usage});
    (this->*row->handler)(command);
}

void SmtpSession::Say(int code, char const* status, std::string text) {
    m_lastReply = {code, status, std::move(text)};
    m_channel->Say(m_lastReply);
}

void SmtpSession::Wrong(Reply const& reply) {
    ++Count().protocolErrors;
    m_lastReply = reply;
    m_channel->Say(reply);
    if (++m_errors < m_settings->maxErrors) return;
    ++Count().protocolAbuses;
    Note(events::PROTOCOL_ABUSE, [&](KORlog::InfoBag& bag) { bag |= names::REPLY(OneLine(reply)); });
    End({421, "4.7.0", "too many errors"});
}

void SmtpSession::End(Reply const& reply) {
    m_lastReply = reply;
    m_channel->Say(reply);
    m_ended = true;
}

void SmtpSession::Abandon() {
    m_message = Message{};
    m_scan.Reset();
    m_report = {};
}

void SmtpSession::Ehlo(Command const& command) {
    if (!IsHelloName(command.argument)) return Wrong({501, "5.5.4", "bad host name"});
    Abandon();
    m_hello = command.argument;
    m_extended = true;
    m_lastReply = {250, "",
                   m_settings->greetingName + " greets " + m_hello + "\nPIPELINING\nSIZE " +
                       std::to_string(m_settings->maxMessageBytes) + "\n8BITMIME\nENHANCEDSTATUSCODES"};
    m_channel->Say(m_lastReply);
}

void SmtpSession::Helo(Command const& command) {
    if (!IsHelloName(command.argument)) return Wrong({501, "5.5.4", "bad host name"});
    Abandon();
    m_hello = command.argument;
    m_extended = false;
    Say(250, "", m_settings->greetingName);
}

void SmtpSession::Mail(Command const& command) {
    if (m_hello.empty()) return Wrong({503, "5.5.1", "say EHLO first"});
    if (m_message.open) return Wrong({503, "5.5.1", "a message is open already"});
    std::string_view rest = command.argument;
    Mailbox sender;
    PathError const error = ParsePath(rest, PathKind::Reverse, sender);
    if (error != PathError::None) return Wrong(PathReply(error, true));
    Abandon();
    if (!ReadMailParameters(rest)) return Abandon();
    generateId();
    m_message.open = true;
    m_message.sender = sender;
    GetConfig().set_source_mail_address(m_message.senderText());
    Say(250, "2.1.0", "sender ok");
}

bool SmtpSession::ReadMailParameters(std::string_view text) {
    std::vector<Parameter> parameters;
    if (!ParseParameters(text, parameters)) return Wrong({501, "5.5.4", "bad parameter"}), false;
    for (Parameter const& one : parameters) {
        if (one.keyword == "SIZE") {
            std::uint64_t size = 0;
            char const* const end = one.value.data() + one.value.size();
            auto const [stop, error] = std::from_chars(one.value.data(), end, size);
            bool const huge = error == std::errc::result_out_of_range;
            if (!huge && (error != std::errc() || stop != end)) return Wrong({501, "5.5.4", "bad SIZE"}), false;
            if (huge || size > m_settings->maxMessageBytes) return Say(552, "5.3.4", "message too large"), false;
        } else if (one.keyword == "BODY") {
            m_message.eightBitDeclared = EqualNoCase(one.value, "8BITMIME");
            if (!m_message.eightBitDeclared && !EqualNoCase(one.value, "7BIT")) {
                return Wrong({501, "5.5.4", "bad BODY"}), false;
            }
        } else {
            return Wrong({555, "5.5.4", "parameter " + Printable(one.keyword, 60) + " is not known"}), false;
        }
    }
    return true;
}

bool SmtpSession::Serves(std::string const& domain) const {
    if (!IsInBound()) return true;
    auto const& patterns = m_settings->acceptDomains;
    if (patterns.empty()) return !m_settings->relayHost.empty();
    return domain.empty() || std::any_of(patterns.begin(), patterns.end(), [&](std::string const& pattern) {
               return VELT::NameCaseMatch(pattern, domain) != 0;
           });
}

// Fixes the recipient's identity. A code of 0: it may be added.
Reply SmtpSession::CheckRecipient(Mailbox const& mailbox) {
    Recipient recipient{mailbox.str(), LowerCase(mailbox.domain), {}};
    if (!Serves(recipient.domain)) {
        ++Count().recipientsRefused;
        Note(events::RECIPIENT_DENIED, [&](KORlog::InfoBag& bag) {
            bag |= names::SENDER(m_message.senderText());
            bag |= names::RECIPIENTS(recipient.address);
        });
        return {550, "5.7.1", "this gateway does not serve that domain"};
    }
    if (recipient.domain.empty() && m_settings->relayHost.empty()) return {550, "5.1.2", "domain missing"};
    if (!m_settings->acceptDomains.empty() && IsInBound() && IsRouted(mailbox.local)) {
        return {550, "5.7.1", "no relaying by addresses within addresses"};
    }
    if (m_message.recipients.size() >= m_settings->maxRecipients) return {452, "4.5.3", "too many recipients"};
    GetConfig().set_recipient_mail_address(recipient.address);
    VELT::ScanContext probe;
    int priority = -1;
    GetConfig().set_scan_identity(&probe, priority, recipient.identity);
    bool const differs = !m_message.recipients.empty() && m_message.recipients.front().identity != recipient.identity;
    if (differs && m_settings->deferDifferentIdentity) {
        return {452, "4.5.3", "this recipient needs a message of its own"};
    }
    GetConfig().set_scan_identity(&m_scan, priority, recipient.identity);
    m_message.recipients.push_back(std::move(recipient));
    return {};
}

void SmtpSession::Rcpt(Command const& command) {
    if (!m_message.open) return Wrong({503, "5.5.1", "say MAIL first"});
    std::string_view rest = command.argument;
    Mailbox mailbox;
    PathError const error = ParsePath(rest, PathKind::Forward, mailbox);
    if (error != PathError::None) return Wrong(PathReply(error, false));
    std::vector<Parameter> parameters;
    if (!ParseParameters(rest, parameters)) return Wrong({501, "5.5.4", "bad parameter"});
    if (!parameters.empty())
        return Wrong({555, "5.5.4", "parameter " + Printable(parameters.front().keyword, 60) + " is not known"});
    Reply const refusal = CheckRecipient(mailbox);
    if (refusal.code == 0) return Say(250, "2.1.5", "recipient ok");
    if (refusal.group() == 5) return Wrong(refusal);
    if (++m_message.putOff > kMaxPutOff) return End({421, "4.7.0", "too many recipients that were told to wait"});
    m_lastReply = refusal;
    m_channel->Say(refusal);
}

void SmtpSession::Data(Command const&) {
    if (!m_message.open) return Wrong({503, "5.5.1", "say MAIL first"});
    if (m_message.recipients.empty()) return Wrong({554, "5.5.1", "no valid recipients"});
    m_idleCommands = 0;
    m_channel->Say({354, "", "send the message, then CRLF.CRLF"});
    if (!m_channel->Flush()) return CloseOn(Channel::Input::Closed), void(m_ended = true);
    TakeMessage();
}

void SmtpSession::Rset(Command const&) {
    Abandon();
    Say(250, "2.0.0", "forgotten");
}

void SmtpSession::Noop(Command const&) { Say(250, "2.0.0", "ok"); }

void SmtpSession::Vrfy(Command const&) { Say(252, "2.5.2", "send it and see"); }

void SmtpSession::Expn(Command const&) { Wrong({502, "5.5.1", "EXPN is not offered"}); }

void SmtpSession::Help(Command const&) {
    Say(214, "2.0.0", "EHLO HELO MAIL RCPT DATA RSET NOOP VRFY HELP QUIT\nsee RFC 5321");
}

void SmtpSession::Quit(Command const&) { End({221, "2.0.0", m_settings->greetingName + " closes the connection"}); }

std::array<SmtpSession::VerbRow, 11> const SmtpSession::s_verbs{{
    {Verb::Ehlo, &SmtpSession::Ehlo, false, "EHLO host"},
    {Verb::Helo, &SmtpSession::Helo, false, "HELO host"},
    {Verb::Mail, &SmtpSession::Mail, false, "MAIL FROM:<address>"},
    {Verb::Rcpt, &SmtpSession::Rcpt, true, "RCPT TO:<address>"},
    {Verb::Data, &SmtpSession::Data, true, "DATA"},
    {Verb::Rset, &SmtpSession::Rset, false, "RSET"},
    {Verb::Noop, &SmtpSession::Noop, false, "NOOP"},
    {Verb::Vrfy, &SmtpSession::Vrfy, false, "VRFY name"},
    {Verb::Expn, &SmtpSession::Expn, false, "EXPN name"},
    {Verb::Help, &SmtpSession::Help, false, "HELP"},
    {Verb::Quit, &SmtpSession::Quit, true, "QUIT"},
}};

}  // namespace smtp
