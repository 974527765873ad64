// Parsing of whole messages, right ones and every kind of wrong one. Messages stand in memory of exactly their size, so
// that a sanitizer sees the first byte read beyond.
#include <velt/lookup/Resolver.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>

#include <testing/DnsBytes.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using Names = std::vector<std::string>;

constexpr unsigned kOwner = DnsBytes::header_size;  // where the question's name stands

// A Resolver that takes an answer from elsewhere.
class GivenAnswer : public Resolver {
public:
    int Take(unsigned char* bytes, std::size_t length) {
        answer_length = static_cast<int>(length);
        return init_result(bytes);
    }
};

// A message, parsed.
class ParsedMessage {
public:
    explicit ParsedMessage(std::string const& bytes) : m_bytes(new unsigned char[bytes.size()]) {
        std::memcpy(m_bytes.get(), bytes.data(), bytes.size());
        code = resolver.Take(m_bytes.get(), bytes.size());
    }

    // Names with preferences, "mx.test 10".
    int Parse(unsigned max = 100) { return resolver.parse_mx_query(&lookup, static_cast<int>(max)); }
    Names Exchangers() const {
        Names names;
        for (Resolver::Record const& record : lookup)
            names.push_back(std::string(record.name) + ' ' + std::to_string(record.preference));
        return names;
    }
    Names Addresses(std::size_t index) const {
        Names names;
        for (Resolver::IPaddressNode const& node : lookup.at(index).addresses) names.push_back(inet_ntoa(node.address));
        return names;
    }

    GivenAnswer resolver;
    int code;
    Resolver::Lookup lookup;

private:
    std::unique_ptr<unsigned char[]> m_bytes;
};

class MailExchangers : public testing::Test {
protected:
    ~MailExchangers() override { Resolver::s_excludedhosts.clear(); }

    DnsBytes message = DnsBytes().Question(DnsName("example.test"));

    Names Of(DnsBytes const& bytes, unsigned max = 100) {
        ParsedMessage parsed(bytes.str());
        EXPECT_EQ(parsed.code, 0);
        EXPECT_EQ(parsed.Parse(max), 0);
        return parsed.Exchangers();
    }
    int Code(DnsBytes const& bytes) {
        ParsedMessage parsed(bytes.str());
        return parsed.code != 0 ? parsed.code : parsed.Parse();
    }
};

TEST_F(MailExchangers, ComeOutInTheOrderOfPreference) {
    message.Mx(30, DnsName("c.test")).Mx(10, DnsName("a.test")).Mx(20, DnsName("b.test")).Mx(0, DnsName("z.test"));
    EXPECT_EQ(Of(message), (Names{"z.test 0", "a.test 10", "b.test 20", "c.test 30"}));
}

TEST_F(MailExchangers, HaveTheirNamesOutOfPackedForm) {
    message.Mx(10, "\2mx" + DnsPointer(kOwner)).Mx(65535, "\1\"" + DnsPointer(kOwner + 8));
    EXPECT_EQ(Of(message), (Names{"mx.example.test 10", "\\\".test 65535"}));
}

TEST_F(MailExchangers, AreTakenFromAmongOtherRecords) {
    message.Record(DnsBytes::answer, DnsPointer(kOwner), DnsBytes::type_cname, DnsName("other.test"))
        .Mx(10, DnsName("a.test"), DnsName("other.test"))
        .Record(DnsBytes::authority, DnsName(""), DnsBytes::type_txt, "\3abc")
        .Record(DnsBytes::authority, DnsName(""), DnsBytes::type_mx, Dns16(1) + DnsName("not-an-answer.test"));
    EXPECT_EQ(Of(message), Names{"a.test 10"});
}

TEST_F(MailExchangers, AreOneWithTheBetterPreferenceWhenTheyHaveOneName) {
    DnsBytes backwards = message;
    message.Mx(20, DnsName("x.test")).Mx(10, DnsName("x.test"));
    EXPECT_EQ(Of(message), Names{"x.test 10"});
    backwards.Mx(10, DnsName("x.test")).Mx(20, DnsName("x.test"));
    EXPECT_EQ(Of(backwards), Names{"x.test 10"});
}

TEST_F(MailExchangers, EndWithTheirLimit) {
    message.Mx(30, DnsName("c.test")).Mx(20, DnsName("b.test")).Mx(10, DnsName("a.test"));
    EXPECT_EQ(Of(message, 0), Names{});
    EXPECT_EQ(Of(message, 1), Names{"c.test 30"});
    EXPECT_EQ(Of(message, 2), (Names{"b.test 20", "c.test 30"}));
    EXPECT_EQ(Of(message, UINT_MAX).size(), 3u);
}

