// Where a virus may hide behind a message that readers take apart in more than one way. It is found, or the scan says
// that it could not look: nothing of this is clean.
#include <policyloader/engines/ScanFixture.h>

using namespace policyloader;

namespace {

class Hidden : public ScanFixture {
protected:
    static std::string Mixed(std::string const& type, std::string const& parts) {
        return "From: a@example.test\r\nMIME-Version: 1.0\r\nContent-Type: " + type + "\r\n\r\n" + parts;
    }
    static std::string Part(std::string const& boundary, std::string const& head, std::string const& body) {
        return "--" + boundary + "\r\n" + head + "\r\n" + body + "\r\n";
    }
    static std::string Coded(std::string const& boundary) {
        return Part(boundary, "Content-Transfer-Encoding: base64\r\n", Base64(TestVirus()));
    }
    static std::string Text(std::string const& boundary) { return Part(boundary, "", "hello"); }
    static std::string Single(std::string const& head, std::string const& body) {
        return "From: a@example.test\r\n" + head + "\r\n" + body;
    }
    void ExpectNotClean(std::string const& what, std::string const& message) {
        auto const verdict = Scan(message);
        EXPECT_TRUE(verdict.hasError() || verdict.action() == "DENY") << what << "\n" << message;
    }
};

}  // namespace

TEST_F(Hidden, BehindABoundaryThatReadersTakeInSeveralWays) {
    char const* const types[] = {
        "multipart/mixed; boundary=b",
        "multipart/mixed; boundary=\"b\"",
        "multipart/mixed; boundary=\"b \"",
        "multipart/mixed; boundary = b",
        "multipart/mixed; boundary=a; boundary=b",
        "multipart/mixed; boundary=b; boundary=a",
        "multipart/mixed; BOUNDARY=a; Boundary=b",
        "multipart/mixed boundary=b",
        "multipart/mixed;; boundary=b",
        "multipart/mixed, boundary=b",
        "multipart/mixed; (comment) boundary=b",
        "multipart/mixed; boundary=b (comment)",
        "multipart/mixed; boundary=(comment)b",
        "multipart / mixed; boundary=b",
        "multipart/mixed (x); boundary=b",
        "(x) multipart/mixed; boundary=b",
        "multipart/mixed; boundary='b'",
        "\"multipart/mixed\"; boundary=b",
        "multipart; boundary=b",
        "multipart/; boundary=b",
        "multipart/mixed; boundary*=us-ascii''b",
        "multipart/mixed; boundary*0=b",
        "multipart/mixed; boundary*0*=''b; boundary=a",
        "multipart/mixed; boundary=a; boundary*=''b",
        "multipart/mixed; boundary=a; boundary*0=b",
        "multipart/mixed; boundary=\"\\b\"",
        "multipart/mixed; boundary=\"=?us-ascii?q?b?=\"",
        "multipart/mixed; x=\"; boundary=b",
        "multipart/mixed; x=\"\\\"; boundary=\"b",
        "multipart/mixed;\r\n\tboundary=b",
        "multipart/mixed;\r\n\tboundary=\r\n\tb",
        "multipart/mixed; boundary",
        "multipart/mixed",
        "multipart/mixed; boundary=",
        "multipart/mixed; boundary=\"\"",
        "multipart/x-unknown; boundary=b",
        "multipart/mixed; boundary=b; charset=utf-7",
        "MULTIPART/MIXED; boundary=b",
        "=?us-ascii?q?multipart/mixed;_boundary=3Db?=",
        "multipart/mixed\v; boundary=b",
        "multipart/mixed; boundary=b\vx",
        "multipart/mixed; boundary=b x",
        "multipart/mixed; boundary=b,x",
    };
    std::string const closedBefore = Text("a") + "--a--\r\n";
    for (auto const* const type : types) {
        ExpectNotClean(std::string("alone: ") + type, Mixed(type, Coded("b") + "--b--\r\n"));
        ExpectNotClean(std::string("behind a: ") + type, Mixed(type, closedBefore + Coded("b") + "--b--\r\n"));
        ExpectNotClean(std::string("in a: ") + type, Mixed(type, Part("a", "", Coded("b") + "--b--") + "--a--\r\n"));
    }
}

