// Disclaimers in real mail, as mail programs read it afterwards.
#include <policyloader/engines/MessageTree.h>
#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/TransferEncoder.h>

using namespace policyloader;

namespace {

using Paths = std::vector<std::string>;

std::string const kTop = "From: a@example.test\r\nSubject: greetings\r\nMIME-Version: 1.0\r\n";

std::string Mail(std::string const& head, std::string const& body) { return kTop + head + "\r\n\r\n" + body; }
std::string Plain(std::string const& text) { return "Content-Type: text/plain; charset=utf-8\r\n\r\n" + text; }
std::string Html(std::string const& text) { return "Content-Type: text/html; charset=utf-8\r\n\r\n" + text; }
std::string Multi(std::string const& type, std::vector<std::string> const& parts, std::string const& cut = "cut") {
    std::string out = "Content-Type: multipart/" + type + "; boundary=" + cut + "\r\n\r\npreamble\r\n";
    for (auto const& part : parts) out += "--" + cut + "\r\n" + part + "\r\n";
    return out + "--" + cut + "--\r\nepilogue\r\n";
}
std::string File(std::string const& name, std::string const& content) {
    auto const text = Base64(content);
    return "Content-Type: application/octet-stream; name=\"" + name +
           "\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" + text.substr(0, text.size() - 2);
}
std::string Attached(std::string const& text) {
    return "Content-Type: text/plain\r\nContent-Disposition: attachment\r\n\r\n" + text;
}
std::string Coded(TransferEncoding encoding, std::string const& text) {
    TransferEncoder encoder(encoding, "\r\n");
    std::string out(encoder.encode(text));
    return out.append(encoder.finish());
}

class InfoScans : public ScanFixture {
protected:
    static constexpr char const* kInfo = "KORInfoScanner";
    void SetUp() override { Disclaimer("House rules."); }
    void Disclaimer(std::string const& text, std::string const& more = "", std::string const& others = "") {
        Policy("<settings section=\"KORInfoScanner\"><set name=\"Text\"><![CDATA[" + text + "]]></set>" + more +
               "</settings>" + others);
    }
    static unsigned long Kind(Verdict const& verdict) {
        auto const* const result = verdict.resultOf("KORInfoScanner");
        unsigned long kind = 0;
        if (result)
            static_cast<IKORPropertyBag const*>(result->GetPropertyBag())
                ->GetProperty("E_SR_INFORESULTTYPE")
                ->GetULong(kind);
        return kind;
    }
    // Both ways of writing; the paths that are different afterwards.
    MessageTree Changed(std::string const& mail, Paths const& paths) {
        auto const made = Scan(mail);
        EXPECT_EQ(Kind(made), paths.empty() ? Kind(made) : 5u) << made.text(kInfo, "E_SR_DESCRIPTION_P");
        EXPECT_EQ(made.handler->IsModified(), !paths.empty());
        EXPECT_FALSE(made.handler->IsTriggered() || made.hasError());
        EXPECT_EQ(Scan(std::make_unique<MemoryTransport>(mail), false).in->bytes, made.out->bytes);
        MessageTree const before(mail), after(made.out->bytes);
        EXPECT_EQ(before.differences(after), paths) << made.out->bytes;
        m_made = made.out->bytes;
        return after;
    }
    void ExpectAlone(std::string const& mail, unsigned long kind, std::string const& text = "") {
        auto const made = Scan(mail);
        EXPECT_EQ(Kind(made), kind) << mail;
        EXPECT_EQ(made.out->bytes, mail);
        EXPECT_FALSE(made.handler->IsModified());
        EXPECT_NE(made.text(kInfo, "E_SR_DESCRIPTION_P").find(text), std::string::npos);
    }
    std::string m_made;
};

}  // namespace

TEST_F(InfoScans, AddToATextWithABlankLineBetween) {
    EXPECT_EQ(Changed(kTop + "\r\nHello.\r\n", {"0"}).at("0").text, "Hello.\r\n\r\nHouse rules.\r\n");
    EXPECT_EQ(m_made, kTop + "\r\nHello.\r\n\r\nHouse rules.\r\n");
    Changed(kTop + "\r\nHello.", {"0"});
    EXPECT_EQ(m_made, kTop + "\r\nHello.\r\n\r\nHouse rules.\r\n");
    Changed(kTop + "\r\n", {"0"});
    EXPECT_EQ(m_made, kTop + "\r\nHouse rules.\r\n");
    Changed("Subject: nothing else\r\n", {"0"});
    EXPECT_EQ(m_made, "Subject: nothing else\r\n\r\nHouse rules.\r\n");
    auto const lineFeeds = Scan("Subject: x\n\nHello.\n");
    EXPECT_EQ(lineFeeds.out->bytes, "Subject: x\n\nHello.\n\nHouse rules.\n");
}

