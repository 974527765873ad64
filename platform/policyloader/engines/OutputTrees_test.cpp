// New objects as mail programs read them: what was replaced is an alert, and everything else is what it was.
#include <policyloader/engines/ArchiveWriter.h>
#include <policyloader/engines/MessageTree.h>
#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

using Paths = std::vector<std::string>;

std::string Part(std::string const& head, std::string const& body) {
    return "--cut\r\n" + head + "\r\n\r\n" + body + "\r\n";
}

std::string Coded(std::string const& name, std::string const& content) {
    auto const text = Base64(content);
    return Part("Content-Type: application/octet-stream; name=\"" + name + "\"\r\nContent-Transfer-Encoding: base64",
                text.substr(0, text.size() - 2));
}

std::string Mixed(std::string const& parts) {
    return "From: a@example.test\r\nSubject: greetings\r\nMIME-Version: 1.0\r\n"
           "Content-Type: multipart/mixed; boundary=cut\r\n\r\nA preamble.\r\n" +
           parts + "--cut--\r\nAn epilogue.\r\n";
}

// As another message's only part.
std::string Wrapped(std::string const& message) {
    return "Subject: outer\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=outer\r\n\r\n"
           "--outer\r\nContent-Type: text/plain\r\n\r\nForwarded.\r\n--outer\r\nContent-Type: message/rfc822\r\n\r\n" +
           message + "\r\n--outer--\r\n";
}

std::string const kText = Part("Content-Type: text/plain; charset=iso-8859-1", "gr\xFC\xDF\x65");
std::string const kImage = Coded("a.png", std::string("\x89PNG\r\n\x1A\n\0\0--cut", 14));

class OutputTrees : public ScanFixture {
protected:
    void SetUp() override { Replacing(""); }
    void Replacing(std::string const& more) {
        Policy("<settings section=\"KORAVScanner\"><set name=\"Action\">REPLACE</set></settings>" + more);
    }
    // Both ways of writing it; `paths` are those that are alerts afterwards, all others the same as before.
    std::string Replaced(std::string const& message, Paths const& paths) {
        auto const made = Scan(message);
        EXPECT_EQ(made.action(), "REPLACE") << message;
        EXPECT_FALSE(made.hasError());
        auto const inPlace = Scan(std::make_unique<MemoryTransport>(message), false);
        EXPECT_EQ(inPlace.in->bytes, made.out->bytes);
        EXPECT_TRUE(made.handler->IsModified() && inPlace.handler->IsModified());
        MessageTree const before(message), after(made.out->bytes);
        EXPECT_EQ(before.differences(after), paths) << made.out->bytes;
        for (auto const& path : paths) {
            auto const node = after.at(path);
            EXPECT_EQ(node.type, "text/plain");
            EXPECT_EQ(node.charset, "utf-8");
            EXPECT_EQ(node.encoding, "quoted-printable");
            EXPECT_NE(node.text.find("was removed"), std::string::npos) << node.text;
        }
        EXPECT_TRUE(Scan(made.out->bytes).isClean());
        return made.out->bytes;
    }
};

}  // namespace

TEST_F(OutputTrees, HaveTheAlertInPlaceOfTheAttachmentAlone) {
    auto const message = Mixed(kText + Coded("eicar.com", TestVirus()) + kImage);
    auto const made = Replaced(message, {"0.1"});
    auto const begin = message.find("--cut\r\nContent-Type: application");
    auto const end = message.find(kImage);
    EXPECT_EQ(made.substr(0, begin), message.substr(0, begin));
    EXPECT_EQ(made.substr(made.size() - (message.size() - end)), message.substr(end));
    EXPECT_EQ(MessageTree(made).at("0.1").name, "eicar.com.txt");
    EXPECT_NE(MessageTree(made).at("0.1").text.find("Name: eicar.com\r\nFound: EICAR-Test-File"), std::string::npos);
}

TEST_F(OutputTrees, OfAMessageWithoutPartsAreTheAlert) {
    for (std::string const type : {"", "Content-Type: text/html\r\n", "Content-Type: application/x; name=e.com\r\n"}) {
        auto const made = Replaced("Subject: a\r\n" + type + "\r\nbefore\r\n" + TestVirus() + "\r\n", {"0"});
        EXPECT_EQ(made.substr(0, 31), "Subject: a\r\nMIME-Version: 1.0\r\n");
        EXPECT_EQ(made.substr(made.size() - 2), "\r\n");
    }
}

TEST_F(OutputTrees, OfANestedMessageKeepWhatIsAroundIt) {
    Replaced(Wrapped(Mixed(kText + Coded("eicar.com", TestVirus()) + kImage)), {"0.1.0.1"});
    Replaced(Wrapped("Subject: inner\r\n\r\n" + TestVirus() + "\r\n"), {"0.1.0"});
    Replaced(Wrapped(Wrapped("Subject: inner\r\nMIME-Version: 1.0\r\n\r\n" + TestVirus())), {"0.1.0.1.0"});
}

TEST_F(OutputTrees, LoseTheWholeArchiveForOneFileInIt) {
    Files const files = {{"readme.txt", "hello"}, {"eicar.com", TestVirus()}};
    for (auto const* const format : {"zip", "7zip", "gnutar"}) {
        auto const archive = MakeArchive(format, files);
        auto const made = Replaced(Mixed(kText + Coded("a.bin", archive)), {"0.1"});
        EXPECT_EQ(MessageTree(made).at("0.1").name, "a.bin.txt");
        auto const deeper = MakeArchive("zip", {{"inner", archive}, {"other", "x"}});
        Replaced(Wrapped(Mixed(kImage + Coded("b.zip", deeper) + kText)), {"0.1.0.1"});
    }
}

