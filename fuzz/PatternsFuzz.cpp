// Patterns as an administrator writes them, against the expression library itself, and wildcards against a plain
// matcher besides: that one never gives up, however many stars there are.
#include <KORtk/Text.h>

#include <boost/regex.hpp>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Input.h"
#include "velt/config_details/pattern.h"

using velt_fuzz::Require;

namespace {

constexpr std::size_t kLongest = 100;
std::string const kPrefix = "regex:";

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

// * is any run of characters, ? one character, all else itself in any case: row by row, so no pattern is slow.
bool WildcardsMatch(std::string const& pattern, std::string const& text) {
    std::vector<bool> row(text.size() + 1, false);
    row[0] = true;
    for (char p : pattern) {
        std::vector<bool> next(text.size() + 1, false);
        if (p == '*') next[0] = row[0];
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (p == '*') {
                next[i + 1] = next[i] || row[i + 1];
            } else {
                next[i + 1] = row[i] && (p == '?' || Lower(p) == Lower(text[i]));
            }
        }
        row = next;
    }
    return row[text.size()];
}

// nullopt: the library gives up on the text.
std::optional<bool> LibraryMatches(boost::regex const& expression, std::string const& text) {
    try {
        return boost::regex_match(text, expression);
    } catch (std::runtime_error const&) {
        return std::nullopt;
    }
}

// "(?1)", "(?R)" and their like: without end in itself, it takes the library seconds to give up.
bool CallsItself(std::string const& expression) {
    constexpr std::string_view kCalls = "0123456789R&+-P";
    for (std::size_t at = 0; (at = expression.find("(?", at)) != std::string::npos; at += 2)
        if (at + 2 < expression.size() && kCalls.find(expression[at + 2]) != kCalls.npos) return true;
    return false;
}

std::optional<boost::regex> Compile(std::string const& expression) {
    try {
        return boost::regex(expression.data(), expression.data() + expression.size(),
                            boost::regex::perl | boost::regex::icase);
    } catch (boost::regex_error const&) {
        return std::nullopt;
    }
}

void Check(std::string const& pattern, std::string const& text) {
    bool const isExpression = pattern.rfind(kPrefix, 0) == 0;
    std::string const expression =
        isExpression ? pattern.substr(kPrefix.size()) : "^" + KORtk::dos_to_regex_pattern(pattern) + "$";
    std::optional<boost::regex> const compiled = Compile(expression);
    VELT::config_types::basic_pattern<char, true> own;
    bool thrown = false;
    try {
        own.set_regex(pattern.data(), pattern.data() + pattern.size());
    } catch (boost::regex_error const&) {
        thrown = true;
    }
    Require(thrown == !compiled, "bad for the library is bad for a pattern");
    Require(isExpression || !thrown, "wildcards are always good");
    if (thrown) return Require(!own.match(text), "a pattern that was never set matches nothing");
    Require(own.expression() == expression, "compiled as it was translated");
    if (isExpression && CallsItself(expression)) return;
    bool const matches = own.match(text);
    std::optional<bool> const byLibrary = LibraryMatches(*compiled, text);
    if (byLibrary) Require(matches == *byLibrary, "the match of the library");
    if (!isExpression) Require(matches == WildcardsMatch(pattern, text), "the match of the wildcards");
}

}  // namespace

// What is written is tried as it stands, as an expression, or between the signs that wildcards are compiled between.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static std::string const kAround[][2] = {{"", ""}, {kPrefix, ""}, {kPrefix + "^", "$"}};
    velt_fuzz::Input input(data, size);
    auto const& [before, behind] = kAround[input.Byte() % 3];
    std::string const pattern = input.Line().substr(0, kLongest);
    Check(before + pattern + behind, input.Rest().substr(0, kLongest));
    return 0;
}
