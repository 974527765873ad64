// The tool as its users run it: verdicts, exit statuses, what is written, and that nothing goes wrong unseen.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "testing/TempRoot.h"

namespace {

using Json = nlohmann::json;

// The test file of the trade, put together here so that no scanner takes the tree for it.
std::string TestVirus() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR") + "-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

std::string Mail(std::string const& fields, std::string const& text) {
    return "From: a@example.test\r\nSubject: greetings\r\nMIME-Version: 1.0\r\n" + fields + "\r\n" + text + "\r\n";
}

std::string TwoParts(std::string const& attachment) {
    return Mail("Content-Type: multipart/mixed; boundary=cut\r\n",
                "--cut\r\n\r\nHello.\r\n--cut\r\nContent-Disposition: attachment; filename=a.com\r\n\r\n" + attachment +
                    "\r\n--cut--");
}

class VeltScan : public ::testing::Test {
protected:
    VeltScan() {
        Settings("");
        m_root.Write("/virus", TestVirus());
        m_root.Write("/hello", "Hello.");
    }

    void Write(std::string const& name, std::string const& text) { m_root.Write("/config/qxxmlconf/" + name, text); }
    void Rules(std::string const& policies) { Write("rules.xml", "<rules>" + policies + "</rules>"); }
    // Of the policy that is used where none is named.
    void Settings(std::string const& settings) {
        Rules(
            "<policy name=\"content\"><actions><action>LOG</action><action>REPLACE</action><action>DENY</action>"
            "</actions>" +
            settings + "</policy>");
    }
    void Action(std::string const& action) {
        Settings("<settings section=\"KORAVScanner\"><set name=\"Action\">" + action + "</set></settings>");
    }
    std::string File(std::string const& name) const { return m_root / ("/" + name); }

