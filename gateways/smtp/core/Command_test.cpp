#include "core/Command.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

struct Row {
    char const* line;
    Verb verb;
    bool wellFormed;
    char const* argument;
};

constexpr Row kRows[] = {
    {"EHLO mail.example", Verb::Ehlo, true, "mail.example"},
    {"ehlo mail.example  ", Verb::Ehlo, true, "mail.example"},
    {"HELO", Verb::Helo, false, ""},
    {"MAIL FROM:<a@b>", Verb::Mail, true, "<a@b>"},
    {"mail from:<a@b> SIZE=5", Verb::Mail, true, "<a@b> SIZE=5"},
    {"MAIL FROM: <a@b>", Verb::Mail, true, " <a@b>"},
    {"MAIL <a@b>", Verb::Mail, false, "<a@b>"},
    {"MAIL FROM:", Verb::Mail, false, ""},
    {"MAILFROM:<a@b>", Verb::Unknown, false, ""},
    {"RCPT TO:<a@b>", Verb::Rcpt, true, "<a@b>"},
    {"RCPT FROM:<a@b>", Verb::Rcpt, false, "FROM:<a@b>"},
    {"DATA", Verb::Data, true, ""},
    {"DATA ", Verb::Data, true, ""},
    {"DATA x", Verb::Data, false, "x"},
    {"RSET", Verb::Rset, true, ""},
    {"NOOP", Verb::Noop, true, ""},
    {"NOOP ignored text", Verb::Noop, true, "ignored text"},
    {"VRFY joe", Verb::Vrfy, true, "joe"},
    {"VRFY", Verb::Vrfy, false, ""},
    {"EXPN list", Verb::Expn, true, "list"},
    {"HELP", Verb::Help, true, ""},
    {"HELP MAIL", Verb::Help, true, "MAIL"},
    {"QUIT", Verb::Quit, true, ""},
    {"QUIT now", Verb::Quit, false, "now"},
    {"", Verb::Unknown, false, ""},
    {" EHLO x", Verb::Unknown, false, ""},
    {"STARTTLS", Verb::Unknown, false, ""},
    {"GET / HTTP/1.1", Verb::Foreign, true, "/ HTTP/1.1"},
};

TEST(CommandLine, IsSplitIntoVerbAndArgument) {
    for (Row const& row : kRows) {
        Command const command = ParseCommand(row.line);
        EXPECT_EQ(command.verb, row.verb) << row.line;
        EXPECT_EQ(command.wellFormed, row.wellFormed) << row.line;
        EXPECT_EQ(command.argument, row.argument) << row.line;
    }
}

TEST(CommandLine, EndsInCrLfOnly) {
    std::string_view line = "QUIT\r";
    EXPECT_EQ(TrimLineEnd(line), LineEnd::CrLf);
    EXPECT_EQ(line, "QUIT");
    EXPECT_EQ(TrimLineEnd(line), LineEnd::BareLf);
    line = "";
    EXPECT_EQ(TrimLineEnd(line), LineEnd::BareLf);
}

TEST(CommandLine, HasNoControlBytes) {
    EXPECT_FALSE(HasControl("MAIL FROM:<a@b>"));
    EXPECT_TRUE(HasControl("MAIL\tFROM:<a@b>"));
    EXPECT_TRUE(HasControl("RSET\rQUIT"));
    EXPECT_TRUE(HasControl(std::string_view("QUIT\0", 5)));
    EXPECT_TRUE(HasControl("\x7f"));
}

}  // namespace
}  // namespace smtp
