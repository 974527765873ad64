#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

class Limits : public ScanFixture {
protected:
    static constexpr char const* kEngine = "KORFormatScanner";
    void Limit(std::string const& name, std::string const& value, std::string const& more = "") {
        Policy("<settings section=\"KORFormatScanner\"><set name=\"" + name + "\">" + value + "</set>" + more +
               "</settings>");
    }
    // A message with the content inside `levels` levels of multiparts.
    static std::string Nested(unsigned levels, std::string const& content) {
        std::string out = "A: b\r\n";
        for (unsigned i = 0; i < levels; ++i) {
            auto const mark = "b" + std::to_string(i);
            out += "Content-Type: multipart/mixed; boundary=" + mark + "\r\n\r\n--" + mark + "\r\n";
        }
        out += "\r\n" + content + "\r\n";
        for (unsigned i = levels; i-- > 0;) out += "--b" + std::to_string(i) + "--\r\n";
        return out;
    }
    void ExpectLimit(Verdict const& verdict, std::string const& kind, std::string const& action = "DENY") {
        EXPECT_EQ(verdict.text(kEngine, "E_SR_DOS_TYPE"), kind);
        EXPECT_EQ(verdict.text(kEngine, "E_SR_TYPE"), "4");
        EXPECT_NE(verdict.text(kEngine, "E_SR_DESCRIPTION_P"), "");
        EXPECT_EQ(verdict.action(), action);
        EXPECT_TRUE(verdict.handler->IsTriggered());
        EXPECT_EQ(verdict.handler->GetMasterScanResult(), verdict.resultOf(kEngine));
    }
};

}  // namespace

TEST_F(Limits, OfDepthAreSixteenAndHoldExactly) {
    EXPECT_TRUE(Scan(Nested(16, "x")).isClean());
    ExpectLimit(Scan(Nested(17, "x")), "DEPTH");
    ExpectLimit(Scan(Nested(5000, "x")), "DEPTH");
}

TEST_F(Limits, OfDepthHoldThroughEncodedMessages) {
    Limit("MaxDepth", "3");
    std::string text = "A: b\r\n\r\nx";
    for (int i = 0; i < 6; ++i)
        text = "A: b\r\nContent-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n\r\n" + Base64(text);
    ExpectLimit(Scan(text), "DEPTH");
}

TEST_F(Limits, OfPartsHoldExactly) {
    Limit("MaxParts", "10");
    auto const message = [](int parts) {
        std::string out = "A: b\r\nContent-Type: multipart/mixed; boundary=c\r\n\r\n";
        for (int i = 0; i < parts; ++i) out += "--c\r\n\r\nx\r\n";
        return out + "--c--\r\n";
    };
    EXPECT_TRUE(Scan(message(9)).isClean());
    ExpectLimit(Scan(message(10)), "DEPTH");
}

TEST_F(Limits, OfSizeHoldExactlyAndReadNothingBeyond) {
    Limit("MaxScanSize", "1000");
    EXPECT_TRUE(Scan(std::string(1000, 'x')).isClean());
    auto const verdict = Scan(std::string(1001, 'x'));
    ExpectLimit(verdict, "SIZE");
    EXPECT_EQ(verdict.out->bytes.size(), 1001u);
}

TEST_F(Limits, OfExpansionHoldAboveTheirFloor) {
    Limit("MaxExpansion", "0");
    // Every level is decoded twice, once for each encoding that it declares.
    EXPECT_TRUE(Scan(WithAttachment("a", std::string(1u << 20, 'x'))).isClean());
    ExpectLimit(Scan(WithAttachment("a", std::string(65u << 20, 'x'))), "SIZE");
}

TEST_F(Limits, OfAHeaderHold) { ExpectLimit(Scan("A: b\r\nC: " + std::string(2u << 20, 'x')), "SIZE"); }

TEST_F(Limits, TakeTheActionThatThePolicySays) {
    Limit("MaxDepth", "1", "<set name=\"OnLimit\">LOG</set>");
    ExpectLimit(Scan(Nested(3, "x")), "DEPTH", "LOG");
    Limit("MaxDepth", "1", "<set name=\"OnLimit\"></set>");
    ExpectLimit(Scan(Nested(3, "x")), "DEPTH", "DENY");
}

TEST_F(Limits, DoNotHideAFindingOfEqualStrength) {
    auto const verdict = Scan(Nested(17, TestVirus()));
    EXPECT_EQ(verdict.handler->GetMasterScanResult(), verdict.resultOf("KORAVScanner"));
    EXPECT_EQ(verdict.text(kEngine, "E_SR_DOS_TYPE"), "DEPTH");
}
