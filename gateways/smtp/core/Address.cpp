#include "Address.h"

#include <arpa/inet.h>

#include <algorithm>

namespace smtp {
namespace {

bool IsAlnum(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

bool IsAtomChar(char c) {
    return IsAlnum(c) || (c && std::string_view("!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos);
}

bool HasNonAscii(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > 127; });
}

bool IsDotString(std::string_view text) {
    bool atomOpen = false;
    for (char c : text) {
        if (c == '.' ? !atomOpen : !IsAtomChar(c)) return false;
        atomOpen = c != '.';
    }
    return atomOpen;
}

bool IsLabel(std::string_view label) {
    if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-') return false;
    return std::all_of(label.begin(), label.end(), [](char c) { return IsAlnum(c) || c == '-' || c == '_'; });
}

// "a quoted local part" including its quotes, cut off the front of `text`.
bool TakeQuoted(std::string_view& text, std::string& local) {
    std::string bare;
    std::size_t i = 1;
    for (; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] == '\\') ++i;
        if (i >= text.size() || text[i] < 32 || text[i] > 126) return false;
        bare += text[i];
    }
    if (i >= text.size()) return false;
    local = IsDotString(bare) ? bare : std::string(text.substr(0, i + 1));
    text.remove_prefix(i + 1);
    return true;
}

bool TakeLocalPart(std::string_view& text, std::string& local) {
    if (!text.empty() && text.front() == '"') return TakeQuoted(text, local);
    std::size_t const end = std::min(text.find_first_of("@>"), text.size());
    if (!IsDotString(text.substr(0, end))) return false;
    local = text.substr(0, end);
    text.remove_prefix(end);
    return true;
}

// "@one,@two:" in front of a mailbox. RFC 5321 wants it read and ignored.
bool SkipSourceRoute(std::string_view& text) {
    if (text.empty() || text.front() != '@') return true;
    std::size_t const colon = text.find(':');
    if (colon == std::string_view::npos) return false;
    std::string_view route = text.substr(0, colon);
    while (!route.empty()) {
        std::size_t const comma = std::min(route.find(','), route.size());
        if (route.front() != '@' || !IsDomain(route.substr(1, comma - 1))) return false;
        route.remove_prefix(std::min(comma + 1, route.size()));
    }
    text.remove_prefix(colon + 1);
    return true;
}

PathError TakeDomain(std::string_view& text, std::string& domain) {
    std::size_t const end = std::min(text.find('>'), text.size());
    domain = text.substr(0, end);
    text.remove_prefix(end);
    if (domain.size() > kMaxDomain) return PathError::TooLong;
    return IsDomain(domain) || IsAddressLiteral(domain) ? PathError::None : PathError::BadDomain;
}

PathError TakeMailbox(std::string_view& text, PathKind kind, Mailbox& out) {
    if (!SkipSourceRoute(text) || !TakeLocalPart(text, out.local)) return PathError::Syntax;
    if (out.local.size() > kMaxLocalPart) return PathError::TooLong;
    if (!text.empty() && text.front() == '@') {
        text.remove_prefix(1);
        PathError const error = TakeDomain(text, out.domain);
        if (error != PathError::None) return error;
    } else if (kind != PathKind::Forward || !EqualNoCase(out.local, "postmaster")) {
        return PathError::BadDomain;
    }
    return out.str().size() + 2 > kMaxPath ? PathError::TooLong : PathError::None;
}

}  // namespace

bool EqualNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return Lower(x) == Lower(y); });
}

std::string LowerCase(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), Lower);
    return out;
}

bool IsDomain(std::string_view text) {
    if (text.empty() || text.size() > kMaxDomain) return false;
    while (true) {
        std::size_t const dot = std::min(text.find('.'), text.size());
        if (!IsLabel(text.substr(0, dot))) return false;
        if (dot == text.size()) return true;
        text.remove_prefix(dot + 1);
    }
}

bool IsAddressLiteral(std::string_view text) {
    if (text.size() < 3 || text.front() != '[' || text.back() != ']') return false;
    std::string const inner(text.substr(1, text.size() - 2));
    unsigned char binary[16];
    if (inner.find('\0') != std::string::npos) return false;
    if (EqualNoCase(std::string_view(inner).substr(0, 5), "IPv6:")) {
        return inet_pton(AF_INET6, inner.c_str() + 5, binary) == 1;
    }
    return inet_pton(AF_INET, inner.c_str(), binary) == 1;
}

bool IsHelloName(std::string_view text) { return IsDomain(text) || IsAddressLiteral(text); }

PathError ParsePath(std::string_view& text, PathKind kind, Mailbox& out) {
    out = Mailbox{};
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    if (HasNonAscii(text)) return PathError::NonAscii;
    if (text.empty() || text.front() != '<') return PathError::Syntax;
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '>') {
        text.remove_prefix(1);
        out.null = true;
        return kind == PathKind::Reverse ? PathError::None : PathError::NullForbidden;
    }
    PathError const error = TakeMailbox(text, kind, out);
    if (error != PathError::None) return error;
    if (text.empty() || text.front() != '>') return PathError::Syntax;
    text.remove_prefix(1);
    return PathError::None;
}

bool ParseParameters(std::string_view text, std::vector<Parameter>& out) {
    out.clear();
    if (!text.empty() && text.front() != ' ') return false;
    while (true) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        if (text.empty()) return true;
        std::string_view const word = text.substr(0, text.find(' '));
        text.remove_prefix(word.size());
        std::size_t const equals = word.find('=');
        std::string_view const keyword = word.substr(0, equals);
        bool const keywordGood =
            !keyword.empty() && IsAlnum(keyword.front()) &&
            std::all_of(keyword.begin(), keyword.end(), [](char c) { return IsAlnum(c) || c == '-'; });
        bool const hasValue = equals != std::string_view::npos;
        std::string_view const value = hasValue ? word.substr(equals + 1) : std::string_view();
        bool const valueGood = !hasValue || (!value.empty() && std::all_of(value.begin(), value.end(), [](char c) {
            return c > 32 && c < 127 && c != '=';
        }));
        if (!keywordGood || !valueGood) return false;
        std::string upper(keyword);
        for (char& c : upper) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
        out.push_back({upper, std::string(value), hasValue});
    }
}

}  // namespace smtp
