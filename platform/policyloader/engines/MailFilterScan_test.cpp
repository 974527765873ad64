// Mail judged by its header, its size, its recipients and its attachments.
#include <policyloader/engines/ArchiveWriter.h>
#include <policyloader/engines/HeaderText.h>
#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

struct Part {
    std::string head;  // its header fields
    std::string content;
};

std::string Mixed(std::vector<Part> const& parts, std::string const& header = "From: a@example.test\r\n") {
    std::string out = header + "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=cut\r\n\r\n";
    for (auto const& part : parts) out += "--cut\r\n" + part.head + "\r\n\r\n" + part.content + "\r\n";
    return out + "--cut--\r\n";
}

Part Named(std::string const& name, std::string const& content = "x") {
    return {"Content-Type: application/octet-stream\r\nContent-Disposition: attachment; filename=\"" + name + "\"",
            content};
}

Part const kGreeting{"Content-Type: text/plain", "Hello."};

std::string Program() {
    std::string out = "MZ" + std::string(58, '\0') + std::string("\x80\0\0\0", 4) + std::string(64, '\0');
    return out + std::string("PE\0\0\x64\x86\x01\0", 8) + std::string(400, '\0');
}

class MailFilterScans : public ScanFixture {
protected:
    static constexpr char const* kEngine = "KORMailFilter";
    void Rules(std::string const& rules) { Policy("<settings section='KORMailFilter'>" + rules + "</settings>"); }
    void Rule(std::string const& attributes) { Rules("<rule name='r' " + attributes + "/>"); }
    Verdict ScanFor(std::string const& object, unsigned long recipients) {
        auto in = std::make_unique<MemoryTransport>(object);
        auto* const session = new KORPropertyBag;
        auto* const property = session->NewProperty("RECIPIENTS");
        for (unsigned long i = 0; i < recipients; ++i) property->AddNarrow("someone@example.test");
        in->bag.NewPropertyBagProperty("ES_SCANRESSUBSTITUTIONS")->SetBag(session);
        return Scan(std::move(in));
    }
    // Whether the rule fits a message of these fields.
    bool Fits(std::string const& header) {
        auto const verdict = Scan(header + "\r\nbody\r\n");
        EXPECT_FALSE(verdict.hasError());
        EXPECT_EQ(verdict.action(), verdict.found(kEngine).empty() ? "" : "DENY");
        return verdict.found(kEngine) == "r";
    }
    bool FitsParts(std::vector<Part> const& parts) { return Scan(Mixed(parts)).found(kEngine) == "r"; }
    bool Acts(std::string const& object) { return !Scan(object).action().empty(); }
    std::string Description(std::string const& object) { return Scan(object).text(kEngine, "E_SR_DESCRIPTION_P"); }
};

}  // namespace

TEST_F(MailFilterScans, SayNothingWithoutRules) {
    EXPECT_TRUE(Scan(WithAttachment("a.exe", Program())).isClean());
    EXPECT_FALSE(Scan("plain").resultOf(kEngine));
}

TEST_F(MailFilterScans, SayWhatPolicyAndGatewayRead) {
    Rules("<rule name='bulk' header='Precedence' match='bulk' action='LOG'/>");
    auto const verdict = Scan("Precedence: bulk\r\n\r\nx\r\n");
    EXPECT_EQ(verdict.action(), "LOG");
    EXPECT_EQ(verdict.found(kEngine), "bulk");
    EXPECT_EQ(verdict.text(kEngine, "E_SR_TYPE"), "3");
    EXPECT_EQ(verdict.text(kEngine, "E_SR_ACTION"), "LOG");
    EXPECT_EQ(verdict.text(kEngine, "E_SR_DESCRIPTION_P"), "bulk");
    EXPECT_EQ(verdict.resultOf(kEngine)->InfectedItems(), 1);
    EXPECT_TRUE(verdict.resultOf(kEngine)->GetScanPolContext());
    EXPECT_EQ(verdict.where(kEngine), "");
    EXPECT_EQ(verdict.out->bytes, verdict.in->bytes);
}

