#include <velt/scanning/RSMgr.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "testing/DocExample.h"
#include "velt/scanning/RSMgrBackends.h"
#include "velt/scanning/ServerTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class ManagerHandles : public LimitedTest {
protected:
    ~ManagerHandles() override { RSMgrFreeResource(handle); }
    ManagerModel manager;
    int handle = -1;
};
class ManagerRequests : public ManagerHandles {
protected:
    ManagerRequests() { EXPECT_TRUE(RSMgrResourceHandle(handle, 3)); }
};
class ManagerSettings : public ManagerHandles {
protected:
    struct Values {
        bool cache;
        int cacheSeconds, connectTimeout, dataTimeout;
        bool operator==(Values const&) const = default;
    };
    Values Read(std::string const& text) {
        manager.WriteSettings(text);
        return Read();
    }
    static Values Read() {
        Values values = before;
        RSMgrAttributes(values.cache, values.cacheSeconds, values.connectTimeout, values.dataTimeout);
        return values;
    }
    static constexpr Values before{false, -7, -8, -9};
    static constexpr Values unread{true, 30, -8, -9};
};
#define LIMITS(fixture) \
    INSTANTIATE_TEST_SUITE_P(Limits, fixture, testing::Values(1024, 4096), testing::PrintToStringParamName())
LIMITS(ManagerHandles);
LIMITS(ManagerRequests);
LIMITS(ManagerSettings);

unsigned OpenDescriptors() {
    unsigned count = 0;
    for (int fd = 0; fd < 2048; ++fd) count += ::fcntl(fd, F_GETFD) >= 0;
    return count;
}

sockaddr_in Port25() { return Loopback(25, "192.0.2.25"); }

}  // namespace

// --- handles ---

TEST_P(ManagerHandles, AreMovedOutOfTheLowNumbersWhereTheLimitAllows) {
    unsigned const before = OpenDescriptors();
    EXPECT_TRUE(RSMgrResourceHandle(handle, 3));
    EXPECT_EQ(handle >= 1024, MovesUp());
    EXPECT_EQ(OpenDescriptors(), before + 2) << "the model's end and one of ours: the first was given back";
    EXPECT_EQ(manager.held(3), 1u);
    int control = -1;
    EXPECT_TRUE(RSMgrResourceCtlHandle(control));
    EXPECT_EQ(control >= 1024, MovesUp());
    RSMgrFreeResource(control);
}

