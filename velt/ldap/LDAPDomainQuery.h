// The search templates of a directory server, parsed from a line of ldap.txt.
// A template is a filter (RFC 4515) with a `?` wherever the value belongs, and the names of the attributes to ask for:
// "filter:attribute,attribute". Owner: its LDAPServer. Threads: set at start-up, read by all session threads after
// that. Failure: none; what makes no sense is a filter that finds nothing.
#pragma once

#include <string>
#include <vector>

#include <velt/Export.h>

namespace VELT {

// A group of a directory: both texts begin with the server's name and a dot.
struct VELT_API LDAPGroup {
    std::string name;
    std::string id;
};

class VELT_API LDAPDomainQuery {
public:
    LDAPDomainQuery() = default;
    virtual ~LDAPDomainQuery();
    LDAPDomainQuery(LDAPDomainQuery const&) = delete;
    LDAPDomainQuery& operator=(LDAPDomainQuery const&) = delete;

    virtual void set(char const* text);  // blanks count, in the filter and in the names

    void addAttribute(int index, char const* name);      // a null name ends the list
    char** getAttributes() const { return attributes; }  // ends in a null; null itself where the template names none
    char const* getQuery() const { return query.c_str(); }
    bool isSet() const { return !query.empty(); }

private:
    void Clear();

    char** attributes = nullptr;
    std::string query;
};

// A template that asks for all groups; in front of it stand groups that no server is asked for: ":name :name
// filter:..."
class VELT_API LDAPGroupQuery : public LDAPDomainQuery {
public:
    void set(char const* text) override;

    void getStaticGroups(std::vector<LDAPGroup>& groups, std::string const& server) const;  // appends them

private:
    std::vector<std::string> static_groups;
};

}  // namespace VELT