TEST_F(MailFilterScans, KnowAFieldByItsNameInAnyCase) {
    Rule("header='X-Mailer'");
    for (auto const* const name : {"X-Mailer", "x-mailer", "X-MAILER", "X-Mailer ", "X-Mailer\t"})
        EXPECT_TRUE(Fits(std::string("From: a@b\r\n") + name + ": any\r\n")) << name;
    EXPECT_TRUE(Fits("X-Mailer:\r\n"));
    for (auto const* const other : {"X-Mailer2: any", "Mailer: any", "Subject: X-Mailer: any"})
        EXPECT_FALSE(Fits(std::string("From: a@b\r\n") + other + "\r\n")) << other;
    Rule("header='List-*, X-Bulk'");
    EXPECT_TRUE(Fits("list-id: x\r\n"));
    EXPECT_TRUE(Fits("x-bulk: x\r\n"));
    EXPECT_FALSE(Fits("x-bulky: x\r\nlists: x\r\n"));
    Rule("header='*' match='*needle*'");
    EXPECT_TRUE(Fits("From: a@b\r\nX-Any: a needle in it\r\n"));
}

TEST_F(MailFilterScans, CompareAWholeValueOrSearchAnExpression) {
    Rule("header='Subject' match='you ha?e won*'");
    EXPECT_TRUE(Fits("Subject: You have WON a prize\r\n"));
    EXPECT_TRUE(Fits("Subject:you have won\r\n"));
    EXPECT_FALSE(Fits("Subject: now you have won\r\n"));
    EXPECT_FALSE(Fits("Comments: you have won\r\n"));
    Rule("header='Subject' match='regex:pri[cz]e$'");
    EXPECT_TRUE(Fits("Subject: a PRIZE\r\n"));
    EXPECT_FALSE(Fits("Subject: a prize for you\r\n"));
    Rule("header='Subject' match=''");
    EXPECT_TRUE(Fits("Subject:  \r\n"));
    EXPECT_FALSE(Fits("Subject: x\r\n"));
    EXPECT_FALSE(Fits("From: a@b\r\n"));
    Rule("header='Subject' match='a, b'");
    EXPECT_TRUE(Fits("Subject: a, b\r\n"));
    EXPECT_FALSE(Fits("Subject: a\r\n"));
}

TEST_F(MailFilterScans, ReadFoldedValuesAsOne) {
    Rule("header='Subject' match='you have won a prize'");
    for (auto const* const text :
         {"you have\r\n won a prize", "\r\n you\r\n\thave\r\n  won a\r\n prize", "you have \r\n won a prize"})
        EXPECT_TRUE(Fits(std::string("Subject: ") + text + "\r\nTo: b@b\r\n")) << text;
    EXPECT_TRUE(Fits("Subject: you\n have won\n a prize\n"));
    EXPECT_FALSE(Fits("Subject: you have\r\nX: won a prize\r\n"));
}

TEST_F(MailFilterScans, UndoEncodedWords) {
    Rule("header='Subject, From' match='regex:pr\xC3\xA4mie'");
    for (auto const* const text : {"Subject: =?utf-8?B?RGllIFByw6RtaWU=?=", "Subject: =?ISO-8859-1?q?die_pr=E4mie?=",
                                   "Subject: =?utf-8?q?pr=C3=A4?=\r\n =?utf-8?q?mie?=",
                                   "From: =?windows-1252?Q?Pr=E4mie?= <a@b.test>", "Subject: Pr\xC3\x84mie"})
        EXPECT_TRUE(Fits(std::string(text) + "\r\n")) << text;
    EXPECT_FALSE(Fits("Subject: =?utf-8?q?pramie?=\r\n"));
    // As it is written it counts, too.
    Rule("header='Subject' match='regex:=\\?koi8-r\\?'");
    EXPECT_TRUE(Fits("Subject: =?KOI8-R?B?8NLJ18XU?=\r\n"));
}

TEST_F(MailFilterScans, LookAtEachOfSeveralFields) {
    Rule("header='From' match='*@bad.test*'");
    EXPECT_TRUE(Fits("From: a@good.test\r\nTo: b@b\r\nFROM: x@bad.test\r\n"));
    EXPECT_TRUE(Fits("From: x@bad.test\r\nFrom: a@good.test\r\n"));
    EXPECT_FALSE(Fits("From: a@good.test\r\nTo: x@bad.test\r\n"));
}

TEST_F(MailFilterScans, SeeFieldsThatAreMissingOrRepeated) {
    Rule("missing='Date'");
    EXPECT_TRUE(Fits("From: a@b\r\n"));
    EXPECT_FALSE(Fits("dAtE:\r\n"));
    Rule("missing='From,Date'");
    EXPECT_TRUE(Fits("From: a@b\r\n"));
    EXPECT_FALSE(Fits("From: a@b\r\nDate: x\r\n"));
    Rule("repeated='From, Subject'");
    EXPECT_TRUE(Fits("Subject: a\r\nFrom: a@b\r\nsubject: b\r\n"));
    EXPECT_FALSE(Fits("Subject: a\r\nFrom: a@b\r\nTo: x\r\nTo: y\r\n"));
    Rule("repeated='X-*'");
    EXPECT_TRUE(Fits("X-A: 1\r\nX-A: 2\r\n"));
    EXPECT_FALSE(Fits("X-A: 1\r\nX-B: 2\r\n"));
}

