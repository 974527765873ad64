#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/SignatureDatabase.h>

using namespace policyloader;

namespace {

struct Where {
    std::size_t line, column;
    bool operator==(Where const& other) const { return line == other.line && column == other.column; }
};

Where PlaceOfError(std::string const& text) {
    try {
        SignatureDatabase const database{std::string_view(text)};
    } catch (SignatureError const& error) {
        return {error.line, error.column};
    }
    return {0, 0};
}

// The indented block of the page that describes the format.
std::string WorkedExample() {
    std::ifstream page(SIGNATURES_PAGE);
    std::string text, line;
    bool inside = false;
    while (std::getline(page, line)) {
        if (line == "```signatures") {
            inside = true;
        } else if (line == "```") {
            inside = false;
        } else if (inside) {
            text += line + "\n";
        }
    }
    return text;
}

class SignatureScans : public ScanFixture {};

}  // namespace

TEST(SignatureTexts, TellLineAndColumnOfWhatIsWrong) {
    EXPECT_EQ(PlaceOfError("# a\n\n a : 01 02 03 04\n"), (Where{0, 0}));
    EXPECT_EQ(PlaceOfError("a : 01020304\nb 01020304\n"), (Where{2, 3}));
    EXPECT_EQ(PlaceOfError("a : 0102zz04\n"), (Where{1, 9}));
    EXPECT_EQ(PlaceOfError("a : 010203045\n"), (Where{1, 14}));
    EXPECT_EQ(PlaceOfError("a : 01?? 02 03\n"), (Where{1, 15}));
    EXPECT_EQ(PlaceOfError(": 01020304\n"), (Where{1, 1}));
    EXPECT_EQ(PlaceOfError("a : sha256 00\n"), (Where{1, 14}));
    EXPECT_EQ(PlaceOfError("a : sha256 " + std::string(65, '0') + "\n"), (Where{1, 76}));
    EXPECT_EQ(PlaceOfError(std::string(129, 'n') + " : 01020304\n"), (Where{1, 130}));
}

TEST_F(SignatureScans, WithoutAFileKnowTheBuiltInTestFile) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(Scan(TestVirus()).found("KORAVScanner"), "EICAR-Test-File");
    auto const* const bag = m_host.engineInformation(0);
    EXPECT_STREQ(bag->GetProperty("EngineType")->GetNarrow(), "KORAVScanner");
    EXPECT_STREQ(bag->GetProperty("Definitions")->GetNarrow(), "built-in");
    EXPECT_NE(bag->GetProperty("Version")->GetNarrow(), nullptr);
    EXPECT_EQ(m_host.countEngines(), 6);
    EXPECT_EQ(m_host.engineInformation(6), nullptr);
    EXPECT_EQ(m_host.engineInformation(-1), nullptr);
}

TEST_F(SignatureScans, DoNotStartWithABrokenDatabase) {
    Signatures("good : 01020304\nbad : 0102\n");
    EXPECT_FALSE(Start());
    EXPECT_TRUE(m_error.IsSet());
    EXPECT_EQ(m_error.GetLevel(), 2);
    EXPECT_STREQ(m_error.GetAttribute("file"), (m_folder + "/signatures.db").c_str());
    EXPECT_STREQ(m_error.GetAttribute("line"), "2");
    EXPECT_STREQ(m_error.GetAttribute("column"), "11");
    EXPECT_NE(std::wstring(m_error.GetDetail()).find(L"signatures.db:2:11: "), std::wstring::npos);
}

TEST_F(SignatureScans, WithoutADatabaseAreErrorsAndNeverClean) {
    Signatures("bad\n");
    ASSERT_FALSE(Start());
    m_thread = NewThread();
    auto const verdict = Scan("anything");
    EXPECT_TRUE(verdict.hasError());
    EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_SCANERROR_ID"), "104");
    EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_SCANERROR_LVL"), "2");
    EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_TYPE"), "1");
    EXPECT_EQ(verdict.text("KORAVScanner", "E_SR_ERROR_ATTR_SRC_FILE"), "AntiVirusEngine.cpp");
    EXPECT_NE(verdict.text("KORAVScanner", "E_SR_ERROR_ATTR_SRC_LINE"), "");
    EXPECT_NE(verdict.text("KORAVScanner", "E_SR_DESCRIPTION_P"), "");
}

TEST_F(SignatureScans, FindPatternsWithAnyByteInTheirMiddle) {
    Signatures("Any.Gap : 41 42 ?? ?? 43 44\n");
    EXPECT_EQ(Scan(std::string("x AB\0\nCD y", 11)).found("KORAVScanner"), "Any.Gap");
    EXPECT_TRUE(Scan("x AB-CD y").isClean());
    EXPECT_TRUE(Scan("x ab--cd y").isClean());
}

TEST_F(SignatureScans, FindAPartByItsSum) {
    // Of "abc".
    Signatures("Sum.Abc : sha256 BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD\n");
    auto const verdict = Scan(WithAttachment("a.bin", "abc"));
    EXPECT_EQ(verdict.found("KORAVScanner"), "Sum.Abc");
    EXPECT_EQ(verdict.where("KORAVScanner"), "a.bin");
    EXPECT_EQ(Scan("abc").found("KORAVScanner"), "Sum.Abc");
    EXPECT_EQ(Scan("A: b\r\nContent-Type: multipart/mixed; boundary=q\r\n\r\n--q\r\n\r\nabc\r\n--q--\r\n")
                  .found("KORAVScanner"),
              "Sum.Abc");
    EXPECT_TRUE(Scan("abcd").isClean());
}

TEST_F(SignatureScans, FindWhatTheWorkedExampleOfTheManualLists) {
    auto const example = WorkedExample();
    ASSERT_NE(example, "");
    Signatures(example);
    ASSERT_TRUE(Start());
    EXPECT_EQ(Scan("see DropperXYstart here").found("KORAVScanner"), "Demo.Dropper");
    EXPECT_EQ(Scan("abc").found("KORAVScanner"), "Demo.KnownFile");
    EXPECT_EQ(Scan(TestVirus()).found("KORAVScanner"), "EICAR-Test-File");
}
