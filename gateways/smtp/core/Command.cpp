#include "Command.h"

#include <algorithm>
#include <iterator>

#include "Address.h"

namespace smtp {
namespace {

enum class Argument { None, Optional, Required };

struct VerbRow {
    std::string_view text;
    Verb verb;
    std::string_view keyword;  // "FROM:" and "TO:"
    Argument argument;
};

constexpr VerbRow kVerbs[] = {
    {"MAIL", Verb::Mail, "FROM:", Argument::Required},
    {"RCPT", Verb::Rcpt, "TO:", Argument::Required},
    {"DATA", Verb::Data, "", Argument::None},
    {"EHLO", Verb::Ehlo, "", Argument::Required},
    {"HELO", Verb::Helo, "", Argument::Required},
    {"RSET", Verb::Rset, "", Argument::None},
    {"NOOP", Verb::Noop, "", Argument::Optional},
    {"QUIT", Verb::Quit, "", Argument::None},
    {"VRFY", Verb::Vrfy, "", Argument::Required},
    {"EXPN", Verb::Expn, "", Argument::Required},
    {"HELP", Verb::Help, "", Argument::Optional},
    // A browser that was talked into speaking to a mail server.
    {"GET", Verb::Foreign, "", Argument::Optional},
    {"POST", Verb::Foreign, "", Argument::Optional},
    {"PUT", Verb::Foreign, "", Argument::Optional},
    {"HEAD", Verb::Foreign, "", Argument::Optional},
    {"OPTIONS", Verb::Foreign, "", Argument::Optional},
    {"CONNECT", Verb::Foreign, "", Argument::Optional},
};

std::string_view TrimRight(std::string_view text) {
    std::size_t const last = text.find_last_not_of(" \t");
    return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

bool TakeKeyword(std::string_view& argument, std::string_view keyword) {
    if (!EqualNoCase(argument.substr(0, keyword.size()), keyword)) return false;
    argument.remove_prefix(keyword.size());
    return true;
}

bool ArgumentFits(Argument rule, std::string_view argument) {
    return rule == Argument::Optional || argument.empty() == (rule == Argument::None);
}

}  // namespace

Command ParseCommand(std::string_view line) {
    Command command;
    std::string_view const word = line.substr(0, std::min(line.find(' '), line.size()));
    auto const row = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                  [&](VerbRow const& candidate) { return EqualNoCase(candidate.text, word); });
    if (row == std::end(kVerbs)) return command;
    command.verb = row->verb;
    command.argument = TrimRight(line.substr(std::min(word.size() + 1, line.size())));
    bool const keywordFound = TakeKeyword(command.argument, row->keyword);
    command.wellFormed = keywordFound && ArgumentFits(row->argument, command.argument);
    return command;
}

LineEnd TrimLineEnd(std::string_view& line) {
    if (line.empty() || line.back() != '\r') return LineEnd::BareLf;
    line.remove_suffix(1);
    return LineEnd::CrLf;
}

bool HasControl(std::string_view line) {
    return std::any_of(line.begin(), line.end(), [](char c) { return static_cast<unsigned char>(c) < 32 || c == 127; });
}

}  // namespace smtp