TEST_F(MailFilterScans, JudgeTheOutermostHeaderAlone) {
    auto const forwarded = Mixed({kGreeting, {"Content-Type: message/rfc822", "Subject: won\r\n\r\nx\r\n"}},
                                 "From: a@b\r\nSubject: look\r\n");
    Rule("header='Subject' match='won'");
    EXPECT_TRUE(Scan(forwarded).isClean());
    Rule("missing='From'");
    EXPECT_TRUE(Scan(forwarded).isClean());
    Rule("header='Content-Type' match='text/*'");
    EXPECT_TRUE(Scan(forwarded).isClean());
}

TEST_F(MailFilterScans, CountFieldsAndTheBytesOfAHeader) {
    Rule("fields='3'");
    EXPECT_FALSE(Fits("A: 1\r\nB: 2\r\nC: 3\r\n\t4\r\n"));
    EXPECT_TRUE(Fits("A: 1\r\nB: 2\r\nC: 3\r\nD: 4\r\n"));
    std::string const header = "From: a@b\r\nSubject: x\r\n";
    Rule("header-size='" + std::to_string(header.size() + 2) + "'");  // with the empty line
    EXPECT_FALSE(Fits(header));
    EXPECT_TRUE(Fits(header + "A:\r\n"));
    EXPECT_EQ(Description(header + "A:\r\n\r\n"), "r (29 bytes of header)");
}

TEST_F(MailFilterScans, KnowTheSizeOfAMessage) {
    Rule("size='1000'");
    std::string const head = "A: b\r\n\r\n";
    EXPECT_TRUE(Scan(head + std::string(1000 - head.size(), 'x')).isClean());
    EXPECT_EQ(Description(head + std::string(1001 - head.size(), 'x')), "r (1001 bytes)");
    auto in = std::make_unique<MemoryTransport>(head + std::string(1u << 20, 'x'));
    in->mostInOneRead = 7;
    EXPECT_EQ(Scan(std::move(in)).action(), "DENY");
}

TEST_F(MailFilterScans, SizeIsThatOfTheObjectEvenWhenItIsReadTwice) {
    Rule("size='1000'");
    // A structure that readers differ about has a second look.
    std::string const odd = "Content-Type: multipart/mixed; boundary=a; boundary=b\r\n\r\n--a\r\n\r\nx\r\n";
    EXPECT_TRUE(Scan(odd + std::string(900 - odd.size(), 'x')).isClean());
}

TEST_F(MailFilterScans, CountTheRecipientsOfTheEnvelope) {
    Rule("recipients='2'");
    EXPECT_TRUE(ScanFor("To: a@b, c@d, e@f\r\n\r\nx", 2).isClean());
    auto const verdict = ScanFor("To: undisclosed-recipients:;\r\n\r\nx", 3);
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(verdict.text(kEngine, "E_SR_DESCRIPTION_P"), "r (3 recipients)");
}

TEST_F(MailFilterScans, CountTheRecipientsOfTheHeaderWhereThereIsNoEnvelope) {
    Rule("recipients='2'");
    EXPECT_FALSE(Fits("To: a@b\r\nCc: c@d\r\nReply-To: e@f, g@h\r\n"));
    EXPECT_TRUE(Fits("To: a@b\r\nCc: c@d\r\nbcc: e@f\r\n"));
    EXPECT_TRUE(Fits("To: a@b,\r\n c@d,\r\n\t\"E, F\" <e@f>\r\n"));
}

TEST(Addresses, AreCountedWhateverStandsAroundThem) {
    struct {
        char const* list;
        std::size_t count;
    } const rows[] = {
        {"", 0},
        {" ,, ; , ", 0},
        {"a@b", 1},
        {"a@b,c@d", 2},
        {"\"a, b\" <c@d>, e@f", 2},
        {"a (b, (c), d) <e@f>", 1},
        {"a@b (c\\), d)", 1},
        {"\"a\\\", b\" <c@d>", 1},
        {"friends: a@b, c@d; e@f", 3},
        {"undisclosed-recipients:;", 0},
        {"<@a.test,@b.test:c@d.test>, e@f", 2},
        {"a@[IPv6:::1], b@[1.2.3.4]", 2},
        {"\"a@b, c@d, e@f", 3},
        {"a@b, (c@d, e@f", 3},
        {"<a@b, c@d", 2},
    };
    for (auto const& row : rows) EXPECT_EQ(CountAddresses(row.list), row.count) << row.list;
}

