#include <velt/ldap/Escape.h>

namespace VELT {

namespace {

constexpr std::string_view kFilterSpecials("*()\\\0", 5);
constexpr std::string_view kNameSpecials("\"+,;<>\\=");
constexpr std::string_view kOtherBlanks("\t\n\v\f\r");

void AppendHex(std::string& text, char byte) {
    constexpr char digits[] = "0123456789abcdef";
    auto const value = static_cast<unsigned char>(byte);
    text += {'\\', digits[value >> 4], digits[value & 15]};
}

bool IsAtAnEnd(std::string_view value, std::size_t at) { return at == 0 || at + 1 == value.size(); }

bool HasToBeEscapedInName(std::string_view value, std::size_t at) {
    char const one = value[at];
    if (kNameSpecials.find(one) != std::string_view::npos) return true;
    if (one == '#') return at == 0;
    return one == ' ' && IsAtAnEnd(value, at);
}

// Other blanks at an end are dropped by directories and their libraries as a space is.
bool HasToBeHexInName(std::string_view value, std::size_t at) {
    return value[at] == '\0' || (kOtherBlanks.find(value[at]) != std::string_view::npos && IsAtAnEnd(value, at));
}

}  // namespace

std::string escape_filter(std::string_view value) {
    std::string text;
    text.reserve(value.size());
    for (char const one : value) {
        if (kFilterSpecials.find(one) == std::string_view::npos)
            text.push_back(one);
        else
            AppendHex(text, one);
    }
    return text;
}

std::string escape_dn(std::string_view value) {
    std::string text;
    text.reserve(value.size());
    for (std::size_t at = 0; at < value.size(); ++at) {
        if (HasToBeHexInName(value, at)) {
            AppendHex(text, value[at]);
            continue;
        }
        if (HasToBeEscapedInName(value, at)) text.push_back('\\');
        text.push_back(value[at]);
    }
    return text;
}

}  // namespace VELT
