// The directory library's C interface in the form that these sources call (ldap(3), OpenLDAP).
#pragma once

#define LDAP_DEPRECATED 1  // ldap_init, ldap_simple_bind_s and their like
#include <ldap.h>

#include <memory>

namespace VELT {

struct LdapFree {
    void operator()(char* text) const { ::ldap_memfree(text); }
    void operator()(LDAPMessage* message) const { ::ldap_msgfree(message); }
    void operator()(BerElement* element) const { ::ber_free(element, 0); }
    void operator()(berval** values) const { ::ldap_value_free_len(values); }
};
using LdapText = std::unique_ptr<char, LdapFree>;
using LdapMessage = std::unique_ptr<LDAPMessage, LdapFree>;
using LdapElement = std::unique_ptr<BerElement, LdapFree>;
using LdapValues = std::unique_ptr<berval*, LdapFree>;

}  // namespace VELT
