#include <policyloader/engines/ContentRules.h>
#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

class ContentScans : public ScanFixture {
protected:
    static constexpr char const* kEngine = "KORContentScanner";
    static std::string Rule(std::string const& name, std::string const& where, std::string const& match,
                            std::string const& more = "") {
        return "<rule name=\"" + name + "\" where=\"" + where + "\" match=\"" + match + "\" " + more + "/>";
    }
    void Rules(std::string const& inside) {
        Policy("<settings section=\"KORContentScanner\">" + inside + "</settings>");
    }
    static std::string Message(std::string const& head, std::string const& body) { return head + "\r\n\r\n" + body; }
    std::string Found(std::string const& message) { return Scan(message).found(kEngine); }
};

}  // namespace

TEST_F(ContentScans, SearchEachContextForItsOwnRules) {
    Rules(Rule("s", "subject", "needle") + Rule("h", "header", "needle") + Rule("b", "body", "needle") +
          Rule("a", "attachment", "needle"));
    EXPECT_EQ(Found(Message("Subject: a Needle", "x")), "s h");
    EXPECT_EQ(Found(Message("X-Any: needle", "x")), "h");
    EXPECT_EQ(Found(Message("A: b", "the NEEDLE here")), "b");
    EXPECT_EQ(Found(WithAttachment("needle.txt", "x")), "a");
    EXPECT_EQ(Found(WithAttachment("x.txt", "needle")), "");
    EXPECT_EQ(Found(WithAttachment("x.txt", "x", "needle")), "b");
    EXPECT_TRUE(Scan(Message("A: b", "nothing")).isClean());
}

TEST_F(ContentScans, SayWhatPolicyAndGatewayRead) {
    Rules(Rule("first", "body", "alpha", "action=\"LOG\"") + Rule("second", "body", "beta", "action=\"DENY\""));
    auto const verdict = Scan(Message("A: b", "alpha beta"));
    auto const* const result = verdict.resultOf(kEngine);
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(verdict.text(kEngine, "E_SR_TYPE"), "2");
    EXPECT_EQ(verdict.text(kEngine, "E_SR_ACTION"), "DENY");
    EXPECT_EQ(result->GetInfectionList(L','), std::wstring(L"first,second"));
    EXPECT_GE(result->InfectedItems(), 1);
    EXPECT_EQ(Scan(Message("A: b", "alpha")).action(), "LOG");
    wchar_t text[32];
    EXPECT_TRUE(verdict.handler->GetInfectionDescription(text, 32));
    EXPECT_EQ(std::wstring(text), L"first, second");
    EXPECT_FALSE(verdict.handler->GetInfectionDescription(text, 5));
}

TEST_F(ContentScans, AddTheWeightsUpToTheThreshold) {
    Rules("<set name=\"Threshold\">3</set>" + Rule("one", "body", "alpha", "weight=\"1.5\"") +
          Rule("two", "body", "beta", "weight=\"1.5\"") + Rule("less", "body", "gamma", "weight=\"-1\""));
    EXPECT_TRUE(Scan(Message("A: b", "alpha alpha alpha")).isClean());
    EXPECT_EQ(Found(Message("A: b", "alpha beta")), "one two");
    EXPECT_TRUE(Scan(Message("A: b", "alpha beta gamma")).isClean());
}

TEST_F(ContentScans, TakeExpressionsAndFindPhrasesAcrossWrappedLines) {
    Rules(Rule("secret", "body", "regex:top[ -]secret") + Rule("phrase", "body", "very  private") +
          Rule("line", "body", "regex:^only this$"));
    EXPECT_EQ(Found(Message("A: b", "is TOP-Secret")), "secret");
    EXPECT_TRUE(Scan(Message("A: b", "top_secret")).isClean());
    EXPECT_EQ(Found(Message("A: b", "a very\r\n private thing")), "phrase");
    EXPECT_EQ(Found(Message("A: b", "x\r\nonly this\r\ny")), "line");
    EXPECT_TRUE(Scan(Message("A: b", "not only this")).isClean());
}

TEST_F(ContentScans, TakeTheSignsOfExpressionsInAPhraseAsTheyAre) {
    Rules(Rule("p", "body", "a.b*(c)[d]$"));
    EXPECT_EQ(Found(Message("A: b", "A.B*(C)[D]$")), "p");
    EXPECT_TRUE(Scan(Message("A: b", "axb*(c)[d]$")).isClean());
}

TEST_F(ContentScans, ReadTextsOfEveryCharacterSetAndEncoding) {
    Rules(Rule("g", "body",
               "gr\xC3\xBC\xC3\x9F"
               "e"));
    EXPECT_EQ(Found(Message("A: b\r\nContent-Type: text/plain; charset=utf-8",
                            "GR\xC3\x9C\xC3\x9F"
                            "E")),
              "g");
    EXPECT_EQ(Found(Message("A: b\r\nContent-Type: text/plain; charset=iso-8859-1",
                            "gr\xFC\xDF"
                            "e")),
              "g");
    EXPECT_EQ(
        Found(Message("A: b\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable",
                      "gr=C3=\r\n=BC=C3=9Fe")),
        "g");
    std::string const wide("\xFF\xFEg\0r\0\xFC\0\xDF\0e\0", 12);
    EXPECT_EQ(Found(Message("A: b\r\nContent-Type: text/html; charset=utf-16\r\nContent-Transfer-Encoding: base64",
                            Base64(wide))),
              "g");
}