TEST_F(InfoScans, AddAtTheTopWherePolicySaysSo) {
    Disclaimer("House rules.", "<set name=\"Position\">top</set>");
    Changed(kTop + "\r\nHello.\r\n", {"0"});
    EXPECT_EQ(m_made, kTop + "\r\nHouse rules.\r\n\r\nHello.\r\n");
    Changed(kTop + Html("<html><body class=x><p>Hi</p></body></html>"), {"0"});
    EXPECT_EQ(m_made.substr(m_made.find("<html>")),
              "<html><body class=x>\r\n<p>House rules.</p>\r\n <p>Hi</p></body></html>\r\n");
    Changed(kTop + Plain("\xEF\xBB\xBFHello."), {"0"});
    EXPECT_NE(m_made.find("\xEF\xBB\xBFHouse rules.\r\n\r\nHello."), std::string::npos);
}

TEST_F(InfoScans, AddToBothFormsOfAMail) {
    auto const forms = Multi("alternative", {Plain("Hello."), Html("<body><p>Hello.</p></body>")}, "alt");
    auto const tree =
        Changed(kTop + Multi("mixed", {forms, File("a.bin", "attached"), Attached("x")}), {"0.0.0", "0.0.1"});
    EXPECT_EQ(tree.at("0.0.0").text, "Hello.\r\n\r\nHouse rules.");
    EXPECT_EQ(tree.at("0.0.1").text, "<body><p>Hello.</p>\r\n<p>House rules.</p>\r\n </body>");
    auto const related = Multi("related", {Html("<p>Hello.</p>"), File("a.png", "image")}, "rel");
    Changed(kTop + Multi("alternative", {Plain("Hello."), related}), {"0.0", "0.1.0"});
    EXPECT_EQ(m_made.substr(0, m_made.find("Hello.")),
              (kTop + Multi("alternative", {Plain("")})).substr(0, m_made.find("Hello.")));
}

TEST_F(InfoScans, AddToTheFormsThatPolicyWants) {
    auto const mail = kTop + Multi("alternative", {Plain("Hello."), Html("<p>Hello.</p>")});
    Disclaimer("House rules.", "<set name=\"Parts\">plain</set>");
    Changed(mail, {"0.0"});
    ExpectAlone(kTop + Html("<p>Hello.</p>"), 2);
    Disclaimer("House rules.", "<set name=\"Parts\">html</set>");
    Changed(mail, {"0.1"});
    Disclaimer("House rules.", "<set name=\"Html\"><![CDATA[<hr><i>Rules</i>]]></set>");
    EXPECT_EQ(Changed(mail, {"0.0", "0.1"}).at("0.1").text, "<p>Hello.</p>\r\n<hr><i>Rules</i>");
}

TEST_F(InfoScans, TouchNoAttachmentAndNoMessageInside) {
    auto const inner =
        "Content-Type: message/rfc822\r\n\r\n" + kTop + Multi("alternative", {Plain("In"), Html("In")}, "in");
    auto const named = "Content-Type: text/plain; name=\"notes.txt\"\r\n\r\nNotes.";
    Changed(kTop + Multi("mixed", {Attached("first"), named, Plain("Hello."), inner, Html("<p>later</p>")}), {"0.2"});
    ExpectAlone(kTop + Multi("mixed", {Attached("first"), named, inner}), 2, "no text");
    ExpectAlone(kTop + "Content-Type: message/rfc822\r\n\r\nSubject: x\r\n\r\ninner\r\n", 2);
    ExpectAlone(kTop + "Content-Type: text/calendar\r\n\r\nBEGIN:VCALENDAR\r\n", 2);
    ExpectAlone(kTop + Multi("report; report-type=delivery-status", {Plain("Failed."), File("a", "b")}), 2);
}

