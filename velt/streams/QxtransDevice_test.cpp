#include <sys/resource.h>
#include <sys/syslog.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "testing/DocExample.h"
#include "velt/streams/InterceptionTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr unsigned long set_source = 0, connection_info = 2, asymmetric = 4, ftp_first = 5, ftp_second = 6, attach = 7;

class DeviceStart : public InterceptionTest {};
class DeviceInbound : public InterceptionTest {};
class DeviceOutbound : public InterceptionTest {
protected:
    int SetSource(Handle& handle, int socket) {
        return qxtrans_set_source_address(&handle.fd, socket, &local, &remote, &source);
    }
    Fd socket{::socket(AF_INET, SOCK_STREAM, 0)};
    sockaddr_in local = Loopback(7, "127.0.0.7");
    sockaddr_in remote = Loopback(25, "192.0.2.25");
    sockaddr_in source = Loopback(4321, "198.51.100.7");
};
class DeviceTransfers : public DeviceOutbound {
protected:
    int SetRule(Handle& handle, bool flag) {
        return qxtrans_set_ftp_rule(connection.server.get(), &handle.fd, &remote, &source, flag);
    }
};

// A port and an address alone, as the device gets them.
sockaddr_in WithoutFamily(sockaddr_in address) {
    address.sin_family = 0;
    return address;
}
std::string Bytes(sockaddr_in const& address) {
    return std::string(reinterpret_cast<char const*>(&address), sizeof address);
}

}  // namespace

// --- start ---

TEST_F(DeviceStart, KeepsTheTwoAddressesOfTheEntry) {
    Initialise("c0000201 A000001");
    EXPECT_EQ(qxtrans_initialised, 1);
    EXPECT_EQ(qxtrans_ipaddrs[0], 0xC0000201u);
    EXPECT_EQ(qxtrans_ipaddrs[1], 0x0A000001u);
    EXPECT_EQ(qxtrans_active, 0) << "nobody has looked for the device yet";
    EXPECT_EQ(device.opens() + device.statusTests(), 0u);
}

TEST_F(DeviceStart, ReadsTheEntryOnceOnly) {
    Initialise();
    Initialise("c0000201 c0000202");
    EXPECT_EQ(device.interfaceReads(), 1u);
    EXPECT_EQ(qxtrans_ipaddrs[0], 0x7f000001u);
}

TEST_F(DeviceStart, WithoutAnEntryLeavesInterceptionOff) {
    qxtrans_init();
    EXPECT_EQ(qxtrans_initialised, 0);
    EXPECT_TRUE(device.syslog().empty()) << "that is no failure";
    Initialise();
    EXPECT_EQ(qxtrans_initialised, 1) << "a later attempt finds it";
}

TEST_F(DeviceStart, TakesNoEntryOfLessThanTwoAddresses) {
    for (char const* const text : {"", "\n", "7f000001\n", "7f000001 x", "x 7f000001", "7f000001,c0000201"}) {
        Initialise(text);
        EXPECT_EQ(qxtrans_initialised, 0) << text;
        EXPECT_EQ(qxtrans_ipaddrs[0], 0u) << text;
        Handle handle;
        EXPECT_EQ(Ask(handle.fd).answer, 0) << text;
        EXPECT_EQ(device.opens(), 0u) << text;
    }
}

TEST_F(DeviceStart, LeavesNoFileOpen) {
    int const free = NextFd();
    Initialise();
    EXPECT_EQ(NextFd(), free);
}

TEST_F(DeviceStart, IsTheChoiceForNamesThatNobodyKnows) {
    EXPECT_EQ(qxtrans_named("device"), Interception::Device);
    EXPECT_EQ(qxtrans_named("netfilter"), Interception::Netfilter);
    EXPECT_EQ(qxtrans_named("off"), Interception::Off);
    for (char const* const name : {"", "Netfilter", "on", "offline"})
        EXPECT_EQ(qxtrans_named(name), Interception::Device) << name;
}

