#include <gtest/gtest.h>

#include <policyloader/engines/HtmlText.h>
#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/TextDecoder.h>
#include <policyloader/engines/TransferDecoder.h>
#include <policyloader/engines/UuSpotter.h>

using namespace policyloader;

namespace {

std::string Decoded(std::string const& text, Base64Decoder::Padding padding = Base64Decoder::EndsGroup) {
    Base64Decoder decoder(padding);
    std::string out;
    decoder.decode(text, out);
    decoder.finish(out);
    return out;
}

std::string ToUtf8(std::string const& charset, std::string const& text, std::size_t piece) {
    TextDecoder decoder(charset);
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += piece) out += decoder.decode(text.substr(at, piece));
    return out + std::string(decoder.finish());
}

}  // namespace

TEST(Base64Decoding, SurvivesEveryCut) {
    std::string const plain("The quick brown fox\0jumps", 25), wire = Base64(plain, 8);
    for (std::size_t cut = 0; cut <= wire.size(); ++cut) {
        Base64Decoder decoder;
        std::string out;
        decoder.decode(wire.substr(0, cut), out);
        decoder.decode(wire.substr(cut), out);
        decoder.finish(out);
        EXPECT_EQ(out, plain) << "cut at " << cut;
    }
}

TEST(Base64Decoding, GoesOnBehindAPadding) { EXPECT_EQ(Decoded("QUI=Q0Q="), "ABCD"); }
TEST(Base64Decoding, CanPassOverAPaddingInTheMiddleOfAGroup) {
    EXPECT_EQ(Decoded("QU=JD", Base64Decoder::Skipped), "ABC");
}
TEST(Base64Decoding, PassesOverWhatIsNoLetterOfIt) { EXPECT_EQ(Decoded("QU!!\r\n JD"), "ABC"); }
TEST(Base64Decoding, KeepsTheLastByteOfAnUnpaddedEnd) { EXPECT_EQ(Decoded("QUJDRA"), "ABCD"); }
TEST(Base64Decoding, TellsOfDataBehindAPadding) {
    for (auto const* text : {"QQ==QQ==", "Q!Q="}) {
        Base64Decoder decoder;
        std::string out;
        decoder.decode(text, out);
        EXPECT_TRUE(decoder.sawStrayPadding()) << text;
    }
    Base64Decoder decoder;
    std::string out;
    decoder.decode("QQ==\r\n", out);
    EXPECT_FALSE(decoder.sawStrayPadding());
}

TEST(TransferEncodings, AreReadAsForgivinglyAsReadersDo) {
    for (auto const* text : {"base64", " BASE64 ", "\"base64\"", "(c) base64", "base64; x=y"})
        EXPECT_EQ(ParseTransferEncoding(text), TransferEncoding::Base64) << text;
    EXPECT_EQ(ParseTransferEncoding("Quoted-Printable"), TransferEncoding::QuotedPrintable);
    EXPECT_EQ(ParseTransferEncoding(""), TransferEncoding::Identity);
    EXPECT_EQ(ParseTransferEncoding("8bit"), TransferEncoding::Identity);
    EXPECT_EQ(ParseTransferEncoding("base65"), std::nullopt);
}

TEST(TransferDecoding, OfQuotedPrintableJoinsSoftLineBreaksAtEveryCut) {
    std::string const wire = "caf=C3=A9 to=\r\ngether=3D";
    for (std::size_t cut = 0; cut <= wire.size(); ++cut) {
        TransferDecoder decoder(TransferEncoding::QuotedPrintable);
        std::string out(decoder.decode(wire.substr(0, cut)));
        out += decoder.decode(wire.substr(cut));
        out += decoder.finish();
        EXPECT_EQ(out, "caf\xC3\xA9 together=") << "cut at " << cut;
    }
}

TEST(TransferDecoding, OfUuencodeFindsTheContentAtEveryCut) {
    std::string const wire = "some text\nbegin 644 a\n#0V%T\n`\nend\n";
    for (std::size_t cut = 0; cut <= wire.size(); ++cut) {
        TransferDecoder decoder(TransferEncoding::UUEncode);
        std::string out(decoder.decode(wire.substr(0, cut)));
        out += decoder.decode(wire.substr(cut));
        out += decoder.finish();
        EXPECT_EQ(out, "Cat") << "cut at " << cut;
    }
}

// As a body arrives: whatever the blocks are, each line is whole.
TEST(TransferDecoding, OfUuencodeIsTheSameInPiecesOfAnySize) {
    std::string const line = "12345678901234567890123456789012345678901234567890123456789A";
    std::string const wire = "begin 644 a\r\nM" + line + "\r\nM" + line + "\r\n#0V%T\r\n`\r\nend\r\n#0V%T\r\n";
    auto const decoded = [&](std::size_t piece) {
        TransferDecoder decoder(TransferEncoding::UUEncode);
        std::string out;
        for (std::size_t at = 0; at < wire.size(); at += piece) out += decoder.decode(wire.substr(at, piece));
        return out += decoder.finish();
    };
    std::string const whole = decoded(wire.size());
    EXPECT_EQ(whole.size(), 93u);
    EXPECT_EQ(whole.substr(90), "Cat") << "what follows the end is no part of it";
    EXPECT_EQ(whole.substr(0, 45), whole.substr(45, 45));
    for (std::size_t piece = 1; piece < wire.size(); ++piece) EXPECT_EQ(decoded(piece), whole) << piece;
}

