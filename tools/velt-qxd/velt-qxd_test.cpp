// Runs the tool itself, on captures that the test writes.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "testing/DocExample.h"
#include "testing/TempRoot.h"

namespace {

using velt_testing::DocExample;

std::string Record(std::int32_t type, std::int32_t length, std::string const& data = "") {
    std::string bytes(8, 0);
    std::memcpy(bytes.data(), &type, 4);
    std::memcpy(bytes.data() + 4, &length, 4);
    return bytes + data;
}

std::string Received(std::string const& data) { return Record(0, static_cast<std::int32_t>(data.size()), data); }
std::string Sent(std::string const& data) { return Record(1, static_cast<std::int32_t>(data.size()), data); }

// The bytes of "0000 01 02 ..." lines.
std::string Bytes(std::string const& dump) {
    std::string bytes;
    std::istringstream lines(dump);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream codes(line.substr(4));
        for (int code; codes >> std::hex >> code;) bytes += static_cast<char>(code);
    }
    return bytes;
}

class CaptureTool : public ::testing::Test {
protected:
    int Run(std::string const& arguments) {
        m_error = m_root / "/error";
        FILE* const pipe = ::popen((std::string(VELT_QXD) + ' ' + arguments + " 2>" + m_error).c_str(), "r");
        m_out.clear();
        char block[4096];
        while (std::size_t const n = std::fread(block, 1, sizeof block, pipe)) m_out.append(block, n);
        int const status = ::pclose(pipe);
        m_error = m_root.Read("/error");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    int Show(std::string const& capture, std::string const& options = "") {
        m_root.Write("/x.qxd", capture);
        int const status = Run(options + ' ' + m_path);
        std::string const prefix = "velt-qxd: " + m_path + ": ";
        if (m_error.starts_with(prefix)) m_error.erase(0, prefix.size());
        return status;
    }
    velt_testing::TempRoot m_root;
    std::string const m_path = m_root / "/x.qxd";
    std::string m_out;
    std::string m_error;
};

}  // namespace

TEST_F(CaptureTool, PrintsTheExampleOfItsPage) {
    std::string const page = DOCS "/formats/capture.md";
    std::string const capture = Bytes(DocExample(page, "hex"));
    EXPECT_EQ(Show(capture), 0);
    EXPECT_EQ(m_out, DocExample(page, "text"));
    EXPECT_EQ(Show(capture, "--json"), 0);
    EXPECT_EQ(m_out, DocExample(page, "json"));
    EXPECT_EQ(m_error, "");
}

TEST_F(CaptureTool, PrintsNothingOfAnEmptyCapture) {
    EXPECT_EQ(Show(""), 0);
    EXPECT_EQ(m_out + m_error, "");
}

TEST_F(CaptureTool, GivesEachLineOfTheDataALine) {
    EXPECT_EQ(Show(Received("HELO a\r\nQUIT\n\nrest")), 0);
    EXPECT_EQ(m_out, "@0 received 18 bytes\n< HELO a\\r\\n\n< QUIT\\n\n< \\n\n< rest\n");
}

TEST_F(CaptureTool, BreaksLongLines) {
    std::string const line(250, 'x');
    EXPECT_EQ(Show(Sent(line + "\n")), 0);
    std::string const hundred(100, 'x');
    EXPECT_EQ(m_out, "@0 sent 251 bytes\n> " + hundred + "\n> " + hundred + "\n> " + line.substr(200) + "\\n\n");
}

TEST_F(CaptureTool, EscapesEveryByteThatATerminalMayActOn) {
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(Show(Received(all)), 0);
    for (char const c : m_out) EXPECT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7F)) << int(c);
    EXPECT_NE(m_out.find("\\x1b"), m_out.npos);
    EXPECT_NE(m_out.find("\\\\"), m_out.npos);
    EXPECT_NE(m_out.find("\\x7f\\x80"), m_out.npos);
}

TEST_F(CaptureTool, TellsTypesOfAHostAndHeadersAlone) {
    EXPECT_EQ(Show(Record(7, 1, "n") + Record(-2, -1) + Record(0, -2147483647 - 1) + Sent("")), 0);
    EXPECT_EQ(m_out,
              "@0 other (type 7) 1 byte\n* n\n"
              "@9 other (type -2), no data (length -1)\n"
              "@17 received, no data (length -2147483648)\n"
              "@25 sent 0 bytes\n");
}

TEST_F(CaptureTool, PrintsHexWithOffsetsInTheFile) {
    EXPECT_EQ(Show(Sent("x") + Received("0123456789abcdefg\r\377"), "--hex"), 0);
    EXPECT_EQ(m_out,
              "@0 sent 1 byte\n"
              "> 00000008  78                                                |x|\n"
              "@9 received 19 bytes\n"
              "< 00000011  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
              "< 00000021  67 0d ff                                          |g..|\n");
}

TEST_F(CaptureTool, PrintsJsonOfEveryByte) {
    std::string all, text, hex;
    for (int c = 0; c < 256; ++c) {
        all += static_cast<char>(c);
        char code[8];
        std::snprintf(code, sizeof code, "%02x", c);
        hex += code;
        bool const plain = c >= 0x20 && c < 0x7F;
        text += c == '"' || c == '\\' ? '\\' + std::string(1, static_cast<char>(c))
                : plain               ? std::string(1, static_cast<char>(c))
                                      : std::string("\\u00") + code;
    }
    std::string const head = R"({"offset":0,"direction":"received","type":0,"length":256,)";
    EXPECT_EQ(Show(Received(all), "--json"), 0);
    EXPECT_EQ(m_out, head + "\"text\":\"" + text + "\"}\n");
    EXPECT_EQ(Show(Received(all), "--json --hex"), 0);
    EXPECT_EQ(m_out, head + "\"hex\":\"" + hex + "\"}\n");
}