    // The exit status; `environment` stands in front of the command.
    int Run(std::string const& arguments, std::string const& environment = "") {
        std::string const streams = " <" + File("hello") + " 2>" + File("error");
        std::string const command = environment + " " + VELT_SCAN + " --root " + m_root.path() + ' ' + arguments;
        FILE* const pipe = ::popen((command + streams).c_str(), "r");
        m_out.clear();
        char block[4096];
        while (std::size_t const n = std::fread(block, 1, sizeof block, pipe)) m_out.append(block, n);
        int const status = ::pclose(pipe);
        m_error = m_root.Read("/error");
        Cut(m_out);
        Cut(m_error);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void Cut(std::string& text) const {
        for (std::size_t at; (at = text.find(m_root.path() + "/")) != std::string::npos;)
            text.erase(at, m_root.path().size() + 1);
    }
    // The first line.
    std::string Head() const { return m_out.substr(0, m_out.find('\n')); }
    bool Told(std::string const& text) const { return m_out.find(text) != std::string::npos; }
    bool Complained(std::string const& text) const { return m_error.find(text) != std::string::npos; }
    std::vector<Json> Lines() const {
        std::vector<Json> lines;
        for (std::size_t at = 0, end; at < m_out.size(); at = end + 1) {
            end = m_out.find('\n', at);
            lines.push_back(Json::parse(m_out.substr(at, end - at)));
        }
        return lines;
    }

    velt_testing::TempRoot m_root;
    std::string m_out;
    std::string m_error;
};

using VeltScanVerdict = VeltScan;
using VeltScanFailure = VeltScan;
using VeltScanOutput = VeltScan;
using VeltScanChoice = VeltScan;

}  // namespace

TEST_F(VeltScanVerdict, IsToldForEachFileAndTheExitStatusIsThatOfTheWorst) {
    EXPECT_EQ(Run(File("hello")), 0);
    EXPECT_EQ(Head(), "hello: clean");
    EXPECT_EQ(Run(File("virus")), 1);
    EXPECT_EQ(m_out.substr(0, m_out.find("1 file")),
              "virus: found, DENY\n    KORAVScanner (AV): EICAR-Test-File, DENY, at Object\n");
    EXPECT_EQ(Run(File("none")), 2);
    EXPECT_EQ(Head(), "none: error");
    EXPECT_EQ(Run(File("none") + " " + File("virus") + " " + File("hello")), 1);
    EXPECT_TRUE(Told("\n3 files: 1 clean, 1 found, 1 error; ")) << m_out;
}

TEST_F(VeltScanVerdict, NamesThePlaceOfAFinding) {
    m_root.Write("/mail", TwoParts(TestVirus()));
    EXPECT_EQ(Run(File("mail")), 1);
    EXPECT_TRUE(Told("at Message > Part:a.com\n")) << m_out;
}

TEST_F(VeltScanVerdict, IsFoundWhateverPolicyDoesAboutIt) {
    for (std::string const action : {"LOG", "EFABRIC:ALLOWTHRU", "HOLD"}) {
        Action(action);
        EXPECT_EQ(Run(File("virus")), 1);
        EXPECT_EQ(Head(), "virus: found, " + action);
    }
}

TEST_F(VeltScanVerdict, OfTheStandardInputIsGivenToo) {
    EXPECT_EQ(Run("-"), 0);
    EXPECT_EQ(Head(), "-: clean");
    EXPECT_EQ(Run("- -"), 0) << "the second is empty";
    EXPECT_TRUE(Told("2 clean"));
}

TEST_F(VeltScanVerdict, IsNotForgedByNames) {
    std::string const name = File("a\n/b: clean\x1b[2J");
    m_root.Write("/a\n/b: clean\x1b[2J", TestVirus());
    EXPECT_EQ(Run("'" + name + "'"), 1);
    EXPECT_EQ(Head(), "a?/b: clean?[2J: found, DENY");
    EXPECT_EQ(Run("--json '" + name + "'"), 1);
    EXPECT_EQ(Lines().size(), 2u);
}

TEST_F(VeltScanVerdict, AsJsonHasAllThatIsKnown) {
    m_root.Write("/mail", TwoParts(TestVirus()));
    Action("REPLACE");
    EXPECT_EQ(Run("--json " + File("hello") + " " + File("mail") + " " + File("none")), 1);
    auto const lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0]["verdict"], "clean");
    EXPECT_TRUE(lines[0]["action"].is_null() && lines[0]["findings"].empty() && lines[0]["errors"].empty());
    EXPECT_EQ(lines[0]["bytes"], 6);
    auto const& finding = lines[1]["findings"].at(0);
    EXPECT_EQ(lines[1]["verdict"], "found");
    EXPECT_EQ(lines[1]["action"], "REPLACE");
    EXPECT_EQ(lines[1]["rewritten"], true);
    EXPECT_EQ(lines[1]["components"], Json::parse(R"([["Message","Part:a.com"]])"));
    EXPECT_EQ(finding["engine"], "KORAVScanner");
    EXPECT_EQ(finding["kind"], "AV");
    EXPECT_EQ(finding["names"], Json::parse(R"(["EICAR-Test-File"])"));
    EXPECT_EQ(finding["path"], Json::parse(R"(["Message","Part:a.com"])"));
    EXPECT_TRUE(finding["cleaned"].get<bool>() && finding["decided"].get<bool>());
    EXPECT_EQ(lines[2]["verdict"], "error");
    EXPECT_EQ(lines[2]["errors"].at(0)["text"], "cannot be read: No such file or directory");
    EXPECT_EQ(lines[3]["files"], 3);
    EXPECT_EQ(lines[3]["found"], 1);
}

TEST_F(VeltScanVerdict, OfEachRuleNamesIt) {
    Settings(
        "<settings section=\"KORContentScanner\"><rule name=\"greeting\" where=\"body\" match=\"hello\"/>"
        "<rule name=\"topic\" where=\"subject\" match=\"greetings\"/></settings>");
    m_root.Write("/mail", Mail("", "Hello."));
    EXPECT_EQ(Run("--json " + File("mail")), 1);
    EXPECT_EQ(Lines()[0]["findings"].at(0)["names"], Json::parse(R"(["greeting","topic"])"));
    EXPECT_EQ(Lines()[0]["findings"].at(0)["kind"], "CF");
}

