#include <velt/config_details/netobject.h>

#include <algorithm>

namespace VELT::config_types::detail {

namespace {

constexpr char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualIgnoringCase(std::string const& name, char const* first, char const* last) {
    return std::equal(name.begin(), name.end(), first, last, [](char a, char b) { return Lower(a) == Lower(b); });
}

bool IsPattern(std::string_view text) {
    if (text.find_first_of("*?") != std::string_view::npos) return true;
    auto const prefix = basic_pattern<char, true>::s_prefix;
    return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

netobject_interface::~netobject_interface() = default;

bool netobject_is_network::network_match(KORnet::IPAddr const& address, bool) const {
    return address.isIPv4() && (address.ipv4() & m_network.mask()) == (m_network.address() & m_network.mask());
}

bool netobject_is_network::text_match(char const* first, char const* last) const {
    return m_network.in_net(first, last);
}

bool netobject_is_network::email_match(KORnet::EmailAddr const&) const { return false; }

bool netobject_is_email::network_match(KORnet::IPAddr const&, bool) const { return false; }

bool netobject_is_email::text_match(char const* first, char const* last) const { return m_pattern.match(first, last); }

bool netobject_is_email::email_match(KORnet::EmailAddr const& address) const {
    return m_pattern.match(address.asPlainString(true));
}

netobject_is_domain::netobject_is_domain(char const* first, char const* last) {
    if (!IsPattern(std::string_view(first, static_cast<std::size_t>(last - first)))) {
        m_name = std::string(first, last);
        return;
    }
    basic_pattern<char, true> pattern;
    pattern.set_regex(first, last);
    m_pattern = pattern;
}

bool netobject_is_domain::network_match(KORnet::IPAddr const& address, bool resolve) const {
    if (!m_name || !resolve || !address.isIPv4()) return false;
    std::vector<KORnet::IPAddr> const resolved = KORnet::IPNode::byname(*m_name);
    return std::any_of(resolved.begin(), resolved.end(),
                       [&](KORnet::IPAddr const& one) { return one.isIPv4() && one.ipv4() == address.ipv4(); });
}

bool netobject_is_domain::text_match(char const* first, char const* last) const {
    if (m_name) return EqualIgnoringCase(*m_name, first, last);
    return m_pattern->match(first, last);
}

bool netobject_is_domain::email_match(KORnet::EmailAddr const&) const { return false; }

}  // namespace VELT::config_types::detail
