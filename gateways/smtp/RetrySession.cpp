#include "RetrySession.h"

#include <KORtk/Exception.h>
#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>

#include <velt/Config.h>
#include <velt/config_details/settings/smtpretryer.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/ServiceLoop.h>

#include "Notification.h"
#include "SmtpCounters.h"
#include "SmtpEvents.h"

namespace smtp {
namespace {

using State = RetryStatus::Recipient;
using Kind = RecipientFate::Kind;

constexpr std::chrono::seconds kPatience{5};  // with others that find out whether a destination answers
constexpr char const* kUntried = "next server cannot be reached";
constexpr std::uint64_t kInMemory = 128 * 1024;  // bytes of a message, as many as are read at once

// One thread at least is left for other destinations than the one that takes most of the mail.
BackOff& Destinations() {
    static BackOff& destinations = *new BackOff(
        std::max(2u, VELT::ReadSetting<VELTCFG::smtpretryer::MaxConncurrent>(VELT::Proxy::s_pProxyInstance->m_config)) -
        1);
    return destinations;
}

Mailbox ReadMailbox(std::string const& address) {
    Mailbox mailbox;
    std::string const path = '<' + address + '>';
    std::string_view rest = path;
    ParsePath(rest, address.empty() ? PathKind::Reverse : PathKind::Forward, mailbox);
    return mailbox;
}

// A walk follows links. What one leads to is somebody else's to deliver, or would be by each.
bool IsLink(std::string const& path) {
    std::error_code ignored;
    return std::filesystem::is_symlink(path, ignored);
}

bool IsStopping() { return VELT::ServiceLoop::shutdown; }

// A time of the past, by the clock that a BackOff goes by.
std::time_t Running(std::time_t shown) { return BackOff::Now() - std::max<std::time_t>(0, std::time(nullptr) - shown); }

bool SplitServer(std::string const& server, std::string& host, unsigned short& port) {
    std::size_t const colon = server.rfind(':');
    if (colon == std::string::npos) return false;
    char const* const end = server.data() + server.size();
    if (std::from_chars(server.data() + colon + 1, end, port).ptr != end) return false;
    host = server.substr(0, colon);
    return true;
}

}  // namespace

// A try of a destination: whether it may begin, and what became of it, told when it is over.
class RetrySession::Attempt {
public:
    Attempt(std::string destination, PauseLimits const& limits)
        : m_destination(std::move(destination)), m_limits(limits) {}
    ~Attempt() {
        if (m_begun) Destinations().Tell(m_destination, m_outcome, BackOff::Now(), m_limits);
    }
    Attempt(Attempt const&) = delete;
    Attempt& operator=(Attempt const&) = delete;

    BackOff::Answer Ask() {
        BackOff::Answer const answer = Destinations().AskPatiently(m_destination, kPatience, IsStopping);
        m_begun = answer == BackOff::Answer::Go;
        return answer;
    }
    void Insist() {
        Destinations().Insist(m_destination);
        m_begun = m_insists = true;
    }
    std::chrono::seconds LimitOf(std::chrono::seconds first) const {
        return m_insists ? std::chrono::seconds(0) : Destinations().LimitOf(m_destination, first);
    }
    void Learn(std::vector<RecipientFate> const& fates) {
        for (RecipientFate const& fate : fates) {
            if (fate.reached) m_outcome = BackOff::Outcome::Reached;
        }
        bool const failed = std::any_of(fates.begin(), fates.end(), [](RecipientFate const& fate) {
            return fate.temporary() && !fate.reached && fate.reply.status != kUnchecked;
        });
        if (m_outcome == BackOff::Outcome::Unknown && failed) m_outcome = BackOff::Outcome::Failed;
    }

