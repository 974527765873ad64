// What the client of scanner processes costs the session's thread for one item, by a connection that is kept, against a
// process that answers at once. Beside it the same bytes over a plain socket. The time that counts is the CPU of this
// thread: the other side has a thread of its own.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <velt/scanning/RSMgrBackends.h>
#include <velt/scanning/ScanContext.h>
#include <velt/scanning/ScannerConn.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/ScannerStream.h>
#include <velt/streams/TCPStream.h>

#include "testing/ScannerStub.h"

namespace {

namespace manager = VELT::manager;

constexpr unsigned kContentBytes = 4096;
constexpr unsigned kMemoryBytes = 64 << 10;
constexpr unsigned kTimeoutMs = 10000;

// Stays with the process, as the server that it is known by does.
velt_testing::ScannerStub& Stub() {
    static auto* const stub = new velt_testing::ScannerStub;
    return *stub;
}

// A manager of this one server, for which a handle costs a descriptor, as with the real ones.
int OpenHandle() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }
int OpenResource(int) { return OpenHandle(); }
int Ask(int, manager::Request request, void* argument) {
    if (request == manager::kIsUp) return 1;
    if (request != manager::kWait) return -1;
    auto& record = *static_cast<manager::WaitRecord*>(argument);
    record.id = record.sequence = 1;
    record.address = Stub().address().sin_addr.s_addr;
    record.port = Stub().address().sin_port;
    return 1;
}
manager::Backend const s_manager{
    [] { return true; }, OpenHandle, OpenResource, Ask, [] { return true; }, [](manager::Settings&) { return false; }};

std::unique_ptr<VELT::ScannerStream> Content() {
    static bool const isSetUp = [] {
        manager::Choose(&s_manager);
        VELT::TCPStream::set_pool(new VELT::BufferPool(8192, 4));
        VELT::TCPStream::set_default_timeout(kTimeoutMs);
        VELT::ScannerStream::set_buffer_pool(4, kMemoryBytes);
        return true;
    }();
    auto content = std::make_unique<VELT::ScannerStream>("scanned", false);
    std::string const text(kContentBytes, 'x');
    return isSetUp && content->write(text.data(), kContentBytes) == long{kContentBytes} ? std::move(content) : nullptr;
}

bool IsScanned(VELT::ScanContext& context) {
    std::unique_ptr<VELT::ScannerConn> const scanner(VELT::ScannerConn::get(&context));
    VELT::ScanOutput* given = nullptr;
    int const result = scanner->scan(0, given, false);
    std::unique_ptr<VELT::ScanOutput> const output(given);
    return result == 0 && !output->result->IsTriggered();
}

void Remote_item(benchmark::State& state) {
    auto const content = Content();
    VELT::ScanContext context;
    context.data = content.get();
    context.policy = InternedString("content_in");
    context.identities = {InternedString("staff")};
    if (!content || !IsScanned(context)) return state.SkipWithError("the item was not scanned");
    unsigned const before = Stub().connections();
    for (auto _ : state)
        if (!IsScanned(context)) state.SkipWithError("the item was not scanned");
    if (Stub().connections() != before) state.SkipWithError("an item made a connection");
}

// One connection, and what Remote_item says on it.
class PlainClient {
public:
    PlainClient() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        auto* const address = reinterpret_cast<sockaddr*>(&Stub().address());
        int const on = 1;
        m_good = ::setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0 &&
                 ::connect(m_socket.get(), address, sizeof(sockaddr_in)) == 0;
    }
    bool Say(std::string const& text) {
        return m_good && ::send(m_socket.get(), text.data(), text.size(), MSG_NOSIGNAL) > 0;
    }
    bool Hear() {
        char answer[512];
        return ::recv(m_socket.get(), answer, sizeof answer, 0) > 0;
    }

private:
    Descriptor const m_socket;
    bool m_good;
};

void Remote_plainExchange(benchmark::State& state) {
    PlainClient client;
    std::string const size = std::to_string(kContentBytes);
    std::string const block = "get setup_scan\nprotocol \ntime 1700000000\nsize " + size + "\npolicy content_in\n\n";
    std::string const body = "\r\n" + std::string(kContentBytes, 'x');
    std::string const wakeup = "get wakeup\n\n", scan = "get scan\nidentity staff\n\n", stasis = "get stasis\n\n";
    for (auto _ : state) {
        bool const had = client.Say(wakeup) && client.Hear() && client.Say(block) && client.Say(body) &&
                         client.Hear() && client.Say(scan) && client.Hear() && client.Say(stasis) && client.Hear();
        if (!had) state.SkipWithError("no exchange");
    }
}

BENCHMARK(Remote_item);
BENCHMARK(Remote_plainExchange);

}  // namespace