TEST_F(InfoScans, LeaveSignedAndEncryptedMailAloneAndSaySo) {
    auto const signature =
        "Content-Type: application/pgp-signature; name=s.asc\r\n\r\n-----BEGIN PGP SIGNATURE-----\r\n";
    ExpectAlone(kTop + Multi("signed", {Plain("Hello."), signature}), 1, "signed");
    ExpectAlone(kTop + Multi("mixed", {Multi("signed", {Plain("Hello."), signature}, "in"), Plain("footer")}), 1);
    ExpectAlone(
        kTop + Multi("encrypted", {"Content-Type: application/pgp-encrypted\r\n\r\nVersion: 1", File("x", "y")}), 1);
    for (std::string const type : {"application/pkcs7-mime; smime-type=enveloped-data; name=smime.p7m",
                                   "application/x-pkcs7-mime; name=x", "application/octet-stream; name=smime.p7m"})
        ExpectAlone(Mail("Content-Type: " + type, "MIAG"), 1, "S/MIME");
    ExpectAlone(kTop + Multi("mixed", {Plain("Hello."), signature}), 1);
    for (std::string const kind : {"SIGNED MESSAGE", "MESSAGE"})
        ExpectAlone(kTop + "\r\nHi\r\n-----BEGIN PGP " + kind + "-----\r\n\r\nx\r\n", 1, "PGP");
    ExpectAlone(Mail("Content-Transfer-Encoding: base64", Base64("-----BEGIN PGP MESSAGE-----\r\n")), 1);
}

TEST_F(InfoScans, AddToMailThatOnlySpeaksOfSignatures) {
    Changed(kTop + "\r\n> -----BEGIN PGP SIGNED MESSAGE-----\r\n", {"0"});
    Changed(kTop + "\r\nText -----BEGIN PGP MESSAGE-----\r\n", {"0"});
    auto const inner =
        "Content-Type: message/rfc822\r\n\r\n" + kTop + Multi("signed", {Plain("In"), File("s", "t")}, "in");
    Changed(kTop + Multi("mixed", {Plain("Hello."), inner}), {"0.0"});
}

TEST_F(InfoScans, LeaveDomainSignedMailAloneOnlyWherePolicySaysSo) {
    auto const mail =
        "DKIM-Signature: v=1; a=rsa-sha256; d=example.test; s=a;\r\n b=x; bh=y\r\n" + kTop + "\r\nHello.\r\n";
    Changed(mail, {"0"});
    Disclaimer("House rules.", "<set name=\"LeaveDkimSigned\">yes</set>");
    ExpectAlone(mail, 1, "DKIM");
    Changed(kTop + "\r\nDKIM-Signature: x\r\n", {"0"});
}

TEST_F(InfoScans, AddOncePerChainOfAnswers) {
    Disclaimer("This mail is confidential.\nIf it is not for you, delete it.");
    auto const mail = kTop + Multi("alternative", {Plain("Hello."), Html("<body><p>Hello.</p></body>")});
    Changed(mail, {"0.0", "0.1"});
    ExpectAlone(m_made, 4);
    ExpectAlone(
        kTop +
            "\r\nYes.\r\n\r\n> Hello.\r\n>\r\n> This mail is confidential. If it is\r\n> not for you, delete it.\r\n",
        4);
    ExpectAlone(
        kTop + Html("<p>Yes</p><blockquote><p>This mail is&nbsp;confidential.<br>\r\nIf it is not for <b>you</b>, "
                    "delete it.</p></blockquote>"),
        4);
    ExpectAlone(Mail("Content-Transfer-Encoding: base64",
                     Base64("This mail is confidential. If it is not for you, delete it.")),
                4);
    Changed(kTop + "\r\nThis mail is confidential. If it is not for you, keep it.\r\n", {"0"});
    Disclaimer("Sent to %WHO%. This mail is confidential.");
    ExpectAlone(kTop + "\r\nSent to Ann. This mail is confidential.\r\n", 4);
    Disclaimer("House rules.", "<set name=\"Once\">no</set>");
    Changed(kTop + "\r\nHouse rules.\r\n", {"0"});
}