    static constexpr char const* kUnchecked = "4.7.1";  // a scan that said nothing keeps a mail here

private:
    std::string m_destination;
    PauseLimits m_limits;
    BackOff::Outcome m_outcome = BackOff::Outcome::Unknown;
    bool m_begun = false;
    bool m_insists = false;
};

RetrySession::RetrySession(int fd, std::string const& directory, std::string const& name)
    : m_directory(directory), m_name(name), m_file(fd, directory + name + kRetrySuffix) {}

void RetrySession::InitialiseConnectionClass(bool, VELT::Config&) { Count(); }

bool RetrySession::Active(char const* path) { return m_file.path() == path; }

void RetrySession::getConnectionAttributes(IKORPropertyBag* bag) {
    AddFacts(bag, m_message, m_source.m_addressText, m_hello);
}

void RetrySession::Run() {
    try {
        Work();
    } catch (std::exception const& failure) {  // out of memory, mostly: another time
        m_file.Rest();
        Note(events::RETRY_FAILED, [&](KORlog::InfoBag& bag) { bag |= names::REPLY(std::string(failure.what())); });
    } catch (KORtk::Exception const&) {
        m_file.Rest();
        Note(events::RETRY_FAILED, [&](KORlog::InfoBag& bag) { bag |= names::REPLY("internal error"); });
    }
    if (m_delivery) m_delivery->Close();
}

// What waited for a thread when the process was told to stop is left as it is to the next one.
void RetrySession::Work() {
    if (IsStopping()) return;
    m_now = std::time(nullptr);
    m_jump.emplace(m_now, BackOff::Now());
    errno = 0;
    RetryFault const fault = m_file.Read();
    if (fault != RetryFault::None) return ReportDamaged(fault);
    if (IsLink(m_file.path())) return ReportDamaged(RetryFault::MoreNames);
    Adopt();
    m_wasUnsure = m_file.status().unsure;
    m_wasTelling = m_file.status().telling;
    if (m_file.status().isHeld()) return ReportHeld();
    if (!m_file.status().waits()) return Finish(m_file.status());  // all but the removal was done
    SkipGap();
    TakeRecipients();
    Decide();
}

void RetrySession::Adopt() {
    RetryEnvelope const& envelope = m_file.envelope();
    m_id = envelope.auditId;
    m_conversationId = envelope.conversationId;
    m_hello = envelope.helloName;
    m_source.m_addressText = envelope.clientAddress;
    m_source.m_address.sin_family = AF_INET;
    ::inet_pton(AF_INET, envelope.clientAddress.c_str(), &m_source.m_address.sin_addr);
    m_parentConfig = &VELT::Proxy::s_pProxyInstance->m_config;
    GetConfig().set(envelope.inbound, this, m_parentConfig);
    GetConfig().set_source_mail_address(envelope.sender);
    m_settings.emplace(GetConfig());
    m_settings->keep.directory = m_directory;
    m_settings->keptServer = SplitServer(envelope.server, m_settings->relayHost, m_settings->relayPort);
    m_delivery.emplace(*this, *m_settings);
    m_delivery->AskBefore([this] { return BeginContent(); });
}

void RetrySession::TakeRecipients() {
    RetryEnvelope const& envelope = m_file.envelope();
    m_message.sender = ReadMailbox(envelope.sender);
    m_message.sender.null = envelope.sender.empty();
    m_message.leadingDots = !envelope.plain;
    m_message.eightBit = envelope.eightBit;
    m_message.size = m_file.messageLength();
    for (std::size_t i = 0; i < envelope.recipients.size(); ++i) {
        if (m_file.status().recipients[i] != State::Waiting) continue;
        std::string const& address = envelope.recipients[i].address;
        m_message.recipients.push_back({address, LowerCase(ReadMailbox(address).domain), {}});
        m_waiting.push_back(i);
    }
}

// The gateway gave each file recipients of one way only.
std::string RetrySession::Destination() const {
    std::string const& server = m_file.envelope().server;
    if (!server.empty() || !m_settings->relayHost.empty()) return server;
    return m_message.recipients.front().domain;
}

// A mail ages while it is looked after. Where nobody did for long no retryer ran, or the clock was set forward, and a
// single try would be all that it had; where it is not yet taken the clock was set back.
void RetrySession::SkipGap() {
    std::int64_t const gap = m_now - m_file.seen() - m_settings->keep.longestGap();
    if (gap > 0) m_file.Skip(gap);
    std::int64_t const early = std::min<std::int64_t>(Age(), 0);
    m_file.Skip(early);
    if ((gap > 0 || early) && !m_file.Note(m_file.status())) ReportStatusLost();
}

// Nor does a mail age by a clock that is set while somebody looks after it. True: it was.
bool RetrySession::SkipJump() {
    std::time_t const jump = m_jump->Take(std::time(nullptr), BackOff::Now());
    m_file.Skip(jump);
    m_now += jump;
    return jump != 0;
}

void RetrySession::Rest() {
    bool const noted = !SkipJump() || m_file.Note(m_file.status());
    if (!noted) ReportStatusLost();
    m_file.Rest();
}

std::int64_t RetrySession::Age() const {
    std::int64_t const since = std::max(m_file.envelope().taken, m_file.status().released);
    return m_now - since - m_file.status().skipped;
}

bool RetrySession::IsTooOld() const { return Age() >= m_settings->keep.giveUpSeconds; }

void RetrySession::Decide() {
    RetryStatus const& status = m_file.status();
    bool const forced = VELT::Proxy::s_pProxyInstance->m_singleProcess;
    // A try that is yet to come, or a pause that none reaches, was noted by another clock.
    bool const early =
        status.last <= m_now && status.due > m_now && status.due - m_now <= 2L * m_settings->keep.pause.longest;
    if (early && !forced && !IsTooOld()) return Rest();
    if (status.asked()) Destinations().EndPause(Destination(), Running(status.asked()));
    Attempt attempt(Destination(), m_settings->keep.pause);
    if (forced) attempt.Insist();
    BackOff::Answer const answer = forced ? BackOff::Answer::Go : attempt.Ask();
    if (answer == BackOff::Answer::Go) return Try(attempt);
    if (answer == BackOff::Answer::Busy) return;  // what becomes of that decides at the next walk
    bool const pauses = answer == BackOff::Answer::Rest;
    if (pauses && IsTooOld()) return GiveUpUntried();
    Rest();
}

void RetrySession::Try(Attempt& attempt) {
    ++Count().retries;
    Rest();  // should this try end the process, the next one is not at once
    errno = 0;
    RetryFault const fault = TakeMessage();
    if (fault != RetryFault::None) return ReportDamaged(fault);
    if (m_file.status().released && !m_file.status().tries) ReportReleased();
    std::vector<Verdict> verdicts = Verdicts();
    Hold(verdicts);
    m_delivery->LimitTo(attempt.LimitOf(m_settings->keep.patience));
    std::vector<RecipientFate> fates = m_delivery->Deliver(m_message, verdicts);
    attempt.Learn(fates);
    Settle(std::move(fates));
}

// The mail is on disk already. A second file of each would be most of the work of a try: a file system looks through
// all those that were removed lately before it makes one.
RetryFault RetrySession::TakeMessage() {
    std::uint64_t const length = m_file.messageLength();
    unsigned const memory = length < kInMemory ? static_cast<unsigned>(length) + 1 : 0;
    m_message.spool = std::make_unique<VELT::ScannerStream>(memory);
    m_message.spool->set_id(m_name + ".retry");
    return m_file.ReadMessage(*m_message.spool);
}

// Those of the gateway: the file would not be there had they been others.
std::vector<Verdict> RetrySession::Verdicts() {
    std::string const& engines = m_file.envelope().engines;
    bool const released = !m_file.envelope().action.empty();  // somebody has judged it
    if (!released && !engines.empty() && (engines == kServersJudge || engines != Judges())) return ScanAgain();
    std::vector<Verdict> verdicts(1);
    verdicts.front().fate = Verdict::Fate::Pass;
    return verdicts;
}

std::string RetrySession::Judges() {
    std::vector<std::string> addresses;
    for (Recipient const& one : m_message.recipients) addresses.push_back(one.address);
    return JudgesOf(*this, addresses);
}

// Content that policy has changed already stays as it is where the policy only would change it again.
std::vector<Verdict> RetrySession::ScanAgain() {
    ++Count().retriesScanned;
    for (Recipient& one : m_message.recipients) {
        int priority = -1;
        GetConfig().set_recipient_mail_address(one.address);
        GetConfig().set_scan_identity(&m_scan, priority, one.identity);
    }
    m_scan.connection = this;
    m_scan.connection_attributes = new VELT::ScanConnectionAttributes(this);
    m_scan.data = m_message.spool.get();
    std::vector<Verdict> verdicts = ScanMessage(*this, m_scan);
    m_report.Add(*this, m_message.recipients, verdicts);
    for (Verdict& verdict : verdicts) {
        if (m_file.envelope().rewritten && verdict.outcome == Verdict::Outcome::Clean) verdict.rewritten = nullptr;
    }
    return verdicts;
}

// What cannot be put into quarantine waits on here. What another try put there for recipients that are done with stays.
void RetrySession::Hold(std::vector<Verdict>& verdicts) {
    std::size_t const done = m_file.envelope().recipients.size() - m_waiting.size();
    std::string const name = m_name + ".later" + std::to_string(done);
    m_held.emplace(From(), name);
    if (m_held->Keep(m_message, verdicts)) return NoteHeld(verdicts);
    for (Verdict& verdict : verdicts) {
        if (verdict.quarantine) verdict.fate = Verdict::Fate::Defer;
    }
}

// The delivery to others may take long, and a try that ends in it would hold the mail anew, whoever released it
// meanwhile. What is refused beside is told to the sender first.
void RetrySession::NoteHeld(std::vector<Verdict> const& verdicts) {
    RetryStatus status = m_file.status();
    bool holds = false;
    for (std::size_t i = 0; i < m_message.recipients.size(); ++i) {
        auto const verdict = std::find_if(verdicts.begin(), verdicts.end(), [&](Verdict const& one) {
            return one.identity == m_message.recipients[i].identity;
        });
        if (verdict == verdicts.end() || !verdict->quarantine) continue;
        if (verdict->fate != Verdict::Fate::Hold) return;
        StateOf(status, i) = State::Delivered;
        holds = true;
    }
    if (holds && !m_file.Note(status)) ReportStatusLost();
}

// The last moment at which it is sure that nobody has the message of this try.
bool RetrySession::BeginContent() {
    SkipJump();
    RetryStatus status = m_file.status();
    if (m_wasUnsure) ReportResent(*this, ListOf(m_message.recipients), status.tries);
    status.unsure = true;
    status.last = m_now;
    m_noteFailed = !m_file.Note(status);
    return !m_noteFailed;
}

RetryStatus::Recipient& RetrySession::StateOf(RetryStatus& status, std::size_t recipient) const {
    return status.recipients[m_waiting[recipient]];
}

void RetrySession::Settle(std::vector<RecipientFate> fates) {
    SkipJump();
    RetryStatus status = m_file.status();
    RecipientFate waits;
    std::vector<RecipientFate> failed = fates;
    bool anyFailed = false;
    ++status.tries;
    status.last = m_now;
    status.unsure = m_wasUnsure;
    for (std::size_t i = 0; i < fates.size(); ++i) {
        bool const again = fates[i].temporary() && !IsTooOld();
        if (again) waits = fates[i];
        if (again) failed[i].kind = Kind::Kept;
        if (fates[i].kind == Kind::Delivered || fates[i].kind == Kind::Held) StateOf(status, i) = State::Delivered;
        status.unsure |= again && fates[i].unsure;
        anyFailed |= !failed[i].taken();
    }
    if (anyFailed && TellSender(failed)) {
        status.telling = false;
        for (std::size_t i = 0; i < failed.size(); ++i) {
            if (!failed[i].taken()) StateOf(status, i) = State::Failed;
        }
        ReportGivenUp(failed);
    } else if (anyFailed) {
        waits = *std::find_if(failed.begin(), failed.end(), [](RecipientFate const& one) { return !one.taken(); });
        for (RecipientFate const& one : failed) status.unsure |= !one.taken() && one.unsure;
    }
    status.waits() ? PutBack(std::move(status), waits) : Finish(status);
}

// Nothing was tried now, as the destination rests: what the last try said holds. Mail that none was made of ends so,
// too, however much of what came later was tried before it.
void RetrySession::GiveUpUntried() {
    RetryFault const fault = TakeMessage();
    if (fault != RetryFault::None) return ReportDamaged(fault);
    RecipientFate fate;
    fate.reply = {451, "4.4.7", m_file.status().tries ? m_file.status().reason : kUntried};
    RetryStatus status = m_file.status();
    std::vector<RecipientFate> const fates(m_waiting.size(), fate);
    if (!TellSender(fates)) {
        m_file.Note(status);  // nothing has been told, and what is told later is no second copy of it
        return Rest();
    }
    for (std::size_t i = 0; i < fates.size(); ++i) StateOf(status, i) = State::Failed;
    ReportGivenUp(fates);
    Finish(status);
}

KeptFrom RetrySession::From() {
    return {*this, *m_settings, m_id, m_conversationId, m_hello, m_file.envelope().inbound};
}

// Once there, a notification may have left before this mail's file says so: should the process die in between, the next
// try writes it again.
bool RetrySession::BeginTelling() {
    RetryStatus status = m_file.status();
    status.telling = true;
    return m_file.Note(status);
}

// True: the sender is told, or nobody is there to be told. False: he could not be, and is to be later.
bool RetrySession::TellSender(std::vector<RecipientFate> const& fates) {
    if (m_message.sender.null) {
        std::vector<std::string> missed;
        for (std::size_t i = 0; i < fates.size(); ++i) {
            if (!fates[i].taken()) missed.push_back(m_message.recipients[i].address);
        }
        Note(events::NOTIFICATION_OMITTED, [&](KORlog::InfoBag& bag) { bag |= names::RECIPIENTS(ListOf(missed)); });
        return true;
    }
    std::string const name = ReportName(fates);
    NotificationOrigin const origin{m_settings->greetingName, m_id, m_hello, m_file.envelope().taken, name};
    return BeginTelling() &&
           KeepNotification(From(), m_message, NotificationOf(origin, m_message, fates), name, m_wasTelling);
}

// One for each set of recipients of each file: a try that is repeated finds what it wrote, and nobody else does.
std::string RetrySession::ReportName(std::vector<RecipientFate> const& fates) const {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < fates.size(); ++i) {
        if (!fates[i].taken()) sum = Checksum(m_message.recipients[i].address + '\n', sum);
    }
    char text[9];
    std::snprintf(text, sizeof text, "%08x", sum);
    return m_name + ".report" + std::to_string(m_file.status().tries) + '.' + text;
}

