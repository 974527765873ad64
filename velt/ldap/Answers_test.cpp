// Answers that a real directory server gives on no request, and none at all.
#include <csignal>

#include <testing/ScriptedDirectory.h>
#include <velt/ldap/DirectoryTest.h>
#include <velt/ldap/LDAPQuery.h>
#include <velt/ldap/LdapLibrary.h>

namespace {

using VELT::LDAPAttribute;
using VELT::LDAPConnection;
using VELT::LDAPPrim;
using VELT::LDAPQuery;
using VELT::LDAPServer;
using velt_testing::ScriptedDirectory;
using Client = ScriptedDirectory::Client;
using Request = ScriptedDirectory::Request;

constexpr char kAnn[] = "uid=ann,dc=test";
constexpr char kOneStep[] = "userquery (mail=?):ou\n";
constexpr char kTwoSteps[] = "userquery (mail=?):ou|(ou=?):cn\n";
constexpr char kBound[] = "user cn=gateway\npassword secret\n";
constexpr char kLists[] =
    "userquery uid=?:allowList,denyList\nbwobjectclass objectClass:listUser\nbwbasednformat uid=?,dc=test\n";
constexpr int kUnwilling = LDAP_UNWILLING_TO_PERFORM;

// Answers all binds, and each search by one entry with one group.
void Kindly(Client& client, Request const& request) {
    if (request.type == LDAP_REQ_SEARCH) client.Entry(request, kAnn, {{"ou", {"sales"}}});
    if (request.type != LDAP_REQ_UNBIND && request.type != LDAP_REQ_ABANDON) client.End(request);
}

class AnswersTest : public DirectoryTest {
protected:
    AnswersTest() { std::signal(SIGPIPE, SIG_IGN); }  // as in every process of a proxy
    static std::string Lines(ScriptedDirectory const& directory, std::string const& more) {
        return "server\nldapserver 127.0.0.1:" + std::to_string(directory.port()) + "\nbase dc=test\nreferrals 0\n" +
               more;
    }
    int Groups() { return LDAPQuery::groups("ann@example.test", m_groups, nullptr); }
    Texts const m_sales{"127.0.0.1.sales"};
    Texts m_groups;
};

// ---- what is asked

TEST_F(AnswersTest, SearchGoesThroughTheWholeTreeWithinItsLimits) {
    ScriptedDirectory directory(Kindly);
    Read(Lines(directory, std::string(kOneStep) + "timeout 3\nconnecttimeout 3\n"), "", true, 77);
    EXPECT_EQ(Groups(), 0);
    ASSERT_EQ(directory.Requests().size(), 1u);
    Request const asked = directory.Requests()[0];
    EXPECT_EQ(asked.type, static_cast<unsigned>(LDAP_REQ_SEARCH));  // nobody by name: no bind in front of it
    EXPECT_EQ(asked.name, "dc=test");
    EXPECT_EQ(asked.scope, LDAP_SCOPE_SUBTREE);
    EXPECT_EQ(asked.entries, 100000);
    EXPECT_EQ(asked.seconds, 77);
}

TEST_F(AnswersTest, BindHasTheUserAndThePassword) {
    ScriptedDirectory directory(Kindly);
    Read(Lines(directory, std::string(kOneStep) + kBound));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(directory.Count(LDAP_REQ_BIND), 1u);
    Request const bind = directory.Requests().at(0);
    EXPECT_EQ(bind.version, LDAP_VERSION3);
    EXPECT_EQ(bind.name, "cn=gateway");
    EXPECT_EQ(bind.password, "secret");
}

TEST_F(AnswersTest, WhoeverHasNoUserHasNoUseForAPassword) {
    ScriptedDirectory directory(Kindly);
    Read(Lines(directory, std::string(kOneStep) + "user \npassword secret\n"));
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(directory.Count(LDAP_REQ_BIND), 0u);
}

// ---- what comes

TEST_F(AnswersTest, WhatIsNeitherEntryNorEndIsPassedOver) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        client.Notice();
        client.Reference(request);
        client.Intermediate(request);
        client.Entry(request, kAnn, {{"ou", {"sales"}}});
        client.Reference(request);
        client.End(request);
    });
    Read(Lines(directory, kOneStep));
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(m_groups, m_sales);
}

