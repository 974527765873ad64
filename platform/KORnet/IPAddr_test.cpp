#include <KORnet/IPAddr.h>
#include <KORnet/IPv4Mask.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using KORnet::IPAddr;
using KORnet::IPv4Mask;

TEST(IPAddrs, AreNumbersInHostOrder) {
    IPAddr const address(0xC0000201);
    EXPECT_TRUE(address.isIPv4());
    EXPECT_EQ(address.str(), "192.0.2.1");
    EXPECT_EQ(IPAddr("192.0.2.1"), address);
    EXPECT_EQ(IPAddr("192.0.2.1").ipv4(), 0xC0000201u);
}

TEST(IPAddrs, MayBeIPv6) {
    IPAddr const address("2001:DB8:0::1");
    EXPECT_FALSE(address.isIPv4());
    EXPECT_TRUE(address.isIPv6());
    EXPECT_EQ(address.str(), "2001:db8::1");
    EXPECT_EQ(address.ipv4(), 0u);
    EXPECT_FALSE(IPAddr("::") == IPAddr(0u));
}

TEST(IPAddrs, AreUnsetFromTextThatIsNone) {
    for (std::string const& text : {std::string(), std::string("1.2.3"), std::string("1.2.3.256"), std::string("host"),
                                    std::string("1.2.3.4 "), std::string("1.2.3.4\0x", 9), std::string("[::1]")}) {
        IPAddr const address(text);
        EXPECT_FALSE(address.isIPv4() || address.isIPv6()) << text;
        EXPECT_EQ(address.str(), "");
        EXPECT_EQ(address, IPAddr());
    }
}

TEST(TCPAddrs, HaveAPort) {
    KORnet::TCPAddr const address(IPAddr("192.0.2.1"), 25);
    EXPECT_EQ(address.port(), 25);
    EXPECT_EQ(address.str(), "192.0.2.1");
    EXPECT_FALSE(address == KORnet::TCPAddr(IPAddr("192.0.2.1"), 26));
}

TEST(IPv4Masks, CompareUnderTheMask) {
    IPv4Mask const net(0x0A010203, 0xFF000000);  // the address is masked too
    EXPECT_TRUE(net.in_net(IPAddr("10.9.9.9")));
    EXPECT_FALSE(net.in_net(IPAddr("11.1.2.3")));
    EXPECT_FALSE(net.in_net(IPAddr("::1")));
    EXPECT_FALSE(net.in_net(IPAddr()));
    EXPECT_TRUE(IPv4Mask(0, 0).in_net(IPAddr("255.255.255.255")));
    EXPECT_FALSE(IPv4Mask(0, 0).in_net(IPAddr()));
}

TEST(IPv4Masks, ReadTheTextTheyAreAskedAbout) {
    IPv4Mask const net(0x0A000000, 0xFF000000);
    std::string const text = "10.1.2.3x";
    EXPECT_TRUE(net.in_net(text.data(), text.data() + 8));
    EXPECT_FALSE(net.in_net(text.data(), text.data() + 9));
    EXPECT_FALSE(net.in_net(text.data(), text.data()));
}

TEST(IPNodes, GiveEachAddressOfAHostOnce) {
    EXPECT_EQ(KORnet::IPNode::byname("127.0.0.1"), std::vector{IPAddr("127.0.0.1")});
    EXPECT_EQ(KORnet::IPNode::byname("::1"), std::vector{IPAddr("::1")});
    EXPECT_TRUE(KORnet::IPNode::byname(std::string("127.0.0.1\0x", 11)).empty());
}

}  // namespace
