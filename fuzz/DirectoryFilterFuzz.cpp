// What a directory server is asked with text from an envelope: the text is a value there, whatever it is. Filters are
// read back by the grammar of RFC 4515 and as the directory library sends them, names of entries by the library.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <memory>
#include <vector>

#include <velt/ldap/Escape.h>
#include <velt/ldap/LDAPServer.h>
#include <velt/ldap/LdapLibrary.h>

#include <openldap.h>

#include "fuzz/Input.h"

using velt_fuzz::Require;

namespace {

constexpr char kMark[] = "MARK";
constexpr char const* kTemplates[] = {"(mail=?)",         "mail=?",          "(&(mail=?)(objectClass=a))",
                                      "(|(a=?)(!(b=?)))", "(a=x?y)",         "(&(|(a=1)(b=?-?))(c=?)(d=2))",
                                      "(a>=?)",           "(&(a<=?)(b~=?))", "(|(proxyAddresses=smtp:?)(mail=?))"};
constexpr char const* kNames[] = {"uid=?,ou=lists,dc=x", "cn=?+sn=b,dc=x", "ou=a,uid=?"};

struct Filter {
    char kind = 0;  // & | ! = and > < ~ for the comparisons
    std::string attribute, value;
    std::vector<Filter> parts;
    bool operator==(Filter const& other) const {
        return kind == other.kind && attribute == other.attribute && value == other.value && parts == other.parts;
    }
};

// ---- the grammar

class Parser {
public:
    explicit Parser(std::string const& text) : m_text(text) {}
    Filter All() {
        Filter const all = m_text[0] == '(' ? One() : Item();
        Require(m_at == m_text.size(), "an end of the filter");
        return all;
    }

private:
    char Next() { return m_at < m_text.size() ? m_text[m_at++] : '\0'; }
    char Peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
    Filter One() {
        Require(Next() == '(', "a bracket");
        Filter one;
        if (std::string("&|!").find(Peek()) != std::string::npos) {
            one.kind = Next();
            while (Peek() == '(') one.parts.push_back(One());
            Require(!one.parts.empty(), "a part");
        } else
            one = Item();
        Require(Next() == ')', "a closing bracket");
        return one;
    }
    Filter Item() {
        Filter item;
        while (std::isalpha(static_cast<unsigned char>(Peek()))) item.attribute += Next();
        item.kind = Next();
        if (item.kind != '=') Require(Next() == '=', "a comparison");
        while (m_at < m_text.size() && Peek() != ')') item.value += Value();
        return item;
    }
    char Value() {
        char const one = Next();
        Require(one != '\0' && one != '*' && one != '(', "a byte that a value may have");
        return one == '\\' ? static_cast<char>(Hex() * 16 + Hex()) : one;
    }
    int Hex() {
        char const digit = Next();
        Require(std::isxdigit(static_cast<unsigned char>(digit)) != 0, "a digit");
        return std::isdigit(static_cast<unsigned char>(digit)) ? digit - '0' : (digit | 0x20) - 'a' + 10;
    }

    std::string const& m_text;
    std::size_t m_at = 0;
};

// ---- what the library makes of it

struct FreeWhole {
    void operator()(BerElement* element) const { ::ber_free(element, 1); }
};

class Sent {
public:
    Sent() {
        int ends[2];
        Require(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "a pair of sockets");
        m_far = ends[1];
        Require(::ldap_init_fd(ends[0], LDAP_PROTO_TCP, nullptr, &m_ldap) == LDAP_SUCCESS, "a connection");
    }
    ~Sent() {
        ::ldap_unbind(m_ldap);
        ::close(m_far);
    }
    Sent(Sent const&) = delete;
    Sent& operator=(Sent const&) = delete;