TEST(TransferDecoding, OfUuencodeTakesABeginWithinAFileForNoContent) {
    TransferDecoder decoder(TransferEncoding::UUEncode);
    std::string out(decoder.decode("begin 644 a\n#0V%T\nbegin 644 b\n#1&]G"));
    EXPECT_EQ(out += decoder.finish(), "CatDog");
}

TEST(TransferDecoding, OfQuotedPrintableDropsBlanksAtLineEndsAtEveryCut) {
    std::string const wire = "a \t\r\nb= \r\nc d \n\t e\rf";
    for (std::size_t cut = 0; cut <= wire.size(); ++cut) {
        TransferDecoder decoder(TransferEncoding::QuotedPrintable);
        std::string out(decoder.decode(wire.substr(0, cut)));
        out += decoder.decode(wire.substr(cut));
        out += decoder.finish();
        EXPECT_EQ(out, "a\r\nbc d\n\t e\rf") << "cut at " << cut;
    }
}

TEST(UuencodeSpotting, FindsEachFileAtEveryCut) {
    std::string const wire =
        "begin the day\nbegin\nxbegin 644 no\nbegin 644 a\r\n#0V%T\r\n`\r\nend\r\nend\nbegin 0755 b c\n#1&]G\n"
        "begin 600 c\n\n!6";
    for (std::size_t cut = 0; cut <= wire.size(); ++cut) {
        std::string out;
        UuSpotter spotter({[&](std::string_view name) { out.append("(").append(name).append(":"); },
                           [&](std::string_view bytes) { out += bytes; }, [&] { out += ')'; }});
        spotter.feed(wire.substr(0, cut));
        spotter.feed(wire.substr(cut));
        spotter.finish();
        EXPECT_EQ(out, "(a:Cat)(b c:Dog)(c:X)") << "cut at " << cut;
    }
}

TEST(UuencodeSpotting, FindsNothingInOrdinaryText) {
    bool any = false;
    UuSpotter spotter(
        {[&](std::string_view) { any = true; }, [&](std::string_view) { any = true; }, [&] { any = true; }});
    for (auto const* piece : {"to begin 644 x\n", "begin 6 x\n", "begin 64400 x\n", "begin 644 \n", "begin 648 x\nM"})
        spotter.feed(piece);
    spotter.finish();
    EXPECT_FALSE(any);
}

TEST(TextDecoding, OfManyCharacterSetsSurvivesEveryPiece) {
    struct Row {
        char const* charset;
        std::string wire, text;
    };
    Row const rows[] = {
        {"iso-8859-1", "gr\xFC\xDF", "gr\xC3\xBC\xC3\x9F"},
        {"utf-8", "gr\xC3\xBC\xE2\x82\xAC", "gr\xC3\xBC\xE2\x82\xAC"},
        {"utf-16le", std::string("g\0\xFC\0", 4), "g\xC3\xBC"},
        {"koi8-r", "\xD0", "\xD0\xBF"},
        {"gb2312", "\xC4\xE3", "\xE4\xBD\xA0"},
        {"no-such-set", "\x80", "\xE2\x82\xAC"},
    };
    for (auto const& row : rows)
        for (std::size_t piece = 1; piece <= row.wire.size(); ++piece)
            EXPECT_EQ(ToUtf8(row.charset, row.wire, piece), row.text) << row.charset << " in pieces of " << piece;
}

TEST(TextDecoding, MakesEveryLineEndALineFeedAtEveryPiece) {
    std::string const wire = "a\r\nb\rc\nd\r\r\n";
    for (std::size_t piece = 1; piece <= wire.size(); ++piece)
        EXPECT_EQ(ToUtf8("utf-8", wire, piece), "a\nb\nc\nd\n\n") << "in pieces of " << piece;
}

TEST(TextDecoding, ReplacesWhatIsNoCharacter) {
    EXPECT_EQ(ToCleanUtf8("a\xFF"
                          "b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(ToCleanUtf8("a\xC3"), "a\xEF\xBF\xBD");
    EXPECT_EQ(ToCleanUtf8("\xED\xA0\x80").find("\xED\xA0"), std::string::npos);
    EXPECT_EQ(ToCleanUtf8(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST(HtmlReading, SeesWhatAReaderSeesInEveryPiece) {
    struct Row {
        std::string html, text;
    };
    Row const rows[] = {
        {"top <b>sec</b>ret", "top secret"},
        {"top&nbsp;secret", "top secret"},
        {"a<br>b<p class='x'>c</p>", "a b c "},
        {"a<!-- <b> -- > -->b", "ab"},
        {"a <a href=\"x>y\">b</a>", "a b"},
        {"it's<b title = \"it's>\">x</b>", "it'sx"},
        {"&#116;&#x6F;p &amp; &lt;tag&gt;", "top & <tag>"},
        {"a & b &c; &ampx 3 < 4", "a & b &c; &ampx 3 < 4"},
        {"gr&uuml;&szlig;e",
         "gr\xC3\xBC\xC3\x9F"
         "e"},
        {"&#xD800;&#1114112;", "&#xD800;&#1114112;"},
        {"end &am", "end &am"},
    };
    for (auto const& row : rows) {
        for (std::size_t piece = 1; piece <= row.html.size(); ++piece) {
            HtmlText html;
            std::string out;
            for (std::size_t at = 0; at < row.html.size(); at += piece) out += html.decode(row.html.substr(at, piece));
            out += html.finish();
            EXPECT_EQ(out, row.text) << row.html << " in pieces of " << piece;
        }
    }
}
