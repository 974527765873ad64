// Look-ups against a name server on loopback.
#include <velt/lookup/Resolver.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <new>

#include <testing/FakeNameServer.h>
#include <testing/FakePolicyStore.h>
#include <velt/Config.h>
#include <velt/connection/TCPConnection.h>
#include <velt/lookup/HostCheck.h>
#include <velt/runtime/Proxy.h>

using namespace VELT;
using namespace velt_testing;

namespace {
bool g_noMemory = false;  // for those who can do without
}

#ifndef VELT_SANITIZED  // a sanitizer has an operator of its own, and there can be one
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
    if (g_noMemory) return nullptr;
    try {
        return ::operator new[](size);
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}
#endif

namespace {

constexpr bool MemoryCanFail() {
#ifdef VELT_SANITIZED
    return false;
#else
    return true;
#endif
}

using Names = std::vector<std::string>;
constexpr int kAgain = 2;
constexpr int kUnknownHost = 3;
constexpr int kNoData = 10;
constexpr unsigned kAddressOf = 0xC0000200;  // 192.0.2.0

Names Texts(std::vector<KORnet::IPAddr> const& addresses) {
    Names texts;
    for (KORnet::IPAddr const& address : addresses) texts.push_back(address.str());
    return texts;
}

class NameServerTest : public testing::Test {
protected:
    ~NameServerTest() override {
        Resolver::s_reverse_lookups_banned = false;
        Resolver::s_excludedhosts.clear();
    }
    // Whether the system's own look-ups come to this server: they follow nsswitch.conf(5), which is not the test's.
    bool SystemAsksServers() {
        unsigned const before = server->answered();
        hostent storage{}, *found = nullptr;
        char room[512];
        int error = 0;
        ::gethostbyname_r("asked.example.test", &storage, room, sizeof room, &found, &error);
        return server->answered() > before;
    }
    void Answers(FakeNameServer::Answer answer) {
        server = std::make_unique<FakeNameServer>(std::move(answer));
        Resolver::start();
        server->Use();
    }
    // The same bytes to every query.
    void AnswersSize(std::size_t size) {
        Answers([size](auto const&, DnsBytes& answer) {
            answer.Mx(10, DnsName("mx.test")).Address(DnsName("mx.test"), kAddressOf + 5).PadTo(size);
            return true;
        });
    }
    int Mx(unsigned exchangers = 100, unsigned max = 100) {
        addresses.clear();
        return Resolver().mx_resolve("example.test", addresses, exchangers, max);
    }