TEST_F(DeviceStart, SwitchedOffAsksNothing) {
    Begin(Interception::Off);
    Initialise();
    EXPECT_EQ(device.interfaceReads(), 0u);
    EXPECT_EQ(qxtrans_initialised, 0);
    Handle handle;
    EXPECT_EQ(Ask(handle.fd).answer, 0);
    EXPECT_EQ(qxtrans_set_ftp_rule(connection.server.get(), &handle.fd, &connection.listener.address(),
                                   &connection.listener.address(), true),
              -1);
    EXPECT_FALSE(qxtrans_asymmetric_route(connection.server.get()));
    EXPECT_EQ(device.opens() + device.statusTests(), 0u);
}

// --- inbound ---

TEST_F(DeviceInbound, WithoutAnEntryTakesThePeerForTheDestination) {
    Handle handle;
    Info const info = Ask(handle.fd);
    EXPECT_EQ(info.answer, 0);
    EXPECT_EQ(Bytes(info.destination), Bytes(info.peer));
    EXPECT_EQ(TextOf(info.peer), TextOf(NameOf(connection.client.get())));
    EXPECT_EQ(TextOf(info.local), TextOf(connection.listener.address()));
    EXPECT_EQ(handle.fd, -1);
    EXPECT_EQ(qxtrans_active, 0) << "nobody looked for the device";
    EXPECT_EQ(device.statusTests() + device.opens(), 0u);
}

TEST_F(DeviceInbound, ClosesAHandleThatIsOpenEvenWhereTheSocketHasNoPeer) {
    int const free = NextFd();
    int handle = ::dup(0);
    sockaddr_in peer{}, destination{}, local{};
    EXPECT_EQ(qxtrans_connection_info(-1, &peer, &destination, &local, &handle), -1);
    EXPECT_EQ(handle, -1);
    handle = ::dup(0);
    EXPECT_EQ(qxtrans_connection_info(connection.listener.fd(), &peer, &destination, &local, &handle), -1);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(TextOf(local), TextOf(connection.listener.address())) << "its name was found before its peer was not";
    EXPECT_EQ(NextFd(), free);
}

TEST_F(DeviceInbound, AsksTheDeviceByThePeersAddress) {
    Initialise();
    Handle handle;
    Info const info = Ask(handle.fd);
    ASSERT_EQ(device.calls().size(), 1u);
    EXPECT_EQ(device.calls()[0].request, connection_info);
    EXPECT_EQ(device.calls()[0].bytes, Bytes(info.peer));
    EXPECT_EQ(device.openFlags(), O_RDONLY | O_CLOEXEC);
}

TEST_F(DeviceInbound, TakesOverWhatTheDeviceWrites) {
    Initialise();
    sockaddr_in const other = Loopback(99, "203.0.113.9");
    for (int answer : {0, 1, 2, 3}) {
        device.Answer([&](unsigned long, void* argument) {
            std::memcpy(argument, &other, sizeof other);
            return answer;
        });
        Handle handle;
        Info const info = Ask(handle.fd);
        EXPECT_EQ(info.answer, answer);
        EXPECT_EQ(TextOf(info.destination), "203.0.113.9:99");
        EXPECT_EQ(TextOf(info.local), TextOf(connection.listener.address())) << "the socket's own name";
        EXPECT_EQ(TextOf(info.peer), TextOf(NameOf(connection.client.get())));
    }
}

// A system that answers the request itself writes a block size where the family stands.
TEST_F(DeviceInbound, RestoresThePeerWhereTheSystemAnsweredInPlaceOfTheDevice) {
    Initialise();
    device.Answer([](unsigned long, void* argument) {
        std::uint32_t const blockBytes = 4096;
        std::memcpy(argument, &blockBytes, sizeof blockBytes);
        return 0;
    });
    Handle handle;
    Info const info = Ask(handle.fd);
    EXPECT_EQ(info.answer, 0);
    EXPECT_EQ(Bytes(info.destination), Bytes(info.peer));
}