TEST_F(Hidden, BehindATransferEncodingThatReadersTakeInSeveralWays) {
    char const* const heads[] = {
        "Content-Transfer-Encoding: base64",
        "Content-Transfer-Encoding: BASE64",
        "Content-Transfer-Encoding:base64",
        "Content-Transfer-Encoding : base64",
        "Content-Transfer-Encoding:\r\n base64",
        "Content-Transfer-Encoding: \"base64\"",
        "Content-Transfer-Encoding: 'base64'",
        "Content-Transfer-Encoding: base64;",
        "Content-Transfer-Encoding: base64; x=y",
        "Content-Transfer-Encoding: base64 (x)",
        "Content-Transfer-Encoding: (x) base64",
        "Content-Transfer-Encoding: (x base64",
        "Content-Transfer-Encoding: 7bit base64",
        "Content-Transfer-Encoding: 7bit, base64",
        "Content-Transfer-Encoding: base64 7bit",
        "Content-Transfer-Encoding: 7bit; base64",
        "Content-Transfer-Encoding: x-base64",
        "Content-Transfer-Encoding: base-64",
        "Content-Transfer-Encoding: =?us-ascii?q?base64?=",
        "Content-Transfer-Encoding: b",
        "Content-Transfer-Encoding: binary\r\nContent-Transfer-Encoding: base64",
        "Content-Transfer-Encoding: base64\r\nContent-Transfer-Encoding: 7bit",
        "Content-Transfer-Encoding: base64\r\nContent-Transfer-Encoding: base64",
        "Content-Transfer-Encoding\t: base64",
        "Content-Transfer-Encoding: base\r\n 64",
        "Content-Transfer-Encoding: 7bit\rContent-Transfer-Encoding: base64",
        "Content-Type: text/plain\rContent-Transfer-Encoding: base64",
        ("\xEF\xBB\xBF"
         "Content-Transfer-Encoding: base64"),
        "no header line\r\nContent-Transfer-Encoding: base64",
        "X: y\r\n \r\nContent-Transfer-Encoding: base64",
        "Content-Transfer-Encoding: base64\r\nno header line",
        "Content-Transfer-Encoding:: base64",
        "Content-Transfer-Encoding; base64",
        "Content-Transfer-Encoding: base64\0x",
    };
    for (auto const* const head : heads) {
        std::string const lines = std::string(head) + "\r\n";
        ExpectNotClean(std::string("single: ") + head, Single(lines, Base64(TestVirus())));
        ExpectNotClean(
            std::string("part: ") + head,
            Mixed("multipart/mixed; boundary=b", Text("b") + Part("b", lines, Base64(TestVirus())) + "--b--\r\n"));
    }
}

TEST_F(Hidden, InBase64ThatIsNotQuiteThat) {
    std::string const good = Base64(TestVirus());
    std::string flat;
    for (char const c : good)
        if (c > ' ') flat += c;
    auto const each = [&](std::size_t every, std::string const& junk) {
        std::string out;
        for (std::size_t i = 0; i < flat.size(); ++i) {
            out += flat[i];
            if ((i + 1) % every == 0) out += junk;
        }
        return out + "\r\n";
    };
    std::vector<std::pair<std::string, std::string>> const bodies = {
        {"blanks", each(1, " ")},
        {"line ends", each(1, "\r\n")},
        {"pairs in lines", each(2, "\r\n")},
        {"empty lines", each(4, "\r\n\r\n")},
        {"junk", each(3, "!")},
        {"much junk", each(1, "!*-_.")},
        {"NULs", each(2, std::string(1, '\0'))},
        {"eight bits", each(5, "\xE4\xFF")},
        {"colons", each(7, ": ")},
        {"comments", each(8, "(-)")},
        {"garbage behind the padding", flat + "\r\nGARBAGE!!\r\n"},
        {"text behind the padding", flat + "\r\nThis was that.\r\n"},
        {"padding in front", "====" + flat + "\r\n"},
        {"padding in the middle", flat.substr(0, 40) + "=" + flat.substr(40) + "\r\n"},
        {"padding at a group's end", flat.substr(0, 40) + "====" + flat.substr(40) + "\r\n"},
        {"piece by piece", Base64(TestVirus().substr(0, 10)) + Base64(TestVirus().substr(10))},
        {"no padding", flat.substr(0, flat.find('=')) + "\r\n"},
        {"one long line", flat + "\r\n"},
        {"an empty line first", "\r\n\r\n" + good},
        {"a text line first", "Hello there.\r\n" + good},
        {"no line end", flat},
        {"a line like a boundary", flat.substr(0, 40) + "\r\n----\r\n" + flat.substr(40) + "\r\n"},
    };
    for (auto const& [what, body] : bodies) {
        ExpectNotClean("single, " + what, Single("Content-Transfer-Encoding: base64\r\n", body));
        ExpectNotClean("part, " + what,
                       Mixed("multipart/mixed; boundary=b",
                             Text("b") + Part("b", "Content-Transfer-Encoding: base64\r\n", body) + "--b--\r\n"));
    }
}