    std::unique_ptr<FakeNameServer> server;
    std::vector<KORnet::IPAddr> addresses;
};

using MxLookup = NameServerTest;
using HostLookup = NameServerTest;
using ReverseLookup = NameServerTest;
using ResolverSetup = NameServerTest;

TEST_F(MxLookup, GivesTheAddressesInDeliveryOrder) {
    Answers([](auto const& query, DnsBytes& answer) {
        EXPECT_EQ(query.name, "example.test");
        answer.Mx(20, DnsName("b.test")).Mx(10, DnsName("a.test"));
        answer.Address(DnsName("b.test"), kAddressOf + 3).Address(DnsName("a.test"), kAddressOf + 2);
        answer.Address(DnsName("a.test"), kAddressOf + 1);
        return true;
    });
    EXPECT_EQ(Mx(), 0);
    EXPECT_EQ(Texts(addresses), (Names{"192.0.2.1", "192.0.2.2", "192.0.2.3"}));
    EXPECT_EQ(server->answered(), 1u) << "the addresses came along";
}

TEST_F(MxLookup, StopsAtItsLimits) {
    Answers([](auto const&, DnsBytes& answer) {
        answer.Mx(10, DnsName("a.test")).Mx(20, DnsName("b.test"));
        for (unsigned i = 1; i <= 4; ++i) answer.Address(DnsName(i % 2 ? "a.test" : "b.test"), kAddressOf + i);
        return true;
    });
    for (unsigned max = 0; max <= 5; ++max) {
        EXPECT_EQ(Mx(100, max), 0);
        EXPECT_EQ(addresses.size(), std::min(max, 4u));
    }
    EXPECT_EQ(Mx(1), 0);
    EXPECT_EQ(Texts(addresses), (Names{"192.0.2.3", "192.0.2.1"}));
    EXPECT_EQ(Mx(0), 0);
    EXPECT_TRUE(addresses.empty());
}

TEST_F(MxLookup, CountsTheAddressesThatWereThereBefore) {
    AnswersSize(0);
    addresses.assign(3, KORnet::IPAddr(0x7F000001));
    EXPECT_EQ(Resolver().mx_resolve("example.test", addresses, 5, 3), 0);
    EXPECT_EQ(addresses.size(), 3u);
    EXPECT_EQ(Resolver().mx_resolve("example.test", addresses, 5, 4), 0);
    EXPECT_EQ(addresses.size(), 4u);
}

TEST_F(MxLookup, AsksForAddressesThatDidNotComeAlong) {
    Answers([](auto const&, DnsBytes& answer) {
        answer.Mx(10, DnsName("127.0.0.9")).Mx(20, DnsName("b.test")).Address(DnsName("b.test"), kAddressOf);
        return true;
    });
    EXPECT_EQ(Mx(5, 2), 0);
    EXPECT_EQ(Texts(addresses), (Names{"127.0.0.9", "192.0.2.0"}));
    EXPECT_EQ(Mx(5, 1), 0);
    EXPECT_EQ(Texts(addresses), Names{"127.0.0.9"});
}

TEST_F(MxLookup, TakesAllTheAddressesThatItHadToAskForWhateverTheLimit) {
    Answers([](auto const& query, DnsBytes& answer) {
        if (query.type == DnsBytes::type_mx) answer.Mx(10, DnsName("a.test"));
        for (unsigned i = 1; query.type == DnsBytes::type_a && i <= 3; ++i)
            answer.Address(DnsPointer(DnsBytes::header_size), kAddressOf + i, DnsBytes::answer);
        return true;
    });
    EXPECT_EQ(Mx(5, 1), 0);
    if (!SystemAsksServers()) GTEST_SKIP() << "this system asks no name servers for hosts";
    EXPECT_EQ(Texts(addresses), (Names{"192.0.2.1", "192.0.2.2", "192.0.2.3"}));
}

TEST_F(MxLookup, GivesNothingForADomainWithNoneButThisMachine) {
    Answers([](auto const&, DnsBytes& answer) {
        answer.Mx(10, DnsName("me.test")).Mx(20, DnsName("b.test")).Address(DnsName("b.test"), kAddressOf);
        return true;
    });
    Resolver::s_excludedhosts = {"me.test"};
    EXPECT_EQ(Mx(), 0);
    EXPECT_TRUE(addresses.empty());
    Resolver::s_excludedhosts = {"ME.test"};
    EXPECT_EQ(Mx(), 0);
    EXPECT_EQ(addresses.size(), 1u) << "the case of letters counts";
}

TEST_F(MxLookup, TellsWhatTheServerSaid) {
    struct Case {
        unsigned rcode;
        int code;
    };
    for (Case const& each : {Case{0, kNoData}, Case{2, kAgain}, Case{3, kUnknownHost}}) {
        Answers([&](auto const&, DnsBytes& answer) {
            answer.Code(each.rcode);
            return true;
        });
        EXPECT_EQ(Mx(), each.code) << each.rcode;
    }
}

TEST_F(MxLookup, IsToBeTriedAgainWhenNoServerAnswers) {
    Resolver::start();
    FakeNameServer::UseNone();
    EXPECT_EQ(Mx(), kAgain);
}

// Around the buffer in the object, and around the largest answer that is taken.
TEST_F(MxLookup, FetchesALargeAnswerTwiceAndATooLargeOneNotAgain) {
    struct Case {
        std::size_t size;
        int code;
        unsigned queries;
    };
    for (Case const& each : {Case{1023, 0, 1}, Case{1024, 0, 1}, Case{1025, 0, 2}, Case{4000, 0, 2}, Case{8191, 0, 2},
                             Case{8192, 0, 2}, Case{8193, ERANGE, 1}, Case{20000, ERANGE, 1}}) {
        AnswersSize(each.size);
        EXPECT_EQ(Mx(), each.code) << each.size;
        EXPECT_EQ(addresses.size(), each.code == 0 ? 1u : 0u) << each.size;
        EXPECT_EQ(server->answered(), each.queries) << each.size;
    }
}

TEST_F(MxLookup, GivesUpOnAnAnswerThatGrowsBetweenTheTwoQueries) {
    Answers([](auto const& query, DnsBytes& answer) {
        answer.Mx(10, DnsName("mx.test")).PadTo(query.number == 1 ? 2000 : 3000);
        return true;
    });
    EXPECT_EQ(Mx(), ERANGE);
}

TEST_F(MxLookup, TakesAnAnswerThatShrinksBetweenTheTwoQueries) {
    Answers([](auto const& query, DnsBytes& answer) {
        answer.Mx(10, DnsName("mx.test")).Address(DnsName("mx.test"), kAddressOf).PadTo(query.number == 1 ? 3000 : 100);
        return true;
    });
    EXPECT_EQ(Mx(), 0);
    EXPECT_EQ(addresses.size(), 1u);
}

TEST_F(MxLookup, ForgetsALargeAnswerWithTheNextQuery) {
    Answers([](auto const& query, DnsBytes& answer) {
        bool const large = query.number <= 2;
        answer.Mx(10, DnsName("mx.test")).Address(DnsName("mx.test"), kAddressOf + (large ? 1 : 2));
        answer.PadTo(large ? 3000 : 100);
        return true;
    });
    Resolver resolver;
    EXPECT_EQ(resolver.mx_resolve("example.test", addresses, 5, 5), 0);
    EXPECT_EQ(resolver.mx_resolve("example.test", addresses, 5, 5), 0);
    EXPECT_EQ(Texts(addresses), (Names{"192.0.2.1", "192.0.2.2"}));
}

TEST_F(MxLookup, IsTooLongWithoutMemoryForALargeAnswer) {
    if (!MemoryCanFail()) GTEST_SKIP() << "a sanitizer allocates by itself";
    AnswersSize(3000);
    g_noMemory = true;
    EXPECT_EQ(Mx(), ERANGE);
    g_noMemory = false;
    EXPECT_TRUE(addresses.empty());
    EXPECT_EQ(Mx(), 0);
}

TEST_F(MxLookup, FailsWithAMessageThatIsWrong) {
    Answers([](auto const&, DnsBytes& answer) {
        answer.Mx(10, DnsName("mx.test")).Append("junk");
        return true;
    });
    EXPECT_EQ(Mx(), EMSGSIZE);
    Answers([](auto const&, DnsBytes& answer) {
        unsigned const target = static_cast<unsigned>(answer.next_offset()) + 14;
        answer.Mx(10, DnsPointer(target));
        return true;
    });
    EXPECT_EQ(Mx(), EMSGSIZE);
}

TEST_F(MxLookup, WorksInEachThreadOfItsOwn) {
    AnswersSize(0);
    std::thread other([this] {
        Resolver::start();
        server->Use();
        std::vector<KORnet::IPAddr> found;
        EXPECT_EQ(Resolver().mx_resolve("example.test", found, 5, 5), 0);
        EXPECT_EQ(found.size(), 1u);
    });
    other.join();
}

TEST_F(HostLookup, TakesADottedAddressAsItIs) {
    EXPECT_EQ(Resolver().a_resolve("192.0.2.77", addresses, 1), 0);
    EXPECT_EQ(Texts(addresses), Names{"192.0.2.77"});
    EXPECT_EQ(addresses[0].ipv4(), 0xC000024Du) << "host order";
    EXPECT_EQ(Resolver().a_resolve("192.0.2.78", addresses, 1), 0);
    EXPECT_EQ(Resolver().a_resolve("192.0.2.79", addresses, 0), 0);
    EXPECT_EQ(addresses.size(), 3u) << "the limit is not looked at";
}

// What is in the buffers of 2, 4 and 8 KiB fits; every address is given, whatever the limit.
TEST_F(HostLookup, GivesAllAddressesAndRefusesMoreThanTheLargestBuffer) {
    std::atomic<unsigned> count{0};
    Answers([&](auto const&, DnsBytes& answer) {
        for (unsigned i = 0; i < count; ++i)
            answer.Address(DnsPointer(DnsBytes::header_size), kAddressOf + i, DnsBytes::answer);
        return true;
    });
    for (unsigned each : {1u, 2u, 30u, 200u, 400u, 2000u}) {
        count = each;
        addresses.clear();
        int const code = Resolver().a_resolve("many.example.test", addresses, 1);
        if (!SystemAsksServers()) GTEST_SKIP() << "this system asks no name servers for hosts";
        if (each < 2000) {
            EXPECT_EQ(code, 0);
            EXPECT_EQ(addresses.size(), each);
        } else {
            EXPECT_EQ(code, ERANGE);
            EXPECT_TRUE(addresses.empty());
        }
    }
}

TEST_F(HostLookup, IsTooLongWithoutMemoryForALargerBuffer) {
    if (!MemoryCanFail()) GTEST_SKIP() << "a sanitizer allocates by itself";
    Answers([](auto const&, DnsBytes& answer) {
        for (unsigned i = 0; i < 400; ++i)
            answer.Address(DnsPointer(DnsBytes::header_size), kAddressOf + i, DnsBytes::answer);
        return true;
    });
    g_noMemory = true;
    int const code = Resolver().a_resolve("many.example.test", addresses, 1);
    g_noMemory = false;
    if (!SystemAsksServers()) GTEST_SKIP() << "this system asks no name servers for hosts";
    EXPECT_EQ(code, ERANGE);
    EXPECT_TRUE(addresses.empty());
}

TEST_F(HostLookup, GivesNothingForAHostThatIsNotKnown) {
    Answers([](auto const&, DnsBytes& answer) {
        answer.Code(3);
        return true;
    });
    addresses.assign(1, KORnet::IPAddr(1));
    Resolver().a_resolve("unknown.example.test", addresses, 1);
    EXPECT_EQ(addresses.size(), 1u);
}

sockaddr_in Address(char const* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_aton(text, &address.sin_addr);
    return address;
}

TEST_F(ReverseLookup, FindsTheName) {
    Answers([](auto const& query, DnsBytes& answer) {
        if (query.type == DnsBytes::type_ptr) {
            EXPECT_EQ(query.name, "9.2.0.192.in-addr.arpa");
        }
        answer.Record(DnsBytes::answer, DnsPointer(DnsBytes::header_size), DnsBytes::type_ptr, DnsName("host.test"));
        return true;
    });
    sockaddr_in address = Address("192.0.2.9");
    std::string name = "before";
    bool const found = Resolver::reverse_lookup(name, &address);
    if (!SystemAsksServers()) GTEST_SKIP() << "this system asks no name servers for hosts";
    EXPECT_TRUE(found);
    EXPECT_EQ(name, "host.test");
}

TEST_F(ReverseLookup, LeavesTheNameAloneWhenThereIsNone) {
    Answers([](auto const&, DnsBytes& answer) {
        answer.Code(3);
        return true;
    });
    sockaddr_in address = Address("192.0.2.9");
    std::string name = "before";
    EXPECT_FALSE(Resolver::reverse_lookup(name, &address));
    EXPECT_EQ(name, "before");
}

TEST_F(ReverseLookup, AsksNobodyWhileItIsForbidden) {
    Answers([](auto const&, DnsBytes& answer) {
        answer.Record(DnsBytes::answer, DnsPointer(DnsBytes::header_size), DnsBytes::type_ptr, DnsName("host.test"));
        return true;
    });
    Resolver::s_reverse_lookups_banned = true;
    TCPConnection end;
    end.m_address = Address("192.0.2.9");
    std::string name = "before";
    EXPECT_FALSE(Resolver::reverse_lookup(name, &end.m_address));
    EXPECT_EQ(name, "before");
    EXPECT_EQ(HostCheck("*.test").score(nullptr, end), -1);
    EXPECT_EQ(HostCheck("*").score(nullptr, end), 0);
    EXPECT_EQ(server->answered(), 0u);
}

// A proxy with local addresses of a test's choice.
class StartUp : public NameServerTest {
protected:
    StartUp() {
        Proxy::s_pProxyInstance = proxy.get();
        local.resize(2);
        for (std::size_t i = 0; i < local.size(); ++i) local[i] = Address(i == 0 ? "192.0.2.1" : "192.0.2.2");
        std::swap(proxy->m_interfaceAddresses, before);
        for (sockaddr_in& address : local) proxy->m_interfaceAddresses.push_back(&address);
    }
    ~StartUp() override {
        std::swap(proxy->m_interfaceAddresses, before);
        Proxy::s_pProxyInstance = nullptr;
    }