TEST_F(InfoScans, KeepTheTransferEncodingOfEachText) {
    std::string const text =
        "gr\xC3\xBC\xC3\x9F\x65 und mehr, in einer Zeile die so lang ist dass sie gebrochen werden muss\r\n";
    for (auto const encoding : {TransferEncoding::Base64, TransferEncoding::QuotedPrintable}) {
        auto const name = encoding == TransferEncoding::Base64 ? "base64" : "quoted-printable";
        auto const head = std::string("Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: ") + name;
        for (std::size_t length = 0; length < text.size(); ++length) {
            auto const part = text.substr(length);
            if ((part[0] & 0xC0) == 0x80 || part[0] == '\n') continue;
            auto const tree = Changed(kTop + Multi("mixed", {head + "\r\n\r\n" + Coded(encoding, part)}), {"0.0"});
            EXPECT_EQ(tree.at("0.0").encoding, name);
            EXPECT_EQ(tree.at("0.0").text, part + "\r\nHouse rules.\r\n");
        }
        EXPECT_EQ(Changed(Mail(head, Coded(encoding, text) + "\r\n"), {"0"}).at("0").encoding, name);
        for (std::size_t at = m_made.find("\r\n\r\n") + 4; at < m_made.size();) {
            auto const end = m_made.find("\r\n", at);
            EXPECT_LE(end - at, 76u);
            at = end + 2;
        }
    }
}

TEST_F(InfoScans, WriteInTheCharacterSetOfTheText) {
    Disclaimer("Gr\xC3\xBC\xC3\x9F\x65");
    struct Row {
        char const *charset, *disclaimer;
    };
    for (Row const row : {Row{"iso-8859-1", "Gr\xFC\xDF\x65"}, Row{"utf-8", "Gr\xC3\xBC\xC3\x9F\x65"},
                          Row{"windows-1252", "Gr\xFC\xDF\x65"}, Row{"gb18030", "Gr\xA8\xB9\x81\x30\x89\x38\x65"}}) {
        auto const tree = Changed(Mail(std::string("Content-Type: text/plain; charset=") + row.charset +
                                           "\r\nContent-Transfer-Encoding: 8bit",
                                       "Hello.\r\n"),
                                  {"0"});
        EXPECT_EQ(tree.at("0").charset, row.charset);
        EXPECT_EQ(tree.at("0").text, "Hello.\r\n\r\nGr\xC3\xBC\xC3\x9F\x65\r\n");
        EXPECT_EQ(tree.at("0").encoding, "8bit");
        EXPECT_NE(m_made.find(row.disclaimer), std::string::npos) << row.charset;
    }
}

TEST_F(InfoScans, TurnATextIntoUtf8WhereItsCharacterSetHasNoPlace) {
    Disclaimer("\xE2\x82\xAC 5");
    for (std::string const encoding : {"7bit", "8bit", "quoted-printable", "base64"}) {
        auto const code = encoding == "base64" ? TransferEncoding::Base64
                          : encoding[0] == 'q' ? TransferEncoding::QuotedPrintable
                                               : TransferEncoding::Identity;
        std::string const body = encoding == "7bit" ? "Hello.\r\n--x\r\n" : "gr\xFC\xDF\x65\r\n--x\r\n";
        auto const mail = Mail(
            "Content-Type: text/plain; charset=iso-8859-1; format=flowed; x-extra=\"a b\"\r\n"
            "Content-Transfer-Encoding: " +
                encoding,
            Coded(code, body) + (code == TransferEncoding::Base64 ? "\r\n" : ""));
        auto const tree = Changed(mail, {"0"});
        EXPECT_EQ(tree.at("0").charset, "utf-8");
        EXPECT_EQ(tree.at("0").encoding, code == TransferEncoding::Identity ? "quoted-printable" : encoding);
        EXPECT_EQ(tree.at("0").text, MessageTree(mail).at("0").text + "\r\n\xE2\x82\xAC 5\r\n");
        EXPECT_NE(m_made.find("format=flowed"), std::string::npos);
        EXPECT_NE(m_made.find("x-extra=\"a b\""), std::string::npos);
    }
    EXPECT_EQ(Changed(kTop + "\r\nHello.\r\n", {"0"}).at("0").charset, "utf-8");
    EXPECT_EQ(Changed("Subject: old\r\n\r\nHello.\r\n", {"0"}).at("0").text, "Hello.\r\n\r\n\xE2\x82\xAC 5\r\n");
    EXPECT_NE(m_made.find("MIME-Version: 1.0\r\n"), std::string::npos);
}

