// What ldap.txt and bwserver.txt come to, seen without a server: connections are made when they are first used.
#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include <testing/FakePolicyStore.h>
#include <velt/Config.h>
#include <velt/ldap/DirectoryTest.h>
#include <velt/ldap/LDAPQuery.h>
#include <velt/ldap/LdapLibrary.h>

namespace {

using VELT::LDAPGroup;
using VELT::LDAPPrim;
using VELT::LDAPServer;

bool const s_cachedAtFirst = LDAPPrim::s_cached;
unsigned short const s_limitAtFirst = LDAPPrim::s_ldap_query_timeout;

// What the directory library is asked for a connection, in front of the library's own call.
std::atomic<int> s_port{-1};
std::atomic<int> s_refusal{0};

}  // namespace

extern "C" LDAP* ldap_init(char const* host, int port) {
    s_port = port;
    if (s_refusal != 0) {
        errno = s_refusal;
        return nullptr;
    }
    static auto const real = reinterpret_cast<decltype(&ldap_init)>(::dlsym(RTLD_NEXT, "ldap_init"));
    return real(host, port);
}

namespace {

class ServersTest : public DirectoryTest {
protected:
    static std::string Option(LDAPServer& server, int option) {
        int error = -1;
        VELT::LDAPConnection* const connection = server.connect(error);
        EXPECT_EQ(error, 0);
        char* text = nullptr;
        ::ldap_get_option(connection->m_ldap, option, &text);
        VELT::LdapText const owned(text);
        server.release(connection);
        return text ? text : "";
    }
    static std::string Target(LDAPServer& server) { return Option(server, LDAP_OPT_HOST_NAME); }
    static int Number(LDAPServer& server, int option) {
        int error = -1, number = -1;
        VELT::LDAPConnection* const connection = server.connect(error);
        ::ldap_get_option(connection->m_ldap, option, &number);
        server.release(connection);
        return number;
    }
    static Texts StaticGroups(LDAPServer& server) {
        std::vector<LDAPGroup> groups;
        EXPECT_EQ(server.query_groups(nullptr, groups), 0);
        Texts names;
        for (LDAPGroup const& one : groups) names.push_back(one.name);
        return names;
    }
};

TEST_F(ServersTest, MissingFilesAreNoError) {
    Read("");
    EXPECT_EQ(Hosts(), Texts{});
    EXPECT_EQ(LDAPPrim::getBWServer(), nullptr);
}

TEST_F(ServersTest, StandInTheOrderOfTheFile) {
    Read("server\nldapserver b\nserver\nldapserver a\n");
    EXPECT_EQ(Hosts(), (Texts{"b", "a"}));
}

TEST_F(ServersTest, CommentsAndEmptyLinesAreSkipped) {
    Read("# server\n\nserver\n#ldapserver x\n\nldapserver a\n");
    EXPECT_EQ(Hosts(), Texts{"a"});
}

TEST_F(ServersTest, LineThatBeginsWithServerOpensOneWhateverFollows) {
    Read("server1\nldapserver a\nserver-two three\nldapserver b\nservers\nldapserver c\n");
    EXPECT_EQ(Hosts(), (Texts{"a", "b", "c"}));
}

TEST_F(ServersTest, AttributeBeforeTheFirstServerIsDropped) {
    Read("ldapserver a\nserver\nbase x\n");
    EXPECT_EQ(Hosts(), Texts{""});
}

TEST_F(ServersTest, UnknownKeysAndLinesWithoutABlankAreDropped) {
    Read("server\nldapserver\nLdapServer x\nldapservers y\nldapserver\tz\n ldapserver w\n");
    EXPECT_EQ(Hosts(), Texts{""});
}

TEST_F(ServersTest, ValueBeginsBehindAllBlanks) {
    Read("server\nldapserver \t \x01 a b \n");
    EXPECT_EQ(Hosts(), Texts{"a b "});
}

// A file that an editor of another system wrote has the carriage return in every value.
TEST_F(ServersTest, CarriageReturnBelongsToTheValue) {
    Read("server\nldapserver a\r\n");
    EXPECT_EQ(Hosts(), Texts{"a\r"});
}

TEST_F(ServersTest, NumbersThatMeanOtherThanTheySayAreTold) {
    auto const remark = [](char const* line) {
        VELT::LineRemark const told = LDAPServer::RemarkOnNumber(line);
        return told.reason ? std::to_string(told.at - line) + " " + told.reason : "";
    };
    for (char const* good : {"secure 1", "secure 0 ", "timeout 65535", "connecttimeout 5", "referrals 0",
                             "ldapserver a", "ldapserver a:636", "user 12x", "nothing x", "secure", ""})
        EXPECT_EQ(remark(good), good == std::string("secure") ? "6 the value is no number, which counts as 0" : "")
            << good;
    EXPECT_EQ(remark("secure yes"), "7 the value is no number, which counts as 0");
    EXPECT_EQ(remark("secure "), "7 the value is no number, which counts as 0");
    EXPECT_EQ(remark("timeout 10s"), "10 what follows the number is not read");
    EXPECT_EQ(remark("ldapserver a:70000"), "13 the number is not between 0 and 65535: of it only 16 bits count");
    EXPECT_EQ(remark("ldapserver a:x"), "13 the value is no number, which counts as 0");
}

TEST_F(ServersTest, LastLineNeedsNoEnd) {
    Read("server\nldapserver a");
    EXPECT_EQ(Hosts(), Texts{"a"});
}

TEST_F(ServersTest, SameHostTwiceLeavesTheFirstWithItsTemplates) {
    Read(
        "server\nldapserver a\ngroupquery :first\nserver\nldapserver b\nserver\nldapserver a\ngroupquery :second\n"
        "server\nldapserver a:636\n");
    EXPECT_EQ(Hosts(), (Texts{"a", "b"}));
    EXPECT_EQ(StaticGroups(*Servers()[0]), Texts{"a.first"});
}

TEST_F(ServersTest, TwoWithoutAHostAreTheSame) {
    Read("server\ngroupquery :first\nserver\ngroupquery :second\n");
    ASSERT_EQ(Hosts(), Texts{""});
    EXPECT_EQ(StaticGroups(*Servers()[0]), Texts{".first"});
}

TEST_F(ServersTest, PortIs389UnlessOneIsGiven) {
    Read("server\nldapserver 127.0.0.1\n");
    EXPECT_EQ(Target(*Servers()[0]), "127.0.0.1:389");
    Servers()[0]->setServer("127.0.0.1:1389");
    EXPECT_EQ(Target(*Servers()[0]), "127.0.0.1:389");  // the connection of before, taken up again
}

// The directory library takes 0 for its own default.
TEST_F(ServersTest, PortIsTakenWithoutACheck) {
    Read("server\nldapserver 127.0.0.1:0\n", "", false);
    EXPECT_EQ(Target(*Servers()[0]), "127.0.0.1:389");
    EXPECT_EQ(s_port, 0);
    Servers()[0]->setServer("127.0.0.1:70000");
    EXPECT_EQ(Target(*Servers()[0]), "127.0.0.1:4464");
    Servers()[0]->setServer("127.0.0.1:x");
    EXPECT_EQ(Target(*Servers()[0]), "127.0.0.1:389");
}

TEST_F(ServersTest, ConnectionThatTheLibraryDoesNotMakeHasAReason) {
    Read("server\nldapserver 127.0.0.1\n");
    for (auto const& [refusal, expected] : {std::pair(ENOMEM, LDAP_NO_MEMORY), std::pair(EINVAL, LDAP_LOCAL_ERROR)}) {
        s_refusal = refusal;
        int error = 0;
        EXPECT_EQ(Servers()[0]->connect(error), nullptr);
        EXPECT_EQ(error, expected);
    }
    s_refusal = 0;
}

TEST_F(ServersTest, ConnectionsSpeakVersionThreeAndAskForALotAtMost) {
    Read("server\nldapserver 127.0.0.1\n");
    EXPECT_EQ(Number(*Servers()[0], LDAP_OPT_PROTOCOL_VERSION), 3);
    EXPECT_EQ(Number(*Servers()[0], LDAP_OPT_SIZELIMIT), 100000);
}

TEST_F(ServersTest, ReferralsAreFollowedUnlessSwitchedOff) {
    Read("server\nldapserver a\nserver\nldapserver b\nreferrals 0\nserver\nldapserver c\nreferrals 2\n");
    EXPECT_NE(Number(*Servers()[0], LDAP_OPT_REFERRALS), 0);
    EXPECT_EQ(Number(*Servers()[1], LDAP_OPT_REFERRALS), 0);
    EXPECT_NE(Number(*Servers()[2], LDAP_OPT_REFERRALS), 0);
}

TEST_F(ServersTest, LongLinesAreTakenInPieces) {
    for (std::size_t const length : {8189, 8190, 8191, 8192, 9000, 16382, 16383}) {
        Read("server\nldapserver a\n# " + std::string(length - 2, 'x') + "ldapserver b\n");
        std::size_t const piece = (length + 12) / 8191 * 8191;  // where the last piece begins
        bool const split = piece == length;
        EXPECT_EQ(Hosts().back(), split ? "b" : "a") << length;
        Forget();
    }
}

TEST_F(ServersTest, FurtherServerLinesOfTheListsFileMeanTheSameServer) {
    Read("", "ldapserver x\nserver\nldapserver a\nserver\ngroupquery :g\n");
    ASSERT_NE(LDAPPrim::getBWServer(), nullptr);
    EXPECT_EQ(LDAPPrim::getBWServer()->getServer(), "a");
    EXPECT_EQ(StaticGroups(*LDAPPrim::getBWServer()), Texts{"a.g"});
    EXPECT_EQ(Servers().size(), 0u);
}

TEST_F(ServersTest, WithoutAServerForListsThereIsNothingToDo) {
    Read("");
    Texts first{"a"}, second{"b"}, users{"c"};
    EXPECT_EQ(LDAPPrim::getUserBWlist("u", first, second), 0);
    EXPECT_EQ(LDAPPrim::setUserBWlist("u", first, second), 0);
    EXPECT_EQ(LDAPPrim::addUser("u", first, second), 0);
    EXPECT_EQ(LDAPPrim::delUser("u"), 0);
    EXPECT_EQ(LDAPPrim::getUserList(users), 0);
    EXPECT_EQ(first, Texts{"a"});
    EXPECT_EQ(users, Texts{"c"});
}

TEST_F(ServersTest, SettersAnswerTrueButForAClassWithoutAColon) {
    LDAPServer server;
    EXPECT_TRUE(server.setSecure("1"));
    EXPECT_TRUE(server.setTimeout("x"));
    EXPECT_TRUE(server.setConnectTimeout("70000"));
    EXPECT_TRUE(server.setBWBaseDnFormat(""));
    EXPECT_TRUE(server.setBWObjectClass("objectClass:listUser"));
    EXPECT_FALSE(server.setBWObjectClass("top"));
}

TEST_F(ServersTest, ValuesOfTheProcessAreThoseOfItsSettings) {
    EXPECT_TRUE(s_cachedAtFirst);
    EXPECT_EQ(s_limitAtFirst, 100);
    velt_testing::FakePolicyStore store;
    VELT::Config::initialise(&store);
    {
        VELT::Config config;
        VELT::LDAPQuery::initialise(&config);
        EXPECT_TRUE(LDAPPrim::s_cached);
        EXPECT_EQ(LDAPPrim::s_ldap_query_timeout, 10);
        store.Put("base", "network", "LDAPCached", velt_testing::FakeValue::Flag(0));
        store.Put("base", "network", "LDAPQueryTimeout", velt_testing::FakeValue::Unsigned(0));
        VELT::LDAPQuery::initialise(&config);
        EXPECT_FALSE(LDAPPrim::s_cached);
        EXPECT_EQ(LDAPPrim::s_ldap_query_timeout, 1);  // the least
    }
    VELT::Config::initialise(nullptr);
    VELT::LDAPQuery::initialise(nullptr);
    EXPECT_TRUE(LDAPPrim::s_cached);
    EXPECT_EQ(LDAPPrim::s_ldap_query_timeout, 100);
}

TEST_F(ServersTest, ServerThatIsDroppedIsNotDeleted) {
    Read("server\nldapserver a\nserver\nldapserver a\ngroupquery :second\n");
    ASSERT_EQ(LDAPPrim::s_dropped_servers.size(), 1u);
    EXPECT_EQ(StaticGroups(*LDAPPrim::s_dropped_servers[0]), Texts{"a.second"});
}

TEST_F(ServersTest, ErrorsHaveTheTextsOfTheLibrary) {
    EXPECT_EQ(LDAPPrim::ldap_error_text(LDAP_TIMELIMIT_EXCEEDED), "Time limit exceeded");
    EXPECT_EQ(LDAPPrim::ldap_error_text(LDAP_SERVER_DOWN), "Can't contact LDAP server");
}

// ---- what is written

struct Written {
    std::string name;
    std::vector<int> ops;
    std::vector<std::string> texts;  // type=value,value
};
Written s_written;

int Note(LDAP*, char const* name, LDAPMod** changes) {
    s_written = {name, {}, {}};
    for (; *changes; ++changes) {
        LDAPMod const& one = **changes;
        s_written.ops.push_back(one.mod_op);
        std::string text = one.mod_type + std::string("=");
        if (one.mod_op & LDAP_MOD_BVALUES)
            for (berval** value = one.mod_bvalues; *value; ++value)
                text += std::string((*value)->bv_val, (*value)->bv_len) + ",";
        else
            for (char** value = one.mod_values; *value; ++value) text += *value + std::string(",");
        s_written.texts.push_back(text);
    }
    return 77;
}

class WrittenTest : public ServersTest {
protected:
    int Write(std::string const& lines, std::string const& user, Texts const& first, Texts const& second) {
        LDAPServer server;
        server.setServer("127.0.0.1");
        for (std::size_t at = 0, end = 0; (end = lines.find('\n', at)) != std::string::npos; at = end + 1)
            server.setAttribute(lines.substr(at, end - at).c_str());
        s_written = {};
        int error = 0;
        VELT::LDAPConnection* const connection = server.connect(error);
        int const result = server.mod_user(Note, connection, user, first, second);
        server.release(connection);
        return result;
    }
    std::string const m_lines =
        "userquery uid=?:allowList,denyList\nbwobjectclass objectClass:listUser\nbwbasednformat uid=?,ou=lists\n";
};

TEST_F(WrittenTest, EntryHasItsClassItsUserAndBothLists) {
    EXPECT_EQ(Write(m_lines, "ann", {"a", "b"}, {"c"}), 77);
    EXPECT_EQ(s_written.name, "uid=ann,ou=lists");
    EXPECT_EQ(s_written.texts, (Texts{"objectClass=listUser,", "uid=ann,", "allowList=a,b,", "denyList=c,"}));
    EXPECT_EQ(s_written.ops, std::vector<int>(4, LDAP_MOD_REPLACE));
}

TEST_F(WrittenTest, EmptyListIsADash) {
    Write(m_lines, "ann", {}, {});
    EXPECT_EQ(s_written.texts, (Texts{"objectClass=listUser,", "uid=ann,", "allowList=-,", "denyList=-,"}));
}

TEST_F(WrittenTest, ClassWithoutAColonChangesNothing) {
    Write(m_lines + "bwobjectclass top\n", "ann", {}, {});
    EXPECT_EQ(s_written.texts.at(0), "objectClass=listUser,");
}

TEST_F(WrittenTest, WithoutTwoNamesThereAreNoLists) {
    Write(m_lines + "userquery uid=?:allowList\n", "ann", {"a"}, {"b"});
    EXPECT_EQ(s_written.texts, (Texts{"objectClass=listUser,", "uid=ann,"}));
}

TEST_F(WrittenTest, FilterWithoutAnEqualsSignWritesNothing) {
    EXPECT_EQ(Write(m_lines + "userquery ?:a,b\n", "ann", {"a"}, {"b"}), 0);
    EXPECT_EQ(s_written.texts, Texts{});
}

TEST_F(WrittenTest, AttributeWithoutAValueIsLeftOut) {
    LDAPServer server;
    server.setServer("127.0.0.1");
    int error = 0;
    VELT::LDAPConnection* const connection = server.connect(error);
    s_written = {};
    EXPECT_EQ(LDAPServer::ldap_db_work(Note, connection, "x", {{"a", {}}, {"b", {"1"}}}), 77);
    EXPECT_EQ(s_written.texts, Texts{"b=1,"});
    server.release(connection);
}

TEST_F(WrittenTest, UserCannotLeaveItsPlaceInTheName) {
    Write(m_lines, "a,ou=other+x", {}, {});
    EXPECT_EQ(s_written.name, "uid=a\\,ou\\=other\\+x,ou=lists");
    EXPECT_EQ(s_written.texts.at(1), "uid=a,ou=other+x,");
}

TEST_F(WrittenTest, ValueWithANulGoesWhole) {
    Write(m_lines, std::string("a\0b", 3), {}, {});
    EXPECT_EQ(s_written.name, "uid=a\\00b,ou=lists");
    EXPECT_EQ(s_written.texts.at(1), std::string("uid=a\0b,", 8));
}

}  // namespace
