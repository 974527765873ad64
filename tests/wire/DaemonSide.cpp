#include "DaemonSide.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "velt/connection/Connection.h"
#include "velt/scanning/EFabricScanAgent.h"
#include "velt/scanning/ScannerThread.h"

namespace velt_wire {

using namespace VELT;

namespace {

constexpr char kAwake[] = "State OK\n\n";
constexpr std::size_t kWakeupBytes = 12;

// Asks the client for what the engines want to know of its session.
struct AskingSession : Connection {
    void getConnectionAttributes(IKORPropertyBag* bag) override { conversation->FillAttributes(bag); }
    scannerd::Conversation* conversation = nullptr;
};

}  // namespace

DaemonSide::DaemonSide(velt_testing::Fd peer, std::string spool) : m_stream(peer.release()) {
    settings.spoolRoots = {std::move(spool)};
}

DaemonSide::~DaemonSide() { reset_buffered_stream(); }

void DaemonSide::RunWoken(bool local) {
    char wakeup[kWakeupBytes];
    if (m_stream.TCPStream::read(wakeup, sizeof wakeup) != 0) return;
    m_stream.TCPStream::write(kAwake, sizeof kAwake - 1);
    Run(local);
}

void DaemonSide::Run(bool local) {
    scannerd::Wire wire(*this, nullptr);
    AskingSession session;
    scannerd::Conversation conversation(wire, *this, settings, local, &session);
    session.conversation = &conversation;
    conversation.Run();
    ::shutdown(m_stream.GetSocket(), SHUT_RDWR);
}

bool DaemonSide::Intern(std::string const& name, InternedString& interned) {
    interned = EFabricScanAgent::getPolicyLoader()->internAttribute(name.c_str());
    return true;
}

int DaemonSide::Scan(ScanContext& context, bool fallback, ScanOutput*& output) {
    if (!m_scanner) m_scanner.reset(ScannerInline::get(&context));
    unsigned count = 0;
    return m_scanner->setup_scan(count) == 0 && count == 1 ? m_scanner->scan(0, output, fallback) : -1;
}

int DaemonSide::write(char const* data, unsigned length, unsigned* sent) {
    said.emplace_back(data, length);
    return m_stream.write(data, length, sent);
}

int DaemonSide::writev(unsigned, unsigned*, char const**, unsigned*) { return EIO; }  // the daemon's wire gathers

}  // namespace velt_wire
