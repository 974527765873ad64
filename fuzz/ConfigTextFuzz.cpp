// The texts of configuration: wildcard patterns against a plain matcher, what a domain object makes of any text, and
// the line that carries a Config to another process.
#include <boost/regex.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/Input.h"
#include "velt/Config.h"
#include "velt/config_details/ScanPolicy.h"
#include "velt/config_details/netobject.h"
#include "velt/config_details/pattern.h"

using velt_fuzz::Require;

namespace {

constexpr std::size_t kLongestPattern = 200;

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

// * is any run of characters, ? one character, all else itself in any case: row by row, so no pattern is slow.
bool GlobMatches(std::string const& pattern, std::string const& text) {
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

// The matcher gives up on patterns of many stars; only a claimed match is held against the model then.
void CheckPattern(std::string const& pattern, std::string const& text) {
    bool const isExpression = pattern.rfind("regex:", 0) == 0;
    try {
        VELT::config_types::basic_pattern<char, true> compiled;
        compiled.set_regex(pattern.data(), pattern.data() + pattern.size());
        bool const matches = compiled.match(text);
        bool const few = std::count(pattern.begin(), pattern.end(), '*') <= 3;
        if (isExpression) return;
        if (matches) Require(GlobMatches(pattern, text), "a match is a match of the wildcards");
        if (few && !matches) Require(!GlobMatches(pattern, text), "no match is none of the wildcards");
    } catch (boost::regex_error const&) {
        Require(isExpression, "only an expression can be bad");
    }
}

void CheckDomain(std::string const& domain, std::string const& text) {
    try {
        VELT::config_types::detail::netobject_is_domain const object(domain.data(), domain.data() + domain.size());
        bool const matches = object.text_match(text.data(), text.data() + text.size());
        if (!object.is_pattern()) Require(matches == GlobMatches(domain, text), "a plain name is compared whole");
    } catch (boost::regex_error const&) {
        Require(domain.rfind("regex:", 0) == 0, "only an expression can be bad");
    }
}

void CheckLine(std::string const& line) {
    std::string joined;
    std::string field;
    for (char const* rest = line.c_str(); rest;) {
        rest = VELT::sep_to_string(rest, field);
        Require(field.find(' ') == std::string::npos, "a field has no blank");
        joined += field;
        if (rest) joined += ' ';
    }
    Require(joined == line.c_str(), "the fields make up the line");
    VELT::Config config;
    config.restore_state(line);
    Require(config.restored, "the Config is restored");
    VELT::Config again;
    again.restore_state(config.save_state());
    Require(again.inbound == config.inbound && again.save_state() == config.save_state(), "a saved line comes back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    std::string const pattern = input.Line().substr(0, kLongestPattern);
    std::string const text = input.Line().substr(0, kLongestPattern);
    CheckPattern(pattern, text);
    CheckDomain(pattern, text);
    CheckLine(input.Rest());
    return 0;
}