// A signature finds what a limit has hidden; where it finds nothing, the limit stands.
TEST_F(VeltScanVerdict, BeyondALimitIsThatOfTheFallbackScanToo) {
    Settings(
        "<settings section=\"KORFormatScanner\"><set name=\"MaxScanSize\">20</set><set name=\"OnLimit\">LOG</set>"
        "</settings>");
    EXPECT_EQ(Run("--json " + File("virus")), 1);
    auto const found = Lines()[0];
    EXPECT_EQ(found["fallback"], true);
    EXPECT_EQ(found["action"], "DENY");
    EXPECT_EQ(found["findings"].size(), 2u);
    EXPECT_EQ(found["findings"].at(0)["limit"], "SIZE");
    m_root.Write("/long", std::string(21, 'x'));
    EXPECT_EQ(Run("--json " + File("long")), 1);
    EXPECT_EQ(Lines()[0]["action"], "LOG");
    EXPECT_EQ(Lines()[0]["findings"].size(), 1u);
}

TEST_F(VeltScanVerdict, IsTheStrongerOfTheLimitsAndTheSignatures) {
    Settings(
        "<settings section=\"KORFormatScanner\"><set name=\"MaxScanSize\">20</set></settings>"
        "<settings section=\"KORAVScanner\"><set name=\"Action\">LOG</set></settings>");
    EXPECT_EQ(Run("--json " + File("virus")), 1);
    EXPECT_EQ(Lines()[0]["action"], "DENY");
    EXPECT_EQ(Lines()[0]["findings"].size(), 2u);
}

TEST_F(VeltScanVerdict, OfCleanFilesIsLeftOutWhereQuietIsWanted) {
    EXPECT_EQ(Run("--quiet " + File("hello")), 0);
    EXPECT_EQ(m_out, "");
    EXPECT_EQ(Run("--quiet " + File("hello") + " " + File("virus")), 1);
    EXPECT_EQ(Head(), "virus: found, DENY");
    EXPECT_FALSE(Told("clean"));
    EXPECT_EQ(Run("--quiet --json " + File("hello")), 0);
    EXPECT_EQ(m_out, "");
}

TEST_F(VeltScanFailure, IsWhatCannotBeRead) {
    EXPECT_EQ(Run(m_root.path() + "/config"), 2);
    EXPECT_TRUE(Told("config: error\n    error: is a folder\n")) << m_out;
    ASSERT_EQ(::truncate((m_root.Write("/huge", ""), File("huge")).c_str(), 0x100000000), 0);
    EXPECT_EQ(Run(File("huge")), 2);
    EXPECT_TRUE(Told("huge: error\n    error: larger than can be scanned\n")) << m_out;
}

// Rules that do not compile: nothing was searched for.
TEST_F(VeltScanFailure, IsAnEngineThatHasNotLooked) {
    Settings("<settings section=\"KORContentScanner\"><rule name=\"x\" where=\"body\" match=\"regex:(\"/></settings>");
    EXPECT_EQ(Run("--json " + File("hello")), 2);
    EXPECT_EQ(Lines()[0]["verdict"], "error");
    EXPECT_EQ(Lines()[0]["errors"].at(0)["engine"], "KORContentScanner");
    EXPECT_EQ(Run("--json " + File("virus")), 1) << "what another one has found counts";
    EXPECT_EQ(Lines()[0]["errors"].size(), 1u);
    EXPECT_EQ(Lines()[0]["findings"].size(), 1u);
}

TEST_F(VeltScanFailure, IsAnAgentThatLooksAtNothing) {
    Rules(
        "<policy name=\"base\"><settings section=\"scanning\"><set "
        "name=\"ScannerAgent\">null</set></settings></policy>");
    EXPECT_EQ(Run(File("hello")), 2);
    EXPECT_EQ(Head(), "hello: error");
}

TEST_F(VeltScanFailure, IsAConfigurationThatAGatewayDoesNotStartWith) {
    Write("rules.xml", "<rules>");
    EXPECT_EQ(Run(File("hello")), 2);
    EXPECT_TRUE(Complained("rules.xml")) << m_error;
    EXPECT_EQ(m_out, "");
    Settings("");
    m_root.Write("/opt/KORAqxs/avengine/dat/signatures.db", "no colon\n");
    EXPECT_EQ(Run(File("hello")), 2);
    EXPECT_TRUE(Complained("signatures.db")) << m_error;
    EXPECT_EQ(Run("--root /no/such/folder " + File("hello")), 2);
    EXPECT_TRUE(Complained("No such file or directory")) << m_error;
}