TEST_F(InfoScans, FoldALongTypeByTheLineEndsOfTheMail) {
    Disclaimer("\xE2\x82\xAC 5");
    std::string const words(60, 'w');
    auto const type = "Content-Type: text/plain; charset=iso-8859-1;\r\n x-a=" + words + ";\r\n x-b=" + words;
    Changed(Mail(type, "Hello.\r\n"), {"0"});
    EXPECT_NE(m_made.find("Content-Type: text/plain; charset=utf-8;\r\n"), std::string::npos);
    EXPECT_NE(m_made.find("x-b=" + words), std::string::npos);
    for (std::size_t at = m_made.find('\n'); at != std::string::npos; at = m_made.find('\n', at + 1))
        EXPECT_EQ(m_made[at - 1], '\r') << m_made;
}

TEST_F(InfoScans, WritePagesInAnyCharacterSet) {
    Disclaimer("\xE2\x82\xAC 5");
    auto const tree = Changed(Mail("Content-Type: text/html; charset=iso-8859-1\r\nContent-Transfer-Encoding: 8bit",
                                   "<body>gr\xFC\xDF\x65</body>\r\n"),
                              {"0"});
    EXPECT_EQ(tree.at("0").charset, "iso-8859-1");
    EXPECT_EQ(tree.at("0").text, "<body>gr\xC3\xBC\xC3\x9F\x65\r\n<p>&#8364; 5</p>\r\n </body>\r\n");
}

TEST_F(InfoScans, LeaveWhatIsNotOfItsCharacterSetAsItIs) {
    Disclaimer("\xE2\x82\xAC 5");
    for (std::string const charset : {"us-ascii", "x-made-up", "tis-620"}) {
        auto const mail = Mail("Content-Type: text/plain; charset=" + charset,
                               "a\xD2\xFF"
                               "b\r\n");
        auto const made = Scan(mail).out->bytes;
        EXPECT_EQ(made, mail + "\r\n? 5\r\n") << charset;
    }
}

TEST_F(InfoScans, AddToTextsThatHaveSeveralBytesForEachCharacter) {
    Disclaimer("Gr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC");
    std::string const wide("H\0i\0\r\0\n\0", 8);
    auto const mail =
        Mail("Content-Type: text/plain; charset=utf-16le\r\nContent-Transfer-Encoding: base64", Base64(wide));
    auto const tree = Changed(mail, {"0"});
    EXPECT_EQ(tree.at("0").charset, "utf-16le");
    EXPECT_EQ(tree.at("0").text, "Hi\r\n\r\nGr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC\r\n");
    auto const japanese = Mail("Content-Type: text/plain; charset=iso-2022-jp", "\x1B$BF|\x1B(B\r\n");
    auto const converted = Changed(japanese, {"0"});
    EXPECT_EQ(converted.at("0").charset, "utf-8");
    EXPECT_EQ(converted.at("0").text, "\xE6\x97\xA5\r\n\r\nGr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC\r\n");
    Disclaimer("Rules");
    EXPECT_EQ(Changed(japanese, {"0"}).at("0").charset, "iso-2022-jp");
    ExpectAlone(
        Mail("Content-Type: text/plain; charset=utf-16le\r\nContent-Transfer-Encoding: base64", Base64(wide + "x")), 3);
}

TEST_F(InfoScans, FlowWhereTheTextFlows) {
    std::string const words =
        "word word word word word word word word word word word word word word word word word end";
    Disclaimer(words + "\n> kept");
    Changed(Mail("Content-Type: text/plain; format=flowed", "Hello.\r\n"), {"0"});
    EXPECT_EQ(m_made.substr(m_made.find("Hello.")), "Hello.\r\n\r\n" + words.substr(0, 70) + "\r\n" + words.substr(70) +
                                                        "\r\n >"
                                                        " kept\r\n");
    Changed(Mail("Content-Type: text/plain; format=fixed", "Hello.\r\n"), {"0"});
    EXPECT_EQ(m_made.substr(m_made.find("Hello.")), "Hello.\r\n\r\n" + words + "\r\n> kept\r\n");
}

TEST_F(InfoScans, MakeNoLineTooLongAndNoEightBits) {
    Disclaimer(std::string(1200, 'x'));
    EXPECT_EQ(Changed(kTop + "\r\nHello.\r\n", {"0"}).at("0").encoding, "quoted-printable");
    Disclaimer("Gr\xC3\xBC\xC3\x9F\x65");
    EXPECT_EQ(Changed(kTop + Plain("Hello.\r\n"), {"0"}).at("0").encoding, "quoted-printable");
    for (char const c : m_made) EXPECT_GE(c, 0);
}

