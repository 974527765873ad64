#include <velt/ldap/LDAPDomainQuery.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>

namespace VELT {

namespace {

bool IsSpace(char one) { return std::isspace(static_cast<unsigned char>(one)) != 0; }

char* Copy(std::string const& text) {
    char* const copy = ::strdup(text.c_str());
    if (!copy) throw std::bad_alloc();
    return copy;
}

}  // namespace

LDAPDomainQuery::~LDAPDomainQuery() { Clear(); }

void LDAPDomainQuery::Clear() {
    for (char** one = attributes; one && *one; ++one) std::free(*one);
    std::free(attributes);
    attributes = nullptr;
}

void LDAPDomainQuery::set(char const* text) {
    Clear();
    char const* const colon = std::strchr(text, ':');
    if (!colon) {
        query = text;
        return;
    }
    query.assign(text, colon);
    int count = 0;
    for (char const* name = colon + 1; *name;) {
        char const* const end = ::strchrnul(name, ',');
        addAttribute(count++, std::string(name, end).c_str());
        name = *end ? end + 1 : end;
    }
    addAttribute(count, nullptr);
}

// The array always ends in a null, so that a failure of the copy leaves a list that is whole.
void LDAPDomainQuery::addAttribute(int index, char const* name) {
    auto const size = static_cast<std::size_t>(index) + 1;
    auto** const grown = static_cast<char**>(std::realloc(attributes, size * sizeof(char*)));
    if (!grown) throw std::bad_alloc();
    attributes = grown;
    attributes[index] = nullptr;
    if (name) attributes[index] = Copy(name);
}

void LDAPGroupQuery::set(char const* text) {
    while (*text == ':') {
        char const* end = ++text;
        while (*end && !IsSpace(*end)) ++end;
        static_groups.emplace_back(text, end);
        while (IsSpace(*end)) ++end;
        text = end;
    }
    if (*text) LDAPDomainQuery::set(text);
}

void LDAPGroupQuery::getStaticGroups(std::vector<LDAPGroup>& groups, std::string const& server) const {
    for (std::string const& one : static_groups) {
        std::string const name = server + "." + one;
        groups.push_back({name, name});
    }
}

}  // namespace VELT