TEST_F(VeltScanFailure, IsACommandLineThatMakesNoSense) {
    for (std::string const arguments :
         {"", "--policy", "--identity=", "--nothing x", "--mark text x", "--sender a@b.test x", "-x",
          "--from 192.0.2.1 --policy content_in x", "--output /tmp/none/x x y"}) {
        EXPECT_EQ(Run(arguments), 2) << arguments;
        EXPECT_TRUE(Complained("usage: velt-scan")) << arguments;
        EXPECT_EQ(m_out, "") << arguments;
    }
}

TEST_F(VeltScanFailure, IsAVerdictThatCannotBeTold) {
    EXPECT_EQ(Run(File("hello") + " >/dev/full"), 2);
    EXPECT_TRUE(Complained("cannot be written")) << m_error;
}

// An object from a pipe needs room, and has none here.
TEST_F(VeltScanFailure, IsASpoolWithoutRoom) {
    std::string const script = "sh -c 'head -c 4000000 /dev/zero | TMPDIR=" + File("none") + " \"$0\" \"$@\" -'";
    FILE* const pipe = ::popen((script + " " + VELT_SCAN + " --root " + m_root.path()).c_str(), "r");
    char text[256] = {};
    std::size_t const length = std::fread(text, 1, sizeof text - 1, pipe);
    int const status = ::pclose(pipe);
    EXPECT_EQ(WEXITSTATUS(status), 2);
    EXPECT_EQ(std::string(text, length).substr(0, 38), "-: error\n    error: cannot be spooled\n");
}

TEST_F(VeltScanOutput, IsWhatGoesOn) {
    std::string const mail = TwoParts(TestVirus());
    m_root.Write("/mail", mail);
    Action("REPLACE");
    EXPECT_EQ(Run("--output " + File("made") + " " + File("mail")), 1);
    EXPECT_EQ(Head(), "mail: found, REPLACE, rewritten");
    std::string const made = m_root.Read("/made");
    EXPECT_EQ(made.find(TestVirus()), std::string::npos);
    EXPECT_NE(made.find("Hello."), std::string::npos);
    EXPECT_EQ(m_root.Read("/mail"), mail);
    EXPECT_EQ(Run("--output " + File("made") + " " + File("hello")), 0);
    EXPECT_EQ(m_root.Read("/made"), "Hello.");
    Action("LOG");
    EXPECT_EQ(Run("--output " + File("made") + " " + File("mail")), 1);
    EXPECT_EQ(m_root.Read("/made"), mail);
}

TEST_F(VeltScanOutput, IsNothingWherePolicyStopsTheObjectOrNothingIsKnown) {
    EXPECT_EQ(Run("--output " + File("made") + " " + File("virus")), 1);
    EXPECT_TRUE(Told("not written: policy stops it")) << m_out;
    EXPECT_FALSE(m_root.Exists("/made"));
    Settings("<settings section=\"KORContentScanner\"><rule name=\"x\" where=\"body\" match=\"regex:(\"/></settings>");
    EXPECT_EQ(Run("--output " + File("made") + " " + File("hello")), 2);
    EXPECT_TRUE(Told("not written: nothing can be said of it")) << m_out;
    EXPECT_FALSE(m_root.Exists("/made"));
}

TEST_F(VeltScanOutput, OfSeveralFilesGoesIntoAFolder) {
    m_root.Write("/made/kept", "before");
    m_root.Write("/more/hello", "another");
    EXPECT_EQ(Run("--output " + File("made") + " " + File("hello") + " " + File("virus")), 1);
    EXPECT_EQ(m_root.Read("/made/hello"), "Hello.");
    EXPECT_EQ(m_root.Read("/made/kept"), "before");
    EXPECT_FALSE(m_root.Exists("/made/virus"));
    EXPECT_EQ(Run("--output " + File("made") + " " + File("hello") + " " + File("more/hello")), 2);
    EXPECT_TRUE(Complained("two files would be written as hello")) << m_error;
    EXPECT_EQ(Run("--output " + File("made") + " -"), 2);
}