TEST_P(ManagerHandles, AreOpenedReadOnlyAndNotForOtherPrograms) {
    EXPECT_TRUE(RSMgrResourceHandle(handle, 0));
    EXPECT_EQ(manager.openFlags(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(::fcntl(handle, F_GETFD), FD_CLOEXEC);
}

TEST_P(ManagerHandles, OfAResourceThatCannotBeOpenedAreClosed) {
    handle = 77;  // whatever stood there is forgotten, not closed
    manager.RefuseOpens(ENXIO);
    EXPECT_FALSE(RSMgrResourceHandle(handle, 3));
    EXPECT_EQ(handle, -1);
}

TEST_P(ManagerHandles, OfTheControlDeviceStayAsTheyWereWhereItCannotBeOpened) {
    manager.RefuseOpens(ENOENT);
    EXPECT_FALSE(RSMgrResourceCtlHandle(handle));
    EXPECT_EQ(handle, -1);
    Fd const other(::dup(0));
    int kept = other.get();
    EXPECT_TRUE(RSMgrResourceCtlHandle(kept)) << "it tells whether the handle is open, not whether the device was";
    EXPECT_EQ(kept, other.get());
}

// What stands for the control device elsewhere is a number like others here, of a device that nobody has.
TEST_P(ManagerHandles, OfANumberBelowZeroAreNotThoseOfTheControlDevice) {
    for (int const number : {-1, -2, INT_MIN}) {
        EXPECT_FALSE(RSMgrResourceHandle(handle, number)) << number;
        EXPECT_EQ(handle, -1);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_EQ(manager.opens(ManagerModel::control), 0u);
}

TEST_P(ManagerHandles, EndTheirOccupationWithTheLastClose) {
    EXPECT_TRUE(RSMgrResourceHandle(handle, 3));
    Fd copy(::dup(handle));
    RSMgrFreeResource(handle);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(manager.held(3), 1u);
    copy.Close();
    EXPECT_EQ(manager.held(3), 0u);
}

TEST_P(ManagerHandles, ThatAreClosedCanBeFreedAgain) {
    int const free = NextFd();
    RSMgrFreeResource(handle);
    EXPECT_EQ(handle, -1);
    handle = -5;
    RSMgrFreeResource(handle);
    EXPECT_EQ(handle, -5) << "nothing is done to it";
    EXPECT_EQ(NextFd(), free);
    handle = -1;
}

// --- requests ---

TEST_P(ManagerHandles, ThatAreClosedAskNothing) {
    sockaddr_in address{};
    int id = 7, sequence = 8;
    char name[256] = "unchanged";
    for (int const error : {EAGAIN, EIO}) {
        errno = error;
        EXPECT_EQ(RSMgrWaitForResource(handle, 1, &address, &id, &sequence), -1);
        EXPECT_EQ(errno, error) << "as it was";
    }
    EXPECT_EQ(RSMgrSetupResource(handle, 1, 2, 3, &address, name), -1);
    EXPECT_EQ(RSMgrAvailable(handle), -1);
    EXPECT_EQ(RSMgrUnAvailable(handle), -1);
    EXPECT_FALSE(RSMgrResourceAvailable(handle));
    EXPECT_EQ(RSMgrResourceAttributes(handle, name), -1);
    EXPECT_EQ(id * 10 + sequence, 78);
    EXPECT_STREQ(name, "unchanged");
    EXPECT_TRUE(manager.calls().empty());
}

TEST_P(ManagerRequests, WaitForAServer) {
    manager.ToOffer({5, 17, 4711, Port25()});
    sockaddr_in address{};
    int id = -1, sequence = -1;
    EXPECT_EQ(RSMgrWaitForResource(handle, 9, &address, &id, &sequence), 5);
    EXPECT_EQ(id, 17);
    EXPECT_EQ(sequence, 4711);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, Port25().sin_addr.s_addr);
    EXPECT_EQ(ntohs(address.sin_port), 25) << "the low 16 bits";
    ManagerModel::WaitRecord const asked = manager.waits().at(0);
    EXPECT_EQ(asked.timeout, 9);
    EXPECT_EQ(asked.id, 0);
    EXPECT_EQ(asked.sequence, 0);
    EXPECT_EQ(asked.address, 0u);
}

TEST_P(ManagerRequests, HaveTheBytesThatThePageShows) {
    std::string bytes;
    unsigned byte;
    std::string hex = DocExample(std::string(DOCS) + "/formats/resource-manager.md", "hex");
    std::erase_if(hex, [](unsigned char c) { return std::isspace(c); });
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        ASSERT_EQ(std::sscanf(hex.c_str() + i, "%2x", &byte), 1);
        bytes += static_cast<char>(byte);
    }
    ManagerModel::WaitRecord shown;
    ASSERT_EQ(bytes.size(), sizeof shown);
    std::memcpy(&shown, bytes.data(), sizeof shown);
    sockaddr_in const where = Loopback(4310, "192.0.2.25");
    manager.ToOffer({5, 3, 7, where});
    sockaddr_in address{};
    int id = -1, sequence = -1;
    EXPECT_EQ(RSMgrWaitForResource(handle, 1, &address, &id, &sequence), 5);
    EXPECT_EQ(manager.waits().at(0).timeout, shown.timeout);
    EXPECT_EQ(id, shown.id);
    EXPECT_EQ(sequence, shown.sequence);
    EXPECT_EQ(address.sin_addr.s_addr, shown.address);
    EXPECT_EQ(address.sin_port, shown.port);
}

TEST_P(ManagerRequests, TellAWaitThatRanOutByErrno) {
    sockaddr_in address{};
    int id = 7, sequence = 8;
    EXPECT_EQ(RSMgrWaitForResource(handle, 1, &address, &id, &sequence), -1);
    EXPECT_EQ(errno, EAGAIN);
    manager.ToFail(EINTR);
    EXPECT_EQ(RSMgrWaitForResource(handle, 1, &address, &id, &sequence), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(id * 10 + sequence, 78);
    EXPECT_EQ(address.sin_family, 0);
}

TEST_P(ManagerRequests, ResourceNumberZeroIsAServerToo) {
    manager.ToOffer({0, 1, 1, Port25()});
    sockaddr_in address{};
    int id = -1, sequence = -1;
    EXPECT_EQ(RSMgrWaitForResource(handle, 1, &address, &id, &sequence), 0);
}

TEST_P(ManagerRequests, TellWhetherTheResourceIsUp) {
    EXPECT_TRUE(RSMgrResourceAvailable(handle));
    manager.SetUp(3, false);
    EXPECT_FALSE(RSMgrResourceAvailable(handle));
    EXPECT_EQ(manager.calls().back().request, 5u);
    EXPECT_FALSE(manager.calls().back().hasArgument);
}

TEST_P(ManagerRequests, TakeNoAnswerButOneForAResourceThatIsUp) {
    static int s_answer;
    manager::Backend answering = manager::g_device;
    answering.ask = [](int, manager::Request, void*) { return s_answer; };
    manager::Choose(&answering);
    for (s_answer = -2; s_answer < 4; ++s_answer) EXPECT_EQ(RSMgrResourceAvailable(handle), s_answer == 1) << s_answer;
    s_answer = 257;
    EXPECT_FALSE(RSMgrResourceAvailable(handle));
    manager::Choose(nullptr);
}

TEST_P(ManagerRequests, GiveTheServersName) {
    manager.SetName(3, "scan-a");
    char name[256] = {};
    EXPECT_EQ(RSMgrResourceAttributes(handle, name), 0);
    EXPECT_STREQ(name, "scan-a");
    EXPECT_EQ(manager.calls().back().request, 7u);
}

TEST_P(ManagerRequests, SetAResourceUp) {
    sockaddr_in address = Port25();
    std::string name(40, 'n');
    manager.Answer(1, 6);
    EXPECT_EQ(RSMgrSetupResource(handle, 11, 22, 33, &address, name.data()), 6);
    std::string const record = manager.calls().back().bytes;
    std::uint32_t fields[5];
    ASSERT_EQ(record.size(), 32u);
    std::memcpy(fields, record.data(), sizeof fields);
    EXPECT_EQ(fields[0], 11u);
    EXPECT_EQ(fields[1], 22u);
    EXPECT_EQ(fields[2], 33u);
    EXPECT_EQ(fields[3], address.sin_addr.s_addr);
    EXPECT_EQ(fields[4], address.sin_port);
    EXPECT_EQ(manager.setupName(), std::string(31, 'n') + '\0');
    for (std::size_t const length : {0u, 30u, 31u, 32u}) {
        RSMgrSetupResource(handle, 1, 2, 3, &address, std::string(length, 'n').data());
        std::string expected(std::min<std::size_t>(length, 31), 'n');
        expected.resize(32);
        EXPECT_EQ(manager.setupName(), expected) << length;
    }
    EXPECT_EQ(RSMgrSetupResource(handle, 1, 2, 3, nullptr, nullptr), 6);
    std::memcpy(fields, manager.calls().back().bytes.data(), sizeof fields);
    EXPECT_EQ(fields[3], 0u) << "no address is 0";
    EXPECT_EQ(manager.setupName(), std::string(32, '\0'));
}

TEST_P(ManagerRequests, PassTheAnswersOfThreeOn) {
    sockaddr_in address = Port25();
    char name[] = "n";
    for (int const answer : {0, 4, -EPERM}) {
        for (unsigned long request : {1, 2, 3}) manager.Answer(request, answer);
        int const expected = answer < 0 ? -1 : answer;
        EXPECT_EQ(RSMgrSetupResource(handle, 1, 2, 3, &address, name), expected);
        EXPECT_EQ(RSMgrAvailable(handle), expected);
        EXPECT_EQ(manager.calls().back().request, 2u);
        EXPECT_EQ(RSMgrUnAvailable(handle), expected);
        EXPECT_EQ(manager.calls().back().request, 3u);
        EXPECT_FALSE(manager.calls().back().hasArgument);
    }
}

TEST_P(ManagerHandles, AreNotKeptByTheQuestionWhetherThereAreServers) {
    manager.Answer(6, 3);
    EXPECT_TRUE(RSMgrActive());
    EXPECT_EQ(manager.calls().back().device, ManagerModel::control);
    EXPECT_EQ(manager.held(ManagerModel::control), 0u);
}

TEST_P(ManagerHandles, NoServerNoModuleAndNoDeviceAreNoneInUse) {
    for (int const count : {0, -EIO}) {
        manager.Answer(6, count);
        EXPECT_FALSE(RSMgrActive());
    }
    EXPECT_EQ(manager.held(ManagerModel::control), 0u);
    manager.Answer(6, 3);
    manager.RefuseOpens(EACCES);
    EXPECT_FALSE(RSMgrActive());
    manager.RefuseOpens(0);
    manager.SetPresent(false);
    unsigned const opens = manager.opens(ManagerModel::control);
    EXPECT_FALSE(RSMgrActive());
    EXPECT_EQ(manager.opens(ManagerModel::control), opens);
}

// --- settings ---

TEST_P(ManagerSettings, OfFourNumbersAreAllTaken) {
    EXPECT_EQ(Read("1 45 6 7\n"), (Values{true, 45, 6, 7}));
    EXPECT_EQ(Read("2\n45\t6\n\n 7 and more"), (Values{true, 45, 6, 7}));
    EXPECT_EQ(Read("-1 -45 -6 -7"), (Values{true, -45, -6, -7})) << "nobody looks at them here";
}

TEST_P(ManagerSettings, ThatThePageShowsAreTheCompiledOnes) {
    EXPECT_EQ(Read(DocExample(std::string(DOCS) + "/formats/resource-manager.md", "settings")),
              (Values{true, 30, 5, 20}));
    EXPECT_EQ(ScannerServer::LsConnTimeout, 5);
    EXPECT_EQ(ScannerServer::LsDataTimeout, 20);
}

TEST_P(ManagerSettings, OfLessChangeNothingNotEvenTheFlag) {
    for (char const* const text : {"0 45 6", "0 45 6 x", "0", "", "x 45 6 7"}) EXPECT_EQ(Read(text), unread) << text;
}

TEST_P(ManagerSettings, WithoutAnEntryAreTheCompiledOnes) { EXPECT_EQ(Read(), unread); }

TEST_P(ManagerSettings, WithoutACacheLeaveItsTimeAndTakeTheTimeouts) {
    EXPECT_EQ(Read("0 45 6 7"), (Values{false, 30, 6, 7}));
}

TEST_P(ManagerSettings, LeaveNoFileOpen) {
    int const free = NextFd();
    Read("1 45 6 7");
    Read("1 45 6");
    EXPECT_EQ(NextFd(), free);
}
