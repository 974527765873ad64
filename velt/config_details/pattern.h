// basic_regex and basic_pattern: compiled, case-insensitive expressions that are matched against a whole text.
// basic_pattern takes what an administrator writes: wildcards * and ?, or an expression behind "regex:".
// Owner: whoever holds it; a value. Threads: matching is const and may run on any thread, set_regex on one.
// Failure: set_regex throws the expression library's exception (a std::runtime_error) for a bad expression and leaves
// the old one. A match that the library gives up on, because the expression explodes on the text, is no match.
// Wildcards never explode: they are matched without the library, however many stars they have.
#pragma once

#include <boost/regex.hpp>

#include <string>
#include <string_view>

#include <velt/Export.h>

namespace VELT::config_types {

template <class Char, bool IgnoreCase>
class basic_regex;
template <class Char, bool IgnoreCase>
class basic_pattern;

template <>
class VELT_API basic_regex<char, true> {
public:
    basic_regex() = default;
    basic_regex(basic_regex const&) = default;
    basic_regex& operator=(basic_regex const&) = default;
    virtual ~basic_regex();

    virtual void set_regex(char const* first, char const* last);

    // False while nothing was set.
    bool match(char const* first, char const* last) const;
    bool match(std::string_view text) const { return match(text.data(), text.data() + text.size()); }

    std::string expression() const { return m_regex.str(); }  // as it was compiled

private:
    boost::basic_regex<char, boost::regex_traits<char>> m_regex;
};

template <>
class VELT_API basic_pattern<char, true> : public basic_regex<char, true> {
public:
    static constexpr std::string_view s_prefix = "regex:";  // in lower case only: "REGEX:" begins a wildcard pattern

    void set_regex(char const* first, char const* last) override;
};

}  // namespace VELT::config_types
