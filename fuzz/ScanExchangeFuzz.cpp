// Whole exchanges of the remote scanner with a scanner process that says anything, over a connection that was kept. The
// bytes are either what it answers; or they say what an answer is made of and where it is cut, and then a whole one is
// what it says, and a cut one is a failure.
#include <fcntl.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <thread>

#include "fuzz/Input.h"
#include "testing/ManagerModel.h"
#include "testing/SessionWorld.h"
#include "testing/Sockets.h"
#include "velt/results/SerializedEFabricResult.h"
#include "velt/scanning/ScanContext.h"
#include "velt/scanning/ScannerConn.h"
#include "velt/scanning/ScannerServer.h"
#include "velt/streams/ScannerStream.h"
#include "velt/streams/TCPStream.h"

using velt_fuzz::Input;
using velt_fuzz::Require;
using namespace velt_testing;

namespace {

constexpr char const* kOk = "State OK\n\n";
constexpr char const* kContent = "hello\nworld\n";
constexpr int kResource = 1;

// One for all inputs: a server, once met, stays.
class World {
public:
    World() {
        m_manager.WriteSettings("1 100000 1 1");
        m_server = VELT::ScannerServer::findserver(1, 1, kResource, &m_nobody);
    }

    // What one scan of one identity gives where the process answers the set-up and the scan with this, and leaves.
    int Scan(std::string const& answer, bool attributes) {
        std::thread peer = Keep(answer);
        m_manager.ToOffer({kResource, 1, 1, m_nobody});
        body = std::make_unique<VELT::ScannerStream>(4096u);
        body->write(kContent, 12u);
        VELT::ScanContext context;
        context.connection = &m_session;
        context.data = body.get();
        context.policy = InternedString("policy");
        context.identities = {InternedString("staff")};
        if (attributes) context.connection_attributes = new VELT::ScanConnectionAttributes(&m_session);
        delete output;
        output = nullptr;
        int result;
        {
            std::unique_ptr<VELT::ScannerConn> const scanner(VELT::ScannerConn::get(&context));
            result = scanner->scan(0, output, false);
        }
        Require(m_manager.held(0) == 0, "the server is free again");
        m_server->clear_cache();
        peer.join();
        m_manager.Forget();
        return result;
    }

    std::unique_ptr<VELT::ScannerStream> body;
    VELT::ScanOutput* output = nullptr;

private:
    // Gives the server an idle connection. Its far end says all this when the client that woke it up asks for more, and
    // then leaves.
    std::thread Keep(std::string answers) {
        auto [ours, peer] = SocketPair();
        int const room = 1 << 20;
        ::setsockopt(peer.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        SayOk(peer);
        auto* stream = new VELT::TCPStream(ours.release());
        int handle = -1;
        m_server->end_connection(handle, stream, true);
        ::fcntl(peer.get(), F_SETFL, 0);  // it waits
        return std::thread([peer = std::move(peer), answers = std::move(answers)] {
            char data[4096];
            std::size_t const both =
                2 * std::char_traits<char>::length("get stasis\n\n");  // as long as that to wake up
            if (::recv(peer.get(), data, both, MSG_WAITALL) < static_cast<ssize_t>(both)) return;
            SayOk(peer);
            if (::recv(peer.get(), data, sizeof data, 0) <= 0) return;
            ::send(peer.get(), answers.data(), answers.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            ::shutdown(peer.get(), SHUT_WR);
            while (::recv(peer.get(), data, sizeof data, 0) > 0) continue;
        });
    }
    static void SayOk(Fd const& peer) { ::send(peer.get(), kOk, std::char_traits<char>::length(kOk), MSG_NOSIGNAL); }

    ManagerModel m_manager;
    SessionWorld m_world;
    VELT::Connection m_session;
    sockaddr_in m_nobody = Loopback(1);
    VELT::ScannerServer* m_server;
};

void AnswerAnything(World& world, Input& input) {
    bool const attributes = input.Byte() % 2 == 1;
    int const result = world.Scan(input.Rest(), attributes);
    Require(result == 0 || result == -1 || result == -1001, "a result that is told");
    if (result != 0) return;
    Require(world.output && world.output->result && world.output->output, "a success with all that belongs to it");
    Require(world.output->output_in_input == (world.output->output == world.body.get()),
            "the content where it is said to be");
}

std::string Text(World& world) {
    VELT::ScannerStream& stream = *world.output->output;
    stream.seek(0, 0);
    std::string text;
    char* data = nullptr;
    bool io_done = false;
    for (int count; (count = stream.readdata(data, 4096, true, io_done)) > 0;)
        text.append(data, static_cast<std::size_t>(count));
    return text;
}

void AnswerAsTold(World& world, Input& input) {
    unsigned const flags = input.Byte();
    bool const inInput = flags & 1, cached = flags & 2, modified = flags & 4, triggered = flags & 8, asks = flags & 16;
    std::string content(input.Byte() * 40, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>('a' + i % 26);
    bool const follows = !inInput || (!cached && modified);
    std::string headers[] = {"State OK", "size " + std::to_string(content.size()),
                             "output_in_input " + std::to_string(inInput), "cached " + std::to_string(cached),
                             "input_modified " + std::to_string(modified)};
    for (std::string& header : headers) std::swap(header, headers[input.Byte() % std::size(headers)]);
    std::string answer = kOk;
    if (asks) answer += "State Attributes\n\n";
    for (std::string const& header : headers) answer += header + "\n";
    answer += "\nmsr.triggered sl " + std::to_string(triggered) + "\n\nproperties.FOUND sl 7\n\r\n";
    if (follows) answer += content;

    std::size_t const cut = (input.Byte() << 8 | input.Byte()) % (2 * answer.size());
    int const result = world.Scan(answer.substr(0, cut), asks);
    Require((result == 0) == (cut >= answer.size()), "a cut answer is a failure, and a whole one is none");
    if (result != 0) return;
    Require(world.output->result->IsTriggered() == triggered, "the verdict");
    Require(world.output->properties.GetProperty("FOUND") != nullptr, "the properties");
    Require(world.output->output_in_input == inInput, "where the content is");
    Require(world.output->input_modified == (inInput && modified), "whether the input was changed");
    Require(Text(world) == (follows ? content : kContent), "the content");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 65536) return 0;
    static auto* const world = new World;
    Input input(data, size);
    if (input.Byte() % 2 == 0)
        AnswerAnything(*world, input);
    else
        AnswerAsTold(*world, input);
    return 0;
}
