#include <velt/lookup/HostCheck.h>
#include <velt/lookup/NetCheckIPV4.h>
#include <velt/lookup/NetPolicy.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include <testing/DocExample.h>
#include <testing/SpoolRoom.h>
#include <testing/TempRoot.h>
#include <velt/connection/Connection.h>
#include <velt/errors/Failures.h>
#include <velt/lookup/Resolver.h>
#include <velt/runtime/Proxy.h>

using namespace VELT;
using namespace velt_testing;

namespace {

constexpr int kNoCheck = -100;

class NetPolicyScore : public testing::Test {
protected:
    NetPolicyScore() { Resolver::s_reverse_lookups_banned = true; }  // nobody to ask
    ~NetPolicyScore() override { Resolver::s_reverse_lookups_banned = false; }

    void From(char const* address, char const* host = "") {
        ::inet_aton(address, &end.m_address.sin_addr);
        end.m_host = host;
    }
    int Line(std::string const& line) {
        auto const check = NetPolicyCheck::create_policy(line.c_str());
        return check ? check->score(nullptr, end) : kNoCheck;
    }
    int File(std::string const& content) {
        root.Write("inside.txt", content);
        NetPolicy policy;
        policy.load(root / "inside.txt");
        return policy.score(nullptr, end);
    }

