#include <policyloader/engines/SpamAnswer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#include <strings.h>

#include <policyloader/engines/ClamdAnswer.h>

namespace policyloader {
namespace {

constexpr std::string_view kVersion = "SPAMD/";
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::string_view kTableHead = "\n---- ---";
constexpr std::size_t kScoreColumns = 6;  // of the table; what begins later goes on with the line before
constexpr std::size_t kMostTests = 1000;

SpamAnswer RubbishAnswer(char const* what) { return {SpamAnswer::Rubbish, what, {}}; }

std::string_view Stripped(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

// What stands before the separator, which is dropped; all of it where there is none.
std::string_view Take(std::string_view& rest, std::string_view separator) {
    std::size_t const at = rest.find(separator);
    auto const taken = rest.substr(0, at);
    rest.remove_prefix(at == std::string_view::npos ? rest.size() : at + separator.size());
    return taken;
}

template <class Number>
std::optional<Number> Whole(std::string_view text) {
    Number number{};
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::optional<double> Score(std::string_view text) {
    auto const number = Whole<double>(text);
    return number && std::isfinite(*number) ? number : std::nullopt;
}

// "SPAMD/1.1 0 EX_OK": the number.
std::optional<int> StatusOf(std::string_view line) {
    if (line.substr(0, kVersion.size()) != kVersion) return std::nullopt;
    Take(line, " ");
    return Whole<int>(Take(line, " "));
}

struct Head {
    std::optional<std::size_t> length;
    std::optional<double> score, threshold;
};

// "True ; 15.0 / 5.0"
bool ReadSpam(std::string_view value, Head& head) {
    auto const word = Stripped(Take(value, ";"));
    constexpr std::string_view words[] = {"true", "false", "yes", "no"};
    bool const known = std::any_of(std::begin(words), std::end(words), [&](std::string_view one) {
        return one.size() == word.size() && strncasecmp(one.data(), word.data(), one.size()) == 0;
    });
    auto const score = Stripped(Take(value, "/"));
    if (!known || head.score) return false;
    head.score = Score(score);
    head.threshold = Score(Stripped(value));
    return head.score && head.threshold;
}

bool ReadField(std::string_view line, Head& head) {
    std::string const name(Stripped(Take(line, ":")));
    if (strcasecmp(name.c_str(), "Spam") == 0) return ReadSpam(line, head);
    if (strcasecmp(name.c_str(), "Content-length") != 0) return true;
    if (head.length) return false;
    head.length = Whole<std::size_t>(Stripped(line));
    return head.length.has_value();
}

bool IsTestName(std::string_view name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// " 1.3 NAME_OF_TEST   a description"
std::optional<SpamJudgement::Test> TestOf(std::string_view line) {
    std::size_t const begin = line.find_first_not_of(' ');
    if (begin >= kScoreColumns) return std::nullopt;
    line.remove_prefix(begin);
    auto const score = Score(Take(line, " "));
    line = Stripped(line);
    auto const name = Take(line, " ");
    if (!score || !IsTestName(name)) return std::nullopt;
    return SpamJudgement::Test(name, *score);
}

// The table of a report, where there is one: its form is the server's configuration.
void ReadTable(std::string_view body, SpamJudgement& judgement) {
    std::size_t const table = body.find(kTableHead);
    if (table == std::string_view::npos) return;
    body.remove_prefix(table + 1);
    Take(body, "\n");
    while (!body.empty() && judgement.tests.size() < kMostTests) {
        auto line = Take(body, "\n");
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (auto test = TestOf(line)) judgement.tests.push_back(std::move(*test));
    }
}

}  // namespace

SpamAnswer SpamAnswer::parseSpamd(std::string_view reply) {
    std::size_t const end = reply.find(kHeadEnd);
    auto fields = reply.substr(0, end);
    auto const first = Take(fields, kLineEnd);
    auto const status = StatusOf(first);
    if (!status) return RubbishAnswer("no status line");
    if (*status != 0) return {Refused, PrintableAnswer(first), {}};
    if (end == std::string_view::npos) return RubbishAnswer("the head is cut");
    Head head;
    while (!fields.empty())
        if (!ReadField(Take(fields, kLineEnd), head)) return RubbishAnswer("a field that makes no sense");
    auto const body = reply.substr(end + kHeadEnd.size());
    if (!head.score) return RubbishAnswer("no score");
    if (head.length != body.size()) return RubbishAnswer("another length than it says");
    SpamAnswer answer{Judged, {}, {*head.score, *head.threshold, {}}};
    ReadTable(body, answer.judgement);
    return answer;
}

}  // namespace policyloader
