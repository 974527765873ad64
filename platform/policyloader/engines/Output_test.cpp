#include <gmime/gmime.h>
#include <unistd.h>

#include <policyloader/engines/Marks.h>
#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/TempObject.h>

using namespace policyloader;

namespace {

// A message read back by the MIME library.
class Parsed {
public:
    explicit Parsed(std::string const& text) {
        auto* const stream = g_mime_stream_mem_new_with_buffer(text.data(), text.size());
        auto* const parser = g_mime_parser_new_with_stream(stream);
        m_message = g_mime_parser_construct_message(parser, nullptr);
        g_object_unref(parser);
        g_object_unref(stream);
    }
    ~Parsed() {
        if (m_message) g_object_unref(m_message);
    }
    explicit operator bool() const { return m_message; }
    int parts() const {
        auto* const top = g_mime_message_get_mime_part(m_message);
        return GMIME_IS_MULTIPART(top) ? g_mime_multipart_get_count(GMIME_MULTIPART(top)) : 0;
    }
    std::string text(int index) const {
        auto* const top = g_mime_message_get_mime_part(m_message);
        auto* const part = index < 0 ? top : g_mime_multipart_get_part(GMIME_MULTIPART(top), index);
        if (!GMIME_IS_TEXT_PART(part)) return "no text";
        char* const text = g_mime_text_part_get_text(GMIME_TEXT_PART(part));
        std::string const copy(text ? text : "");
        g_free(text);
        return copy;
    }
    std::string subject() const { return g_mime_message_get_subject(m_message); }

private:
    GMimeMessage* m_message;
};

class Outputs : public ScanFixture {
protected:
    void SetUp() override {
        g_mime_init();
        Action("REPLACE");
    }
    void Action(std::string const& action, std::string const& more = "") {
        Policy("<settings section=\"KORAVScanner\"><set name=\"Action\">" + action + "</set>" + more + "</settings>");
    }
};

}  // namespace

TEST_F(Outputs, HaveAnAlertInPlaceOfTheInfectedPartAndAllElseByteForByte) {
    auto const message = WithAttachment("eicar.com", TestVirus(), "Keep me.");
    for (auto const* const action : {"REPLACE", "CLEAN"}) {
        Action(action);
        auto const verdict = Scan(message);
        EXPECT_EQ(verdict.action(), action);
        EXPECT_TRUE(verdict.handler->IsModified());
        EXPECT_EQ(verdict.resultOf("KORAVScanner")->IsCleaned(), 2);
        EXPECT_FALSE(verdict.in->modified);
        Parsed const parsed(verdict.out->bytes);
        ASSERT_TRUE(parsed);
        ASSERT_EQ(parsed.parts(), 2);
        EXPECT_EQ(parsed.text(0), "Keep me.");
        EXPECT_NE(parsed.text(1).find("eicar.com"), std::string::npos) << parsed.text(1);
        EXPECT_NE(parsed.text(1).find("EICAR-Test-File"), std::string::npos) << parsed.text(1);
        auto const before = message.find("Content-Type: application");
        EXPECT_EQ(verdict.out->bytes.substr(0, before), message.substr(0, before));
        EXPECT_EQ(verdict.out->bytes.substr(verdict.out->bytes.size() - 11), "\r\n--cut--\r\n");
        EXPECT_TRUE(Scan(verdict.out->bytes).isClean());
    }
}

TEST_F(Outputs, OfAMessageInOnePieceKeepItsOwnFields) {
    auto const verdict = Scan(
        "Subject: a\r\n b\r\nContent-Type: application/x;\r\n name=e\r\nX-Last: y\r\n"
        "Content-Transfer-Encoding: base64\r\n\r\n" +
        Base64(TestVirus()));
    ASSERT_EQ(verdict.action(), "REPLACE");
    EXPECT_EQ(verdict.out->bytes.substr(0, verdict.out->bytes.find("Content-")),
              "Subject: a\r\n b\r\nX-Last: y\r\nMIME-Version: 1.0\r\n");
    Parsed const parsed(verdict.out->bytes);
    EXPECT_EQ(parsed.subject(), "a b");
    EXPECT_NE(parsed.text(-1).find("EICAR-Test-File"), std::string::npos) << verdict.out->bytes;
}

TEST_F(Outputs, KeepTheLineEndsOfTheObject) {
    auto text = WithAttachment("eicar.com", TestVirus());
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    EXPECT_EQ(Scan(text).out->bytes.find('\r'), std::string::npos);
}

TEST_F(Outputs, FillTheMarksFromTheHostsTexts) {
    Action("REPLACE", "<set name=\"AlertText\">%SENDER% sent %FILENAME% (%INFECTIONS%) 100% %UNKNOWN%</set>");
    auto in = std::make_unique<MemoryTransport>(WithAttachment("eicar.com", TestVirus()));
    auto* const texts = new KORPropertyBag;
    texts->NewProperty("SENDER")->SetWide(L"%FILENAME%");
    in->bag.NewProperty("ES_SCANRESSUBSTITUTIONS")->SetBag(texts);
    auto const verdict = Scan(std::move(in));
    EXPECT_EQ(Parsed(verdict.out->bytes).text(1), "%FILENAME% sent eicar.com (EICAR-Test-File) 100% %UNKNOWN%");
}