TEST_F(ContentScans, ReadHtmlAsItsReaderSeesItAndAsItStands) {
    Rules(Rule("p", "body", "top secret") + Rule("link", "body", "http://bad.example"));
    std::string const head = "A: b\r\nContent-Type: text/html";
    EXPECT_EQ(Found(Message(head, "is <i>top</i>&nbsp;se<b>cret</b>")), "p");
    EXPECT_EQ(Found(Message(head, "<a href=\"http://bad.example/\">x</a>")), "link");
}

TEST_F(ContentScans, ReadEncodedSubjectsAndNames) {
    Rules(Rule("s", "subject",
               "gr\xC3\xBC\xC3\x9F"
               "e") +
          Rule("a", "attachment", "regex:\\.exe$"));
    EXPECT_EQ(Found(Message("Subject: =?iso-8859-1?Q?viele_gr=FC=DFe?=", "x")), "s");
    EXPECT_EQ(Found(Message("Subject: viele\r\n =?utf-8?B?Z3LDvMOfZQ==?=", "x")), "s");
    EXPECT_EQ(Found(WithAttachment("=?utf-8?B?YS5leGU=?=", "x")), "a");
    EXPECT_TRUE(Scan(WithAttachment("a.exe.txt", "x")).isClean());
}

TEST_F(ContentScans, ReadTheHeadersOfNestedMessages) {
    Rules(Rule("s", "subject", "needle"));
    EXPECT_EQ(Found("A: b\r\nContent-Type: message/rfc822\r\n\r\nSubject: the needle\r\n\r\nx\r\n"), "s");
}

TEST_F(ContentScans, OfAnObjectThatIsNoMessageReadItAsText) {
    Rules(Rule("b", "body", "needle"));
    EXPECT_EQ(Found("just a needle\nin a file\n"), "b");
}

TEST_F(ContentScans, OfBytesThatAreNoTextAreSafe) {
    Rules(Rule("b", "body", "needle"));
    std::string bytes;
    for (int i = 0; i < 70000; ++i) bytes += static_cast<char>(i * 7919 >> 3);
    EXPECT_EQ(Found(Message("A: b", bytes + "needle")), "b");
}

TEST_F(ContentScans, WithRulesThatCannotBeUsedAreErrorsAndNeverClean) {
    for (auto const& rule :
         {Rule("r", "body", "regex:("), Rule("r", "body", "regex:"), Rule("r", "body", ""), Rule("r", "nowhere", "x"),
          Rule("", "body", "x"), Rule("r", "body", "x", "weight=\"much\""), Rule("r", "body", "regex:x*")}) {
        Rules(Rule("fine", "body", "alpha") + rule);
        auto const verdict = Scan(Message("A: b", "clean"));
        EXPECT_TRUE(verdict.hasError()) << rule;
        EXPECT_EQ(verdict.text(kEngine, "E_SR_SCANERROR_ID"), "105") << rule;
        EXPECT_EQ(verdict.text(kEngine, "E_SR_TYPE"), "2") << rule;
        EXPECT_NE(verdict.text(kEngine, "E_SR_DESCRIPTION_P").find("test:1:"), std::string::npos)
            << verdict.text(kEngine, "E_SR_DESCRIPTION_P");
    }
}

TEST_F(ContentScans, OneEngineThatFailsDoesNotStopTheOther) {
    Rules(Rule("r", "body", "regex:("));
    EXPECT_EQ(Scan(TestVirus()).action(), "DENY");
}

TEST_F(ContentScans, AreOffWhereThePolicySaysSo) {
    Rules("<set name=\"Enabled\">false</set>" + Rule("r", "body", "alpha"));
    EXPECT_TRUE(Scan(Message("A: b", "alpha")).isClean());
}

TEST(ContentCaches, CompileTheSameRulesOnce) {
    auto const text = [](char const* phrase) {
        return "<rules version=\"1\"><policy name=\"p\"><settings section=\"KORContentScanner\"><rule name=\"r\" "
               "where=\"body\" match=\"" +
               std::string(phrase) + "\"/></settings></policy></rules>";
    };
    auto const name = InternPool::process().intern("p");
    auto const one = ParseStore("a", text("x")), same = ParseStore("b", text("x")), other = ParseStore("c", text("y"));
    ContentCache cache;
    auto const get = [&](StoreSnapshot const& store) {
        auto const view = store.view(name, InternedString(), 1);
        return cache.get(view.rulesKey("KORContentScanner"), [&] { return view.rules("KORContentScanner"); });
    };
    auto const first = get(*one);
    EXPECT_EQ(get(*one), first);
    EXPECT_EQ(get(*same), first);
    EXPECT_NE(get(*other), first);
    EXPECT_EQ(cache.compiled(), 2u);
}