// So the entries that a server gives up to its own size limit count.
TEST_F(AnswersTest, CodeOfTheEndOfASearchIsNotLookedAt) {
    int code = 0;
    ScriptedDirectory directory([&](Client& client, Request const& request) {
        client.Entry(request, kAnn, {{"ou", {"sales"}}});
        client.End(request, code);
    });
    Read(Lines(directory, kOneStep));
    for (int const one : {LDAP_SIZELIMIT_EXCEEDED, LDAP_TIMELIMIT_EXCEEDED, LDAP_BUSY, LDAP_NO_SUCH_OBJECT}) {
        code = one;
        EXPECT_EQ(Groups(), 0) << code;
        EXPECT_EQ(m_groups, m_sales) << code;
    }
    EXPECT_EQ(directory.Connections(), 1);
}

TEST_F(AnswersTest, ValuesOfAllEntriesAreJoinedByTheExactNameOfTheirAttribute) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        client.Entry(request, kAnn, {{"cn", {"1", "2"}}, {"ou", {std::string("a\0b", 3)}}});
        client.Entry(request, kAnn, {{"CN", {"3"}}});
        client.Entry(request, kAnn, {{"cn", {"4"}}});
        client.End(request);
    });
    Read(Lines(directory, kOneStep));
    int error = 0;
    LDAPServer& server = *Servers()[0];
    LDAPConnection* const connection = server.connect(error);
    std::vector<LDAPAttribute> found{{"old", {"x"}}};
    EXPECT_EQ(server.query(connection, "(x=y)", nullptr, found), 0);
    ASSERT_EQ(found.size(), 3u);
    std::map<std::string, Texts> byName;
    for (LDAPAttribute const& one : found) byName[one.name] = one.values;
    EXPECT_EQ(byName["cn"], (Texts{"1", "2", "4"}));
    EXPECT_EQ(byName["CN"], Texts{"3"});
    EXPECT_EQ(byName["ou"], Texts{std::string("a\0b", 3)});
    server.release(connection);
}

TEST_F(AnswersTest, NameOfAnEntryHasItsBytesBack) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        client.Entry(request, "cn=#41#6a#6A,dc=test");
        client.End(request);
    });
    Read(Lines(directory, "userquery (mail=?):dn\n"));
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(m_groups, Texts{"127.0.0.1.cn=Ajj,dc=test"});
    Servers()[0]->setServerType("exchange");
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(m_groups, Texts{});
}

TEST_F(AnswersTest, WithoutAConnectionNothingIsAsked) {
    LDAPServer server;
    std::vector<LDAPAttribute> found{{"old", {"x"}}};
    EXPECT_EQ(server.ldap_search(nullptr, "(x=y)", nullptr, found), 0);
    EXPECT_EQ(found.size(), 1u);
    EXPECT_EQ(server.query(nullptr, "(x=y)", nullptr, found), -1);
    EXPECT_EQ(found.size(), 0u);
}

// ---- a server that goes

TEST_F(AnswersTest, FreshConnectionThatEndsIsNotTriedAgain) {
    ScriptedDirectory directory([](Client& client, Request const&) { client.Close(); });
    Read(Lines(directory, kOneStep));
    EXPECT_EQ(Groups(), LDAP_SERVER_DOWN);
    EXPECT_EQ(directory.Count(LDAP_REQ_SEARCH), 1u);
}

TEST_F(AnswersTest, ConnectionThatWaitedIsOpenedAgainOnceAndBoundAgain) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.type == LDAP_REQ_SEARCH && request.id > 2) return client.Close();  // the second on a connection
        Kindly(client, request);
    });
    Read(Lines(directory, std::string(kOneStep) + kBound));
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(Groups(), 0);
        EXPECT_EQ(m_groups, m_sales);
        EXPECT_EQ(directory.Connections(), i);
        EXPECT_EQ(directory.Count(LDAP_REQ_BIND), static_cast<std::size_t>(i));
    }
}