    std::unique_ptr<Proxy> proxy = std::make_unique<Proxy>();
    std::vector<sockaddr_in> local;
    std::vector<sockaddr_in*> before;
    Config config;
};

TEST_F(StartUp, LearnsTheNamesOfThisMachine) {
    Answers([](auto const& query, DnsBytes& answer) {
        if (query.name == "1.2.0.192.in-addr.arpa")
            answer.Record(DnsBytes::answer, DnsPointer(DnsBytes::header_size), DnsBytes::type_ptr,
                          DnsName("first.test"));
        else
            answer.Code(3);
        return true;
    });
    Resolver::initialise(&config);
    char name[256] = "";
    ::gethostname(name, sizeof name - 1);
    EXPECT_EQ(Proxy::GetProxyHostName(false), name);
    Names const& excluded = Resolver::s_excludedhosts;
    ASSERT_EQ(excluded.size(), 5u);
    EXPECT_EQ(Names(excluded.begin(), excluded.begin() + 3), (Names{"127.0.0.1", "localhost", "0.0.0.0"}));
    EXPECT_EQ(excluded[4], excluded[3]) << "an address without a name gives the one before again";
    if (server->answered() > 0) {
        EXPECT_EQ(excluded[3], "first.test");
    }
    EXPECT_FALSE(Resolver::s_reverse_lookups_banned);
}

// The setting comes after the look-ups of the start.
TEST_F(StartUp, LearnsLastThatLookupsAreForbidden) {
    FakePolicyStore store;
    for (char const* policy : {"base", "connection", "network", "machine"})
        store.Put(policy, "network", "ForbidReverseLookups", FakeValue::Flag(1));
    Config::initialise(&store);
    Answers([](auto const&, DnsBytes& answer) {
        answer.Record(DnsBytes::answer, DnsPointer(DnsBytes::header_size), DnsBytes::type_ptr, DnsName("own.test"));
        return true;
    });
    std::string name;
    bool const asksServers = SystemAsksServers();
    Resolver::initialise(&config);
    Config::initialise(nullptr);
    EXPECT_TRUE(Resolver::s_reverse_lookups_banned);
    if (!asksServers) GTEST_SKIP() << "this system asks no name servers for hosts";
    EXPECT_EQ(Resolver::s_excludedhosts.back(), "own.test");
}

}  // namespace