    TempRoot root;
    TCPConnection end;
};

TEST_F(NetPolicyScore, CountsTheBitsOfEveryNetmask) {
    From("10.11.12.13");
    for (int count = 1; count <= 32; ++count) EXPECT_EQ(Line("NETWORK 10.11.12.13/" + std::to_string(count)), count);
    EXPECT_EQ(Line("NETWORK 10.11.12.13"), 32);
    EXPECT_EQ(Line("NETWORK 10.11.12.12"), -1);
    EXPECT_EQ(Line("NETWORK 10.11.12.12/31"), 31);
    EXPECT_EQ(Line("NETWORK 10.11.12.14/31"), -1);
}

TEST_F(NetPolicyScore, IsZeroForEveryAddress) {
    for (char const* address : {"10.0.0.1", "127.0.0.1", "0.0.0.0", "255.255.255.255"}) {
        From(address);
        EXPECT_EQ(Line("NETWORK 0.0.0.0/0"), 0);
        EXPECT_EQ(Line("NETWORK *"), 0);
        EXPECT_EQ(Line("NETWORK *and so on"), 0);
        EXPECT_EQ(Line("NETWORK 1.2.3.4/none"), 0);
    }
}

TEST_F(NetPolicyScore, TakesCountsRoundAfterThirtyTwo) {
    From("200.0.0.1");
    EXPECT_EQ(Line("NETWORK 200.0.0.0/33"), 1);
    EXPECT_EQ(Line("NETWORK 128.0.0.0/33"), 1);
    EXPECT_EQ(Line("NETWORK 10.0.0.0/33"), -1);
    From("10.0.0.1");
    EXPECT_EQ(Line("NETWORK 10.0.0.0/33"), 1);
    EXPECT_EQ(Line("NETWORK 10.0.0.1/64"), 32);
    EXPECT_EQ(Line("NETWORK 10.0.0.1/-1"), 31);
}

TEST_F(NetPolicyScore, CountsTheOnesOfAMaskWithHoles) {
    From("10.99.0.77");
    EXPECT_EQ(Line("NETWORK 10.0.0.0:255.0.255.0"), 16);
    From("10.99.1.77");
    EXPECT_EQ(Line("NETWORK 10.0.0.0:255.0.255.0"), -1);
}

TEST_F(NetPolicyScore, MasksTheAddressOfALine) {
    From("10.200.0.1");
    EXPECT_EQ(Line("NETWORK 10.1.2.3/8"), 8);
    EXPECT_EQ(Line("NETWORK 10.1.2.3:255.0.0.0"), 8);
}

TEST_F(NetPolicyScore, LooksForTheColonFirst) {
    From("10.200.0.1");
    EXPECT_EQ(Line("NETWORK 10.0.0.0/16:255.0.0.0"), kNoCheck) << "10.0.0.0/16 is no address";
    EXPECT_EQ(Line("NETWORK 10.0.0.0:255.0.0.0/16"), kNoCheck);
}

TEST_F(NetPolicyScore, AcceptsShortAddressesAndBlanksBeforeThem) {
    From("10.0.0.1");
    EXPECT_EQ(Line("NETWORK 10.1"), 32);
    EXPECT_EQ(Line("NETWORK  \t 10.0.0.0/8"), 8);
    EXPECT_EQ(Line("network 10.1"), 32);
}

TEST_F(NetPolicyScore, SkipsLinesThatAreNoCheck) {
    for (char const* line : {"", "#NETWORK *", "# DOMAIN *", "NETWORK", "NETWORK ", "NETWORK   ", "NETWORK\t*",
                             " NETWORK *", "NETWORKS *", "NETWORK host", "NETWORK 256.1.1.1", "NETWORK 10.0.0.0:mask",
                             "NETWORK :255.0.0.0", "NETWORK /8", "DOMAIN", "HOST *"})
        EXPECT_EQ(Line(line), kNoCheck) << line;
}

TEST_F(NetPolicyScore, OfANameIsThatOfTheMatch) {
    From("10.0.0.1", "mail.alpha.test");
    EXPECT_EQ(Line("DOMAIN mail.alpha.test"), 1);
    EXPECT_EQ(Line("DOMAIN *.alpha.test"), 2);
    EXPECT_EQ(Line("DOMAIN *.test"), 3);
    EXPECT_EQ(Line("domain *"), 0);
    EXPECT_EQ(Line("DOMAIN other.test"), 0) << "no match scores more than no line";
}

TEST_F(NetPolicyScore, IsMinusOneForAHostWithoutAName) {
    From("10.0.0.1");
    EXPECT_EQ(Line("DOMAIN alpha.test"), -1);
    EXPECT_EQ(Line("DOMAIN *.test"), -1);
    EXPECT_EQ(Line("DOMAIN *"), 0) << "which needs no name";
}

TEST_F(NetPolicyScore, LowersThePatternAndNotTheName) {
    From("10.0.0.1", "alpha.test");
    EXPECT_EQ(Line("DOMAIN ALPHA.TEST"), 1);
    From("10.0.0.1", "Alpha.TEST");
    EXPECT_EQ(Line("DOMAIN ALPHA.TEST"), 0);
    EXPECT_EQ(Line("DOMAIN Alpha.TEST"), 0);
    EXPECT_EQ(HostCheck::calc_score("Alpha.TEST", nullptr, end), 1) << "a caller's pattern stays as it is";
    EXPECT_EQ(HostCheck::host_match("aLPHA.test", "Alpha.TEST"), 1);
    EXPECT_EQ(HostCheck::host_match("beta.test", "Alpha.TEST"), 0);
}

TEST_F(NetPolicyScore, FoldsSetsAlways) {
    From("10.0.0.1", "b");
    EXPECT_EQ(Line("DOMAIN [A-C]"), 2);
    EXPECT_EQ(HostCheck::calc_score("[A-C]", nullptr, end), 2);
    From("10.0.0.1", "z");
    EXPECT_EQ(Line("DOMAIN [a-z]"), 0);
    From("10.0.0.1", "y");
    EXPECT_EQ(Line("DOMAIN [a-z]"), 2);
}

TEST_F(NetPolicyScore, KeepsTheBlanksOfAPattern) {
    From("10.0.0.1", "alpha.test");
    EXPECT_EQ(Line("DOMAIN  alpha.test"), 0);
    EXPECT_EQ(Line("DOMAIN alpha.test "), 0);
    EXPECT_EQ(Line("DOMAIN  *"), 0);
    EXPECT_EQ(Line("DOMAIN "), 0);
}

TEST_F(NetPolicyScore, OfAFileIsItsBestLine) {
    From("10.1.2.3", "host.test");
    EXPECT_EQ(File("NETWORK 10.0.0.0/8\nNETWORK 10.1.2.0/24\nNETWORK 10.1.0.0/16\nDOMAIN host.test\n"), 24);
    EXPECT_EQ(File("NETWORK 11.0.0.0/8\n"), -1);
    EXPECT_EQ(File("NETWORK 10.0.0.0/8\r\nDOMAIN host.test\r\n"), 8) << "as other systems end their lines";
}

TEST_F(NetPolicyScore, OfAnEmptyFileIsMinusOne) {
    From("10.1.2.3", "host.test");
    EXPECT_EQ(File(""), -1);
    EXPECT_EQ(File("# nothing\n"), -1);
    EXPECT_EQ(File("\n"), -1);
}

TEST_F(NetPolicyScore, IgnoresWhatStandsBehindAnEmptyLine) {
    From("10.1.2.3");
    EXPECT_EQ(File("NETWORK 10.0.0.0/8\n\nNETWORK 10.1.2.3\n"), 8);
    EXPECT_EQ(File("NETWORK 10.0.0.0/8\n\r\nNETWORK 10.1.2.3\n"), 8);
    EXPECT_EQ(File("NETWORK 10.0.0.0/8\n \nNETWORK 10.1.2.3\n"), 32) << "a blank is not nothing";
}

TEST_F(NetPolicyScore, IgnoresALastLineWithoutEnd) {
    From("10.1.2.3");
    EXPECT_EQ(File("NETWORK 10.0.0.0/8\nNETWORK 10.1.2.3"), 8);
}

// Sizes around the memory that the file is read with, and lines around the buffer's size.
TEST_F(NetPolicyScore, ReadsFilesLargerThanItsMemory) {
    From("10.1.2.3");
    ScannerStream::set_buffer_pool(0, 1024);
    for (std::size_t size : {16000u, 16383u, 16384u, 16385u, 50000u}) {
        std::string content;
        while (content.size() + 140 < size) content += '#' + std::string(99, 'x') + '\n';
        std::string const last = "NETWORK 10.1.2.3\n";
        content += '#' + std::string(size - content.size() - last.size() - 2, 'y') + '\n' + last;
        ASSERT_EQ(content.size(), size);
        EXPECT_EQ(File(content), 32) << size;
    }
}

TEST_F(NetPolicyScore, StopsAtALineThatFillsTheBuffer) {
    From("10.1.2.3");
    ScannerStream::set_buffer_pool(0, 1024);
    std::string const large(20000, '\n');
    for (std::size_t length = 1018; length <= 1028; ++length) {
        std::string const line = '#' + std::string(length - 1, 'x') + '\n';
        EXPECT_EQ(File("NETWORK 10.0.0.0/8\n" + line + "NETWORK 10.1.2.3\n" + large), length <= 1022 ? 32 : 8)
            << length;
    }
}

// The pool's buffers may be larger than the memory that the file is read with.
TEST_F(NetPolicyScore, StopsAtALineThatFillsTheMemory) {
    From("10.1.2.3");
    ScannerStream::set_buffer_pool(0, 64 * 1024);
    for (std::size_t length = 16378; length <= 16388; ++length) {
        std::string const line = '#' + std::string(length - 1, 'x') + '\n';
        EXPECT_EQ(File("NETWORK 10.0.0.0/8\n" + line + "NETWORK 10.1.2.3\n"), length <= 16382 ? 32 : 8) << length;
    }
}

TEST_F(NetPolicyScore, NeedsNoPoolAndNoSpoolDirectory) {
    ScannerStream::s_bufferpool = nullptr;
    From("10.1.2.3");
    EXPECT_EQ(File("NETWORK 10.0.0.0/8\n"), 8);
}

TEST_F(NetPolicyScore, ThrowsForAFileThatCannotBeReadAndKeepsWhatItHas) {
    From("10.1.2.3");
    root.Write("inside.txt", "NETWORK *\n");
    NetPolicy policy;
    policy.load(root / "inside.txt");
    try {
        policy.load(root / "missing.txt");
        FAIL();
    } catch (FWException<fw_exception_tag::resource> const& failure) {
        EXPECT_EQ(failure.error, ENOENT);
        EXPECT_EQ(failure.text(), "Opening File: No such file or directory (2)");
    }
    EXPECT_EQ(policy.score(nullptr, end), 0);
    ASSERT_EQ(::mkdir((root / "folder").c_str(), 0700), 0);
    try {
        policy.load(root / "folder");
        FAIL();
    } catch (FWException<fw_exception_tag::resource> const& failure) {
        EXPECT_EQ(failure.error, EISDIR);
    }
}

// What became of each line: its number, whether it is a check, and what there is to say of it.
class NetPolicyLines : public NetPolicyScore {
protected:
    std::string Told(std::string const& content) {
        root.Write("inside.txt", content);
        std::string told;
        NetPolicy policy;
        auto const stop = policy.load(root / "inside.txt", [&](NetPolicyLine const& line) {
            told += std::to_string(line.number) + (line.check ? "+" : "-");
            if (line.remark.reason)
                told += std::to_string(line.remark.at - line.text) + " " + std::string(line.remark.reason) + "; ";
        });
        constexpr char const* kStops[] = {"end", "empty", "long"};
        return told + kStops[static_cast<int>(stop)];
    }
    static std::string Remark(std::string const& line) {
        LineRemark remark;
        NetPolicyCheck::create_policy(line.c_str(), remark);
        return remark.reason ? remark.reason : "";
    }
};

TEST_F(NetPolicyLines, AreToldWithNumberAndPlace) {
    EXPECT_EQ(Told("# inside\nNETWORK 10.0.0.0/8\n NETWORK *\nNETWORK 10.x\nDOMAIN a.test \r\n"),
              "1-2+3-0 is no comment and begins with neither \"NETWORK \" nor \"DOMAIN \"; 4-8 is no address; "
              "5+13 the blank at the end belongs to the pattern: it matches no name; end");
}

TEST_F(NetPolicyLines, EndWhereTheReadingStops) {
    ScannerStream::set_buffer_pool(0, 1024);
    EXPECT_EQ(Told(""), "end");
    EXPECT_EQ(Told("NETWORK *\n\nNETWORK *\n"), "1+empty");
    EXPECT_EQ(Told("NETWORK *\n\r\nNETWORK *\n"), "1+empty");
    EXPECT_EQ(Told("NETWORK *\nNETWORK *"), "1+end");
    EXPECT_EQ(Told("NETWORK *\n#" + std::string(2000, 'x') + "\nNETWORK *\n" + std::string(20000, '\n')), "1+long");
}

TEST_F(NetPolicyLines, AreOddWhereTheyMeanOtherThanTheySay) {
    EXPECT_EQ(Remark("NETWORK 10.0.0.0/8"), "");
    EXPECT_EQ(Remark("NETWORK 10.0.0.0/8 "), "");
    EXPECT_EQ(Remark("NETWORK *"), "");
    EXPECT_EQ(Remark("NETWORK 0.0.0.0/0"), "");
    EXPECT_EQ(Remark("NETWORK 10.0.0.0/x"), "the count of bits is no number, which counts as 0: every address");
    EXPECT_EQ(Remark("NETWORK 10.0.0.0/33"), "the count of bits is not between 0 and 32: it goes round after 32");
    EXPECT_EQ(Remark("NETWORK 10.0.0.0/-1"), "the count of bits is not between 0 and 32: it goes round after 32");
    EXPECT_EQ(Remark("NETWORK 10.0.0.0/8x"), "what follows the count of bits is not read");
    EXPECT_EQ(Remark("NETWORK 10.0.0.0:mask"), "what follows the colon is no netmask");
    EXPECT_EQ(Remark("DOMAIN "), "the pattern is empty: it matches no name");
    EXPECT_EQ(Remark("DOMAIN  a.test"), "the blank belongs to the pattern: it matches no name");
    EXPECT_EQ(Remark("DOMAIN a.test"), "");
}

TEST(NetworkRule, TellsWhyItMatchesNothing) {
    EXPECT_EQ(NetCheckIPV4::never_matches("10.0.0.0/8"), nullptr);
    EXPECT_EQ(NetCheckIPV4::never_matches("10.1.2.3"), nullptr);
    EXPECT_EQ(NetCheckIPV4::never_matches("0.0.0.0/0"), nullptr);
    EXPECT_STREQ(NetCheckIPV4::never_matches("10.1.2.3/8"), "the address has bits outside its mask");
    EXPECT_STREQ(NetCheckIPV4::never_matches("1mail.example"), "is no address");
}

TEST_F(NetPolicyScore, OfTheDocumentedExampleIsAsTold) {
    std::string const page = DOCS "/formats/inside-txt.md";
    root.Write("inside.txt", DocExample(page, "inside.txt"));
    root.Write("outside.txt", DocExample(page, "outside.txt"));
    NetPolicy inside, outside;
    inside.load(root / "inside.txt");
    outside.load(root / "outside.txt");
    auto const scores = [&](char const* address, char const* host) {
        From(address, host);
        return std::make_pair(inside.score(nullptr, end), outside.score(nullptr, end));
    };
    EXPECT_EQ(scores("10.4.5.6", ""), std::make_pair(8, 0));
    EXPECT_EQ(scores("10.9.0.1", ""), std::make_pair(8, 16));
    EXPECT_EQ(scores("192.0.2.17", "mail.branch.test"), std::make_pair(2, 0));
    EXPECT_EQ(scores("192.0.2.17", ""), std::make_pair(-1, 0));
    EXPECT_EQ(scores("198.51.100.7", "www.other.test"), std::make_pair(0, 0));
}

TEST(NetworkRule, MatchesTheAddressItNames) {
    sockaddr_in address{};
    ::inet_aton("10.1.2.3", &address.sin_addr);
    EXPECT_TRUE(NetCheckIPV4::matches("10.1.2.3", &address));
    EXPECT_FALSE(NetCheckIPV4::matches("10.1.2.4", &address));
    EXPECT_TRUE(NetCheckIPV4::matches("10.0.0.0/8", &address));
    EXPECT_TRUE(NetCheckIPV4::matches("10.1.0.0:255.255.0.0", &address));
    EXPECT_FALSE(NetCheckIPV4::matches("11.0.0.0/8", &address));
    EXPECT_TRUE(NetCheckIPV4::matches("0.0.0.0/0", &address));
    EXPECT_FALSE(NetCheckIPV4::matches("10.1.2.3", nullptr));
    EXPECT_FALSE(NetCheckIPV4::matches("host.test", &address));
    EXPECT_FALSE(NetCheckIPV4::matches("10.0.0.0:mask", &address));
    EXPECT_FALSE(NetCheckIPV4::matches("", &address));
}

TEST(NetworkRule, MatchesNothingWithBitsOutsideItsMask) {
    sockaddr_in address{};
    ::inet_aton("10.1.2.3", &address.sin_addr);
    EXPECT_FALSE(NetCheckIPV4::matches("10.1.2.3/8", &address));
    EXPECT_TRUE(NetCheckIPV4::matches("10.1.2.3/32", &address));
}

TEST(NetworkRule, TestsTwoNumbersAgainstAConnection) {
    TCPConnection end;
    ::inet_aton("10.1.2.3", &end.m_address.sin_addr);
    EXPECT_TRUE(NetCheckIPV4::matches(0x0A000000u, 0xFF000000u, nullptr, end));
    EXPECT_FALSE(NetCheckIPV4::matches(0x0A000001u, 0xFF000000u, nullptr, end));
}

// Which way a session runs, by the two files.
class Direction : public NetPolicyScore {
protected:
    Direction() { Proxy::s_pProxyInstance = proxy.get(); }
    ~Direction() override { Proxy::s_pProxyInstance = nullptr; }