TEST_F(MailFilterScans, KnowAttachmentsByTheirNames) {
    Rule("attachment='*.exe, bad?.txt'");
    for (auto const* const name : {"a.exe", "A.EXE", "a.exe. ", "bad1.txt", "in/a/folder/BAD2.TXT"})
        EXPECT_TRUE(FitsParts({kGreeting, Named(name)})) << name;
    for (auto const* const name : {"a.exe.txt", "bad.txt", "exe"})
        EXPECT_FALSE(FitsParts({kGreeting, Named(name)})) << name;
    Rule("attachment='regex:^invoice[0-9]+\\.(docm|xlsm)$'");
    EXPECT_TRUE(FitsParts({Named("x"), Named("Invoice7.DOCM")}));
    EXPECT_FALSE(FitsParts({Named("invoice.docm")}));
    EXPECT_EQ(Description(Mixed({Named("invoice1.docm")})), "r: invoice1.docm");
    EXPECT_EQ(Description(Mixed({Named("invoice1.docm"), Named("invoice2.xlsm"), Named("invoice3.xlsm")})),
              "r: invoice1.docm and 2 more");
}

TEST_F(MailFilterScans, KnowEveryNameThatAReaderMayTake) {
    Rule("attachment='*.exe'");
    std::string const type = "Content-Type: application/octet-stream", disposition = "Content-Disposition: attachment";
    for (auto const& head : {
             type + "; name=a.exe\r\n" + disposition + "; filename=a.txt",
             type + "; name=a.txt\r\n" + disposition + "; filename=a.exe",
             type + "\r\n" + disposition + "; filename=a.txt\r\n" + disposition + "; filename=a.exe",
             type + "\r\n" + disposition + "; filename=a.txt; filename=a.exe",
             type + "\r\n" + disposition + "; filename=a.exe; filename=a.txt",
             type + "\r\n" + disposition + "; filename=a.txt; FileName = \"a.exe\"",
             type + "\r\n" + disposition + "; filename*=utf-8''a%2Eexe",
             type + "\r\n" + disposition + "; filename*=utf-8''a%2Etxt; filename=a.exe",
             type + "\r\n" + disposition + "; filename=a.txt; filename*=utf-8''a%2Eexe",
             type + "\r\n" + disposition + "; filename=a.txt; filename*0=a.; filename*1=\"exe\"",
             type + "; name=a.txt; name*=utf-8''a%2Eexe",
             type + "\r\n" + disposition + "; filename=a.txt  .exe ; size=3",
             type + "\r\n" + disposition + "; filename=\"a.exe",
             type + "\r\n" + disposition + "; filename*0=a.; filename*1=exe",
             type + "\r\n" + disposition + "; filename*0*=utf-8''a%2E; filename*1*=ex%65",
             type + "\r\n" + disposition + "; filename=\"=?utf-8?Q?a=2Eexe?=\"",
             type + "\r\n" + disposition + ";\r\n\tfilename=\r\n \"a.exe\"",
             type + "\r\nCONTENT-DISPOSITION: Attachment; FILENAME=A.EXE",
             type + "; name=\"a.txt\"; name=\"a.exe\"",
             std::string("Content-Type: text/plain; name=a.exe"),
             std::string("Content-Disposition: inline; filename=a.exe"),
         })
        EXPECT_TRUE(FitsParts({kGreeting, {head, "x"}})) << head;
    std::string many = type + "\r\n" + disposition;
    for (int i = 0; i < 50; ++i) many += "; filename=a" + std::to_string(i) + ".txt";
    EXPECT_TRUE(FitsParts({{many + "; filename=a.exe", "x"}}));
    EXPECT_FALSE(FitsParts({{many, "x"}}));
    EXPECT_FALSE(FitsParts({{type + "\r\n" + disposition + "; hostname=a.exe", "x"}}));
}