TEST_F(DeviceInbound, KeepsTheHandleForTheAnswersOneAndTwoAlone) {
    Initialise();
    for (int answer = -5; answer <= 8; ++answer) {
        device.Answer(answer);
        Handle handle;
        EXPECT_EQ(Ask(handle.fd).answer, answer < 0 ? -1 : answer);
        bool const kept = answer == 1 || answer == 2;
        EXPECT_EQ(handle.fd >= 0, kept) << answer;
        EXPECT_EQ(device.held(), kept ? 1u : 0u) << answer;
        EXPECT_EQ(::fcntl(handle.fd, F_GETFD), kept ? FD_CLOEXEC : -1);
    }
}

TEST_F(DeviceInbound, ReplacesTheHandleOfAnEarlierAnswer) {
    Initialise();
    device.Answer(2);
    Handle handle;
    Ask(handle.fd);
    Ask(handle.fd);
    EXPECT_EQ(device.opens(), 2u);
    EXPECT_EQ(device.held(), 1u);
    EXPECT_EQ(device.calls()[1].handle, 1u);
}

TEST_F(DeviceInbound, IsNotInterceptedWhereTheDeviceCannotBeOpened) {
    Initialise();
    device.RefuseOpens(EACCES);
    Handle handle;
    EXPECT_EQ(Ask(handle.fd).answer, 0);
    EXPECT_LT(handle.fd, 0);
    EXPECT_EQ(device.refusedOpens(), 1u);
    EXPECT_TRUE(device.syslog().empty());
    EXPECT_EQ(qxtrans_active, 1);
    device.RefuseOpens(0);
    device.Answer(2);
    EXPECT_EQ(Ask(handle.fd).answer, 2) << "each connection asks anew";
}

TEST_F(DeviceInbound, LooksForTheStatusOnceAndStaysWithWhatItFound) {
    Initialise();
    device.SetPresent(false);
    Handle handle;
    EXPECT_EQ(Ask(handle.fd).answer, 0);
    EXPECT_EQ(qxtrans_active, -1);
    device.SetPresent(true);
    device.Answer(2);
    EXPECT_EQ(Ask(handle.fd).answer, 0);
    EXPECT_EQ(device.statusTests(), 1u);
    EXPECT_EQ(device.opens(), 0u);
}

TEST_F(DeviceInbound, StaysActiveWhenTheStatusIsGoneLater) {
    Initialise();
    Handle handle;
    Ask(handle.fd);
    device.SetPresent(false);
    device.Answer(1);
    EXPECT_EQ(Ask(handle.fd).answer, 1);
    EXPECT_EQ(device.statusTests(), 1u);
}