    std::string Of(char const* address, char const* host, std::string const& inside, std::string const& outside) {
        root.Write("inside.txt", inside);
        root.Write("outside.txt", outside);
        proxy->m_insidePolicy.load(root / "inside.txt");
        proxy->m_outsidePolicy.load(root / "outside.txt");
        Connection session;
        ::inet_aton(address, &session.getSourceConnection().m_address.sin_addr);
        session.getSourceConnection().m_host = host;
        bool from_outside = true;
        if (!Proxy::FindConnectionDirection(from_outside, &session)) return "unknown";
        return from_outside ? "outside" : "inside";
    }

    std::unique_ptr<Proxy> proxy = std::make_unique<Proxy>();
};

TEST_F(Direction, IsOutsideForAllBesideAnEmptyInside) {
    for (char const* everything : {"NETWORK *\n", "NETWORK 0.0.0.0/0\n"})
        EXPECT_EQ(Of("10.1.2.3", "", "", everything), "outside");
}

TEST_F(Direction, IsOutsideForATie) {
    EXPECT_EQ(Of("10.1.2.3", "", "NETWORK 10.0.0.0/8\n", "NETWORK 10.0.0.0/8\n"), "outside");
}

TEST_F(Direction, IsThatOfTheMoreSpecificSide) {
    EXPECT_EQ(Of("10.1.2.3", "", "NETWORK 10.1.0.0/16\n", "NETWORK 10.0.0.0/8\n"), "inside");
    EXPECT_EQ(Of("10.1.2.3", "", "NETWORK 10.0.0.0/8\n", "NETWORK 10.1.0.0/16\n"), "outside");
    EXPECT_EQ(Of("10.1.2.3", "a.b.test", "NETWORK 10.0.0.0/8\n", "DOMAIN *.test\n"), "inside");
}

TEST_F(Direction, IsInsideForANameThatMatchesNoInsideLine) {
    EXPECT_EQ(Of("10.1.2.3", "www.other.test", "DOMAIN alpha.test\n", "NETWORK 192.0.2.0/24\n"), "inside");
}

TEST_F(Direction, IsUnknownWhenNeitherSideMatches) {
    EXPECT_EQ(Of("10.1.2.3", "", "DOMAIN alpha.test\n", "NETWORK 192.0.2.0/24\n"), "unknown");
}

}  // namespace
