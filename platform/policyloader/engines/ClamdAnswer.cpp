#include <policyloader/engines/ClamdAnswer.h>

#include <algorithm>

namespace policyloader {
namespace {

constexpr std::string_view kStream = "stream: ";
constexpr std::string_view kFound = " FOUND";
constexpr std::string_view kError = "ERROR";
constexpr std::string_view kUnknownCommand = "UNKNOWN COMMAND";
constexpr std::size_t kMostPrinted = 200;

bool IsPrintable(char c) { return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f; }

// A name stands alone: it has no blank.
bool IsName(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return IsPrintable(c) && c != ' '; });
}

bool TakePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

}  // namespace

std::string PrintableAnswer(std::string_view text) {
    std::string out(text.substr(0, kMostPrinted));
    std::replace_if(
        out.begin(), out.end(), [](char c) { return !IsPrintable(c) || static_cast<unsigned char>(c) > 0x7e; }, '?');
    return out;
}

ClamdAnswer ClamdAnswer::parse(std::string_view line, unsigned long request) {
    auto rest = line;
    // A refusal counts whoever it is for: the connection has no other question on its way.
    if (line.ends_with(kError) || line.ends_with(kUnknownCommand)) return {Refused, PrintableAnswer(line)};
    if (!TakePrefix(rest, std::to_string(request) + ": ") || !TakePrefix(rest, kStream))
        return {Rubbish, PrintableAnswer(line)};
    if (rest == "OK") return {Clean, {}};
    if (!rest.ends_with(kFound)) return {Rubbish, PrintableAnswer(line)};
    rest.remove_suffix(kFound.size());
    return IsName(rest) ? ClamdAnswer{Found, PrintableAnswer(rest)} : ClamdAnswer{Rubbish, PrintableAnswer(line)};
}

}  // namespace policyloader