TEST_F(MailExchangers, EndWithADuplicateAtTheLimit) {
    message.Mx(30, DnsName("c.test")).Mx(10, DnsName("c.test"));
    EXPECT_EQ(Of(message, 1), Names{"c.test 30"}) << "the better preference came too late";
}

TEST_F(MailExchangers, HaveTheAddressesThatCameAlongInReverse) {
    message.Mx(20, DnsName("b.test")).Mx(10, DnsName("a.test"));
    message.Address(DnsName("a.test"), 0xC0000201)
        .Address(DnsName("b.test"), 0xC0000202)
        .Address(DnsName("a.test"), 0xC0000203)
        .Address(DnsName("unknown.test"), 0xC0000204)
        .Address(DnsName("A.test"), 0xC0000205)
        .Record(DnsBytes::additional, DnsName("a.test"), 28, std::string(16, 'x'));
    ParsedMessage parsed(message.str());
    ASSERT_EQ(parsed.Parse(), 0);
    EXPECT_EQ(parsed.Exchangers(), (Names{"a.test 10", "b.test 20"}));
    EXPECT_EQ(parsed.Addresses(0), (Names{"192.0.2.3", "192.0.2.1"})) << "the case of letters counts";
    EXPECT_EQ(parsed.Addresses(1), Names{"192.0.2.2"});
}

TEST_F(MailExchangers, LeaveThisMachineAndAllThatIsNotBetterOut) {
    Resolver::s_excludedhosts = {"me.test"};
    message.Mx(30, DnsName("c.test")).Mx(20, DnsName("me.test")).Mx(10, DnsName("b.test")).Mx(10, DnsName("a.test"));
    Names names = Of(message);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Names{"a.test 10", "b.test 10"}));
}

TEST_F(MailExchangers, LeaveOthersOfThisMachinesPreferenceOut) {
    Resolver::s_excludedhosts = {"me.test"};
    DnsBytes other = message;
    message.Mx(10, DnsName("a.test")).Mx(10, DnsName("me.test")).Mx(20, DnsName("b.test"));
    EXPECT_EQ(Of(message), Names{});
    other.Mx(20, DnsName("b.test")).Mx(10, DnsName("me.test")).Mx(10, DnsName("a.test"));
    EXPECT_EQ(Of(other), Names{});
}

TEST_F(MailExchangers, LeaveOutByEachNameOfThisMachine) {
    Resolver::s_excludedhosts = {"none.test", "me2.test", "me1.test"};
    message.Mx(10, DnsName("a.test")).Mx(20, DnsName("me1.test")).Mx(30, DnsName("b.test")).Mx(40, DnsName("me2.test"));
    EXPECT_EQ(Of(message), Names{"a.test 10"});
}

TEST_F(MailExchangers, KnowThisMachineByTheCaseOfItsLetters) {
    Resolver::s_excludedhosts = {"ME.test"};
    message.Mx(10, DnsName("me.test"));
    EXPECT_EQ(Of(message), Names{"me.test 10"});
}

// A printed name can be longer than the packed one; a record holds 255 bytes of it.
TEST_F(MailExchangers, LeaveOutANameThatIsTooLongForARecord) {
    auto const target = [](unsigned escaped) {
        return std::string(1, static_cast<char>(escaped)) + std::string(escaped, '\1') + '\77' + std::string(63, 'x') +
               '\0';
    };
    for (unsigned escaped = 45; escaped <= 50; ++escaped) {
        DnsBytes each = message;
        std::size_t const printed = escaped * 4 + 1 + 63;
        each.Mx(10, target(escaped)).Mx(20, DnsName("b.test"));
        EXPECT_EQ(Of(each).size(), printed < 256 ? 2u : 1u) << printed;
        EXPECT_EQ(Of(each).back(), "b.test 20");
    }
}

TEST_F(MailExchangers, AreNoneInAnAnswerWithoutThem) {
    EXPECT_EQ(Of(message), Names{});
    EXPECT_EQ(Of(DnsBytes()), Names{}) << "a header is a message";
}