// A file that cannot be removed for sure, or is somewhere else by now, says at least that nothing of it is left to be
// done.
void RetrySession::Finish(RetryStatus const& status) {
    bool const elsewhere = m_file.HasOtherName();
    bool const noted = elsewhere && m_file.Note(status);
    bool const gone = m_file.Remove() && !elsewhere;
    if (!gone && !noted && !m_file.Note(status)) return ReportStatusLost();
    Note(events::RETRY_ENDED, [&](KORlog::InfoBag& bag) {
        bag |= names::COUNT(static_cast<unsigned long>(status.tries));
        bag |= names::FILE(m_file.path());
    });
}

void RetrySession::PutBack(RetryStatus status, RecipientFate const& fate) {
    auto const& pause = m_settings->keep.pause;
    bool const ofTheMail = fate.reached || fate.reply.status == Attempt::kUnchecked;
    status.reason = m_noteFailed ? "status could not be written" : OneLine(fate.reply);
    status.due = ofTheMail ? m_now + PauseAfter(status.tries, pause, Destinations().Random()) : 0;
    if (!m_file.Note(status)) {
        ReportStatusLost();
        m_file.Rest();
    }
    Note(events::RETRY_FAILED, [&](KORlog::InfoBag& bag) {
        bag |= names::RECIPIENTS(ListOf(m_message.recipients));
        bag |= names::COUNT(static_cast<unsigned long>(status.tries));
        bag |= names::REPLY(status.reason);
    });
}

