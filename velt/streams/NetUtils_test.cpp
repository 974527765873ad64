#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <velt/streams/NameMatch.h>
#include <velt/streams/NetUtils.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

using namespace VELT;
using Words = std::vector<std::string>;

namespace {

Words Split(char const* text) {
    Words words;
    EXPECT_EQ(Tokenize(text, words), 0);
    return words;
}

std::string Lowered(std::string text) {
    StrToLowerCase(text.data());
    return text;
}

}  // namespace

TEST(Tokenize, SkipsBlanksAndCommasInFront) {
    EXPECT_EQ(Split("  ,,  a  b"), (Words{"a", "b"}));
    EXPECT_EQ(Split(",a"), Words{"a"});
}

TEST(Tokenize, KeepsACommaBehindTheFront) {
    EXPECT_EQ(Split("a,b c"), (Words{"a,b", "c"}));
    EXPECT_EQ(Split("a ,b"), (Words{"a", ",b"}));
}

TEST(Tokenize, GivesNothingForNothing) {
    EXPECT_EQ(Split(nullptr), Words{});
    EXPECT_EQ(Split(""), Words{});
    EXPECT_EQ(Split(" \t\r\n\v\f "), Words{});
    EXPECT_EQ(Split(" ,, "), Words{});
}

TEST(Tokenize, Appends) {
    Words words{"before"};
    Tokenize("a b", words);
    EXPECT_EQ(words, (Words{"before", "a", "b"}));
}

TEST(Tokenize, SplitsAtEveryBlank) {
    for (char const blank : {' ', '\t', '\n', '\v', '\f', '\r'})
        EXPECT_EQ(Split((std::string("a") + blank + blank + "b" + blank).c_str()), (Words{"a", "b"}));
    EXPECT_EQ(Split("a\xa0"
                    "b"),
              Words{"a\xa0"
                    "b"})
        << "a byte above 127 is no blank";
}

TEST(Tokenize, MakesOneWordOfAllBehindTheFirstQuote) {
    EXPECT_EQ(Split("a \"b c\" d"), (Words{"a", "b c d"}));
    EXPECT_EQ(Split("'b c' \"d e\""), Words{"b c \"d e\""});
    EXPECT_EQ(Split("\"it's  one\" word"), Words{"it's  one word"});
    EXPECT_EQ(Split("x\"y z"), Words{"xy z"});
}

TEST(Tokenize, MakesTheRestOneWordBehindALoneQuote) {
    EXPECT_EQ(Split("\"all of it "), Words{"all of it "});
    EXPECT_EQ(Split("'"), Words{});
    EXPECT_EQ(Split("a '"), Words{"a"});
}

TEST(Tokenize, TakesTheByteBehindABackslashAsItIs) {
    EXPECT_EQ(Split("a\\ b"), Words{"a b"});
    EXPECT_EQ(Split("\\\"a b"), (Words{"\"a", "b"}));
    EXPECT_EQ(Split("a\\nb\\tc\\\\"), Words{"a\nb\tc\\"});
    EXPECT_EQ(Split("\"a\\\"b c"), Words{"a\"b c"});
    EXPECT_EQ(Split("\\, x"), (Words{",", "x"}));
}

TEST(Tokenize, EndsAtABackslashThatEndsTheText) {
    EXPECT_EQ(Split("a\\"), Words{"a"});
    EXPECT_EQ(Split("\\"), Words{});
    EXPECT_EQ(Split("a b\\"), (Words{"a", "b"}));
}

TEST(StrToLowerCase, ChangesLettersAlone) {
    EXPECT_EQ(Lowered("MAIL.Example-1 [Z]"), "mail.example-1 [z]");
    EXPECT_EQ(Lowered("\xc4"), "\xc4");
    StrToLowerCase(nullptr);
}

TEST(IsAllDigits, HoldsForAnEmptyText) { EXPECT_TRUE(IsAllDigits("")); }

TEST(IsAllDigits, LooksAtEveryByte) {
    EXPECT_TRUE(IsAllDigits("0123456789"));
    for (char const* text : {"-1", "1 ", "1a", "\xb2"}) EXPECT_FALSE(IsAllDigits(text)) << text;
    EXPECT_FALSE(IsAllDigits(std::string("1\0", 2)));
}

TEST(StrToPort, ReadsNumbers) {
    EXPECT_EQ(StrToPort("25", "tcp"), 25);
    EXPECT_EQ(StrToTCPPort("0"), 0);
    EXPECT_EQ(StrToUDPPort("00053"), 53);
}

