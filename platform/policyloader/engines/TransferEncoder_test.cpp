// Contents put into a transfer encoding come out of it as they were, whatever the pieces.
#include <random>

#include <gtest/gtest.h>

#include <policyloader/engines/HeadFields.h>
#include <policyloader/engines/TextCase.h>
#include <policyloader/engines/TransferEncoder.h>

using namespace policyloader;

namespace {

std::string Encoded(TransferEncoding encoding, std::string const& lineEnd, std::string const& text, std::size_t piece) {
    TransferEncoder encoder(encoding, lineEnd);
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += piece) out += encoder.encode(text.substr(at, piece));
    return out.append(encoder.finish());
}

std::string Decoded(TransferEncoding encoding, std::string const& text) {
    TransferDecoder decoder(encoding);
    std::string out(decoder.decode(text));
    return out.append(decoder.finish());
}

std::vector<std::string> Lines(std::string const& text) {
    std::vector<std::string> lines(1);
    for (char const c : text) {
        if (c == '\n')
            lines.emplace_back();
        else
            lines.back().push_back(c);
    }
    return lines;
}

std::vector<std::string> Contents() {
    std::mt19937 random(6);
    std::vector<std::string> all = {
        "",     "x",        "x \r\n \r\n\t", "a\rb\nc\r\nd\r", "--cut\r\n--cut--\r\n.\r\nFrom x\r\n", "tail \t  ",
        "=3D=", "\r\n\r\n", "\n\r"};
    std::string const letters("ab \t\r\n-.F=\0\xC3\xBC--", 15);
    for (int i = 0; i < 200; ++i) {
        std::string text;
        for (unsigned n = random() % 400; n > 0; --n) text += letters[random() % letters.size()];
        all.push_back(text);
    }
    all.push_back(std::string(300, ' ') + std::string(300, '-') + "\r\n");
    for (std::size_t length = 50; length < 62; ++length) all.emplace_back(length, 'y');
    return all;
}

}  // namespace

TEST(TransferEncodings, GiveBackWhatWasPutIn) {
    for (auto const encoding :
         {TransferEncoding::Identity, TransferEncoding::Base64, TransferEncoding::QuotedPrintable})
        for (std::string const lineEnd : {"\r\n", "\n"})
            for (auto const& text : Contents())
                for (std::size_t const piece : {1u, 2u, 3u, 57u, 100000u})
                    ASSERT_EQ(Decoded(encoding, Encoded(encoding, lineEnd, text, piece)), text);
}

TEST(TransferEncodings, MakeNoLineThatIsTooLongOrMeansSomething) {
    for (auto const encoding : {TransferEncoding::Base64, TransferEncoding::QuotedPrintable})
        for (auto const& content : Contents())
            for (auto const& line : Lines(Encoded(encoding, "\r\n", content, 7))) {
                EXPECT_LE(line.size(), 77u);  // with the CR
                EXPECT_NE(line.substr(0, 1), "-");
                EXPECT_NE(line.substr(0, 1), ".");
                EXPECT_NE(line.substr(0, 5), "From ");
                auto const text = line.substr(0, line.find('\r'));
                bool const blankEnd = !text.empty() && (text.back() == ' ' || text.back() == '\t');
                EXPECT_FALSE(blankEnd) << line;
            }
}

TEST(TransferEncodings, EndWithoutALineEndOfTheirOwn) {
    EXPECT_EQ(Encoded(TransferEncoding::Base64, "\r\n", std::string(57, 'a'), 9).size(), 76u);
    EXPECT_EQ(Encoded(TransferEncoding::QuotedPrintable, "\n", "a\nb", 1), "a\nb");
}

TEST(HeadFields, AreKeptWithTheLinesThatContinueThem) {
    auto const keep = [](std::string_view name) { return !SameText(name, "drop"); };
    EXPECT_EQ(KeepFields("A: 1\r\n more\r\nDROP : 2\r\n\tgone\r\nB: 3\r\n\r\n", "\r\n", keep),
              "A: 1\r\n more\r\nB: 3\r\n");
    EXPECT_EQ(KeepFields("A: 1", "\n", keep), "A: 1\n");
    EXPECT_EQ(KeepFields("\r\n", "\r\n", keep), "");
    EXPECT_TRUE(HasField("a: b\nMime-version: 1.0\n\n", "MIME-Version"));
    EXPECT_FALSE(HasField("a: b\n MIME-Version: 1.0\n\n", "MIME-Version"));
}

TEST(HeadFields, HaveParametersThatNobodyBreaksOutOf) {
    EXPECT_EQ(FieldParameter("name", "a \"b\\.exe", "\r\n"), ";\r\n name=\"a \\\"b\\\\.exe\"");
    EXPECT_EQ(FieldParameter("name", "\xC3\xBC x", "\n"), ";\n name*=utf-8''%C3%BC%20x");
    EXPECT_EQ(FieldParameter("name", "a\r\nB: c", "\n"), ";\n name*=utf-8''a%0D%0AB%3A%20c");
}