TEST_F(CaptureTool, ReadsTheOtherByteOrder) {
    EXPECT_EQ(Show(Record(0x01000000, 0x02000000, "hi"), "--swap"), 0);
    EXPECT_EQ(m_out, "@0 sent 2 bytes\n> hi\n");
}

TEST_F(CaptureTool, ReadsTheStandardInput) {
    m_root.Write("/x.qxd", Sent("hi"));
    EXPECT_EQ(Run("- <" + m_path), 0);
    EXPECT_EQ(m_out, "@0 sent 2 bytes\n> hi\n");
}

// Every cut of a capture: what is there is printed, and where it ends is told.
TEST_F(CaptureTool, TellsWhereACaptureIsCut) {
    std::string const first = Received("hello"), second = Sent("you there");
    std::string const whole = first + second;
    for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
        int const status = Show(whole.substr(0, cut));
        std::string expected;
        if (cut != 0 && cut < 8)
            expected = "at offset 0, " + std::to_string(cut) + " of the 8 bytes of a header are there";
        else if (cut >= 8 && cut < 13)
            expected = "the record at offset 0 says 5 bytes of data, and " + std::to_string(13 - cut) + " of them";
        else if (cut > 13 && cut < 21)
            expected = "at offset 13, " + std::to_string(cut - 13) + " of the 8 bytes of a header are there";
        else if (cut >= 21 && cut < 30)
            expected = "the record at offset 13 says 9 bytes of data, and " + std::to_string(30 - cut) + " of them";
        EXPECT_EQ(status, expected.empty() ? 0 : 1) << cut;
        EXPECT_NE(m_error.find(expected), m_error.npos) << cut << ": " << m_error;
        EXPECT_EQ(m_error.empty(), expected.empty()) << cut << ": " << m_error;
        EXPECT_TRUE(cut < 13 || m_out.starts_with("@0 received 5 bytes\n< hello\n")) << cut;
        EXPECT_EQ(m_out.find("@13 sent 9 bytes") != m_out.npos, cut >= 21) << cut;
    }
}

TEST_F(CaptureTool, SaysInJsonWhatIsMissing) {
    EXPECT_EQ(Show(Record(1, 100, "there"), "--json"), 1);
    EXPECT_EQ(m_out,
              "{\"offset\":0,\"direction\":\"sent\",\"type\":1,\"length\":100,\"text\":\"there\",\"missing\":95}\n");
}

TEST_F(CaptureTool, TakesAnythingElseForGarbled) {
    EXPECT_EQ(Show("#!/bin/sh\necho this is no capture\n"), 1);
    EXPECT_EQ(m_error.substr(0, 23), "cut short or garbled: t") << m_error;
}

// A length may be anything up to 2 GiB: no memory is taken for it.
TEST_F(CaptureTool, PrintsALargeCaptureInLittleMemory) {
    std::ofstream file(m_path, std::ios::binary);
    constexpr std::int32_t size = 64 << 20;
    file << Record(0, size);
    file.seekp(8 + size - 1);
    file << 'x' << Record(1, 2147483647, "y");
    file.close();
    EXPECT_EQ(Run("--json " + m_path + " >/dev/null"), 1) << m_error;
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
#ifndef VELT_SANITIZED
    EXPECT_LT(usage.ru_maxrss, 16 << 10) << "KiB";
#endif
}

TEST_F(CaptureTool, TellsWhatCannotBeReadOrWritten) {
    EXPECT_EQ(Run(m_root / "/none"), 1);
    EXPECT_NE(m_error.find("none: No such file or directory"), m_error.npos) << m_error;
    EXPECT_EQ(Run(m_root.path()), 1);
    EXPECT_NE(m_error.find("Is a directory"), m_error.npos) << m_error;
    m_root.Write("/x.qxd", Sent("hi"));
    EXPECT_EQ(Run(m_path + " >/dev/full"), 1);
    EXPECT_NE(m_error.find("No space left on device"), m_error.npos) << m_error;
}

TEST_F(CaptureTool, RefusesWhatItDoesNotKnow) {
    for (char const* bad : {"", "--xml x", "x y", "-x", "''", "--", "-- x y"}) {
        EXPECT_EQ(Run(bad), 2) << bad;
        EXPECT_EQ(m_error.substr(0, 6), "usage:") << bad;
        EXPECT_EQ(m_out, "");
    }
}

TEST_F(CaptureTool, FileMayBeginWithADash) {
    EXPECT_EQ(Run("-- --hex"), 1);
    EXPECT_NE(m_error.find("--hex: No such file"), m_error.npos) << m_error;
}

TEST_F(CaptureTool, HasAManual) {
    EXPECT_EQ(Run("--help"), 0);
    for (char const* section : {"NAME\n", "SYNOPSIS\n", "DESCRIPTION\n", "OPTIONS\n", "EXIT STATUS\n"})
        EXPECT_NE(m_out.find(section), m_out.npos) << section;
    for (char const* option : {"--hex ", "--json ", "--swap ", "--help "})
        EXPECT_NE(m_out.find(option), m_out.npos) << option;
}
