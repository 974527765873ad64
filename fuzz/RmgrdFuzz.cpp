// The resource manager's socket, on packets that anybody in its group may send, over several connections at once; and
// its file of servers. Whatever is said, it answers the next one who asks rightly.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>

#include "Manager.h"
#include "ServersFile.h"
#include "fuzz/Input.h"
#include "testing/Fd.h"
#include "testing/TempRoot.h"

using velt_fuzz::Require;
using velt_testing::Fd;
using namespace VELT::manager;

namespace {

constexpr unsigned kConnections = 4;
constexpr unsigned kMostSteps = 64;

Fd Connected(std::string const& path) {
    Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    Require(::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "it accepts");
    return fd;
}

Answer Asked(Fd const& fd, Request request, int value) {
    Question question{};
    question.request = static_cast<std::uint32_t>(request);
    question.values[0] = value;
    Answer answer{};
    Require(::send(fd.get(), &question, sizeof question, MSG_NOSIGNAL) == sizeof question, "it takes a question");
    Require(::recv(fd.get(), &answer, sizeof answer, 0) == sizeof answer, "it answers");
    return answer;
}

void Drain(Fd const& fd) {
    char packet[256];
    for (ssize_t size; (size = ::recv(fd.get(), packet, sizeof packet, MSG_DONTWAIT | MSG_TRUNC)) > 0;)
        Require(size == sizeof(Answer), "each packet is an answer");
}

std::string Packet(velt_fuzz::Input& input, bool whole) {
    if (!whole) return input.Text(input.Byte());
    Question question{};
    question.request = input.Byte() % 10;
    question.values[0] = static_cast<int>(input.Byte()) - 4;
    question.port = input.Byte();
    std::string const name = input.Text(input.Byte() % kNameBytes);
    std::memcpy(question.name, name.data(), name.size());
    return {reinterpret_cast<char const*>(&question), sizeof question};
}

void Converse(velt_fuzz::Input& input, std::string const& path) {
    std::array<Fd, kConnections> connections;
    for (unsigned step = 0; step < kMostSteps && !input.empty(); ++step) {
        unsigned const choice = input.Byte();
        Fd& fd = connections[choice % kConnections];
        if (choice / 64 == 3) fd.Close();
        if (choice / 64 == 3) continue;
        if (fd.get() < 0) fd = Connected(path);
        std::string const packet = Packet(input, choice / 64 != 0);
        ::send(fd.get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        Drain(fd);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 4096) return 0;
    std::istringstream file(std::string(reinterpret_cast<char const*>(data), size));
    for (rmgrd::ServerFacts const& server : rmgrd::ReadServers(file).servers)
        Require(server.address.sin_port != 0 && server.capacity >= 0, "a server that can be used");

    velt_testing::TempRoot const root;
    rmgrd::ManagerSettings settings;
    settings.socketPath = root / "socket";
    rmgrd::Manager manager(
        settings, [](rmgrd::ServerFacts const&) { return ""; }, [](std::string const&) {});
    std::thread running([&] { manager.Run(); });
    velt_fuzz::Input input(data, size);
    Converse(input, settings.socketPath);
    Fd const asking = Connected(settings.socketPath);
    Require(Asked(asking, kOpen, kControl).result == 0, "a handle is opened");
    Require(Asked(asking, kServersInUse, 0).result >= 0, "servers are counted");
    manager.Stop();
    running.join();
    return 0;
}
