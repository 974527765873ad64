// velt-policy explain: what it says of a session, as text and as JSON.
#include "tools/velt-policy/PolicyToolTest.h"

namespace {

class PolicyExplain : public PolicyToolTest {
protected:
    PolicyExplain() {
        Rules(
            "<policy name='base'><settings section='network'><set name='Timeout'>5000</set></settings></policy>\n"
            "<policy name='content'><settings section='KORFormatScanner'><set name='MaxDepth'>9</set>\n"
            "<set name='MaxParts'>many</set></settings></policy>\n"
            "<policy name='content_in'><identity name='board' inherits='staff'/>\n"
            "<identity name='staff'><settings section='KORFormatScanner'><set name='MaxDepth'>7</set></settings>\n"
            "</identity></policy>\n"
            "<policy name='content_out'><identity name='guests'/></policy>");
        Identities(
            "<identity name='board'>eto IN \"ldap.test.Board\"</identity>\n"
            "<identity name='staff'>con FROM \"mail.test\" or eto IS \"*@staff.test\" and con FROM "
            "\"192.0.2.0/24\"</identity>\n"
            "<identity name='guests'>con TO \"198.51.100.7\"</identity>");
        Write("inside.txt", "NETWORK 10.0.0.0/8\n");
        Write("outside.txt", "NETWORK 192.0.2.0/24\n");
    }
};

TEST_F(PolicyExplain, TellsDirectionIdentityAndValue) {
    EXPECT_EQ(Explain("--from 192.0.2.5 --sender a@b.test --rcpt ann@staff.test --setting KORFormatScanner/MaxDepth"),
              "from       192.0.2.5\n"
              "to         not known yet: a condition on the server does not hold\n"
              "sender     a@b.test\n"
              "rcpt       ann@staff.test\n"
              "direction  in: the client is outside\n"
              "slot       content, policy content_in\n"
              "identity   staff\n"
              "groups     of the recipient: none\n"
              "not        board, identities.xml:2:1\n"
              "             identities.xml:2:24: eto IN \"ldap.test.Board\": does not hold\n"
              "chosen     staff, identities.xml:3:1\n"
              "             identities.xml:3:24: con FROM \"mail.test\": does not hold (does not matter)\n"
              "             identities.xml:3:48: eto IS \"*@staff.test\": holds\n"
              "             identities.xml:3:74: con FROM \"192.0.2.0/24\": holds\n"
              "setting    KORFormatScanner/MaxDepth\n"
              "raw        \"7\"\n"
              "value      \"7\"\n"
              "source     rules.xml:6:61, policy content_in, identity staff\n");
}

TEST_F(PolicyExplain, AnswersInJson) {
    EXPECT_EQ(Answer(R"({"from":"192.0.2.5","rcpt":"ann@staff.test","setting":"KORFormatScanner/MaxDepth"})"),
              R"({"direction":"in","slot":"content","policy":"content_in","identity":"staff",)"
              R"("rule":{"file":"identities.xml","line":3,"column":48,"text":"eto IS \"*@staff.test\"","held":true,)"
              R"("negated":false,"decisive":true,"conditions":[)"
              R"({"file":"identities.xml","line":3,"column":24,"text":"con FROM \"mail.test\"","held":false,)"
              R"("negated":false,"decisive":false},)"
              R"({"file":"identities.xml","line":3,"column":48,"text":"eto IS \"*@staff.test\"","held":true,)"
              R"("negated":false,"decisive":true},)"
              R"({"file":"identities.xml","line":3,"column":74,"text":"con FROM \"192.0.2.0/24\"","held":true,)"
              R"("negated":false,"decisive":true}]},)"
              R"("known":true,"raw":"7","value":"7","clamped":false,"default":false,)"
              R"("source":{"file":"rules.xml","line":6,"column":61,"policy":"content_in","identity":"staff",)"
              R"("window":null})");
}

