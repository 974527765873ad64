// Where scan servers listen, as a policy writes it.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ServerAddress.h>

namespace policyloader {
namespace {

TEST(ServerAddresses, AreAPathOrANumericHostWithAPort) {
    auto const local = ServerAddress::parse("/run/scan.sock");
    ASSERT_TRUE(local);
    EXPECT_TRUE(local->isLocal());
    EXPECT_STREQ(reinterpret_cast<sockaddr_un const&>(local->address).sun_path, "/run/scan.sock");
    auto const four = ServerAddress::parse("127.0.0.1:783");
    ASSERT_TRUE(four);
    EXPECT_FALSE(four->isLocal());
    auto const& address = reinterpret_cast<sockaddr_in const&>(four->address);
    EXPECT_EQ(ntohs(address.sin_port), 783);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
    auto const six = ServerAddress::parse("[::1]:11333");
    ASSERT_TRUE(six);
    EXPECT_EQ(six->address.ss_family, AF_INET6);
    EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in6 const&>(six->address).sin6_port), 11333);
}

TEST(ServerAddresses, OfAnotherFormAreNone) {
    for (std::string const text : {"", "run/scan.sock", "localhost:783", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0",
                                   "127.0.0.1:65536", "127.0.0.1:7x", "::1:783", "[::1]", "[]:783", "[127.0.0.1]:1"})
        EXPECT_FALSE(ServerAddress::parse(text)) << text;
    EXPECT_TRUE(ServerAddress::parse("/" + std::string(sizeof(sockaddr_un::sun_path) - 2, 'a')));
    EXPECT_FALSE(ServerAddress::parse("/" + std::string(sizeof(sockaddr_un::sun_path) - 1, 'a')));
}

TEST(ServerAddresses, StandInAListOrInOneText) {
    auto const servers = ReadServers({" /one,/two\n/three ", "", "127.0.0.1:4"});
    ASSERT_EQ(servers.size(), 4u);
    EXPECT_EQ(servers[1].text, "/two");
    EXPECT_EQ(servers[3].text, "127.0.0.1:4");
    EXPECT_THROW(ReadServers({"/one, two"}), EngineFailure);
}

}  // namespace
}  // namespace policyloader