TEST(StrToPort, OfAnEmptyTextIsZero) { EXPECT_EQ(StrToTCPPort(""), 0); }

TEST(StrToPort, WrapsAtSixteenBitsAndIsSigned) {
    EXPECT_EQ(StrToTCPPort("70000"), 4464);
    EXPECT_EQ(StrToTCPPort("65535"), -1);
    EXPECT_EQ(StrToTCPPort("40000"), 40000 - 65536);
}

TEST(StrToPort, OfAnUnknownNameIsMinusOne) {
    EXPECT_EQ(StrToTCPPort("no-such-service-at-all"), -1);
    EXPECT_EQ(StrToUDPPort("25x"), -1);
    EXPECT_EQ(StrToPort("smtp", "no-such-protocol"), -1);
}

TEST(StrToPort, KnowsTheServicesOfThisMachine) {
    servent const* const smtp = ::getservbyname("smtp", "tcp");
    EXPECT_EQ(StrToTCPPort("smtp"), smtp ? ntohs(static_cast<std::uint16_t>(smtp->s_port)) : -1);
}

TEST(StrCompare, IsTheMatchOfNamesUnderItsPublicName) {
    EXPECT_EQ(StrCompare("*.alpha.test", "a.b.alpha.test", false), 3);
    EXPECT_EQ(StrCompare("ALPHA", "alpha", false), 0);
    EXPECT_EQ(StrCompare("ALPHA", "alpha", true), 1);
    EXPECT_EQ(NameCaseMatch("*.ALPHA.test", "mail.alpha.TEST"), 2);
    char const* const set = "a-c]";
    EXPECT_EQ(SetMatch(set, 'b', false), set + 3);
    EXPECT_EQ(SetMatch(set, 'c', false), nullptr);
}

TEST(GetHostByAddr, GivesTheHostAndItsBufferOrNeither) {
    in_addr address{htonl(INADDR_LOOPBACK)};
    void* buffer = &address;
    hostent* const host = GetHostByAddr(reinterpret_cast<char*>(&address), &buffer);
    EXPECT_EQ(host != nullptr, buffer != nullptr);
    EXPECT_TRUE(!host || *host->h_name);
    std::free(host);
    std::free(buffer);
}

TEST(GetInterfaceName, IsTheNameOfTheSocket) {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    bound.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&bound), sizeof bound), 0);
    sockaddr_in name{};
    unsigned length = sizeof name;
    EXPECT_EQ(getinterfacename(fd, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(name.sin_addr.s_addr, bound.sin_addr.s_addr);
    EXPECT_NE(name.sin_port, 0);
    ::close(fd);
    EXPECT_EQ(getinterfacename(-1, reinterpret_cast<sockaddr*>(&name), &length), -1);
}

TEST(Interfaces, HaveTheLoopbackAddressAmongThem) {
    std::vector<sockaddr_in*> const addresses = getinterface_addresses();
    EXPECT_TRUE(std::any_of(addresses.begin(), addresses.end(), [](sockaddr_in const* address) {
        return address->sin_family == AF_INET && address->sin_addr.s_addr == htonl(INADDR_LOOPBACK);
    }));
    for (sockaddr_in* address : addresses) std::free(address);
}

TEST(Interfaces, HaveHardwareAddressesOfTwelveDigitsButNotTheLoopback) {
    std::vector<std::string> expected;
    std::ifstream list("/proc/net/dev");
    std::string line;
    for (int number = 0; std::getline(list, line); ++number) {
        if (number < 2) continue;
        std::string const name = line.substr(line.find_first_not_of(' '), line.find(':') - line.find_first_not_of(' '));
        std::string address;
        std::ifstream("/sys/class/net/" + name + "/address") >> address;
        address.erase(std::remove(address.begin(), address.end(), ':'), address.end());
        if (address.size() == 12 && address != "000000000000") expected.push_back(address);
    }
    EXPECT_EQ(getinterface_mac_addresses(), expected);
}

TEST(Interfaces, LeaveNoDescriptorOpen) {
    int const before = ::dup(0);
    ::close(before);
    for (sockaddr_in* address : getinterface_addresses()) std::free(address);
    getinterface_mac_addresses();
    int const after = ::dup(0);
    ::close(after);
    EXPECT_EQ(before, after);
}