// The parts of an answer that a case is about.
TEST_F(PolicyExplain, DecidesByTable) {
    struct Case {
        char const* query;
        char const* says;
    };
    constexpr Case kCases[] = {
        {R"({"from":"10.1.2.3"})", R"("direction":"out","slot":"content","policy":"content_out","identity":null)"},
        {R"({"from":"10.1.2.3","to":"198.51.100.7"})", R"("identity":"guests")"},
        {R"({"from":"203.0.113.1"})", R"("direction":null,"slot":"content","policy":null,"identity":null,"rule":null)"},
        {R"({"from":"192.0.2.5","from_host":"mail.test"})", R"("identity":"staff","rule":{"file":"identities.xml",)"
                                                            R"("line":3,"column":24,"text":"con FROM \"mail.test\"")"},
        {R"({"from":"192.0.2.5","groups":["ldap.test.Board"]})", R"("identity":"board")"},
        {R"({"from":"192.0.2.5","groups":["ldap.test.Board"],"setting":"KORFormatScanner/MaxDepth"})",
         R"("raw":"7","value":"7","clamped":false,"default":false,"source":{"file":"rules.xml","line":6,"column":61,)"
         R"("policy":"content_in","identity":"staff")"},
        {R"({"from":"192.0.2.5","sender_groups":["ldap.test.Board"]})", R"("identity":null)"},
        {R"({"from":"192.0.2.5","rcpt":"a@staff.test","policy":"network"})",
         R"("slot":"network","policy":"network_in","identity":null)"},
        {R"({"from":"10.1.2.3","setting":"network/Timeout"})",
         R"("slot":"base","policy":"base","identity":null,"rule":null,"known":true,"raw":"5000","value":"3600",)"
         R"("clamped":true,"default":false,"source":{"file":"rules.xml","line":2,"column":49,"policy":"base")"},
        {R"({"from":"10.1.2.3","setting":"network/Timeout","policy":"content"})", R"("raw":"5000","value":"3600")"},
        {R"({"from":"10.1.2.3","setting":"network/NetMem"})",
         R"("raw":null,"value":"4","clamped":false,"default":true,"source":null)"},
        {R"({"from":"10.1.2.3","setting":"KORFormatScanner/MaxParts"})",
         R"("raw":"many","value":"10000","clamped":false,"default":true,"source":{"file":"rules.xml","line":4)"},
        {R"({"from":"10.1.2.3","setting":"no/such"})", R"("known":false,"raw":null,"value":null)"},
    };
    for (auto const& [query, says] : kCases) {
        std::string const answer = Answer(query);
        EXPECT_NE(answer.find(says), std::string::npos) << query << "\n" << answer << "\n" << says;
    }
}

TEST_F(PolicyExplain, TellsASessionThatIsClosed) {
    std::string const said = Explain("--from 203.0.113.1");
    EXPECT_NE(said.find("direction  none: neither inside.txt nor outside.txt knows the client"), std::string::npos)
        << said;
}

TEST_F(PolicyExplain, AnswersABatchInOrder) {
    EXPECT_EQ(Run("explain --batch --rcpt ann@staff.test " + m_root.path(),
                  "{\"from\":\"10.1.2.3\"}\n{\"from\":\"192.0.2.5\"}\n{\"from\":\"192.0.2.5\",\"rcpt\":\"\"}\n"),
              0);
    std::string identities;
    for (std::size_t at = 0; (at = m_out.find("\"identity\":", at)) != std::string::npos; ++at)
        identities += m_out.substr(at + 11, m_out.find(',', at) - at - 11) + ' ';
    EXPECT_EQ(identities, "null \"staff\" null ");
    EXPECT_EQ(m_error.substr(0, 41), "velt-policy: 3 queries, the longest took ") << m_error;
}

TEST_F(PolicyExplain, RefusesQueriesThatMakeNoSense) {
    EXPECT_EQ(Run("explain --batch " + m_root.path(),
                  "x\n[]\n{\"form\":\"10.1.2.3\"}\n{\"from\":7}\n{}\n{\"from\":\"mail.test\"}\n"
                  "{\"from\":\"10.1.2.3\",\"policy\":\"all\"}\n{\"from\":\"10.1.2.3\",\"setting\":\"Timeout\"}\n"
                  "{\"from\":\"10.1.2.3\",\"groups\":\"a\"}\n"),
              1);
    for (char const* problem :
         {"parse error", "a query is an object", "\\\"form\\\" is no part of a query", "\\\"from\\\" takes a text",
          "\\\"from\\\" is missing", "is no IPv4 address, and names are looked up only with --resolve",
          "there is no policy slot \\\"all\\\"", "is no SECTION/KEY", "\\\"groups\\\" takes a list of texts"})
        EXPECT_NE(m_out.find(problem), std::string::npos) << problem << m_out;
    EXPECT_EQ(Run("explain " + m_root.path() + " --from mail.test"), 1);
    EXPECT_NE(m_error.find("--resolve"), std::string::npos) << m_error;
}

TEST_F(PolicyExplain, TellsWhyAGatewayWouldNotStart) {
    auto const refused = [&](char const* error) {
        EXPECT_EQ(Run("explain --from 10.1.2.3 " + m_root.path()), 1);
        EXPECT_EQ(m_out, "");
        EXPECT_NE(m_error.find(error), std::string::npos) << m_error;
    };
    Identities("<identity name='staff'>eto IS \"regex:(\"</identity>");
    refused("identities.xml:2:24: error: eto IS");
    Identities("<nothing/>");
    refused("identities.xml:2:1: error: ");
    Rules("<nothing/>");
    refused("rules.xml:2:1: error: ");
}

}  // namespace