TEST_F(MailExchangers, FailWithDataTooShortForOne) {
    for (std::size_t length = 0; length < 3; ++length) {
        DnsBytes each = message;
        each.Record(DnsBytes::answer, DnsPointer(kOwner), DnsBytes::type_mx, std::string(length, '\0'));
        each.Mx(20, DnsName("b.test"), DnsName(""));  // what follows is not its data
        EXPECT_EQ(Code(each), EMSGSIZE) << length;
    }
    EXPECT_EQ(Code(message.Mx(10, DnsName(""))), 0) << "the root is a name";
}

TEST_F(MailExchangers, DoWithoutAnAddressThatIsTooShort) {
    message.Mx(10, DnsName("a.test"));
    for (std::size_t length = 0; length < 4; ++length)
        message.Record(DnsBytes::additional, DnsName("a.test"), DnsBytes::type_a, std::string(length, '\1'));
    ParsedMessage parsed(message.str());
    ASSERT_EQ(parsed.Parse(), 0);
    EXPECT_EQ(parsed.Addresses(0), Names{});
}

TEST_F(MailExchangers, FailWithANameThatLoops) {
    DnsBytes itself = message;
    unsigned const target = static_cast<unsigned>(message.next_offset()) + 2 + 10 + 2;
    EXPECT_EQ(Code(itself.Mx(10, DnsPointer(target))), EMSGSIZE);
    DnsBytes with_label = message;
    EXPECT_EQ(Code(with_label.Mx(10, "\1a" + DnsPointer(target))), EMSGSIZE);
    DnsBytes owner = message;
    EXPECT_EQ(Code(owner.Mx(10, DnsName("a.test"), DnsPointer(static_cast<unsigned>(message.next_offset())))),
              EMSGSIZE);
    DnsBytes additional = message;
    additional.Mx(10, DnsName("a.test"));
    unsigned const last = static_cast<unsigned>(additional.next_offset());
    EXPECT_EQ(Code(additional.Address(DnsPointer(last), 1)), EMSGSIZE);
}

// A message with everything in it, for the tests of damage.
std::string FullMessage() {
    DnsBytes message = DnsBytes().Question(DnsName("example.test"));
    message.Mx(10, "\2mx" + DnsPointer(kOwner)).Mx(20, DnsName("b.test"));
    message.Record(DnsBytes::authority, DnsPointer(kOwner), DnsBytes::type_txt, "\3abc");
    message.Address("\2mx" + DnsPointer(kOwner), 0xC0000201).Address(DnsName("b.test"), 0xC0000202);
    return message.str();
}

// Reads all records of all sections, whatever they say.
void Walk(ParsedMessage& parsed) {
    unsigned volatile sum = 0;  // so that each byte is really read
    for (int section = 0; section < 4; ++section) {
        ns_rr record;
        for (int index = 0; parsed.resolver.Parserr(static_cast<ns_sect>(section), index, record) == 0; ++index)
            sum = sum + std::accumulate(record.rdata, record.rdata + record.rdlength, 0u);
        for (int index = 5; index >= -1; --index) parsed.resolver.Parserr(static_cast<ns_sect>(section), index, record);
    }
    parsed.Parse();
}

TEST(DamagedMessage, FailsWhereverItIsCut) {
    std::string const whole = FullMessage();
    ASSERT_EQ(ParsedMessage(whole).code, 0);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        ParsedMessage parsed(whole.substr(0, length));
        EXPECT_EQ(parsed.code, EMSGSIZE) << length;
        Walk(parsed);
        EXPECT_TRUE(parsed.lookup.empty()) << length;
    }
}

TEST(DamagedMessage, FailsWithBytesBehindItsLastSection) {
    for (std::size_t extra = 1; extra < 20; ++extra)
        EXPECT_EQ(ParsedMessage(FullMessage() + std::string(extra, '\0')).code, EMSGSIZE) << extra;
}

// Every byte takes every value; what comes of it is the parser's to say, as long as it stays inside.
TEST(DamagedMessage, IsNeverReadOutsideWhateverAnyByteSays) {
    std::string const whole = FullMessage();
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (int value = 0; value < 256; ++value) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(value);
            ParsedMessage parsed(damaged);
            EXPECT_TRUE(parsed.code == 0 || parsed.code == EMSGSIZE) << at << ' ' << value;
            Walk(parsed);
        }
    }
}

