#include "ScannerdSession.h"

#include <KORtk/Exception.h>
#include <QXlog/Names.h>
#include <arpa/inet.h>
#include <cxxabi.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>

#include <velt/logging/Log.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/scanning/EFabricScanAgent.h>
#include <velt/streams/TCPStream.h>

#include "Names.h"
#include "ParkingLot.h"
#include "ScannerdCounters.h"
#include "ScannerdEvents.h"

namespace scannerd {
namespace {

constexpr int kFirstByteMs = 1000;  // as long as a health monitor may take
constexpr std::size_t kMostNames = 4096;
constexpr std::size_t kMostNameBytes = 1024 * 1024;

struct TroubleRow {
    Trouble trouble;
    QXlog::Event const& event;
    QXStats::QXCounter Counters::*counter;
};

TroubleRow const kTroubles[] = {
    {Trouble::RequestRefused, events::REQUEST_REFUSED, &Counters::requestsRefused},
    {Trouble::ItemTooLarge, events::ITEM_TOO_LARGE, &Counters::itemsTooLarge},
    {Trouble::FileRefused, events::FILE_REFUSED, &Counters::filesRefused},
    {Trouble::SpoolFailed, events::SPOOL_FAILED, &Counters::spoolsFailed},
    {Trouble::ScanFailed, events::SCAN_FAILED, &Counters::scansFailed},
    {Trouble::ClientGone, events::CLIENT_GONE, &Counters::clientsGone},
    {Trouble::ClientSilent, events::CLIENT_SILENT, &Counters::clientsSilent},
};

struct StepRow {
    Step step;
    QXStats::QXCounter Counters::*counter;
};

StepRow const kSteps[] = {
    {Step::ItemTaken, &Counters::items},      {Step::FileTaken, &Counters::filesTaken},
    {Step::ScanAsked, &Counters::scansAsked}, {Step::AttributesAsked, &Counters::attributesAsked},
    {Step::Parked, &Counters::parked},        {Step::WokenUp, &Counters::woken},
};

std::atomic<unsigned> s_alive{0};  // sessions of this process, with those that wait for a thread

ParkingLot& Parked() {
    static ParkingLot& lot = *new ParkingLot;
    return lot;
}

unsigned MostThreads() {
    VELT::Proxy const* const proxy = VELT::Proxy::s_pProxyInstance;
    return proxy ? std::max(proxy->m_maxConnections, proxy->m_permThreads) : 1;
}

// A session that finds no thread has one of those who only wait. It may have come before the first of them parked.
void GiveThread() {
    if (s_alive > MostThreads() && Parked().MakeRoom()) ++Count().parkedEnded;
}

KORlog::InfoBag ProcessNumber() { return KORlog::InfoBag(names::PROCESS(::getpid())); }

// A scan client's first word is "get", a monitor's "GET".
bool SpeaksHttp(int fd) {
    pollfd one{fd, POLLIN, 0};
    char first = 0;
    return ::poll(&one, 1, kFirstByteMs) > 0 && ::recv(fd, &first, 1, MSG_PEEK | MSG_DONTWAIT) == 1 && first == 'G';
}

}  // namespace

ScannerdSession::ScannerdSession() {
    ++s_alive;
    GiveThread();
}

ScannerdSession::~ScannerdSession() { --s_alive; }

void ScannerdSession::InitialiseConnectionClass(bool, VELT::Config&) { Count(); }

void ScannerdSession::Run() {
    if (!IsHealthCheck() || SpeaksHttp(m_source.m_stream->GetSocket())) return Connection::Run();
    initialIds();
    if (SetupInsideOutside()) Start();
}

void ScannerdSession::Start() {
    ++Count().sessions;
    Wire wire(*m_source.m_stream, &VELT::ServiceLoop::shutdown);
    try {
        Converse(wire);
    } catch (std::exception const&) {  // out of memory, mostly: the client sees that there is no verdict
        Tell(Trouble::ScanFailed, "internal error");
    } catch (KORtk::Exception const&) {
        Tell(Trouble::ScanFailed, "internal error");
    }
    m_conversation = nullptr;
    Parked().Leave(m_source.m_stream->GetSocket());
    ReportEnd();
}

void ScannerdSession::Converse(Wire& wire) {
    SessionSettings const settings(GetConfig());
    m_source.m_stream->set_timeout(settings.limits.dataMs);
    bool const local = m_source.m_address.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
    Conversation conversation(wire, *this, settings, local, this);
    m_conversation = &conversation;
    conversation.Run();
}

void ScannerdSession::ReportEnd() const {
    VELT::LogEvent(events::SESSION, [&] {
        KORlog::InfoBag bag;
        bag |= QXlog::names::QXPROP_AUDIT_CONV_ID(m_conversationId);
        bag |= QXlog::names::QXPROP_SOURCE_IP(m_source.m_addressText);
        bag |= names::ITEMS(m_items);
        bag |= names::SCANS(m_scans);
        return bag;
    });
}

void ScannerdSession::Tell(Trouble trouble, std::string const& why) {
    for (TroubleRow const& row : kTroubles) {
        if (row.trouble != trouble) continue;
        ++(Count().*row.counter);
        VELT::LogEvent(row.event, [&] {
            KORlog::InfoBag bag;
            bag |= QXlog::names::QXPROP_AUDIT_CONV_ID(m_conversationId);
            bag |= QXlog::names::QXPROP_SOURCE_IP(m_source.m_addressText);
            bag |= names::WHY(why);
            return bag;
        });
    }
}

void ScannerdSession::Note(Step step) {
    m_items += step == Step::ItemTaken;
    m_scans += step == Step::ScanAsked;
    if (step == Step::Parked) {
        Parked().Enter(m_source.m_stream->GetSocket());
        GiveThread();
    }
    if (step == Step::WokenUp) Parked().Leave(m_source.m_stream->GetSocket());
    for (StepRow const& row : kSteps) {
        if (row.step == step) ++(Count().*row.counter);
    }
}

// A process that has no room for another name makes room for another process: it finishes what it has, and leaves.
bool ScannerdSession::Intern(std::string const& name, InternedString& interned) {
    static Names& known = *new Names(kMostNames, kMostNameBytes);
    if (!known.Take(name)) {
        if (!VELT::ServiceLoop::shutdown.exchange(true)) VELT::LogEvent(events::NAMES_FULL, ProcessNumber);
        return false;
    }
    eFabric::IPolicyLoader* const store = VELT::EFabricScanAgent::getPolicyLoader();
    interned = store ? store->internAttribute(name.c_str()) : InternedString();
    return true;
}

// On this thread, and by the engines of this process.
int ScannerdSession::Scan(VELT::ScanContext& context, bool fallback, VELT::ScanOutput*& output) {
    if (!m_scanner) m_scanner.reset(VELT::ScannerInline::get(&context));
    unsigned count = 0;
    if (!m_scanner || m_scanner->setup_scan(count) != 0 || count != 1) return -1;
    try {
        return m_scanner->scan(0, output, fallback);
    } catch (abi::__forced_unwind&) {  // the thread is being cancelled
        throw;
    } catch (...) {  // whatever an engine throws: nothing is known of the item
        return -1;
    }
}

void ScannerdSession::ItemEnds() { m_scanner.reset(); }

void ScannerdSession::getConnectionAttributes(IKORPropertyBag* bag) {
    if (m_conversation) m_conversation->FillAttributes(bag);
}

}  // namespace scannerd