TEST_F(DeviceInbound, IsAskedByManyThreadsAtOnceWithTheSameAnswer) {
    Initialise();
    device.Answer(2);
    std::vector<std::thread> threads;
    std::vector<Handle> handles(8);
    for (Handle& handle : handles) threads.emplace_back([&] { EXPECT_EQ(Ask(handle.fd).answer, 2); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(qxtrans_active, 1);
    EXPECT_EQ(device.held(), 8u);
}

// --- outbound ---

TEST_F(DeviceOutbound, WithoutAnEntryFailsAndLeavesTheSocketAlone) {
    Handle handle;
    EXPECT_EQ(SetSource(handle, socket.get()), -1);
    EXPECT_EQ(TextOf(NameOf(socket.get())), "0.0.0.0:0");
    EXPECT_EQ(handle.fd, -1);
    EXPECT_EQ(device.opens(), 0u);
    EXPECT_TRUE(device.syslog().empty());
}

TEST_F(DeviceOutbound, WithoutTheDeviceFailsForEverAndLeavesTheSocketAlone) {
    Initialise();
    device.SetPresent(false);
    Handle inbound;
    Ask(inbound.fd);
    device.SetPresent(true);
    for (int attempt = 0; attempt < 3; ++attempt) {
        Handle handle;
        EXPECT_EQ(SetSource(handle, socket.get()), -1);
        EXPECT_EQ(TextOf(NameOf(socket.get())), "0.0.0.0:0");
    }
    EXPECT_EQ(device.opens(), 0u);
    EXPECT_TRUE(device.syslog().empty());
}

TEST_F(DeviceOutbound, NeedsNoInboundConnectionBefore) {
    Initialise();
    Handle handle;
    EXPECT_EQ(qxtrans_active, 0);
    EXPECT_EQ(SetSource(handle, socket.get()), 0);
    EXPECT_EQ(qxtrans_active, 0);
    EXPECT_EQ(device.statusTests(), 0u);
}

TEST_F(DeviceOutbound, BindsToTheFirstAddressAndTellsTheDeviceWhatTheServerIsToSee) {
    Initialise("7f000005 7f000006");
    Handle handle;
    EXPECT_EQ(SetSource(handle, socket.get()), 0);
    sockaddr_in const bound = NameOf(socket.get());
    EXPECT_EQ(bound.sin_addr.s_addr, htonl(0x7f000005)) << "not to `local`, nor to the second address";
    EXPECT_NE(bound.sin_port, 0);
    ASSERT_EQ(device.calls().size(), 1u);
    EXPECT_EQ(device.calls()[0].request, set_source);
    EXPECT_EQ(device.calls()[0].bytes, Bytes(bound) + Bytes(WithoutFamily(source)) + Bytes(WithoutFamily(remote)));
}

TEST_F(DeviceOutbound, LooksAtNoLocalAddress) {
    Initialise();
    Handle handle;
    EXPECT_EQ(qxtrans_set_source_address(&handle.fd, socket.get(), nullptr, &remote, &source), 0);
}

TEST_F(DeviceOutbound, GivesTheAnswerOfTheDeviceAndKeepsTheHandle) {
    Initialise();
    for (int answer : {0, 1, 2, 17, -EPERM}) {
        device.Answer(answer);
        Handle handle;
        Fd const fresh(::socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(SetSource(handle, fresh.get()), answer < 0 ? -1 : answer);
        EXPECT_TRUE(device.IsHandle(handle.fd)) << answer;
    }
    EXPECT_TRUE(device.syslog().empty());
}

TEST_F(DeviceOutbound, UsesTheHandleThatIsOpen) {
    Initialise();
    device.Answer(2);
    Handle handle;
    Ask(handle.fd);
    EXPECT_EQ(SetSource(handle, socket.get()), 2);
    EXPECT_EQ(device.opens(), 1u);
}

TEST_F(DeviceOutbound, ReportsADeviceThatCannotBeOpened) {
    Initialise();
    device.RefuseOpens(ENOENT);
    Handle handle;
    EXPECT_EQ(SetSource(handle, socket.get()), -1);
    EXPECT_EQ(device.syslog(), std::vector<std::string>{"6 FAILURE GETTING NAT DEVICE"});
    EXPECT_EQ(TextOf(NameOf(socket.get())), "0.0.0.0:0");
}

TEST_F(DeviceOutbound, ReportsAnAddressThatCannotBeBoundTo) {
    Initialise("c0000201 7f000001");
    Handle handle;
    EXPECT_EQ(SetSource(handle, socket.get()), -1);
    EXPECT_EQ(device.syslog(), std::vector<std::string>{"6 FAILURE BINDING TO INTERACE"});
    EXPECT_TRUE(device.calls().empty());
    EXPECT_TRUE(device.IsHandle(handle.fd)) << "it stays with the stream";
}

// --- file transfers ---

TEST_F(DeviceTransfers, AttachTheirConnectionAtTheFirstUseOfAHandle) {
    Handle handle;
    EXPECT_EQ(SetRule(handle, true), 0) << "with no entry and no status";
    ASSERT_EQ(device.calls().size(), 2u);
    EXPECT_EQ(device.calls()[0].request, attach);
    std::string const local = Bytes(NameOf(connection.server.get()));
    std::string const peer = Bytes(NameOf(connection.client.get()));
    EXPECT_EQ(device.calls()[0].bytes, local + peer + std::string(sizeof(sockaddr_in), '\0'));
    EXPECT_EQ(device.calls()[1].request, ftp_first);
    DeviceModel::Record const rule = DeviceModel::RecordOf(device.calls()[1]);
    EXPECT_EQ(TextOf(rule.source), TextOf(source)) << "the second address";
    EXPECT_EQ(TextOf(rule.target), TextOf(remote)) << "the first address";
    EXPECT_EQ(rule.target.sin_family, 0);
}

TEST_F(DeviceTransfers, ChooseTheirKindByTheFlag) {
    for (bool const flag : {true, false}) {
        Handle handle;
        SetRule(handle, flag);
        EXPECT_EQ(device.calls().back().request, flag ? ftp_first : ftp_second);
    }
}

TEST_F(DeviceTransfers, AttachOnceForEachHandle) {
    Handle handle;
    SetRule(handle, true);
    SetRule(handle, false);
    ASSERT_EQ(device.calls().size(), 3u);
    EXPECT_EQ(device.calls()[2].request, ftp_second);
    EXPECT_EQ(device.calls()[2].handle, 0u);
    EXPECT_EQ(device.calls()[2].bytes,
              std::string(sizeof(sockaddr_in), '\0') + Bytes(WithoutFamily(source)) + Bytes(WithoutFamily(remote)))
        << "nothing that lay in memory goes to the device";
}

TEST_F(DeviceTransfers, GiveTheAnswerOfTheDevice) {
    for (int answer : {0, 1, 2, 9, -EINVAL}) {
        device.Answer([&](unsigned long request, void*) { return request == attach ? 0 : answer; });
        Handle handle;
        EXPECT_EQ(SetRule(handle, true), answer < 0 ? -1 : answer);
    }
}

TEST_F(DeviceTransfers, FailWhereTheDeviceDoesNotAttachAndLeaveTheHandleOpen) {
    for (int answer : {1, 2, -EPERM}) {
        device.Answer(answer);
        Handle handle;
        std::size_t const before = device.calls().size();
        EXPECT_EQ(SetRule(handle, true), -1) << answer;
        EXPECT_EQ(device.calls().size(), before + 1) << "no rule follows";
        EXPECT_TRUE(device.IsHandle(handle.fd)) << answer;
    }
}

TEST_F(DeviceTransfers, FailWithoutAWordWhereTheDeviceCannotBeOpened) {
    device.RefuseOpens(ENXIO);
    Handle handle;
    EXPECT_EQ(SetRule(handle, true), -1);
    EXPECT_LT(handle.fd, 0);
    EXPECT_TRUE(device.calls().empty() && device.syslog().empty());
}

TEST_F(DeviceTransfers, AttachASocketWithoutAPeerAsItIs) {
    Handle handle;
    EXPECT_EQ(qxtrans_set_ftp_rule(socket.get(), &handle.fd, &remote, &source, true), 0);
    EXPECT_EQ(DeviceModel::RecordOf(device.calls()[0]).source.sin_family, 0);
}

// --- the page that tells of all this ---

TEST_F(DeviceStart, ReadsTheEntryThatThePageShows) {
    Initialise(DocExample(DOCS "/formats/interception-device.md", "interfaces"));
    EXPECT_EQ(qxtrans_ipaddrs[0], 0xC0000201u);
    EXPECT_EQ(qxtrans_ipaddrs[1], 0x0A000001u);
}

TEST_F(DeviceTransfers, HaveTheRecordThatThePageShows) {
    std::string shown;
    for (char const one : DocExample(DOCS "/formats/interception-device.md", "hex"))
        if (std::isxdigit(static_cast<unsigned char>(one))) shown += one;
    Handle handle;
    SetRule(handle, true);
    SetRule(handle, true);
    std::string sent;
    for (char const byte : device.calls().back().bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        sent += digits;
    }
    EXPECT_EQ(sent, shown);
}

// --- routes ---

TEST_F(DeviceOutbound, HasAnAsymmetricRouteWhenTheDeviceAnswersNought) {
    Initialise();
    device.Answer(1);
    Handle handle;
    Ask(handle.fd);
    for (int answer : {0, 1, 2, -1, 0}) {
        device.Answer(answer);
        EXPECT_EQ(qxtrans_asymmetric_route(handle.fd), answer == 0) << answer;
        EXPECT_EQ(device.calls().back().request, asymmetric);
        EXPECT_FALSE(device.calls().back().hasArgument);
    }
    EXPECT_FALSE(qxtrans_asymmetric_route(-1));
}