TEST_F(MailFilterScans, KnowAttachmentsByTheirKind) {
    Rule("type='exe'");
    EXPECT_TRUE(Acts(WithAttachment("holiday.jpg", Program())));
    EXPECT_TRUE(FitsParts({{"Content-Type: application/x-msdownload", "not one"}}));
    EXPECT_FALSE(FitsParts({Named("a.exe")}));
    Rule("type='mail'");
    EXPECT_TRUE(FitsParts({kGreeting, {"Content-Type: message/rfc822", "Subject: x\r\n\r\ny"}}));
    EXPECT_FALSE(FitsParts({kGreeting}));
    Rule("type='image/*'");
    EXPECT_TRUE(FitsParts({{"Content-Type: IMAGE/X-Unknown", "x"}}));
    Rule("type='exe' attachment='*.scr'");
    EXPECT_TRUE(FitsParts({Named("a.scr")}));
    EXPECT_TRUE(FitsParts({Named("a.txt", Program())}));
}

TEST_F(MailFilterScans, KnowTheSizeOfAttachments) {
    Rule("attachment-size='1000'");
    EXPECT_TRUE(Scan(WithAttachment("a", std::string(1000, 'x'))).isClean());
    EXPECT_FALSE(Scan(WithAttachment("a", std::string(1001, 'x'))).isClean());
    EXPECT_TRUE(Scan(WithAttachment("a", "x", std::string(5000, 'x'))).isClean());
    Part const mail{"Content-Type: message/rfc822", "Subject: x\r\n\r\n" + std::string(1000, 'y')};
    EXPECT_TRUE(FitsParts({mail}));
    Rule("attachment-size='1000' attachment='*.txt'");
    EXPECT_TRUE(FitsParts({Named("a.txt", std::string(1001, 'x'))}));
    EXPECT_FALSE(FitsParts({Named("a.txt"), Named("b", std::string(1001, 'x'))}));
}

TEST_F(MailFilterScans, CountAttachmentsThatFit) {
    Rule("attachments='2'");
    EXPECT_FALSE(FitsParts({kGreeting, kGreeting, kGreeting, Named("a"), Named("b")}));
    EXPECT_TRUE(FitsParts({kGreeting, Named("a"), Named("b"), {"Content-Type: image/png", "x"}}));
    EXPECT_EQ(Description(Mixed({Named("a"), Named("b"), Named("c")})), "r: a and 2 more (3 attachments)");
    Rule("attachments='1' attachment='*.pdf'");
    EXPECT_FALSE(FitsParts({Named("a.pdf"), Named("b.doc"), Named("c.doc")}));
    EXPECT_TRUE(FitsParts({Named("a.pdf"), Named("b.doc"), Named("c.pdf")}));
    Rule("attachments='0'");
    EXPECT_FALSE(FitsParts({kGreeting}));
    EXPECT_TRUE(FitsParts({{"Content-Type: text/plain\r\nContent-Disposition: attachment", "x"}}));
    EXPECT_TRUE(FitsParts({{"Content-Type: text/plain\r\nContent-Disposition: something", "x"}}));
    EXPECT_FALSE(FitsParts({{"Content-Type: text/plain\r\nContent-Disposition: inline", "x"}}));
    EXPECT_TRUE(Acts("Content-Type: application/pdf\r\n\r\nx"));
}