TEST_F(VeltScanOutput, ThatCannotBeWrittenIsAnErrorAndLeavesNothing) {
    EXPECT_EQ(Run("--output " + File("none/made") + " " + File("hello")), 2);
    EXPECT_TRUE(Told("cannot be written: none/made")) << m_out;
    EXPECT_EQ(Head(), "hello: error");
}

TEST_F(VeltScanOutput, HasTheMarksOfItsAlertFilledIn) {
    Settings(
        "<settings section=\"KORAVScanner\"><set name=\"Action\">REPLACE</set>"
        "<set name=\"AlertText\">Dear %WHO%.</set></settings>");
    m_root.Write("/mail", TwoParts(TestVirus()));
    EXPECT_EQ(Run("--mark WHO=Ann --output " + File("made") + " " + File("mail") + " "), 1);
    EXPECT_NE(m_root.Read("/made").find("Dear Ann."), std::string::npos);
    ASSERT_EQ(::mkdir(File("all").c_str(), 0700), 0);
    m_root.Write("/second", TwoParts(TestVirus()));
    EXPECT_EQ(Run("--mark WHO=Bob --output " + File("all") + " " + File("mail") + " " + File("second")), 1);
    EXPECT_NE(m_root.Read("/all/second").find("Dear Bob."), std::string::npos) << "each file has them";
}

TEST_F(VeltScanChoice, OfAPolicyAndAnIdentityIsTheirSettings) {
    Rules(
        "<policy name=\"content_out\"><settings section=\"KORAVScanner\"><set name=\"Enabled\">false</set></settings>"
        "<identity name=\"staff\"><settings section=\"KORAVScanner\"><set name=\"Enabled\">true</set></settings>"
        "</identity></policy>");
    EXPECT_EQ(Run(File("virus")), 1);
    EXPECT_EQ(Run("--policy content_out " + File("virus")), 0);
    EXPECT_EQ(Run("--json --policy=content_out --identity=staff " + File("virus")), 1);
    EXPECT_EQ(Lines()[0]["identity"], "staff");
}

TEST_F(VeltScanChoice, OfWhatIsNotThereIsAnError) {
    EXPECT_EQ(Run("--policy content_inn " + File("virus")), 2);
    EXPECT_TRUE(Complained("there is no policy \"content_inn\"")) << m_error;
    EXPECT_EQ(Run("--identity staff " + File("virus")), 2);
    EXPECT_TRUE(Complained("there is no identity \"staff\" in policy \"content_in\"")) << m_error;
}

TEST_F(VeltScanChoice, IsMadeByTheRulesWhereAClientIsNamed) {
    Rules(
        "<policy name=\"content_in\"><identity name=\"staff\"><settings section=\"KORAVScanner\">"
        "<set name=\"Action\">LOG</set></settings></identity></policy><policy name=\"content_out\">"
        "<settings section=\"KORAVScanner\"><set name=\"Enabled\">false</set></settings></policy>");
    Write("identities.xml", "<identities><identity name=\"staff\">eto IS \"*@example.test\"</identity></identities>");
    Write("inside.txt", "NETWORK 10.0.0.0/8\n");
    Write("outside.txt", "NETWORK 192.0.2.0/24\n");
    EXPECT_EQ(Run("--from 192.0.2.1 --rcpt ann@example.test " + File("virus")), 1);
    EXPECT_EQ(Head(), "virus: found, LOG");
    EXPECT_EQ(Run("--from 192.0.2.1 --rcpt ann@elsewhere.test " + File("virus")), 1);
    EXPECT_EQ(Head(), "virus: found, DENY");
    EXPECT_EQ(Run("--from 10.0.0.1 --rcpt ann@example.test " + File("virus")), 0);
    EXPECT_EQ(Run("--from 198.51.100.1 " + File("virus")), 2);
    EXPECT_TRUE(Complained("neither inside.txt nor outside.txt knows 198.51.100.1")) << m_error;
    EXPECT_EQ(Run("--from localhost " + File("virus")), 2);
}

TEST_F(VeltScan, HasAManual) {
    EXPECT_EQ(Run("--help"), 0);
    EXPECT_EQ(m_out.substr(0, 4), "NAME");
    for (char const* const option : {"--root", "--policy", "--identity", "--from", "--output", "--json", "--quiet"})
        EXPECT_TRUE(Told(option)) << option;
}