// What came in front of the end does not count twice.
TEST_F(AnswersTest, AnswerThatBreaksOffIsForgotten) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.connection == 1 && request.id > 1) {
            client.Entry(request, kAnn, {{"ou", {"half"}}});
            return client.Close();
        }
        Kindly(client, request);
    });
    Read(Lines(directory, kOneStep));
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(m_groups, m_sales);
}

TEST_F(AnswersTest, RetryThatFailsTooIsTheResult) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.connection == 1 && request.id == 1) return Kindly(client, request);
        client.Close();
    });
    Read(Lines(directory, kOneStep));
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(Groups(), LDAP_SERVER_DOWN);
    EXPECT_EQ(directory.Connections(), 2);
    EXPECT_EQ(directory.Count(LDAP_REQ_SEARCH), 3u);
    EXPECT_EQ(Groups(), LDAP_SERVER_DOWN);  // on one of its own: what failed was not kept
    EXPECT_EQ(directory.Connections(), 3);
    EXPECT_EQ(directory.Count(LDAP_REQ_SEARCH), 4u);
}

TEST_F(AnswersTest, BindThatIsRefusedInARetryIsTheResult) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.type == LDAP_REQ_BIND && request.connection > 1)
            return client.End(request, LDAP_INVALID_CREDENTIALS);
        if (request.id > 2) return client.Close();
        Kindly(client, request);
    });
    Read(Lines(directory, std::string(kOneStep) + kBound));
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(Groups(), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(m_groups, Texts{});
}

TEST_F(AnswersTest, ConnectionThatCouldNotBeOpenedAgainIsSearchedByNobody) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.type == LDAP_REQ_BIND && request.connection > 1)
            return client.End(request, LDAP_INVALID_CREDENTIALS);
        if (request.type == LDAP_REQ_SEARCH && request.id > 3) return client.Close();
        if (request.type == LDAP_REQ_SEARCH && request.name == "dc=test")
            client.Entry(request, kAnn, {{"ou", {"a", "b", "c"}}});
        if (request.type != LDAP_REQ_UNBIND) client.End(request);
    });
    Read(Lines(directory, std::string(kOneStep) + kBound));
    EXPECT_EQ(Groups(), 0);
    Servers()[0]->setUserQuery("(mail=?):ou|(ou=?):cn");
    EXPECT_EQ(Groups(), LDAP_SERVER_DOWN);
    EXPECT_EQ(directory.Connections(), 2);
    int error = 0;
    LDAPConnection* const lost = new LDAPConnection(nullptr, Servers()[0]);
    std::vector<LDAPAttribute> found;
    EXPECT_EQ(Servers()[0]->ldap_search(lost, "(x=y)", nullptr, found), LDAP_SERVER_DOWN);
    Servers()[0]->release(lost);  // is not kept
    LDAPConnection* const fresh = Servers()[0]->connect(error);
    EXPECT_EQ(fresh, nullptr);
    EXPECT_EQ(error, LDAP_INVALID_CREDENTIALS);
}

// The library would begin a new one by itself, without StartTLS and without the bind.
TEST_F(AnswersTest, ConnectionThatEndsAmidTheSecondStepIsNotBegunAnew) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.type == LDAP_REQ_SEARCH && request.id > 2) return client.Close();
        if (request.type == LDAP_REQ_SEARCH) client.Entry(request, kAnn, {{"ou", {"a", "b", "c"}}});
        client.End(request);
    });
    Read(Lines(directory, std::string(kTwoSteps) + kBound));
    EXPECT_EQ(Groups(), LDAP_SERVER_DOWN);
    EXPECT_EQ(directory.Connections(), 1);
    EXPECT_EQ(directory.Count(LDAP_REQ_SEARCH), 2u);
}