TEST(DamagedMessage, FailsWithCountsThatItDoesNotHold) {
    for (int section = 0; section < 4; ++section) {
        std::string damaged = FullMessage();
        damaged[static_cast<std::size_t>(5 + section * 2)]++;
        EXPECT_EQ(ParsedMessage(damaged).code, EMSGSIZE) << section;
        damaged[static_cast<std::size_t>(4 + section * 2)] = '\xFF';
        EXPECT_EQ(ParsedMessage(damaged).code, EMSGSIZE) << section;
    }
}

// --- records ---

class Records : public testing::Test {
protected:
    ParsedMessage parsed{FullMessage()};
    ns_rr record;
};

TEST_F(Records, AreReadWithAllTheirFields) {
    ASSERT_EQ(parsed.resolver.Parserr(ns_s_qd, 0, record), 0);
    EXPECT_STREQ(record.name, "example.test");
    EXPECT_EQ(record.type, ns_t_mx);
    EXPECT_EQ(record.rr_class, ns_c_in);
    EXPECT_EQ(record.ttl, 0u);
    EXPECT_EQ(record.rdlength, 0);
    EXPECT_EQ(record.rdata, nullptr);
    ASSERT_EQ(parsed.resolver.Parserr(ns_s_ar, 0, record), 0);
    EXPECT_STREQ(record.name, "mx.example.test");
    EXPECT_EQ(record.type, ns_t_a);
    EXPECT_EQ(record.ttl, 60u);
    ASSERT_EQ(record.rdlength, 4);
    EXPECT_EQ(record.rdata[3], 1);
}

TEST_F(Records, AreReadInAnyOrder) {
    for (int first : {0, 1})
        for (int second : {0, 1}) {
            for (int index : {first, second}) {
                ASSERT_EQ(parsed.resolver.Parserr(ns_s_ar, index, record), 0);
                EXPECT_STREQ(record.name, index == 0 ? "mx.example.test" : "b.test");
            }
            ASSERT_EQ(parsed.resolver.Parserr(ns_s_ns, 0, record), 0);
            EXPECT_EQ(record.type, ns_t_txt);
        }
}

TEST_F(Records, AreReadOneAfterTheOther) {
    ASSERT_EQ(parsed.resolver.Parserr(ns_s_ar, -1, record), 0);
    EXPECT_STREQ(record.name, "mx.example.test");
    ASSERT_EQ(parsed.resolver.Parserr(ns_s_ar, -1, record), 0);
    EXPECT_STREQ(record.name, "b.test");
    EXPECT_EQ(parsed.resolver.Parserr(ns_s_ar, -1, record), ENODEV);
    EXPECT_EQ(parsed.resolver.Parserr(ns_s_ar, 0, record), 0);
}

TEST_F(Records, AreNotThereOutsideTheirSections) {
    EXPECT_EQ(parsed.resolver.Parserr(ns_s_ar, 2, record), ENODEV);
    EXPECT_EQ(parsed.resolver.Parserr(ns_s_ar, -2, record), ENODEV);
    EXPECT_EQ(parsed.resolver.Parserr(ns_s_max, 0, record), ENODEV);
    EXPECT_EQ(parsed.resolver.Parserr(static_cast<ns_sect>(7), 0, record), ENODEV);
    EXPECT_EQ(Resolver().Parserr(ns_s_an, 0, record), ENODEV) << "before any answer";
    ParsedMessage empty(DnsBytes().str());
    EXPECT_EQ(empty.resolver.Parserr(ns_s_an, 0, record), ENODEV);
    EXPECT_EQ(empty.resolver.Parserr(ns_s_an, -1, record), ENODEV);
}

TEST_F(Records, OfASectionHaveALength) {
    std::string const bytes = DnsName("a.test") + Dns16(1) + Dns16(1) + Dns32(60) + Dns16(4) + "abcd";
    auto const* const start = reinterpret_cast<unsigned char const*>(bytes.data());
    auto const* const end = start + bytes.size();
    EXPECT_EQ(Resolver::SectionLength(start, end, ns_s_an, 1), static_cast<int>(bytes.size()));
    EXPECT_EQ(Resolver::SectionLength(start, end, ns_s_qd, 1), 8 + 4);
    EXPECT_EQ(Resolver::SectionLength(start, end, ns_s_an, 0), 0);
    errno = 0;
    EXPECT_EQ(Resolver::SectionLength(start, end, ns_s_an, 2), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    for (auto const* cut = start; cut < end; ++cut)
        EXPECT_EQ(Resolver::SectionLength(start, cut, ns_s_an, 1), -1) << cut - start;
}

}  // namespace