TEST_F(InfoScans, MakeNoBoundary) {
    Disclaimer("---cut\n--cut\n--CUT--");
    auto const mail = kTop + Multi("mixed", {Plain("Hello."), File("a.bin", "x")});
    EXPECT_EQ(Changed(mail, {"0.0"}).at("0.0").text, "Hello.\r\n\r\n---cut\r\n--cut\r\n--CUT--");
    Disclaimer("House rules.", "<set name=\"Position\">top</set>");
    Changed(
        kTop + Multi("mixed", {Html("<body>--cut\r\nContent-Type: text/plain\r\n\r\nx</body>"), File("a.bin", "x")}),
        {"0.0"});
    Disclaimer("\xE2\x82\xAC");
    auto const folded = std::string(75, 'y') + "--cut\r\n\r\nnew part\r\n";
    for (std::size_t skip = 0; skip < 20; ++skip)
        Changed(kTop + Multi("mixed", {"\r\n" + folded.substr(skip), File("a.bin", "x")}), {"0.0"});
}

TEST_F(InfoScans, StayInShapeInPartsThatAreEmptyOrHaveNoEnd) {
    std::string const empty = "--cut\r\nContent-Type: text/plain\r\n\r\n";
    std::string const top = kTop + "Content-Type: multipart/mixed; boundary=cut\r\n\r\n";
    EXPECT_EQ(Changed(top + empty + "--cut--\r\n", {"0.0"}).at("0.0").text, "House rules.");
    Changed(top + "--cut\r\n\r\n--cut\r\n" + File("a", "b") + "\r\n--cut--\r\n", {"0.0"});
    Changed(top + "--cut\r\n\r\nHello.\r\n", {"0.0"});
    Changed(top + "--cut\r\nContent-Type: text/plain\r\n--cut--\r\n", {"0.0"});
    EXPECT_NE(m_made.find("\r\n\r\nHouse rules.\r\n--cut--"), std::string::npos) << m_made;
}

TEST_F(InfoScans, DropSumsThatAreNoLongerTrue) {
    Changed(Mail("Content-MD5: Q2hlY2sgSW50ZWdyaXR5IQ==\r\nContent-Length: 8\r\nX-Kept: y", "Hello.\r\n"), {"0"});
    EXPECT_EQ(m_made, kTop + "X-Kept: y\r\n\r\nHello.\r\n\r\nHouse rules.\r\n");
}

TEST_F(InfoScans, LeaveTextsThatReadersTakeInSeveralWays) {
    ExpectAlone(Mail("Content-Type: text/plain\r\nContent-Type: text/html", "Hello.\r\n"), 3);
    ExpectAlone(Mail("Content-Transfer-Encoding: base64\r\nContent-Transfer-Encoding: 7bit", "Hello.\r\n"), 3);
    ExpectAlone(Mail("Content-Transfer-Encoding: x-made-up", "Hello.\r\n"), 3);
    ExpectAlone(Mail("Content-Transfer-Encoding: x-uuencode", "begin 644 a\r\n#86)C\r\n`\r\nend\r\n"), 3);
    ExpectAlone(Mail("Content-Type: text/plain; charset=ucs-2", "Hello.\r\n"), 3);
}

TEST_F(InfoScans, SayNothingOfWhatIsNoMailOrWithoutAText) {
    EXPECT_EQ(Scan("\x7F"
                   "ELF and so on")
                  .resultOf(kInfo),
              nullptr);
    auto web = std::make_unique<MemoryTransport>(kTop + "\r\nHello.\r\n");
    web->bag.NewProperty("ES_CONTEXT_HTTP")->SetLong(1);
    EXPECT_EQ(Scan(std::move(web)).resultOf(kInfo), nullptr);
    Policy("");
    EXPECT_EQ(Scan(kTop + "\r\nHello.\r\n").resultOf(kInfo), nullptr);
    Disclaimer("x", "<set name=\"Enabled\">off</set>");
    EXPECT_EQ(Scan(kTop + "\r\nHello.\r\n").resultOf(kInfo), nullptr);
    Disclaimer("x");
    EXPECT_TRUE(Thread().SelectEngines(false, kInfo));
    EXPECT_EQ(Scan(kTop + "\r\nHello.\r\n").resultOf(kInfo), nullptr);
}