    // The library remembers what it has abandoned, so that a connection serves for some time alone.
    static Sent& Current() {
        static std::unique_ptr<Sent> current;
        static unsigned uses = 0;
        if (uses++ % 256 == 0) current = std::make_unique<Sent>();
        return *current;
    }
    Filter Of(std::string const& filter) {
        int request = 0;
        Require(::ldap_search_ext(m_ldap, "", LDAP_SCOPE_SUBTREE, filter.c_str(), nullptr, 0, nullptr, nullptr, nullptr,
                                  -1, &request) == LDAP_SUCCESS,
                "a filter that the library takes");
        std::string bytes = Receive();
        ::ldap_abandon_ext(m_ldap, request, nullptr, nullptr);
        Receive();
        return Decoded(bytes);
    }

private:
    std::string Receive() const {
        std::string bytes(1 << 14, '\0');
        ssize_t const came = ::recv(m_far, bytes.data(), bytes.size(), 0);
        Require(came > 0, "a message");
        bytes.resize(static_cast<std::size_t>(came));
        return bytes;
    }
    static Filter Decoded(std::string& bytes) {
        berval whole{bytes.size(), bytes.data()};
        std::unique_ptr<BerElement, FreeWhole> const message(::ber_init(&whole));
        ber_int_t number = 0;
        ber_tag_t const tag =
            ::ber_scanf(message.get(), "{i{xeeiib", &number, &number, &number, &number, &number, &number);
        Require(tag != LBER_ERROR, "a search");
        return One(message.get());
    }
    static Filter One(BerElement* from) {
        constexpr std::array<char, 9> kinds{'&', '|', '!', '=', 0, '>', '<', 0, '~'};
        ber_len_t length = 0;
        ber_tag_t const tag = ::ber_peek_tag(from, &length);
        Require(tag >= 0xa0 && tag < 0xa0 + kinds.size() && kinds[tag - 0xa0] != 0, "a filter of the template");
        Filter one;
        one.kind = kinds[tag - 0xa0];
        if (tag > LDAP_FILTER_NOT) {
            berval attribute{}, value{};
            Require(::ber_scanf(from, "{mm}", &attribute, &value) != LBER_ERROR, "a comparison");
            one.attribute.assign(attribute.bv_val, attribute.bv_len);
            one.value.assign(value.bv_val, value.bv_len);
            return one;
        }
        if (tag == LDAP_FILTER_NOT) {
            ::ber_skip_tag(from, &length);
            one.parts.push_back(One(from));
            return one;
        }
        char* end = nullptr;
        for (ber_tag_t part = ::ber_first_element(from, &length, &end); part != LBER_DEFAULT;
             part = ::ber_next_element(from, &length, end))
            one.parts.push_back(One(from));
        return one;
    }

    int m_far = -1;
    ldap* m_ldap = nullptr;
};

// The text in the places of the mark.
Filter Filled(Filter filter, std::string const& text) {
    for (std::size_t at = 0; (at = filter.value.find(kMark, at)) != std::string::npos; at += text.size())
        filter.value.replace(at, sizeof kMark - 1, text);
    for (Filter& part : filter.parts) part = Filled(part, text);
    return filter;
}

void CheckFilter(char const* format, std::string const& text) {
    std::string const marked = VELT::LDAPServer::build_query_string(format, kMark);
    std::string const filter = VELT::LDAPServer::build_query_string(format, VELT::escape_filter(text));
    Filter const expected = Filled(Parser(marked).All(), text);
    Require(Parser(filter).All() == expected, "the template with a value in it");
    Require(Sent::Current().Of(filter) == expected, "the same to the library");
}

struct FreeName {
    void operator()(LDAPRDN* name) const { ::ldap_dnfree(name); }
};

void CheckName(char const* format, std::string const& text) {
    std::string const made = VELT::LDAPServer::build_query_string(format, VELT::escape_dn(text));
    std::string const marked = VELT::LDAPServer::build_query_string(format, kMark);
    LDAPDN found = nullptr, expected = nullptr;
    Require(::ldap_str2dn(made.c_str(), &found, LDAP_DN_FORMAT_LDAPV3) == LDAP_SUCCESS, "a name");
    std::unique_ptr<LDAPRDN, FreeName> const foundOwned(found);
    Require(::ldap_str2dn(marked.c_str(), &expected, LDAP_DN_FORMAT_LDAPV3) == LDAP_SUCCESS, "a name of the template");
    std::unique_ptr<LDAPRDN, FreeName> const expectedOwned(expected);
    for (; *expected; ++expected, ++found) {
        Require(*found != nullptr, "as many steps");
        LDAPRDN step = *found;
        for (LDAPRDN wanted = *expected; *wanted; ++wanted, ++step) {
            Require(*step != nullptr, "as many parts of a step");
            std::string const value((*wanted)->la_value.bv_val, (*wanted)->la_value.bv_len);
            Require(std::string((*step)->la_value.bv_val, (*step)->la_value.bv_len) == (value == kMark ? text : value),
                    "the value of a step");
        }
        Require(*step == nullptr, "no further part of a step");
    }
    Require(*found == nullptr, "no further step");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    unsigned const choice = input.Byte();
    std::string const text = input.Rest();
    CheckFilter(kTemplates[choice % std::size(kTemplates)], text);
    CheckName(kNames[choice % std::size(kNames)], text);
    return 0;
}