TEST_F(AnswersTest, FailureOfOneValueOfTheSecondStepDoesNotStopTheOthers) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        client.Entry(request, kAnn, {{"ou", request.id == 1 ? Texts{"no filter", "cn=all"} : Texts{"found"}}});
        client.End(request);
    });
    Read(Lines(directory, "userquery (mail=?):ou|(?):cn\n"));
    EXPECT_EQ(Groups(), 0);  // that of the last value
    EXPECT_EQ(m_groups, Texts{"127.0.0.1.found"});
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(directory.Connections(), 2);  // what failed once is not kept
}

TEST_F(AnswersTest, FirstStepThatFindsNothingIsTheResult) {
    ScriptedDirectory directory([](Client& client, Request const& request) { client.End(request); });
    Read(Lines(directory, kTwoSteps));
    EXPECT_EQ(Groups(), 0);
    EXPECT_EQ(directory.Count(LDAP_REQ_SEARCH), 1u);
}

// ---- a server that falls silent

TEST_F(AnswersTest, SearchWithoutAnAnswerEndsAndIsAbandoned) {
    ScriptedDirectory directory([](Client&, Request const&) {});
    Read(Lines(directory, kOneStep), "", true, 1);
    EXPECT_EQ(Groups(), LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_TRUE(directory.WaitFor(LDAP_REQ_ABANDON));
    EXPECT_TRUE(directory.WaitFor(LDAP_REQ_UNBIND));
    EXPECT_EQ(directory.Connections(), 1);
}

TEST_F(AnswersTest, SearchWhoseEntriesNeverEndHasTheSameLimit) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.type != LDAP_REQ_SEARCH) return;
        do client.Entry(request, kAnn, {{"ou", {"sales"}}});
        while (client.IsSilent(50));
    });
    Read(Lines(directory, kOneStep), "", true, 1);
    EXPECT_EQ(Groups(), LDAP_TIMELIMIT_EXCEEDED);
    EXPECT_TRUE(directory.WaitFor(LDAP_REQ_ABANDON));
}

TEST_F(AnswersTest, BindWithoutAnAnswerEnds) {
    ScriptedDirectory directory([](Client&, Request const&) {});
    Read(Lines(directory, std::string(kOneStep) + kBound), "", true, 1);
    EXPECT_EQ(Groups(), LDAP_TIMEOUT);
    EXPECT_EQ(directory.Count(LDAP_REQ_SEARCH), 0u);
}

TEST_F(AnswersTest, DeleteWithoutAnAnswerEndsAndIsTheLast) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.type != LDAP_REQ_SEARCH) return;
        for (char const* const name : {"uid=a", "uid=b"}) client.Entry(request, name);
        client.End(request);
    });
    Read("", Lines(directory, kLists), true, 1);
    EXPECT_EQ(LDAPPrim::delUser("ann"), LDAP_TIMEOUT);
    EXPECT_EQ(directory.Count(LDAP_REQ_DELETE), 1u);
    EXPECT_TRUE(directory.WaitFor(LDAP_REQ_UNBIND));  // it is not kept
}

// ---- users and lists

TEST_F(AnswersTest, UsersAreThoseOfAnAnswerWithOneAttribute) {
    bool two = false;
    ScriptedDirectory directory([&](Client& client, Request const& request) {
        client.Entry(request, kAnn, {{"uid", {"ann"}}});
        client.Entry(request, "uid=bob,dc=test", {{two ? "UID" : "uid", {"bob"}}});
        client.End(request);
    });
    Read("", Lines(directory, kLists));
    Texts users{"old"};
    EXPECT_EQ(LDAPPrim::getUserList(users), 0);
    EXPECT_EQ(users, (Texts{"ann", "bob"}));
    two = true;
    EXPECT_EQ(LDAPPrim::getUserList(users), 0);
    EXPECT_EQ(users, Texts{});
}

TEST_F(AnswersTest, ListsOfTheSameAttributeAreTheSame) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        client.Entry(request, kAnn, {{"list", {"a", "-", "b"}}, {"other", {"c"}}});
        client.End(request);
    });
    Read("", Lines(directory, "userquery uid=?:list,list\n"));
    Texts first, second;
    EXPECT_EQ(LDAPPrim::getUserBWlist("ann", first, second), 0);
    EXPECT_EQ(first, (Texts{"a", "b"}));
    EXPECT_EQ(second, first);
}

