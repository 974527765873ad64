// Mail paths and parameters of MAIL and RCPT, as RFC 5321 section 4.1.2 writes them.
// Values only: no owner, any thread. Sizes in bytes. Failure: an enum that names what was wrong; nothing throws.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace smtp {

inline constexpr std::size_t kMaxLocalPart = 64;
inline constexpr std::size_t kMaxDomain = 255;
inline constexpr std::size_t kMaxPath = 256;

enum class PathKind {
    Reverse,  // MAIL: the null path <> is allowed
    Forward,  // RCPT: <Postmaster> without a domain is allowed
};

enum class PathError {
    None,
    Syntax,     // not a path at all
    NonAscii,   // bytes above 127: SMTPUTF8 is not offered
    TooLong,    // local part, domain or path above its limit
    BadDomain,  // domain or address literal malformed
    NullForbidden,
};

struct Mailbox {
    std::string local;   // unquoted where quotes were not needed, otherwise with its quotes
    std::string domain;  // as sent; an address literal with its brackets; empty for <> and <Postmaster>
    bool null = false;   // <>

    std::string str() const { return domain.empty() ? local : local + '@' + domain; }
};

struct Parameter {
    std::string keyword;  // upper case
    std::string value;    // as sent; empty without "="
    bool hasValue = false;
};

// Reads "<path>" at the front of `text` and cuts it off. A source route is read and dropped.
PathError ParsePath(std::string_view& text, PathKind kind, Mailbox& out);

// Reads what follows the path: blank-separated "KEYWORD[=value]". False: malformed.
bool ParseParameters(std::string_view text, std::vector<Parameter>& out);

bool IsDomain(std::string_view text);          // dot-separated labels; the underscore is tolerated
bool IsAddressLiteral(std::string_view text);  // "[192.0.2.1]", "[IPv6:2001:db8::1]"
bool IsHelloName(std::string_view text);       // what a client may call itself

bool EqualNoCase(std::string_view a, std::string_view b);  // ASCII only
std::string LowerCase(std::string_view text);

}  // namespace smtp