TEST_F(Outputs, AreWrittenIntoTheInputWhereNoneIsGiven) {
    auto const verdict = Scan(std::make_unique<MemoryTransport>(WithAttachment("eicar.com", TestVirus())), false);
    EXPECT_EQ(verdict.action(), "REPLACE");
    EXPECT_TRUE(verdict.in->modified);
    EXPECT_TRUE(verdict.handler->IsModified());
    EXPECT_EQ(Parsed(verdict.in->bytes).parts(), 2);
    EXPECT_TRUE(Scan(verdict.in->bytes).isClean());
    auto const clean = Scan(std::make_unique<MemoryTransport>(WithAttachment("a.txt", "x")), false);
    EXPECT_FALSE(clean.in->modified);
}

TEST_F(Outputs, AreOnlyOfWhatChangesWhereTheHostKeepsTheRest) {
    auto const scan = [this](std::string const& message, long only) {
        auto in = std::make_unique<MemoryTransport>(message);
        in->bag.NewProperty("ES_CHANGED_OUTPUT_ONLY")->SetLong(only);
        return Scan(std::move(in));
    };
    auto const clean = WithAttachment("note.txt", "hello");
    for (long const only : {0, 1}) {
        auto const kept = scan(clean, only);
        EXPECT_EQ(kept.out->bytes, only ? "" : clean);
        EXPECT_EQ(kept.in->bag.GetProperty("ES_OUTPUT_LEFT_OUT") != nullptr, only == 1);
        EXPECT_FALSE(kept.handler->IsModified());
    }
    auto const made = scan(WithAttachment("eicar.com", TestVirus(), "Keep me."), 1);
    EXPECT_TRUE(made.handler->IsModified());
    EXPECT_EQ(made.in->bag.GetProperty("ES_OUTPUT_LEFT_OUT"), nullptr);
    EXPECT_NE(made.out->bytes.find("Keep me."), std::string::npos);
    EXPECT_EQ(made.out->bytes.find(TestVirus()), std::string::npos);
}

TEST_F(Outputs, OfAReadOnlyInputAreRefusedInstead) {
    auto in = std::make_unique<MemoryTransport>(WithAttachment("eicar.com", TestVirus()));
    in->readOnly = true;
    auto const verdict = Scan(std::move(in), false);
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_FALSE(verdict.handler->IsModified());
    EXPECT_TRUE(verdict.handler->DidActionOccur("REPLACE"));
}

TEST_F(Outputs, ThatCannotBeMadeCleanAreRefusedInstead) {
    // In a header, and in an object that is no message, there is no part to cut out.
    EXPECT_EQ(Scan("X-A: " + TestVirus() + "\r\n\r\nx\r\n").action(), "DENY");
    EXPECT_EQ(Scan(TestVirus()).action(), "DENY");
    // One in a part, which goes, and one in the header, which stays.
    auto const verdict = Scan("X-A: " + TestVirus() + "\r\n" + WithAttachment("eicar.com", TestVirus()));
    EXPECT_EQ(verdict.action(), "DENY");
    EXPECT_EQ(verdict.resultOf("KORAVScanner")->IsCleaned(), 0);
}

TEST_F(Outputs, ReplaceTheOutermostOfPartsWithinOneAnother) {
    std::string const message =
        "A: b\r\nContent-Type: multipart/mixed; boundary=out\r\n\r\n--out\r\n"
        "Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
        Base64(WithAttachment("eicar.com", TestVirus())) + "--out\r\n\r\nkeep\r\n--out--\r\n";
    auto const verdict = Scan(message);
    EXPECT_EQ(verdict.action(), "REPLACE");
    Parsed const parsed(verdict.out->bytes);
    ASSERT_EQ(parsed.parts(), 2);
    EXPECT_EQ(parsed.text(1), "keep");
}

TEST_F(Outputs, OfContentRulesReplaceTextsButNotSubjects) {
    Policy(
        "<settings section=\"KORContentScanner\"><rule name=\"r\" where=\"body,subject\" match=\"needle\" "
        "action=\"REPLACE\"/></settings>");
    auto const verdict = Scan(WithAttachment("a.txt", "x", "the needle"));
    EXPECT_EQ(verdict.action(), "REPLACE");
    EXPECT_EQ(verdict.out->bytes.find("needle"), std::string::npos);
    EXPECT_EQ(Scan("Subject: needle\r\n\r\nx").action(), "DENY");
}

TEST(Marks, AreFilledOnceAndOthersStay) {
    auto const value = [](std::string const& name, std::string& text) {
        text = "%A%";
        return name == "A";
    };
    EXPECT_EQ(FillMarks("a%A%b%A%%", value), "a%A%b%A%%");
    EXPECT_EQ(FillMarks("50%% %B% %A%", value), "50%% %B% %A%");
    EXPECT_EQ(FillMarks("%", value), "%");
}

TEST(TempObjects, GoToAFileWithoutANameWhenTheyGrow) {
    TempObject object(10);
    object.append("12345");
    EXPECT_TRUE(object.isInMemory());
    object.append("67890x");
    EXPECT_FALSE(object.isInMemory());
    object.append(std::string(200000, 'y'));
    std::string all;
    object.readAll([&](std::string_view piece) { all += piece; });
    EXPECT_EQ(all, "1234567890x" + std::string(200000, 'y'));
}