TEST_F(Hidden, InQuotedPrintableThatIsNotQuiteThat) {
    std::string const virus = TestVirus();
    auto const each = [&](std::string const& cut) {
        std::string out;
        for (std::size_t i = 0; i < virus.size(); ++i) {
            if (i && i % 6 == 0) out += cut;
            out += virus[i];
        }
        return out + "\r\n";
    };
    std::string lower;
    for (unsigned char const c : virus) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "=%02x", c);
        lower += hex;
    }
    std::vector<std::pair<std::string, std::string>> const bodies = {
        {"soft line ends", each("=\r\n")},
        {"soft bare line feeds", each("=\n")},
        {"soft ends behind blanks", each("= \t\r\n")},
        {"soft ends twice", each("=\r\n=\r\n")},
        {"small letters", lower + "\r\n"},
        {"no line end", lower},
        {"soft end at the end", lower + "="},
    };
    for (auto const& [what, body] : bodies) {
        ExpectNotClean("single, " + what, Single("Content-Transfer-Encoding: quoted-printable\r\n", body));
        ExpectNotClean("part, " + what,
                       Mixed("multipart/mixed; boundary=b",
                             Part("b", "Content-Transfer-Encoding: quoted-printable\r\n", body) + "--b--\r\n"));
    }
}

TEST_F(Hidden, InUuencodeWithAndWithoutAHeaderThatSaysSo) {
    std::string coded = "begin 644 eicar.com\r\n";
    std::string const virus = TestVirus();
    for (std::size_t at = 0; at < virus.size(); at += 45) {
        std::string const row = virus.substr(at, 45);
        coded += static_cast<char>(' ' + row.size());
        for (std::size_t i = 0; i < row.size(); i += 3) {
            unsigned bits = 0;
            for (std::size_t k = 0; k < 3; ++k)
                bits = bits << 8 | (i + k < row.size() ? static_cast<unsigned char>(row[i + k]) : 0);
            for (int shift = 18; shift >= 0; shift -= 6)
                coded += static_cast<char>((bits >> shift & 63) ? ' ' + (bits >> shift & 63) : '`');
        }
        coded += "\r\n";
    }
    coded += "`\r\nend\r\n";
    std::string const before = "Look at this:\r\n\r\n";
    ExpectNotClean("told", Single("Content-Transfer-Encoding: x-uuencode\r\n", coded));
    ExpectNotClean("not told", Single("", coded));
    ExpectNotClean("behind a text", Single("", before + coded));
    ExpectNotClean("the second of two", Single("", "begin 644 a.txt\r\n#86)C\r\n`\r\nend\r\n" + coded));
    ExpectNotClean("in a part", Mixed("multipart/mixed; boundary=b", Part("b", "", before + coded) + "--b--\r\n"));
    ExpectNotClean("declared 7bit", Single("Content-Type: text/plain\r\nContent-Transfer-Encoding: 7bit\r\n", coded));
    ExpectNotClean("in quoted-printable", Single("Content-Transfer-Encoding: quoted-printable\r\n", [&] {
                       std::string out;
                       for (char const c : coded) c == '=' ? void(out += "=3D") : void(out += c);
                       return out;
                   }()));
}

