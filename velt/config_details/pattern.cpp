#include <velt/config_details/pattern.h>

#include <KORtk/Text.h>

#include <stdexcept>

namespace VELT::config_types {

basic_regex<char, true>::~basic_regex() = default;

void basic_regex<char, true>::set_regex(char const* first, char const* last) {
    boost::basic_regex<char, boost::regex_traits<char>> compiled;
    compiled.assign(first, last, boost::regex::perl | boost::regex::icase);
    m_regex.swap(compiled);
}

bool basic_regex<char, true>::match(char const* first, char const* last) const try {
    return !m_regex.empty() && boost::regex_match(first, last, m_regex);
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
