// velt-policy check: each kind of finding from a small configuration, with its place.
#include "tools/velt-policy/PolicyToolTest.h"

namespace {

class PolicyCheck : public PolicyToolTest {
protected:
    // Of one policy, whose text begins in line 2, column 1.
    std::string CheckPolicy(std::string const& policy) {
        Rules(policy);
        return Check();
    }
    // Of one identity that content_in has; its text begins in line 2, column 27.
    std::string CheckIdentity(std::string const& body) {
        Rules("<policy name='content_in'><identity name='staff'/></policy>");
        Identities("<identity name='staff'>" + body + "</identity>");
        return Check();
    }
};

TEST_F(PolicyCheck, OfASoundConfigurationIsSilent) {
    Rules(
        "<policy name='base'><settings section='network'><set name='Timeout'>60</set>\n"
        "<list name='BindPorts'><item>25</item></list></settings></policy>\n"
        "<policy name='content_in'><actions><action>LOG</action></actions>\n"
        "<settings section='KORContentScanner'><set name='Threshold'>1.5</set>\n"
        "<rule name='r' where='body' match='secret' weight='2' action='LOG'/></settings>\n"
        "<identity name='staff' inherits='common'/><identity name='common'/></policy>\n"
        "<policy name='protocol_out'><settings section='connection'><set name='MaxHosts'>3</set></settings></policy>");
    Identities("<identity name='staff'>con FROM \"10.0.0.0/8\" or eto IN \"ldap.test.Board\"</identity>");
    Write("inside.txt", "# ours\nNETWORK 10.0.0.0/8\nDOMAIN *.test\n");
    Write("ldap.txt", "server\nldapserver ldap.test\nuserquery (mail=?):ou\n");
    Write("bwserver.txt", "server\nldapserver ldap.test:1389\nbwobjectclass objectClass:top\n");
    Write("smtp-logging.xml", "<logging><sink type='text'/></logging>");
    EXPECT_EQ(Check(), "(clean)\n");
    EXPECT_EQ(m_error, "");
}

// ---- the store

TEST_F(PolicyCheck, TellsAMalformedFileWithItsPlace) {
    EXPECT_EQ(CheckPolicy("<policy name='base'><set/></policy>"),
              "rules.xml:2:21: error: <set> is not expected here, in <policy>\n");
    EXPECT_EQ(CheckPolicy("<policy name='x' base='y'/>"), "rules.xml:2:18: error: base policy 'y' does not exist\n");
}

TEST_F(PolicyCheck, TellsEveryErrorOfAFile) {
    EXPECT_EQ(CheckPolicy("<policy name='base' bas='x'/>\n<policy name='content'>text<settings section='network'>\n"
                          "<set name='Timeout' when='noon'>1</set><set>2</set><list><set/></list>\n"
                          "<set name='NetMem'>1</set><set name='NetMem'>2</set></settings><nothing/></policy>\n"
                          "<nothing/>"),
              "rules.xml:2:21: error: <policy> has no attribute 'bas'\n"
              "rules.xml:3:24: error: <policy> takes no text\n"
              "rules.xml:4:21: error: 'noon' is no day (mon, tue, wed, thu, fri, sat, sun)\n"
              "rules.xml:4:40: error: <set> lacks its attribute 'name'\n"
              "rules.xml:4:52: error: <list> lacks its attribute 'name'\n"
              "rules.xml:4:58: error: <set> is not expected here, in <list>\n"
              "rules.xml:5:27: error: 'NetMem' is set twice here, first in line 5\n"
              "rules.xml:5:64: error: <nothing> is not expected here, in <policy>\n"
              "rules.xml:6:1: error: <nothing> is not expected here, in <rules>\n");
    EXPECT_EQ(CheckPolicy("<policy name='a' base='b'/>\n<policy name='c' base='c'/>\n"
                          "<policy name='content_in'><identity name='i' inherits='j'/></policy>"),
              "rules.xml:2:18: error: base policy 'b' does not exist\n"
              "rules.xml:3:18: error: policy 'c' is its own base in a circle\n"
              "rules.xml:4:46: error: identity 'j' does not exist in this policy\n");
}

TEST_F(PolicyCheck, TellsEachMalformedFile) {
    Rules("<nothing/>");
    Write("velt.xml", "<rules><nothing/></rules>");
    Write("efabric/smtp.xml", "<rules");
    Write("identities.xml", "<identities><nothing/></identities>");
    std::string const found = Check("--product velt --proxy smtp");
    for (char const* begin :
         {"rules.xml:2:1: error: ", "velt.xml:1:8: error: ", "efabric/smtp.xml:1:", "identities.xml:1:13: error: "})
        EXPECT_NE(found.find(begin), std::string::npos) << begin << found;
}

TEST_F(PolicyCheck, TellsASettingThatNobodyReads) {
    auto const check = [&](char const* section, char const* key) {
        std::string const found = CheckPolicy(std::string("<policy name='base'><settings section='") + section +
                                              "'><set name='" + key + "'>1</set></settings></policy>");
        std::size_t const said = found.find("is not known");
        return said == std::string::npos ? found : found.substr(said);
    };
    EXPECT_EQ(check("network", "Timout"), "is not known; is network/Timeout meant?\n");
    EXPECT_EQ(check("network", "timeout"), "is not known; is network/Timeout meant?\n");
    EXPECT_EQ(check("process", "BindPorts"), "is not known; is network/BindPorts meant?\n");
    EXPECT_EQ(check("smpt", "RelayPort"), "is not known; is smtp/RelayPort meant?\n");
    EXPECT_EQ(check("nothing", "AtAllLikeIt"), "is not known\n");
    EXPECT_EQ(m_out, "rules.xml:2:49: warning: setting nothing/AtAllLikeIt is not known\n");
    EXPECT_EQ(Check("--own nothing"), "(clean)\n");
}

TEST_F(PolicyCheck, TellsValuesThatAreNotTakenAsWritten) {
    EXPECT_EQ(
        CheckPolicy("<policy name='base'><settings section='network'>\n"
                    "<set name='Timeout'>5000</set>\n"
                    "<set name='NetMem'>much</set>\n"
                    "<set name='LDAPQueryTimeout'>0</set>\n"
                    "<set name='LDAPCached'>2</set>\n"
                    "<list name='BindPorts'><item>25</item><item>70000</item>\n"
                    "<item>smtp</item></list>\n"
                    "<set name='MaxConnections' when='sat'>70000</set>\n"
                    "</settings><settings section='process'>\n"
                    "<set name='IdleTimeout'>-3</set>\n"
                    "<set name='MemoryLimit'>4294967296</set>\n"
                    "<list name='UserId'><item>a</item></list>\n"
                    "</settings></policy>"),
        "rules.xml:3:1: warning: network/Timeout: \"5000\" is out of range, 0 to 3600: a gateway reads 3600\n"
        "rules.xml:4:1: warning: network/NetMem: \"much\" cannot be read as unsigned: a gateway reads the default, "
        "4\n"
        "rules.xml:5:1: warning: network/LDAPQueryTimeout: \"0\" is out of range, 1 to 65535: a gateway reads 1\n"
        "rules.xml:6:1: warning: network/LDAPCached: \"2\" cannot be read as bool: a gateway reads the default, "
        "true\n"
        "rules.xml:7:1: warning: network/BindPorts, item 2: \"70000\" is out of range, 0 to 65535: a gateway reads "
        "65535\n"
        "rules.xml:8:1: warning: network/BindPorts, item 3: \"smtp\" cannot be read as unsigned short: a gateway "
        "reads 0\n"
        "rules.xml:9:1: warning: network/MaxConnections: \"70000\" is out of range, 1 to 65535: a gateway reads "
        "65535\n"
        "rules.xml:11:1: warning: process/IdleTimeout: \"-3\" is out of range, 1 to 65535: a gateway reads 1\n"
        "rules.xml:12:1: warning: process/MemoryLimit: \"4294967296\" cannot be read as unsigned: a gateway reads "
        "the default, 75000\n"
        "rules.xml:13:1: warning: process/UserId: \"a\" cannot be read as text: a gateway reads the default, "
        "\"uucp\"\n");
}

TEST_F(PolicyCheck, TellsSettingsOfEnginesToo) {
    EXPECT_EQ(
        CheckPolicy("<policy name='content'><settings section='KORFormatScanner'>\n"
                    "<set name='MaxDepth'>deep</set><set name='Enable'>true</set></settings>\n"
                    "<settings section='KORContentScanner'><alert name='AlertText'><body>x</body></alert>\n"
                    "</settings></policy>"),
        "rules.xml:3:1: warning: KORFormatScanner/MaxDepth: \"deep\" cannot be read as unsigned: a gateway reads "
        "the default, 16\n"
        "rules.xml:3:32: warning: setting KORFormatScanner/Enable is not known; is KORFormatScanner/Enabled meant?\n"
        "rules.xml:4:39: warning: KORContentScanner/AlertText: \"(an alert)\" cannot be read as text: a gateway "
        "reads the default, \"a text of its own\"\n");
}

TEST_F(PolicyCheck, TellsWordsAndAddressesWithWhichEachScanFails) {
    EXPECT_EQ(CheckPolicy("<policy name='content'><settings section='SpamScanner'>\n"
                          "<set name='Source'>oracle</set>\n"
                          "<list name='Servers'><item>127.0.0.1:783</item>\n"
                          "<item>localhost:783</item>\n<item>/run/a, [::1]:99999</item></list></settings>\n"
                          "<settings section='KORAVScanner'><set name='ClamdSockets'>clamd.sock</set></settings>\n"
                          "</policy>"),
              "rules.xml:3:1: error: SpamScanner/Source: no source of judgement: oracle; there are rules, spamd and "
              "rspamd\n"
              "rules.xml:5:1: error: SpamScanner/Servers: no address of a server: localhost:783\n"
              "rules.xml:6:1: error: SpamScanner/Servers: no address of a server: [::1]:99999\n"
              "rules.xml:7:34: error: KORAVScanner/ClamdSockets: no address of a server: clamd.sock\n");
    for (std::string const source : {"rules", "spamd", "rspamd"})
        EXPECT_EQ(CheckPolicy("<policy name='content'><settings section='SpamScanner'><set name='Source'>" + source +
                              "</set><set name='Servers'>/run/a 127.0.0.1:783</set></settings></policy>"),
                  "(clean)\n");
}

TEST_F(PolicyCheck, TellsWhereNoDisclaimerGoes) {
    EXPECT_EQ(CheckPolicy("<policy name='content'><settings section='KORInfoScanner'>\n"
                          "<set name='Position'>footer</set><set name='Parts'>html</set><set name='Once'>never</set>\n"
                          "</settings></policy>"),
              "rules.xml:3:1: warning: KORInfoScanner/Position: \"footer\" is none of bottom, top: a gateway takes the "
              "default, \"bottom\"\n"
              "rules.xml:3:62: warning: KORInfoScanner/Once: \"never\" cannot be read as bool: a gateway reads the "
              "default, true\n");
}

TEST_F(PolicyCheck, TellsTextsThatMeanNothingToTheirReader) {
    EXPECT_EQ(
        CheckPolicy("<policy name='base'><settings section='network'>\n"
                    "<set name='Interception'>netfiler</set></settings><settings section='smtp'>\n"
                    "<set name='DifferentIdentity'>split, defer</set><set name='TransparentSource'></set>\n"
                    "</settings></policy>"),
        "rules.xml:3:1: warning: network/Interception: \"netfiler\" is none of device, netfilter, off: a gateway "
        "takes the default, \"device\"\n"
        "rules.xml:4:1: warning: smtp/DifferentIdentity: \"split, defer\" is none of split, defer: a gateway takes "
        "the default, \"split\"\n"
        "rules.xml:4:49: warning: smtp/TransparentSource: \"\" is none of client, gateway: a gateway takes the "
        "default, \"client\"\n");
    EXPECT_EQ(
        CheckPolicy("<policy name='base'><settings section='network'><set name='Interception'>off</set></settings>"
                    "<settings section='smtp'><set name='DifferentIdentity'>defer</set>"
                    "<set name='TransparentSource'>gateway</set></settings></policy>"),
        "(clean)\n");
}

TEST_F(PolicyCheck, TellsActionsThatNobodyKnows) {
    EXPECT_EQ(CheckPolicy("<policy name='content'><actions><action>HOLD</action></actions>\n"
                          "<settings section='KORAVScanner'><set name='Action'>DNEY</set></settings>\n"
                          "<settings section='KORFormatScanner'><set name='OnLimit'>HOLD</set></settings>\n"
                          "<settings section='KORContentScanner'><set name='Action'>LOG</set>\n"
                          "<rule name='a' match='x' action='Log'/><rule name='b' match='x' action='HOLD'/>\n"
                          "</settings></policy>"),
              "rules.xml:3:34: warning: KORAVScanner/Action: \"DNEY\" is no action of a gateway or of <actions>\n"
              "rules.xml:6:1: warning: attribute \"action\" of the rule: \"Log\" is no action of a gateway or of "
              "<actions>\n");
}

TEST_F(PolicyCheck, TellsValuesInAPolicyThatTheyAreNotReadThrough) {
    EXPECT_EQ(
        CheckPolicy("<policy name='content'><settings section='network'><set name='Timeout'>9</set></settings>\n"
                    "</policy><policy name='content_in'><identity name='staff'><settings section='network'>\n"
                    "<set name='Timeout'>9</set></settings></identity></policy>\n"
                    "<policy name='connection'><settings section='connection'><set name='MaxHosts'>1</set>\n"
                    "</settings></policy>"),
        "rules.xml:2:52: warning: network/Timeout is not read in policy \"content\": it is read through policy "
        "base\n"
        "rules.xml:3:36: warning: identity \"staff\" is never chosen: identities.xml does not have it\n"
        "rules.xml:4:1: warning: network/Timeout is not read in identity \"staff\" of policy \"content_in\": it is "
        "read through policy base\n"
        "rules.xml:5:58: warning: connection/MaxHosts is not read in policy \"connection\": it is read through "
        "policies protocol_in and protocol_out\n");
}

TEST_F(PolicyCheck, TellsAPolicyThatNobodyReads) {
    EXPECT_EQ(CheckPolicy("<policy name='contnet_in'><identity name='x'/></policy>"),
              "rules.xml:2:1: warning: policy \"contnet_in\" is not read: it is none of the library's, and the base of "
              "none\n");
    EXPECT_EQ(CheckPolicy("<policy name='mine'/><policy name='content' base='mine'/>"), "(clean)\n");
}

TEST_F(PolicyCheck, TellsRulesThatDoNotWork) {
    EXPECT_EQ(
        CheckPolicy("<policy name='content'><settings section='KORContentScanner'>\n"
                    "<rule name='a' match='regex:('/>\n"
                    "<rule name='b' match='x' wheight='3'/>\n"
                    "<rule name='c'/>\n"
                    "</settings><settings section='KORAVScanner'><rule name='d'/></settings></policy>\n"
                    "<policy name='network'><settings section='KORContentScanner'>\n"
                    "<rule name='e' match='x'/></settings></policy>"),
        "rules.xml:3:1: error: rule \"a\": Missing close parenthesis for group started at index 0.\n"
        "rules.xml:4:1: warning: attribute \"wheight\" of the rule is not read\n"
        "rules.xml:5:1: error: rule \"c\": match is missing\n"
        "rules.xml:6:45: warning: a rule of section \"KORAVScanner\" is not read: only those of KORContentScanner, "
        "KORFormatScanner, KORMailFilter and SpamScanner are\n"
        "rules.xml:8:1: warning: the rule is not read in policy \"network\": rules are read through policies "
        "content_in and content_out\n");
}

TEST_F(PolicyCheck, TellsRulesOfTheMailFilterThatDoNotWork) {
    EXPECT_EQ(CheckPolicy("<policy name='content'><settings section='KORMailFilter'>\n"
                          "<rule name='a' header='Subject' match='regex:('/>\n"
                          "<rule name='b' recipients='many'/>\n"
                          "<rule name='c' missing='Date' where='body' action='LOGG'/>\n"
                          "<rule name='d' type='exes'/>\n"
                          "<rule name='e' header='List-*' attachment='*.exe' attachment-size='5' header-size='6'/>\n"
                          "<set name='Acton'>LOG</set><set name='Action'>NO</set>\n"
                          "</settings></policy>"),
              "rules.xml:3:1: error: rule \"a\": Missing close parenthesis for group started at index 0.\n"
              "rules.xml:4:1: error: rule \"b\": recipients is not a number\n"
              "rules.xml:5:1: warning: attribute \"action\" of the rule: \"LOGG\" is no action of a gateway or of "
              "<actions>\n"
              "rules.xml:5:1: warning: attribute \"where\" of the rule is not read\n"
              "rules.xml:6:1: error: rule \"d\": type \"exes\" is not known\n"
              "rules.xml:8:1: warning: setting KORMailFilter/Acton is not known; is KORMailFilter/Action meant?\n"
              "rules.xml:8:28: warning: KORMailFilter/Action: \"NO\" is no action of a gateway or of <actions>\n");
}

TEST_F(PolicyCheck, LooksAtValuesThatALaterFileReplaces) {
    Rules("<policy name='base'><settings section='network'><set name='Timeout'>5000</set></settings></policy>");
    Write("velt.xml",
          "<rules><policy name='base'><settings section='network'><set name='Timeout'>4000</set></settings>"
          "</policy></rules>");
    EXPECT_EQ(Check("--product velt"),
              "rules.xml:2:49: warning: network/Timeout: \"5000\" is out of range, 0 to 3600: a gateway reads 3600\n"
              "velt.xml:1:56: warning: network/Timeout: \"4000\" is out of range, 0 to 3600: a gateway reads 3600\n");
    Check();
    EXPECT_NE(m_error.find("velt.xml is not looked at"), std::string::npos) << m_error;
}

// ---- identities

TEST_F(PolicyCheck, TellsIdentitiesWithoutTheirOtherHalf) {
    Rules(
        "<policy name='content_in'>\n<identity name='a'/>\n<identity name='b'/>\n<identity name='c' inherits='d'/>\n"
        "<identity name='d'/></policy>\n<policy name='content'><identity name='e'/></policy>");
    Identities(
        "<identity name='b'> </identity><identity name='c'>eto IS \"*\"</identity>\n"
        "<identity name='f'>eto IS \"*\"</identity>");
    EXPECT_EQ(Check(),
              "identities.xml:3:1: warning: identity 'f' belongs to no policy and is passed over\n"
              "rules.xml:3:1: warning: identity \"a\" is never chosen: identities.xml does not have it\n"
              "rules.xml:4:1: warning: identity \"b\" is never chosen: identities.xml has no condition for it\n"
              "rules.xml:7:24: warning: identity \"e\" is never chosen: policy \"content\" is only read as a base, "
              "without its identities\n");
}

TEST_F(PolicyCheck, TellsConditionsThatNeverHold) {
    struct Case {
        char const* condition;
        char const* why;
    };
    constexpr Case kCases[] = {
        {"con FROM \"10.1.2.3/8\"", "the address has bits outside its mask"},
        {"con TO \"1mail.example\"", "a value that begins with a digit is an address, and this is none"},
        {"con FROM \"\"", "the value is empty"},
        {"from IS \"x\"", "there is no subject \"from\""},
        {"con IS \"x\"", "subject \"con\" has no operator \"IS\""},
        {"eto IN \"ldap.test.Board\"", "the value begins with the name of no server in ldap.txt"},
    };
    for (auto const& [condition, why] : kCases) {
        std::string const place = "identities.xml:2:24: warning: ";
        EXPECT_EQ(CheckIdentity(std::string(condition) + " or eto IS \"x\""),
                  place + condition + " never holds: " + why + '\n');
    }
}

TEST_F(PolicyCheck, TellsWhetherAnIdentityCanBeChosenAtAll) {
    auto const never = [&](char const* body) {
        return CheckIdentity(body).find("identity \"staff\" can never be chosen") != std::string::npos;
    };
    EXPECT_TRUE(never("con FROM \"10.1.2.3/8\""));
    EXPECT_TRUE(never("con FROM \"10.1.2.3/8\" and eto IS \"*\""));
    EXPECT_TRUE(never("not (not con FROM \"10.1.2.3/8\" or eto IS \"a\" or eto IS \"b\")"));
    EXPECT_FALSE(never("con FROM \"10.1.2.3/8\" or eto IS \"*\""));
    EXPECT_FALSE(never("not con FROM \"10.1.2.3/8\""));
    EXPECT_FALSE(never("eto IS \"*\""));
}

TEST_F(PolicyCheck, TellsEveryPatternThatDoesNotCompile) {
    std::string const found = CheckIdentity("eto IS \"regex:(\" or\nefrom IS \"regex:[\"");
    EXPECT_NE(found.find("identities.xml:2:24: error: eto IS \"regex:(\": "), std::string::npos) << found;
    EXPECT_NE(found.find("identities.xml:3:1: error: efrom IS \"regex:[\": "), std::string::npos) << found;
}

TEST_F(PolicyCheck, TellsEachMalformedIdentity) {
    Rules("<policy name='content_in'><identity name='a'/><identity name='b'/></policy>");
    Identities("<identity name='a'>eto IS x</identity>\n<identity name='b'>eto</identity>\n<identity/>");
    EXPECT_EQ(Check(),
              "identities.xml:2:27: error: a value in quotes expected after 'IS'\n"
              "identities.xml:3:23: error: an operator expected after 'eto'\n"
              "identities.xml:4:1: error: <identity> lacks its attribute 'name'\n");
}

// ---- lines

TEST_F(PolicyCheck, TellsLinesOfNetworkListsThatAreDropped) {
    Write("inside.txt",
          "# ours\nNETWORKS 10.0.0.0/8\nNETWORK 10.0.0.0.0\nNETWORK 10.0.0.0/x\nDOMAIN a.test \n\n"
          "# not this\nNETWORK 10.0.0.0/8\n");
    Write("outside.txt", "NETWORK *\nNETWORK 192.0.2.0/24");
    EXPECT_EQ(Check(),
              "inside.txt:2:1: warning: the line is dropped: is no comment and begins with neither \"NETWORK \" nor "
              "\"DOMAIN \"\n"
              "inside.txt:3:9: warning: the line is dropped: is no address\n"
              "inside.txt:4:18: warning: the count of bits is no number, which counts as 0: every address\n"
              "inside.txt:5:14: warning: the blank at the end belongs to the pattern: it matches no name\n"
              "inside.txt:8:1: warning: the line is not read: line 6 is empty, which ends the file\n"
              "outside.txt:2:1: warning: the line is not read: its line end is missing\n");
}

TEST_F(PolicyCheck, TellsALineOfANetworkListThatIsTooLong) {
    Rules("<policy name='base'><settings section='scanning'><set name='MaxScanMem'>2</set></settings></policy>");
    std::string const rest(20000, '\n');
    Write("inside.txt", "NETWORK 10.0.0.0/8\n#" + std::string(1990, 'x') + "\nNETWORK 10.0.0.0/8\n" + rest);
    EXPECT_EQ(Check(), "(clean)\n");
    Write("inside.txt", "NETWORK 10.0.0.0/8\n#" + std::string(3000, 'x') + "\nNETWORK 10.0.0.0/8\n" + rest);
    EXPECT_EQ(Check(), "inside.txt:2:1: error: the line is too long: neither it nor what follows is read\n");
}

TEST_F(PolicyCheck, TellsListsThatCloseEverySession) {
    Write("outside.txt", "# nothing\n");
    EXPECT_EQ(Check(),
              "inside.txt: error: neither it nor outside.txt has a line that counts: every session is closed\n");
}

TEST_F(PolicyCheck, TellsLinesOfServerFilesThatAreDropped) {
    Write("ldap.txt",
          "base x\nserver\nldapserver a:70000\nsecure yes\r\nbas x\n\r\nserver\nldapserver a\nbase y\n"
          "server\nbase\n");
    Write("bwserver.txt", "server\nldapserver b\nserver\nbwobjectclass top\n");
    EXPECT_EQ(Check(),
              "bwserver.txt:3:1: warning: opens no other server: what follows belongs to the one that there is\n"
              "bwserver.txt:4:1: warning: the line is dropped: a value without a colon\n"
              "ldap.txt:1:1: warning: the line is dropped: no \"server\" stands in front of it\n"
              "ldap.txt:3:14: warning: the number is not between 0 and 65535: of it only 16 bits count\n"
              "ldap.txt:4:8: warning: the value is no number, which counts as 0\n"
              "ldap.txt:4:11: warning: a carriage return stands at the end of the line and belongs to it\n"
              "ldap.txt:5:1: warning: the line is dropped: a key that nobody knows\n"
              "ldap.txt:6:1: warning: a carriage return stands at the end of the line and belongs to it\n"
              "ldap.txt:6:1: warning: the line is dropped: a key without a blank and a value\n"
              "ldap.txt:7:1: warning: the server is dropped: an earlier server has the same host, in line 2\n"
              "ldap.txt:10:1: warning: the server has no ldapserver\n"
              "ldap.txt:11:1: warning: the line is dropped: a key without a blank and a value\n");
}

TEST_F(PolicyCheck, TellsLongLinesOfServerFiles) {
    Write("ldap.txt",
          "server\nldapserver a\nbase " + std::string(8186, 'x') + "\nbase " + std::string(8185, 'x') + "\n");
    EXPECT_EQ(Check(),
              "ldap.txt:3:1: warning: the line is longer than 8191 bytes: the rest is taken for a line of its "
              "own\n");
}

// ---- the rest

TEST_F(PolicyCheck, LooksAtLoggingAndSignatures) {
    Write("smtp-logging.xml", "<logging>\n<sink type='x'/></logging>");
    Write("http-logging.xml", "<nothing/>");
    m_root.Write("/opt/KORAqxs/avengine/dat/signatures.db", "x\n");
    std::string const found = Check();
    EXPECT_NE(found.find("smtp-logging.xml:2:"), std::string::npos) << found;
    EXPECT_NE(found.find("http-logging.xml:1:2: error: "), std::string::npos) << found;
    EXPECT_NE(found.find("signatures.db:1:2: error: \":\" is missing"), std::string::npos) << found;
    EXPECT_EQ(Check("--proxy smtp").find("http-logging.xml"), std::string::npos);
}

TEST_F(PolicyCheck, WantsAFolderAndOptionsThatItKnows) {
    EXPECT_EQ(Run("check " + (m_root / "/nowhere")), 2);
    EXPECT_NE(m_error.find("No such file or directory"), std::string::npos) << m_error;
    for (char const* line :
         {"", "chek", "check a b", "check --from 10.0.0.1", "check --product", "explain", "explain --own x --batch"})
        EXPECT_EQ(Run(line), 2) << line;
    EXPECT_EQ(Run("--help"), 0);
    EXPECT_NE(m_out.find("EXIT STATUS"), std::string::npos);
    EXPECT_EQ(Run("check --help"), 0);
}

TEST_F(PolicyCheck, LeavesTheFolderAsItIs) {
    Write("identities.xml", "<identities/>");
    std::string const list = "cd " + m_root.path() + " && find config opt scandir 2>&1 | sort";
    auto const listed = [&] {
        FILE* const pipe = ::popen(list.c_str(), "r");
        std::string text;
        for (int c; (c = std::fgetc(pipe)) != EOF;) text += static_cast<char>(c);
        ::pclose(pipe);
        return text;
    };
    std::string const before = listed();
    EXPECT_EQ(Check(), "(clean)\n");
    Explain("--from 10.0.0.1");
    EXPECT_EQ(listed(), before);
}

}  // namespace
