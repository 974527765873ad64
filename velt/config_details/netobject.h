// Matchers of a configured network object: a network, a mail address, or a domain.
// Owner: whoever builds one. Threads: matching is const and runs on any thread; netobject_is_domain may block on a name
// server. Failure: constructors with a pattern throw for a bad expression; a match that cannot be made is false.
#pragma once

#include <KORnet/Addr.h>

#include <boost/optional.hpp>

#include <string>

#include <velt/Export.h>
#include <velt/config_details/pattern.h>

namespace VELT::config_types::detail {

class VELT_API netobject_interface {
public:
    // `resolve`: a name may be looked up to answer.
    virtual bool network_match(KORnet::IPAddr const& address, bool resolve) const = 0;
    virtual bool text_match(char const* first, char const* last) const = 0;
    virtual bool email_match(KORnet::EmailAddr const& address) const = 0;
    virtual ~netobject_interface();
};

// An IPv4 network. No IPv6 address is in it.
class VELT_API netobject_is_network : public netobject_interface {
public:
    explicit netobject_is_network(KORnet::IPv4Mask const& network) : m_network(network) {}
    bool network_match(KORnet::IPAddr const& address, bool resolve) const override;
    bool text_match(char const* first, char const* last) const override;
    bool email_match(KORnet::EmailAddr const& address) const override;

private:
    KORnet::IPv4Mask m_network;
};

// A pattern of mail addresses.
class VELT_API netobject_is_email : public netobject_interface {
public:
    netobject_is_email(char const* first, char const* last) { m_pattern.set_regex(first, last); }
    bool network_match(KORnet::IPAddr const& address, bool resolve) const override;
    bool text_match(char const* first, char const* last) const override;
    bool email_match(KORnet::EmailAddr const& address) const override;

private:
    basic_pattern<char, true> m_pattern;
};

// A plain name, which may be resolved, or a pattern of names: a text with * or ?, or one that begins with "regex:".
class VELT_API netobject_is_domain : public netobject_interface {
public:
    netobject_is_domain(char const* first, char const* last);
    bool network_match(KORnet::IPAddr const& address, bool resolve) const override;
    bool text_match(char const* first, char const* last) const override;
    bool email_match(KORnet::EmailAddr const& address) const override;
    bool is_pattern() const { return m_pattern.has_value(); }

private:
    boost::optional<basic_pattern<char, true>> m_pattern;
    boost::optional<std::string> m_name;
};

}  // namespace VELT::config_types::detail
