// Look-ups and lists on a real directory server.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <thread>

#include <testing/EventCapture.h>
#include <testing/Slapd.h>
#include <velt/connection/Connection.h>
#include <velt/ldap/DirectoryTest.h>
#include <velt/ldap/LDAPQuery.h>
#include <velt/ldap/LdapLibrary.h>
#include <velt/logging/Events.h>

namespace {

using VELT::LDAPGroup;
using VELT::LDAPPrim;
using VELT::LDAPQuery;
using VELT::LDAPServer;
using velt_testing::Slapd;

constexpr char kSearch[] = " SRCH base=";
constexpr char kDead[] = "server\nldapserver 127.0.0.2:1\nuserquery mail=?:cn\n";

class SlapdTest : public DirectoryTest {
protected:
    SlapdTest() { std::signal(SIGPIPE, SIG_IGN); }  // as in every process of a proxy
    std::string Lines(std::string const& more) const {
        return "server\nldapserver " + m_slapd.host() + "\nbase " + Slapd::kBase + "\n" + more;
    }
    std::string WritableLines() const {
        return Lines(std::string("user ") + Slapd::kAdmin +
                     "\npassword secret\nuserquery uid=?:allowList,denyList\nbwobjectclass objectClass:listUser\n"
                     "bwbasednformat uid=?,ou=lists,dc=example,dc=test\n");
    }
    int Groups(std::string const& address, VELT::Connection const* connection = nullptr) {
        return LDAPQuery::groups(address, m_groups, connection);
    }
    Texts OfHost(Texts names) const {
        for (std::string& one : names) one.insert(0, "127.0.0.1.");
        return names;
    }
    // As TLS_CACERT of ldap.conf(5) does it.
    static void Trust(std::string const& certificates) {
        int const client = 0;
        ::ldap_set_option(nullptr, LDAP_OPT_X_TLS_CACERTFILE, certificates.c_str());
        ::ldap_set_option(nullptr, LDAP_OPT_X_TLS_NEWCTX, &client);
    }
    static int SortedUsers(Texts& users) {
        int const result = LDAPPrim::getUserList(users);
        std::sort(users.begin(), users.end());
        return result;
    }
    std::size_t Searches() const { return m_slapd.Noted(kSearch); }

