// Command lines of an SMTP client. Values only, any thread; a Command borrows the line that it was read from.
#pragma once

#include <string_view>

namespace smtp {

enum class Verb { Ehlo, Helo, Mail, Rcpt, Data, Rset, Noop, Vrfy, Expn, Help, Quit, Foreign, Unknown };

struct Command {
    Verb verb = Verb::Unknown;
    std::string_view
        argument;             // behind the verb and one blank, trailing blanks cut; for MAIL and RCPT behind the colon
    bool wellFormed = false;  // false: "MAIL" without "FROM:", an argument missing, or one where none may stand
};

// `line` comes without its line end.
Command ParseCommand(std::string_view line);

// How getline's verdict maps to what stood on the wire.
enum class LineEnd { CrLf, BareLf };

// Cuts a CR off a line that was read up to its LF. A line without one ended in a bare LF, which ends no command.
LineEnd TrimLineEnd(std::string_view& line);

bool HasControl(std::string_view line);  // bytes below 32 or 127; no command has any

}  // namespace smtp