void RetrySession::ReportGivenUp(std::vector<RecipientFate> const& fates) {
    std::vector<std::string> given;
    Reply shown;
    for (std::size_t i = 0; i < fates.size(); ++i) {
        if (fates[i].taken()) continue;
        given.push_back(m_message.recipients[i].address);
        shown = fates[i].reply;
        ++Count().recipientsGivenUp;
    }
    Note(events::GIVEN_UP, [&](KORlog::InfoBag& bag) {
        bag |= names::SENDER(m_message.senderText());
        bag |= names::RECIPIENTS(ListOf(given));
        bag |= names::REPLY(OneLine(shown));
    });
}

void RetrySession::ReportReleased() {
    ++Count().messagesReleased;
    Note(events::MESSAGE_RELEASED, [&](KORlog::InfoBag& bag) {
        bag |= names::SENDER(m_message.senderText());
        bag |= names::RECIPIENTS(ListOf(m_message.recipients));
        bag |= names::FILE(m_file.path());
        bag |= names::FINDING(m_file.envelope().finding);
        bag |= names::REPLY(m_file.status().reason);
    });
}

void RetrySession::ReportHeld() {
    m_file.Rest();
    Note(events::MESSAGE_HELD, [&](KORlog::InfoBag& bag) { bag |= names::FILE(m_file.path()); });
}

// It stays, for somebody who can tell what it was, and is reported again after a rest.
void RetrySession::ReportDamaged(RetryFault fault) {
    std::string why = TextOf(fault);
    if (fault == RetryFault::Unreadable && errno) why += std::string(": ") + std::strerror(errno);
    m_file.Rest();
    ++Count().retriesDamaged;
    Note(events::RETRY_DAMAGED, [&](KORlog::InfoBag& bag) {
        bag |= names::FILE(m_file.path());
        bag |= names::FINDING(why);
    });
}

void RetrySession::ReportStatusLost() {
    Note(events::RETRY_STATUS_LOST, [&](KORlog::InfoBag& bag) { bag |= names::FILE(m_file.path()); });
}

}  // namespace smtp