TEST_F(AnswersTest, WithoutAFilterOrTwoAttributesThereIsNothingToAskFor) {
    ScriptedDirectory directory(Kindly);
    for (char const* const lines : {"userquery uid=?:allowList\n", "userquery uid=?\n", "userquery :a,b\n", ""}) {
        Read("", Lines(directory, lines));
        Texts first{"x"}, second{"y"};
        EXPECT_EQ(LDAPPrim::getUserBWlist("ann", first, second), 0) << lines;
        EXPECT_EQ(first, Texts{}) << lines;
        EXPECT_EQ(second, Texts{}) << lines;
    }
    Texts users{"x"};
    EXPECT_EQ(LDAPPrim::getBWServer()->setUserQuery(":a,b"), true);
    EXPECT_EQ(LDAPPrim::getUserList(users), 0);
    EXPECT_EQ(users, Texts{});
    EXPECT_EQ(LDAPPrim::addUser("ann", {}, {}), 0);
    EXPECT_EQ(LDAPPrim::delUser("ann"), 0);
    EXPECT_EQ(directory.Requests().size(), 0u);
}

// ---- changes

TEST_F(AnswersTest, RefusedDeleteDoesNotStopTheOthersAndTheLastFailureIsTheResult) {
    std::map<std::string, int> codes;
    ScriptedDirectory directory([&](Client& client, Request const& request) {
        if (request.type == LDAP_REQ_DELETE) return client.End(request, codes[request.name]);
        for (char const* const name : {"uid=a", "uid=b", "uid=c"}) client.Entry(request, name);
        client.End(request);
    });
    Read("", Lines(directory, kLists));
    codes = {{"uid=a", LDAP_INSUFFICIENT_ACCESS}, {"uid=b", kUnwilling}};
    EXPECT_EQ(LDAPPrim::delUser("ann"), kUnwilling);
    EXPECT_EQ(directory.Count(LDAP_REQ_DELETE), 3u);
    codes = {{"uid=a", LDAP_INSUFFICIENT_ACCESS}};
    EXPECT_EQ(LDAPPrim::delUser("ann"), LDAP_INSUFFICIENT_ACCESS);
    codes = {};
    EXPECT_EQ(LDAPPrim::delUser("ann"), 0);
    EXPECT_EQ(directory.Connections(), 1);
}

// A change is sent once: nobody knows what became of the first one.
TEST_F(AnswersTest, ChangeOnAConnectionThatEndedFailsAndTheNextOneWorks) {
    ScriptedDirectory directory([](Client& client, Request const& request) {
        if (request.connection == 1 && request.id == 2) return client.Close();
        client.End(request);
    });
    Read("", Lines(directory, kLists));
    EXPECT_EQ(LDAPPrim::addUser("ann", {}, {}), 0);
    EXPECT_EQ(LDAPPrim::setUserBWlist("ann", {}, {}), LDAP_SERVER_DOWN);
    EXPECT_EQ(LDAPPrim::setUserBWlist("ann", {}, {}), 0);
    EXPECT_EQ(directory.Connections(), 2);
    EXPECT_EQ(directory.Count(LDAP_REQ_MODIFY), 2u);
}

TEST_F(AnswersTest, ChangeThatIsRefusedKeepsTheConnection) {
    ScriptedDirectory directory(
        [](Client& client, Request const& request) { client.End(request, LDAP_ALREADY_EXISTS); });
    Read("", Lines(directory, kLists));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(LDAPPrim::addUser("ann", {}, {}), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(directory.Connections(), 1);
}

TEST_F(AnswersTest, ChangeWithoutAConnectionIsNone) {
    auto const never = [](LDAP*, char const*, LDAPMod**) { return 0; };
    EXPECT_EQ(LDAPServer::ldap_db_work(never, nullptr, "x", {}), LDAP_SERVER_DOWN);
}

}  // namespace