TEST_F(MailFilterScans, CountAttachmentsOfMessagesInMessagesButNotFilesInArchives) {
    Rule("attachments='2'");
    auto const inner = Mixed({kGreeting, Named("a"), Named("b")});
    EXPECT_TRUE(FitsParts({kGreeting, {"Content-Type: message/rfc822", inner}}));
    EXPECT_TRUE(
        FitsParts({kGreeting, {"Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64", Base64(inner)}}));
    auto const zip = MakeArchive("zip", {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d.eml", inner}});
    EXPECT_TRUE(Scan(WithAttachment("a.zip", zip)).isClean());
}

TEST_F(MailFilterScans, HoldToAllThatARuleSays) {
    Rule("header='From' match='*@partner.test*' attachment='*.exe' size='300'");
    auto const from = [](char const* who) { return std::string("From: x@") + who + ".test\r\n"; };
    std::string const much(400, 'x');
    EXPECT_TRUE(Acts(Mixed({Named("a.exe", much)}, from("partner"))));
    EXPECT_FALSE(Acts(Mixed({Named("a.exe", much)}, from("other"))));
    EXPECT_FALSE(Acts(Mixed({Named("a.txt", much)}, from("partner"))));
    EXPECT_FALSE(Acts(Mixed({Named("a.exe", "x")}, from("partner"))));
}

TEST_F(MailFilterScans, TakeTheStrongestActionOfAllRulesThatFit) {
    Rules(
        "<set name='Action'>REPLACE</set>"
        "<rule name='a' header='X-A' action='LOG'/><rule name='b' header='X-B'/>"
        "<rule name='c' header='X-C' action='DENY'/>");
    auto const verdict = Scan("X-A: 1\r\nX-C: 1\r\n\r\nx");
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(verdict.found(kEngine), "a c");
    EXPECT_EQ(verdict.text(kEngine, "E_SR_DESCRIPTION_P"), "a, c");
    EXPECT_EQ(Scan("X-A: 1\r\n\r\nx").action(), "LOG");
    // Nobody can cut a field out, so what is to be replaced is refused.
    EXPECT_EQ(Scan("X-A: 1\r\nX-B: 1\r\n\r\nx").action(), "DENY");
}

TEST_F(MailFilterScans, EndAtAnExceptionThatFitsTheMessage) {
    Rules(
        "<rule name='log' header='X-A' action='LOG'/>"
        "<rule name='ours' header='List-Id' match='news.example.test' action='EFABRIC:ALLOWTHRU'/>"
        "<rule name='many' recipients='1' action='DENY'/>");
    std::string const many = "To: a@b, c@d\r\n";
    EXPECT_EQ(Scan(many + "\r\nx").action(), "DENY");
    EXPECT_TRUE(Scan(many + "List-Id: news.example.test\r\n\r\nx").isClean());
    EXPECT_EQ(Scan(many + "X-A: 1\r\nList-Id: news.example.test\r\n\r\nx").action(), "LOG");
    // Other engines are not held up.
    EXPECT_EQ(Scan(many + "List-Id: news.example.test\r\n\r\n" + TestVirus()).action(), "DENY");
}

TEST_F(MailFilterScans, ExceptAttachmentsOneByOne) {
    Rules(
        "<rule name='ours' attachment='update.exe' action='EFABRIC:ALLOWTHRU'/>"
        "<rule name='r' attachment='*.exe' action='DENY'/>");
    EXPECT_FALSE(FitsParts({Named("update.exe")}));
    EXPECT_TRUE(FitsParts({Named("update.exe"), Named("b.exe")}));
    EXPECT_EQ(Description(Mixed({Named("update.exe"), Named("b.exe")})), "r: b.exe");
}

TEST_F(MailFilterScans, ExceptWhatIsAnExceptionByEachOfItsNames) {
    Rules(
        "<rule name='ours' attachment='*.txt' action='EFABRIC:ALLOWTHRU'/>"
        "<rule name='r' attachment='*' action='DENY'/>");
    EXPECT_FALSE(FitsParts({Named("a.txt")}));
    EXPECT_FALSE(FitsParts({Named("a.txt\"; filename=\"b.txt")}));
    EXPECT_FALSE(FitsParts({{"Content-Disposition: attachment; filename=my notes.txt", "x"}}));
    EXPECT_TRUE(FitsParts({Named("a.txt\"; filename=\"a.exe")}));
    EXPECT_TRUE(FitsParts({Named("a.exe\"; filename=\"a.txt")}));
}

TEST_F(MailFilterScans, SeeUuencodedFilesInATextAsAttachments) {
    std::string const file = "begin 644 a.exe\r\n#0V%T\r\n`\r\nend\r\n";
    Rule("attachment='*.exe'");
    EXPECT_EQ(Scan("Subject: x\r\n\r\nHello.\r\n" + file).found(kEngine), "r");
    EXPECT_TRUE(FitsParts({{"Content-Type: text/plain; name=a.txt", file}}));
    EXPECT_FALSE(FitsParts({{"Content-Type: text/plain", "begin with a.exe\r\nend\r\n"}}));
    Rule("attachments='1'");
    EXPECT_FALSE(FitsParts({{"Content-Type: text/plain", file}}));
    EXPECT_TRUE(FitsParts({{"Content-Type: text/plain", file + file}}));
    EXPECT_FALSE(FitsParts({{"Content-Transfer-Encoding: x-uuencode\r\nContent-Disposition: attachment", file}}));
    Rule("attachment-size='2'");
    EXPECT_TRUE(FitsParts({{"Content-Type: text/plain", file}}));
    Rule("type='exe'");
    EXPECT_FALSE(FitsParts({{"Content-Type: text/plain", file}}));
}

TEST_F(MailFilterScans, ReplaceAttachmentsAndNothingElse) {
    Rules(
        "<set name='AlertText'>%FILENAME% went: %INFECTIONS%</set>"
        "<rule name='subject' header='Subject' action='LOG'/><rule name='docs' attachment='*.doc' action='LOG'/>"
        "<rule name='programs' attachment='*.exe' action='REPLACE'/>");
    auto const verdict = Scan(Mixed(
        {kGreeting, Named("a.exe", "first"), Named("b.doc", "second"), Named("c.exe", "third")}, "Subject: x\r\n"));
    EXPECT_EQ(verdict.action(), "REPLACE");
    EXPECT_TRUE(verdict.handler->IsModified());
    auto const& out = verdict.out->bytes;
    EXPECT_NE(out.find("Hello."), std::string::npos);
    EXPECT_NE(out.find("second"), std::string::npos);
    EXPECT_NE(out.find("a.exe went: subject, docs, programs"), std::string::npos) << out;
    EXPECT_NE(out.find("c.exe went"), std::string::npos);
    EXPECT_EQ(out.find("first"), std::string::npos);
    EXPECT_EQ(out.find("third"), std::string::npos);
    EXPECT_EQ(Scan(out).action(), "LOG");
}

TEST_F(MailFilterScans, ReplaceAMessageThatIsAnAttachmentItself) {
    Rule("type='pdf' action='REPLACE'");
    auto const verdict = Scan("Subject: x\r\nContent-Type: application/pdf; name=a.pdf\r\n\r\n%PDF-1.4\r\n");
    EXPECT_EQ(verdict.action(), "REPLACE");
    EXPECT_EQ(verdict.out->bytes.find("%PDF"), std::string::npos);
    EXPECT_EQ(verdict.out->bytes.find("Subject: x\r\n"), 0u);
}

TEST_F(MailFilterScans, AreOutWhenTheyAreNotEnabledOrNotSelected) {
    Rules("<set name='Enabled'>false</set><rule name='r' missing='Date' action='DENY'/>");
    EXPECT_TRUE(Scan("From: a@b\r\n\r\nx").isClean());
    Rules("<rule name='r' missing='Date' action='DENY'/>");
    EXPECT_EQ(Scan("From: a@b\r\n\r\nx").action(), "DENY");
    ASSERT_TRUE(Thread().SelectEngines(false, kEngine));
    EXPECT_TRUE(Scan("From: a@b\r\n\r\nx").isClean());
    ASSERT_TRUE(Thread().SelectEngines(true, kEngine));
    EXPECT_EQ(Scan("From: a@b\r\n\r\nx").action(), "DENY");
}

TEST_F(MailFilterScans, HaveNothingToSayOfWhatIsNoMessage) {
    Rules("<rule name='r' missing='Date' action='DENY'/><rule name='s' size='1' action='DENY'/>");
    EXPECT_TRUE(Scan(Program()).isClean());
    EXPECT_TRUE(Scan(MakeArchive("zip", {{"a.eml", "From: a@b\r\n\r\nx"}})).isClean());
}

TEST_F(MailFilterScans, WithARuleThatCannotBeUsedAreErrorsThatNameIt) {
    struct {
        char const* rule;
        char const* reason;
    } const rows[] = {
        {"<rule header='Subject'/>", "rule \"\": name is missing"},
        {"<rule name='r'/>", "rule \"r\": it says nothing about a message"},
        {"<rule name='r' match='x' size='1'/>", "rule \"r\": match goes with header"},
        {"<rule name='r' header=' , '/>", "rule \"r\": header names no header field"},
        {"<rule name='r' missing=''/>", "rule \"r\": missing names no header field"},
        {"<rule name='r' header='A' match='regex:'/>", "rule \"r\": match has an empty expression"},
        {"<rule name='r' attachment='regex:('/>",
         "rule \"r\": Missing close parenthesis for group started at index 0."},
        {"<rule name='r' header='A' match='regex:(a'/>",
         "rule \"r\": Missing close parenthesis for group started at index 0."},
        {"<rule name='r' type='exes'/>", "rule \"r\": type \"exes\" is not known"},
        {"<rule name='r' size='1k'/>", "rule \"r\": size is not a number"},
        {"<rule name='r' recipients='-1'/>", "rule \"r\": recipients is not a number"},
        {"<rule name='r' attachments=''/>", "rule \"r\": attachments is not a number"},
        {"<rule name='r' fields='99999999999999999999'/>", "rule \"r\": fields is not a number"},
    };
    for (auto const& row : rows) {
        Rules(std::string("<rule name='good' size='1'/>\n") + row.rule);
        auto const verdict = Scan("From: a@b\r\n\r\nx");
        EXPECT_TRUE(verdict.hasError()) << row.rule;
        EXPECT_EQ(verdict.action(), "");
        EXPECT_EQ(verdict.text(kEngine, "E_SR_SCANERROR_ID"), "105");
        EXPECT_EQ(verdict.text(kEngine, "E_SR_DESCRIPTION_P"), std::string("test:2:1: ") + row.reason);
    }
}

TEST_F(MailFilterScans, HaveNumbersOfAnyHeight) {
    Rule("size='18446744073709551615' recipients='18446744073709551615'");
    EXPECT_TRUE(ScanFor("From: a@b\r\n\r\nx", 3).isClean());
}

namespace {

std::string ManyTimes(std::string const& text, std::size_t bytes = 200000) {
    std::string out;
    while (out.size() < bytes) out += text;
    return out;
}

}  // namespace

// What costs more than its length would keep a session for hours here.
TEST_F(MailFilterScans, FindTheLastOfVeryMany) {
    Rules(
        "<rule name='value' header='*' match='*needle'/><rule name='names' attachment='*.exe'/>"
        "<rule name='repeated' repeated='X-*'/><rule name='recipients' recipients='50000'/>");
    std::string const attachment = "Content-Disposition: attachment";
    struct {
        std::string header;
        char const* found;
    } const rows[] = {
        {ManyTimes("a:\r\n") + "a: needle", "value"},
        {"Subject: " + ManyTimes("need\r\n ") + "needle", "value"},
        {"Subject: " + ManyTimes("=?utf-8?q?need?=\r\n ") + "=?utf-8?q?le?=", "value"},
        {"Subject: " + ManyTimes("=?utf-8?q?") + "needle", "value"},
        {"To: " + ManyTimes("a@b,", 50000 * 4) + "c@d", "recipients"},
        {"To: " + ManyTimes("(a,", 50000 * 3) + "c@d", "recipients"},
        {attachment + "; filename=c.exe; " + ManyTimes("name="), "names"},
        {"Content-Type: multipart/mixed; " + ManyTimes("boundary=") + "\r\n" + attachment + "; filename=c.exe", ""},
        {attachment + ManyTimes("; filename=a") + "; filename=b.exe", "names"},
        {attachment + ManyTimes("; filename=\"a") + "; filename=b.exe", "names"},
        {attachment + ManyTimes("; boundary=a; name=a") + "; filename*=utf-8''b%2Eexe", "names"},
        {"X-Y: z\r\n" + ManyTimes("A-B: c\r\n") + "x-y: z", "repeated"},
    };
    for (auto const& row : rows)
        EXPECT_EQ(Scan(row.header + "\r\n\r\nx").found(kEngine), row.found) << row.header.substr(0, 60);
}

TEST_F(MailFilterScans, LeaveAHeaderBeyondAllMeasureToTheLimit) {
    Rule("missing='Date'");
    auto const verdict = Scan(ManyTimes("A: b\r\n", 1100000) + "\r\nx");
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(verdict.text("KORFormatScanner", "E_SR_DOS_TYPE"), "SIZE");
}

TEST_F(MailFilterScans, OfBrokenStructureSeeWhatIsThere) {
    Rule("attachment='*.exe'");
    std::string const part = "--cut\r\nContent-Disposition: attachment; filename=a.exe\r\n\r\nx\r\n";
    for (auto const& object : {
             std::string("Content-Type: multipart/mixed; boundary=cut\r\n\r\n") + part,    // never closed
             std::string("Content-Type: multipart/mixed\r\n\r\n") + part + "--cut--\r\n",  // no boundary named
             std::string("Content-Type: multipart/mixed; boundary=\"cut\r\n\r\n") + part,  // an open quote
             std::string("Content-Type: multipart/mixed; boundary=x; boundary=cut\r\n\r\n") + part,
             std::string("Content-Type: multipart/mixed; boundary=cut\n\n--cut\nContent-Disposition: attachment;\n"
                         " filename=a.exe\n\nx"),
             std::string("Content-Type: multipart/mixed; boundary=cut\r\n\r\n--cut\r\n") +
                 "Content-Disposition: attachment; filename=a.exe",  // a header that ends with the object
         })
        EXPECT_EQ(Scan(object).found(kEngine), "r") << object;
}

TEST_F(MailFilterScans, HoldWindowsAndInheritanceOfRules) {
    Rules("<rule name='never' when='00:00-00:01' size='0' action='DENY'/><rule name='r' size='0' action='LOG'/>");
    auto const now = [] { return std::time_t(12 * 3600); };
    Thread().SetTimeSource(+now);
    EXPECT_EQ(Scan("A: b\r\n\r\nx").found(kEngine), "r");
}