    Slapd m_slapd;
    Texts m_groups;
};

// ---- groups of an address

TEST_F(SlapdTest, GroupsOfAnAddressAreItsAttributesWithTheHostInFront) {
    Read(Lines("userquery (mail=?):departmentNumber\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"sales", "staff"}));
    EXPECT_EQ(Groups("nobody@example.test"), 0);
    EXPECT_EQ(m_groups, Texts{});
}

TEST_F(SlapdTest, GroupsComeInTwoStepsByWayOfTheNameOfTheEntry) {
    Read(Lines("userquery (mail=?):dn|(member=?):cn\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"sales", "all"}));
    EXPECT_EQ(Groups("bob@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"all"}));
    EXPECT_EQ(Groups("nobody@example.test"), 0);
    EXPECT_EQ(m_groups, Texts{});
}

// The name of an entry has bytes that a filter would take for its own.
TEST_F(SlapdTest, NameWithSpecialsLeadsToTheSecondStep) {
    Read(Lines("userquery (uid=?):dn|(entryDN=?):uid\n"), WritableLines());
    for (std::string const user : {"a,b", "(x)*", "back\\slash", "gr\xc3\xbc\xc3\x9f"}) {
        EXPECT_EQ(LDAPPrim::addUser(user, {}, {}), 0) << user;
        EXPECT_EQ(Groups(user), 0) << user;
        EXPECT_EQ(m_groups, OfHost({user})) << user;
    }
}

TEST_F(SlapdTest, EmptyAddressAsksNobody) {
    Read(Lines("userquery (mail=?):cn\n"));
    int error = 0;
    VELT::LDAPConnection* const connection = Servers()[0]->connect(error);
    m_groups = {"as before"};
    EXPECT_EQ(connection->query_email_address("", m_groups), 0);
    EXPECT_EQ(m_groups, Texts{"as before"});
    Servers()[0]->release(connection);
    EXPECT_EQ(Searches(), 0u);
}

TEST_F(SlapdTest, FilterWithoutAMarkIsUsedAsItStands) {
    Read(Lines("userquery (uid=bob):cn\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"Bob B"}));
}

TEST_F(SlapdTest, FilterWithTwoMarksHasTheAddressInBoth) {
    Read(Lines("userquery (&(mail=?)(mail=?)):uid\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"ann"}));
}

TEST_F(SlapdTest, AddressIsAValueAndNeverAFilter) {
    Read(Lines("userquery (mail=?):uid|(uid=?):cn\n"));
    for (char const* const address : {"*", "a*", "ann@example.test)(uid=*", "*)(|(uid=*", "\\2a"}) {
        EXPECT_EQ(Groups(address), 0) << address;
        EXPECT_EQ(m_groups, Texts{}) << address;
    }
}

// For this type the server is trusted to know such an attribute by itself.
TEST_F(SlapdTest, ExchangeIsAskedForTheNameAsForAnyAttribute) {
    Read(Lines("type exchange\nuserquery (mail=?):dn\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, Texts{});
    Servers()[0]->setServerType("Exchange");
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"uid=ann,ou=people,dc=example,dc=test"}));
}

TEST_F(SlapdTest, FailureOfTheFirstStepIsTheResultAndThereIsNoSecond) {
    Read(Lines("userquery (mail=?:uid|(uid=?):cn\n"));
    EXPECT_EQ(Groups("ann@example.test"), LDAP_FILTER_ERROR);
    EXPECT_EQ(m_groups, Texts{});
    EXPECT_EQ(Searches(), 0u);
}

TEST_F(SlapdTest, EntriesUpToTheLimitOfTheServerCount) {
    Slapd few("limits users size=3\nlimits anonymous size=2\n");
    Read("server\nldapserver " + few.host() + "\nbase " + Slapd::kBase + "\nuserquery (objectClass=*):dn\n");
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups.size(), 2u);
}

// ---- groups of the directory

TEST_F(SlapdTest, AllGroupsOfOneAttributeAreNamedTwiceByIt) {
    Read(Lines("groupquery :a (objectClass=groupOfNames):cn\n"));
    int error = 0;
    VELT::LDAPConnection* const connection = Servers()[0]->connect(error);
    std::vector<LDAPGroup> groups;
    EXPECT_EQ(connection->query_groups(groups), 0);
    ASSERT_EQ(groups.size(), 3u);  // those found first, then the static one
    EXPECT_EQ(groups[0].name, "127.0.0.1.sales");
    EXPECT_EQ(groups[0].id, "127.0.0.1.sales");
    EXPECT_EQ(groups[2].name, "127.0.0.1.a");
    Servers()[0]->release(connection);
}

TEST_F(SlapdTest, StaticGroupsAloneAreNoSearch) {
    Read(Lines("groupquery :admins :staff\n"));
    int error = 0;
    VELT::LDAPConnection* const connection = Servers()[0]->connect(error);
    std::vector<LDAPGroup> groups;
    EXPECT_EQ(connection->query_groups(groups), 0);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].id, "127.0.0.1.admins");
    EXPECT_EQ(groups[1].name, "127.0.0.1.staff");
    Servers()[0]->release(connection);
    EXPECT_EQ(Searches(), 0u);
}

TEST_F(SlapdTest, AllGroupsOfTwoAttributesHaveANameAndANumber) {
    Read(Lines("groupquery (objectClass=groupOfNames):cn,description\n"));
    int error = 0;
    VELT::LDAPConnection* const connection = Servers()[0]->connect(error);
    std::vector<LDAPGroup> groups;
    EXPECT_EQ(connection->query_groups(groups), 0);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[1].name, "127.0.0.1.all");
    EXPECT_EQ(groups[1].id, "127.0.0.1.4");
    Servers()[0]->release(connection);
}

TEST_F(SlapdTest, TwoAttributesOfDifferentCountsGiveTheStaticGroupsAlone) {
    Read(Lines("groupquery :a (objectClass=groupOfNames):cn,member\n"));
    int error = 0;
    VELT::LDAPConnection* const connection = Servers()[0]->connect(error);
    std::vector<LDAPGroup> groups;
    EXPECT_EQ(connection->query_groups(groups), 0);
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(groups[0].name, "127.0.0.1.a");
    Servers()[0]->release(connection);
}

TEST_F(SlapdTest, FailedSearchForGroupsSpoilsTheConnectionAndLeavesTheStaticOnes) {
    Read(Lines("groupquery :a (x:cn\n"));
    int error = 0;
    VELT::LDAPConnection* const connection = Servers()[0]->connect(error);
    std::vector<LDAPGroup> groups;
    EXPECT_EQ(connection->query_groups(groups), LDAP_FILTER_ERROR);
    EXPECT_TRUE(connection->failed);
    EXPECT_EQ(groups.size(), 1u);
    Servers()[0]->release(connection);
}

// ---- connections

TEST_F(SlapdTest, ConnectionIsKeptAndUsedAgain) {
    Read(Lines("userquery (mail=?):uid\n"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_slapd.Connections(), 1u);
    EXPECT_EQ(m_slapd.Noted(" BIND "), 0u);  // nobody by name: no bind at all
}

TEST_F(SlapdTest, ConnectionIsBoundOnce) {
    Read(Lines(std::string("userquery (mail=?):uid\nuser ") + Slapd::kAdmin + "\npassword secret\n"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_slapd.Noted(" BIND dn=\"cn=admin,dc=example,dc=test\" mech=SIMPLE"), 1u);
}

TEST_F(SlapdTest, WrongPasswordIsTheResultAndNoConnectionIsLeft) {
    Read(Lines(std::string("userquery (mail=?):uid\nuser ") + Slapd::kAdmin + "\npassword wrong\n"));
    EXPECT_EQ(Groups("ann@example.test"), LDAP_INVALID_CREDENTIALS);
    EXPECT_TRUE(m_slapd.WaitForEnds(1));
}

TEST_F(SlapdTest, UncachedConnectionsEndWithTheirUse) {
    Read(Lines("userquery (mail=?):uid\n"), "", false);
    for (unsigned i = 1; i <= 3; ++i) {
        EXPECT_EQ(Groups("ann@example.test"), 0);
        EXPECT_TRUE(m_slapd.WaitForEnds(i));
        EXPECT_EQ(m_slapd.Connections(), i);
    }
}

TEST_F(SlapdTest, ServerThatWasRestartedIsAskedOnceMore) {
    Read(Lines("userquery (mail=?):uid\n"));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Groups("ann@example.test"), 0);
        EXPECT_EQ(m_groups, OfHost({"ann"}));
        m_slapd.Stop();
        m_slapd.Start();
    }
    EXPECT_EQ(Groups("ann@example.test"), 0);
}

TEST_F(SlapdTest, FreshConnectionThatFailsIsNotTriedAgain) {
    Read(Lines("userquery (mail=?):uid\n"));
    m_slapd.Stop();
    EXPECT_EQ(Groups("ann@example.test"), LDAP_SERVER_DOWN);
    m_slapd.Start();
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_slapd.Connections(), 1u);
}

TEST_F(SlapdTest, StaleConnectionThatCannotBeOpenedAgainIsAFailure) {
    Read(Lines("userquery (mail=?):dn|(member=?):cn\nuser " + std::string(Slapd::kAdmin) + "\npassword secret\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    m_slapd.Stop();
    EXPECT_EQ(Groups("ann@example.test"), LDAP_SERVER_DOWN);
    EXPECT_EQ(m_groups, Texts{});
    m_slapd.Start();
    EXPECT_EQ(Groups("ann@example.test"), 0);
}

TEST_F(SlapdTest, FrozenServerEndsABindByTheLimitToo) {
    Read(Lines("userquery (mail=?):uid\nuser " + std::string(Slapd::kAdmin) + "\npassword secret\n"), "", true, 1);
    EXPECT_EQ(Groups("ann@example.test"), 0);
    m_slapd.Freeze();
    EXPECT_EQ(Groups("ann@example.test"), LDAP_TIMEOUT);
    m_slapd.Thaw();
    EXPECT_EQ(Groups("ann@example.test"), 0);
}

TEST_F(SlapdTest, FrozenServerEndsTheSearchByItsLimit) {
    Read(Lines("userquery (mail=?):uid\n"), "", true, 1);
    EXPECT_EQ(Groups("ann@example.test"), 0);
    m_slapd.Freeze();
    EXPECT_EQ(Groups("ann@example.test"), LDAP_TIMELIMIT_EXCEEDED);
    m_slapd.Thaw();
    EXPECT_EQ(Groups("ann@example.test"), 0);
}

TEST_F(SlapdTest, ConnectionsAreLentInTheOrderOfTheirReturn) {
    Read(Lines("userquery (mail=?):uid\n"));
    LDAPServer& server = *Servers()[0];
    int error = -1;
    std::vector<VELT::LDAPConnection*> lent;
    for (int i = 0; i < 3; ++i) lent.push_back(server.connect(error));
    EXPECT_EQ(error, 0);
    for (VELT::LDAPConnection* const one : lent) EXPECT_FALSE(one->reused);
    for (int const i : {1, 2, 0}) server.release(lent[i]);
    for (int const i : {1, 2, 0}) {
        error = -1;
        EXPECT_EQ(server.connect(error), lent[i]);
        EXPECT_EQ(error, 0);
        EXPECT_TRUE(lent[i]->reused);
        EXPECT_FALSE(lent[i]->failed);
    }
    for (VELT::LDAPConnection* const one : lent) server.release(one);
}

TEST_F(SlapdTest, FailedConnectionIsNotKept) {
    Read(Lines("userquery (mail=?):uid\n"));
    int error = 0;
    VELT::LDAPConnection* const connection = Servers()[0]->connect(error);
    std::vector<VELT::LDAPAttribute> found;
    EXPECT_EQ(Servers()[0]->query(connection, "(uid=ann)", nullptr, found), 0);
    connection->failed = true;
    Servers()[0]->release(connection);
    EXPECT_TRUE(m_slapd.WaitForEnds(1));
}

// As many connections as threads at most, and each of them is back at the end.
TEST_F(SlapdTest, ThreadsShareTheConnectionsOfAServer) {
    constexpr int kThreads = 8, kQueries = 40;
    Read(Lines("userquery (mail=?):dn|(member=?):cn\n"));
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            bool const ann = thread % 2 == 0;
            Texts const expected = ann ? OfHost({"sales", "all"}) : OfHost({"all"});
            Texts groups;
            for (int i = 0; i < kQueries; ++i)
                wrong += LDAPQuery::groups(ann ? "ann@example.test" : "bob@example.test", groups, nullptr) != 0 ||
                         groups != expected;
        });
    }
    for (std::thread& one : threads) one.join();
    EXPECT_EQ(wrong, 0);
    std::size_t const made = m_slapd.Connections();
    EXPECT_LE(made, static_cast<std::size_t>(kThreads));
    std::vector<VELT::LDAPConnection*> idle;
    int error = 0;
    for (bool reused = true; reused; reused = idle.back()->reused) idle.push_back(Servers()[0]->connect(error));
    EXPECT_EQ(idle.size() - 1, made);
    for (VELT::LDAPConnection* const one : idle) Servers()[0]->release(one);
}

TEST_F(SlapdTest, ThreadsSurviveARestartOfTheServer) {
    constexpr int kThreads = 4;
    Read(Lines("userquery (mail=?):uid\n"));
    std::atomic<int> failed{0};
    auto const all = [&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i)
            threads.emplace_back([&] {
                Texts groups;
                failed += LDAPQuery::groups("ann@example.test", groups, nullptr) != 0 || groups != OfHost({"ann"});
            });
        for (std::thread& one : threads) one.join();
    };
    for (int i = 0; i < 3; ++i) {
        all();
        m_slapd.Stop();
        m_slapd.Start();
    }
    EXPECT_EQ(failed, 0);
}

// ---- several servers

TEST_F(SlapdTest, DeadServerDoesNotStopTheOthersAndTheLastOneDecidesTheResult) {
    Read(kDead + Lines("userquery (mail=?):uid\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"ann"}));
}

TEST_F(SlapdTest, DeadServerAtTheEndIsTheResult) {
    Read(Lines("userquery (mail=?):uid\n") + "server\nldapserver 127.1:1\nuser x\nuserquery mail=?:cn\n");
    EXPECT_NE(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"ann"}));  // it was never asked, so the answer before stands
}

TEST_F(SlapdTest, GroupsAreTheLastServersAndNoUnion) {
    Read(Lines("userquery (mail=?):uid\n") + "server\nldapserver 127.1:" + std::to_string(m_slapd.port()) + "\nbase " +
         Slapd::kBase + "\nuserquery (mail=?):sn\n");
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, Texts{"127.1.A"});
}

TEST_F(SlapdTest, NoServersAreNoGroups) {
    Read("");
    m_groups = {"x"};
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, Texts{});
}

TEST_F(SlapdTest, FailuresAreReportedForASession) {
    velt_testing::EventCapture events;
    VELT::Connection session;
    Read("server\nldapserver 127.0.0.2:1\nuser x\nuserquery mail=?:cn\n" + Lines("") +
         "server\nldapserver 127.1:" + std::to_string(m_slapd.port()) + "\nuserquery (mail=?:cn\n");
    events.Expect(VELT::events::DIRECTORY_UNREACHABLE);
    events.Expect(VELT::events::DIRECTORY_QUERY_FAILED, 1);
    Servers()[1]->setUserQuery("(mail=?):uid");
    EXPECT_EQ(Groups("ann@example.test", &session), LDAP_FILTER_ERROR);
    EXPECT_EQ(velt_testing::Describe(events.Bag(VELT::events::DIRECTORY_UNREACHABLE)),
              "ldap_error_text=Can't contact LDAP server ldap_error_number=-1 ldap_email_address=ann@example.test "
              "ldap_server=127.0.0.2");
    EXPECT_EQ(velt_testing::Describe(events.Bag(VELT::events::DIRECTORY_QUERY_FAILED)),
              "ldap_error_text=Bad search filter ldap_error_number=-7 ldap_email_address=ann@example.test "
              "ldap_server=127.1");
    EXPECT_EQ(Groups("ann@example.test"), LDAP_FILTER_ERROR);  // without a session nobody is told
}

// ---- StartTLS

TEST_F(SlapdTest, SecureServerIsAskedBehindStartTls) {
    Trust(m_slapd.certificates());
    Read(Lines("secure 1\nuserquery (mail=?):uid\n"));
    EXPECT_EQ(Groups("ann@example.test"), 0);
    EXPECT_EQ(m_groups, OfHost({"ann"}));
    EXPECT_EQ(m_slapd.Noted(" TLS established"), 1u);
}

TEST_F(SlapdTest, CertificateThatNobodyKnowsIsAFailure) {
    Trust("/dev/null");
    Read(Lines("secure 1\nuserquery (mail=?):uid\n"));
    EXPECT_EQ(Groups("ann@example.test"), LDAP_CONNECT_ERROR);
    EXPECT_EQ(Searches(), 0u);
}

// ---- lists

TEST_F(SlapdTest, ListsAreReadAsTheyWereWritten) {
    Read("", WritableLines());
    Texts first, second;
    EXPECT_EQ(LDAPPrim::addUser("ann", {"a@x", "*@y"}, {"b@z"}), 0);
    EXPECT_EQ(LDAPPrim::getUserBWlist("ann", first, second), 0);
    EXPECT_EQ(first, (Texts{"a@x", "*@y"}));
    EXPECT_EQ(second, Texts{"b@z"});
    EXPECT_EQ(LDAPPrim::setUserBWlist("ann", {}, {"c"}), 0);
    EXPECT_EQ(LDAPPrim::getUserBWlist("ann", first, second), 0);
    EXPECT_EQ(first, Texts{});
    EXPECT_EQ(second, Texts{"c"});
    EXPECT_EQ(LDAPPrim::setUserBWlist("nobody", {}, {}), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(LDAPPrim::addUser("ann", {}, {}), LDAP_ALREADY_EXISTS);
}

TEST_F(SlapdTest, ListsOfAnUnknownUserAreEmpty) {
    Read("", WritableLines());
    Texts first{"x"}, second{"y"};
    EXPECT_EQ(LDAPPrim::getUserBWlist("nobody", first, second), 0);
    EXPECT_EQ(first, Texts{});
    EXPECT_EQ(second, Texts{});
}

TEST_F(SlapdTest, UsersAreListedAndDeleted) {
    Read("", WritableLines());
    Texts users;
    for (char const* const user : {"carl", "dora"}) EXPECT_EQ(LDAPPrim::addUser(user, {}, {}), 0);
    EXPECT_EQ(SortedUsers(users), 0);
    EXPECT_EQ(users, (Texts{"ann", "bob", "carl", "dora"}));
    EXPECT_EQ(LDAPPrim::delUser("carl"), 0);
    EXPECT_EQ(SortedUsers(users), 0);
    EXPECT_EQ(users, (Texts{"ann", "bob", "dora"}));
    EXPECT_EQ(LDAPPrim::delUser("carl"), 0);  // there is none
}

TEST_F(SlapdTest, UsersOfAFilterInParenthesesAreUnknownToTheServer) {
    Read("", Lines("userquery (uid=?):a,b\n"));
    Texts users{"x"};
    EXPECT_EQ(LDAPPrim::getUserList(users), 0);
    EXPECT_EQ(users, Texts{});
    EXPECT_EQ(LDAPPrim::getBWServer()->setUserQuery("uid"), true);
    EXPECT_EQ(LDAPPrim::getUserList(users), 0);
}

TEST_F(SlapdTest, OneUserIsTouchedWhateverItsName) {
    Read("", WritableLines());
    Texts const others = {"plain", "x*y", "xay"};
    for (std::string const& one : others) EXPECT_EQ(LDAPPrim::addUser(one, {}, {}), 0);
    Texts const before = m_slapd.Lists();
    for (std::string const& user : {std::string("*"), std::string("("), std::string("\\"), std::string("a\0b", 3),
                                    std::string("gr\xc3\xbc\xc3\x9f"), std::string("p*"), std::string("a,b+c=d;e<f>"),
                                    std::string(")(uid=*"), std::string("#1"), std::string("\"q\"")}) {
        EXPECT_EQ(LDAPPrim::addUser(user, {"w"}, {}), 0) << user;
        EXPECT_EQ(m_slapd.Lists().size(), before.size() + 1) << user;
        Texts first, second;
        EXPECT_EQ(LDAPPrim::getUserBWlist(user, first, second), 0);
        EXPECT_EQ(first, Texts{"w"}) << user;
        EXPECT_EQ(LDAPPrim::delUser(user), 0) << user;
        EXPECT_EQ(m_slapd.Lists(), before) << user;
    }
}

TEST_F(SlapdTest, ServerThatRefusesADeleteIsTold) {
    Read("", Lines("userquery uid=?:allowList,denyList\n"));
    EXPECT_EQ(LDAPPrim::delUser("ann"), LDAP_STRONG_AUTH_REQUIRED);
}

TEST_F(SlapdTest, FailureOfTheListsIsReportedForASession) {
    velt_testing::EventCapture events;
    VELT::Connection session;
    Read("", WritableLines());
    m_slapd.Stop();
    Texts first, second;
    events.Expect(VELT::events::DIRECTORY_UNREACHABLE);
    EXPECT_EQ(LDAPQuery::userlistinfo("ann", first, second, &session), LDAP_SERVER_DOWN);
    EXPECT_EQ(LDAPQuery::userlistinfo("ann", first, second, nullptr), LDAP_SERVER_DOWN);
}

}  // namespace
