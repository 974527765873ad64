// An entry of a directory, written.
#include <velt/ldap/LDAPServer.h>
#include <velt/ldap/LdapLibrary.h>

namespace VELT {

namespace {

// One attribute in the library's shape, which points into the texts. Values with a NUL in them go by their length.
class Change {
public:
    explicit Change(LDAPAttribute const& attribute) {
        m_change.mod_op = LDAP_MOD_REPLACE;
        m_change.mod_type = const_cast<char*>(attribute.name.c_str());
        for (std::string const& value : attribute.values) {
            m_texts.push_back(const_cast<char*>(value.c_str()));
            m_lengths.push_back({value.size(), const_cast<char*>(value.data())});
            m_byLength = m_byLength || value.find('\0') != std::string::npos;
        }
        m_texts.push_back(nullptr);
    }
    ldapmod* Made() {
        if (!m_byLength) {
            m_change.mod_values = m_texts.data();
            return &m_change;
        }
        for (berval& one : m_lengths) m_pointers.push_back(&one);
        m_pointers.push_back(nullptr);
        m_change.mod_op |= LDAP_MOD_BVALUES;
        m_change.mod_bvalues = m_pointers.data();
        return &m_change;
    }

private:
    ldapmod m_change{};
    std::vector<char*> m_texts;
    std::vector<berval> m_lengths;
    std::vector<berval*> m_pointers;
    bool m_byLength = false;
};

}  // namespace

int LDAPServer::ldap_db_work(int (*op)(ldap*, char const*, ldapmod**), LDAPConnection* connection,
                             std::string const& name, std::vector<LDAPAttribute> const& attributes) {
    if (!connection || !connection->m_ldap) return LDAP_SERVER_DOWN;
    std::vector<Change> changes;
    changes.reserve(attributes.size());
    std::vector<ldapmod*> list;
    for (LDAPAttribute const& one : attributes) {
        if (one.values.empty()) continue;
        changes.emplace_back(one);
        list.push_back(changes.back().Made());
    }
    list.push_back(nullptr);
    int const result = op(connection->m_ldap, name.c_str(), list.data());
    if (IsGone(result)) connection->failed = true;
    return result;
}

}  // namespace VELT