TEST_F(InfoScans, GoTogetherWithReplacedParts) {
    Disclaimer("House rules.", "", "<settings section=\"KORAVScanner\"><set name=\"Action\">REPLACE</set></settings>");
    auto const mail = kTop + Multi("mixed", {Plain("Hello."), File("e.com", TestVirus()), File("a.bin", "x")});
    auto const made = Scan(mail);
    EXPECT_EQ(made.action(), "REPLACE");
    EXPECT_EQ(Kind(made), 5u);
    MessageTree const after(made.out->bytes);
    EXPECT_EQ(MessageTree(mail).differences(after), (Paths{"0.0", "0.1"}));
    EXPECT_EQ(after.at("0.0").text, "Hello.\r\n\r\nHouse rules.");
    EXPECT_EQ(after.at("0.1").name, "e.com.txt");
    EXPECT_EQ(Scan(std::make_unique<MemoryTransport>(mail), false).in->bytes, made.out->bytes);
}

TEST_F(InfoScans, AddNothingToAnAlertOrToWhatIsRefused) {
    Disclaimer("House rules.", "", "<settings section=\"KORAVScanner\"><set name=\"Action\">REPLACE</set></settings>");
    auto const replaced = Scan(kTop + "\r\n" + TestVirus() + "\r\n");
    EXPECT_EQ(replaced.action(), "REPLACE");
    EXPECT_EQ(Kind(replaced), 3u);
    EXPECT_EQ(replaced.out->bytes.find("House rules"), std::string::npos);
    Disclaimer("House rules.");
    auto const refused = Scan(kTop + "\r\n" + TestVirus() + "\r\n");
    EXPECT_EQ(refused.action(), "DENY");
    EXPECT_EQ(refused.resultOf(kInfo), nullptr);
    EXPECT_FALSE(refused.handler->IsModified());
}

TEST_F(InfoScans, OfAMailBeyondALimitAddNothing) {
    Disclaimer("House rules.", "",
               "<settings section=\"KORFormatScanner\"><set name=\"MaxParts\">3</set><set "
               "name=\"OnLimit\">LOG</set></settings>");
    auto const made = Scan(kTop + Multi("mixed", {Plain("a"), Plain("b"), Plain("c"), Plain("d")}));
    EXPECT_EQ(made.action(), "LOG");
    EXPECT_EQ(Kind(made), 0u);
    EXPECT_FALSE(made.handler->IsModified());
}

TEST_F(InfoScans, ThatCannotBeWrittenAreErrors) {
    std::string const mail = kTop + "\r\nHello.\r\n";
    for (std::size_t room = 0; room < mail.size(); room += 9) {
        Verdict verdict;
        verdict.in = std::make_unique<MemoryTransport>(mail);
        verdict.out = std::make_unique<MemoryTransport>();
        verdict.out->roomToWrite = room;
        verdict.object.reset(Thread().NewScanObject(*verdict.in, InternedString()));
        verdict.handler = verdict.object->Scan(verdict.out.get(), nullptr);
        EXPECT_TRUE(verdict.hasError()) << room;
        EXPECT_FALSE(verdict.handler->IsModified());
        EXPECT_EQ(verdict.resultOf(kInfo), nullptr);
    }
}

TEST_F(InfoScans, CannotAddInPlaceOfWhatIsReadOnly) {
    auto in = std::make_unique<MemoryTransport>(kTop + "\r\nHello.\r\n");
    in->readOnly = true;
    auto const made = Scan(std::move(in), false);
    EXPECT_EQ(Kind(made), 3u);
    EXPECT_FALSE(made.handler->IsModified() || made.hasError());
}

TEST_F(InfoScans, StreamMailOfAnySize) {
    std::string body;
    while (body.size() < (3u << 20)) body += "A line of a long mail, gr\xC3\xBC\xC3\x9F\x65, and so on.\r\n";
    for (auto const encoding : {TransferEncoding::Base64, TransferEncoding::QuotedPrintable}) {
        auto const name = encoding == TransferEncoding::Base64 ? "base64" : "quoted-printable";
        auto const mail =
            Mail(std::string("Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: ") + name,
                 Coded(encoding, body));
        EXPECT_TRUE(MessageTree(Scan(mail).out->bytes).at("0").text == body + "\r\nHouse rules.\r\n");
    }
}