TEST_F(Hidden, InAStructureThatIsNotQuiteThat) {
    std::string const mixed = "multipart/mixed; boundary=b";
    std::string const eml = Single("Content-Transfer-Encoding: base64\r\n", Base64(TestVirus()));
    std::string const inner = "Content-Type: multipart/mixed; boundary=b\r\n";
    ExpectNotClean("cut before the end", Mixed(mixed, Coded("b")));
    ExpectNotClean("cut in the middle",
                   Mixed(mixed, "--b\r\nContent-Transfer-Encoding: base64\r\n\r\n" + Base64(TestVirus())));
    ExpectNotClean("same boundary twice", Mixed(mixed, Part("b", inner, Coded("b") + "--b--") + "--b--\r\n"));
    ExpectNotClean("behind a twin", Mixed(mixed, Part("b", inner, Text("b") + "--b--") + Coded("b") + "--b--\r\n"));
    ExpectNotClean("behind the last boundary", Mixed(mixed, Text("b") + "--b--\r\n" + Coded("b") + "--b--\r\n"));
    ExpectNotClean("longer boundary", Mixed(mixed, Text("b") + "--b--\r\n" + Coded("bb")));
    ExpectNotClean("boundary with blanks", Mixed(mixed, "--b \t\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                                                            Base64(TestVirus()) + "--b--\r\n"));
    ExpectNotClean("boundary in capitals", Mixed(mixed, Text("b") + Coded("B") + "--b--\r\n"));
    ExpectNotClean("boundary behind a blank line of its own", Mixed(mixed, "\r\n\r\n" + Coded("b") + "--b--"));
    ExpectNotClean("message", Single("Content-Type: message/rfc822\r\n", eml));
    ExpectNotClean("message in base64",
                   Single("Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n", Base64(eml)));
    ExpectNotClean("multipart in base64", Single("Content-Type: " + mixed + "\r\nContent-Transfer-Encoding: base64\r\n",
                                                 Base64(Coded("b") + "--b--\r\n")));
    ExpectNotClean(
        "twice base64 as message",
        Single("Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n",
               Base64(Single("Content-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n", Base64(eml)))));
    ExpectNotClean("digest", Mixed("multipart/digest; boundary=b", Part("b", "", eml) + "--b--\r\n"));
    ExpectNotClean("whole in one fragment", Single("Content-Type: message/partial; id=x; number=1; total=1\r\n", eml));
    ExpectNotClean("first fragment", Single("Content-Type: message/partial; id=x; number=1; total=2\r\n",
                                            eml.substr(0, eml.size() - 40)));
    ExpectNotClean("second fragment", Single("Content-Type: message/partial; id=x; number=2; total=2\r\n",
                                             Base64(TestVirus()).substr(30)));
    ExpectNotClean(
        "fragment in a part",
        Mixed(mixed, Part("b", "Content-Type: message/partial; id=x; number=2; total=2\r\n", "x") + "--b--\r\n"));
    ExpectNotClean("no blank line",
                   Mixed(mixed, "--b\r\nContent-Transfer-Encoding: base64\r\n" + Base64(TestVirus()) + "--b--\r\n"));
    ExpectNotClean("wrong character set",
                   Single("Content-Type: text/plain; charset=utf-16\r\nContent-Transfer-Encoding: base64\r\n",
                          Base64(TestVirus())));
    ExpectNotClean("unknown character set",
                   Single("Content-Type: text/plain; charset=\"x-no such\"\r\nContent-Transfer-Encoding: base64\r\n",
                          Base64(TestVirus())));
    ExpectNotClean("binary", Mixed(mixed, Part("b",
                                               "Content-Type: application/x-msdownload; name*0*=utf-8''ei; "
                                               "name*1=car.exe\r\nContent-Transfer-Encoding: binary\r\n",
                                               std::string("MZ\0\r\n\xff", 6) + TestVirus()) +
                                              "--b--\r\n"));
}

TEST_F(Hidden, BehindAFieldOrALineOfManyBytes) {
    std::string const coded = Base64(TestVirus());
    ExpectNotClean("long field in front",
                   Single("X: " + std::string(500000, 'x') + "\r\nContent-Transfer-Encoding: base64\r\n", coded));
    ExpectNotClean("endless field",
                   Single("X: " + std::string(3000000, 'x') + "\r\nContent-Transfer-Encoding: base64\r\n", coded));
    std::string many;
    for (int i = 0; i < 20000; ++i) many += "X-" + std::to_string(i) + ": y\r\n";
    ExpectNotClean("many fields in front", Single(many + "Content-Transfer-Encoding: base64\r\n", coded));
    std::string parameters;
    for (int i = 0; i < 2000; ++i) parameters += "; x" + std::to_string(i) + "=y";
    ExpectNotClean("many parameters", Mixed("multipart/mixed" + parameters + "; boundary=b", Coded("b") + "--b--\r\n"));
    std::string const longOne(2000, 'b');
    ExpectNotClean("long boundary",
                   Mixed("multipart/mixed; boundary=" + longOne, Coded(longOne) + "--" + longOne + "--\r\n"));
    ExpectNotClean("long boundary in short lines",
                   Mixed("multipart/mixed; boundary=" + longOne,
                         Part(longOne, "Content-Transfer-Encoding: base64\r\n", Base64(TestVirus(), 2)) + "--" +
                             longOne + "--\r\n"));
    ExpectNotClean("a line of megabytes in front",
                   Single("Content-Transfer-Encoding: base64\r\n", std::string(3000000, ' ') + coded));
}