TEST_F(OutputTrees, LoseEveryInfectedPart) {
    auto const virus = Coded("e.com", TestVirus());
    Replaced(Mixed(virus + kText + virus + kImage + virus), {"0.0", "0.2", "0.4"});
    auto const inText = Part("Content-Type: text/html", "<p>" + TestVirus() + "</p>");
    Replaced(Mixed(inText + kText), {"0.0"});
}

TEST_F(OutputTrees, StayInShapeWhereTheReplacedPartIsEmpty) {
    Replacing(
        "<settings section=\"KORFormatScanner\"><rule name=\"r\" match=\"*.exe\" action=\"REPLACE\"/></settings>");
    std::string const empty = "--cut\r\nContent-Type: application/x; name=a.exe\r\n\r\n";
    Replaced(Mixed(empty + kText), {"0.0"});
    Replaced(Mixed(kText + empty), {"0.1"});
    Replaced(Mixed(empty + empty + empty), {"0.0", "0.1", "0.2"});
}

TEST_F(OutputTrees, WithoutALastBoundaryStayAsOpen) {
    auto const message = Mixed(kText + Coded("eicar.com", TestVirus()));
    Replaced(message.substr(0, message.find("--cut--")), {"0.1"});
}

TEST_F(OutputTrees, WithLineFeedsAloneHaveNoOtherLineEnds) {
    auto text = Mixed(kText + Coded("eicar.com", TestVirus()));
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    EXPECT_EQ(Replaced(text, {"0.1"}).find('\r'), std::string::npos);
}

TEST_F(OutputTrees, HaveNoBoundaryOutOfANameOrAHostsText) {
    Replacing(
        "<settings section=\"KORAVScanner\"><set name=\"AlertText\">was removed\n--cut\n%FILENAME%\n%HOST%</set>"
        "</settings>");
    std::string const name = "x%0D%0A--cut%0D%0AContent-Type:%20text/html%0D%0A%0D%0A%3Cb%3E";
    auto const part =
        Part("Content-Type: application/x; name*=utf-8''" + name + "\r\nContent-Transfer-Encoding: base64",
             Base64(TestVirus()));
    auto in = std::make_unique<MemoryTransport>(Mixed(kText + part + kImage));
    auto* const texts = new KORPropertyBag;
    texts->NewProperty("%HOST%")->SetWide(L"h\r\n--cut\r\n\r\nnew part");
    in->bag.NewProperty("ES_SCANRESSUBSTITUTIONS")->SetBag(texts);
    auto const verdict = Scan(std::move(in));
    MessageTree const after(verdict.out->bytes);
    EXPECT_EQ(MessageTree(verdict.in->bytes).differences(after), (Paths{"0.1"}));
    EXPECT_EQ(after.at("0.1").text,
              "was removed\r\n--cut\r\nx --cut Content-Type: text/html  <b>\r\nh --cut  new part");
}

TEST_F(OutputTrees, NameTheAlertAfterThePartInAnyLanguage) {
    auto const named = [&](std::string const& parameter) {
        auto const part = Part("Content-Type: application/x; " + parameter, TestVirus());
        return MessageTree(Scan(Mixed(kText + part)).out->bytes).at("0.1").name;
    };
    EXPECT_EQ(named("name*=utf-8''gr%C3%BC%C3%9Fe.com"), "gr\xC3\xBC\xC3\x9F\x65.com.txt");
    EXPECT_EQ(named("name=\"a \\\"b.com\""), "a \"b.com.txt");
    EXPECT_EQ(named("name=\"" + std::string(99, 'x') + "\""), std::string(99, 'x') + ".txt");
    EXPECT_EQ(named("name*=utf-8''" + std::string(99, 'x') + "%C3%BC%C3%BC"), std::string(99, 'x') + ".txt");
    EXPECT_EQ(named("x=y"), "");
}

TEST_F(OutputTrees, ThatCannotBeWrittenAreErrors) {
    auto const message = Mixed(kText + Coded("eicar.com", TestVirus()));
    auto const whole = Scan(message).out->bytes.size();
    for (std::size_t room = 0; room < whole; room += 37) {
        Verdict verdict;
        verdict.in = std::make_unique<MemoryTransport>(message);
        verdict.out = std::make_unique<MemoryTransport>();
        verdict.out->roomToWrite = room;
        verdict.object.reset(Thread().NewScanObject(*verdict.in, InternedString()));
        verdict.handler = verdict.object->Scan(verdict.out.get(), nullptr);
        EXPECT_TRUE(verdict.hasError()) << room;
        EXPECT_FALSE(verdict.handler->IsModified()) << room;
        EXPECT_EQ(verdict.resultOf("KORAVScanner")->IsCleaned(), 0);
    }
}

TEST_F(OutputTrees, OfAWalkThatEndedEarlyAreRefusedInstead) {
    Replacing(
        "<settings section=\"KORFormatScanner\"><set name=\"MaxParts\">3</set><set "
        "name=\"OnLimit\">LOG</set></settings>");
    // The infected message is the object itself, whose end was never met.
    auto const verdict = Scan(Mixed(Part("Content-Type: text/plain", "x") + kText + kImage + kText) + TestVirus());
    EXPECT_EQ(verdict.text("KORFormatScanner", "E_SR_DOS_TYPE"), "DEPTH");
    auto const found = Scan("Content-Type: multipart/mixed; boundary=cut\r\n\r\n" + TestVirus() + "\r\n" + kText +
                            kText + kText + "--cut--\r\n");
    EXPECT_EQ(found.found("KORAVScanner"), "EICAR-Test-File");
    EXPECT_EQ(found.action(), "DENY");
    EXPECT_FALSE(found.handler->IsModified());
}
