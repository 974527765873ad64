#include <velt/config_details/pattern.h>

#include <KORtk/Text.h>

#include <stdexcept>

#include <velt/config_details/wildcard.h>

namespace VELT::config_types {

basic_regex<char, true>::~basic_regex() = default;

void basic_regex<char, true>::set_regex(char const* first, char const* last) {
    boost::basic_regex<char, boost::regex_traits<char>> compiled;
    compiled.assign(first, last, boost::regex::perl | boost::regex::icase);
    m_regex.swap(compiled);
}

// The letters' cases are the library's, as it takes them from the locale that the expression was compiled in.
bool basic_regex<char, true>::match(char const* first, char const* last) const try {
    if (m_regex.empty()) return false;
    detail::Wildcard wildcard;
    if (!wildcard.parse(std::string_view(m_regex.begin(), m_regex.size()))) {
        return boost::regex_match(first, last, m_regex);
    }
    auto const& traits = m_regex.get_traits();
    return wildcard.matches(std::string_view(first, static_cast<std::size_t>(last - first)),
                            [&traits](char c) { return traits.translate_nocase(c); });
} catch (std::runtime_error const&) {
    return false;  // the matcher ran out of its budget on this text
}

void basic_pattern<char, true>::set_regex(char const* first, char const* last) {
    std::string_view const text(first, static_cast<std::size_t>(last - first));
    if (text.substr(0, s_prefix.size()) == s_prefix) {
        basic_regex::set_regex(first + s_prefix.size(), last);
        return;
    }
    std::string const anchored = "^" + KORtk::dos_to_regex_pattern(text) + "$";
    basic_regex::set_regex(anchored.data(), anchored.data() + anchored.size());
}

}  // namespace VELT::config_types
