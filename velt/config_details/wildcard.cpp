#include <velt/config_details/wildcard.h>

#include <array>

namespace VELT::config_types::detail {

namespace {

// The characters that mean something in an expression, and so stand for themselves only behind a backslash.
constexpr auto kIsSpecial = [] {
    std::array<bool, 256> special{};
    for (char c : std::string_view(".[]{}()\\+|^$*?")) special[static_cast<unsigned char>(c)] = true;
    return special;
}();

bool IsSpecial(char c) { return kIsSpecial[static_cast<unsigned char>(c)]; }

}  // namespace

bool Wildcard::parse(std::string_view expression) {
    if (expression.size() < 2 || expression.front() != '^' || expression.back() != '$') return false;
    char const* const end = expression.data() + expression.size() - 1;
    for (char const* at = expression.data() + 1; at != end; ++at) {
        short unit = static_cast<unsigned char>(*at);
        if (*at == '.') {
            bool const run = at + 1 != end && at[1] == '*';
            at += run;
            unit = run ? kAnyRun : kAnyOne;
        } else if (IsSpecial(*at)) {
            if (*at != '\\' || ++at == end || !IsSpecial(*at)) return false;
            unit = static_cast<unsigned char>(*at);
        }
        m_units.push_back(unit);
    }
    return true;
}

}  // namespace VELT::config_types::detail
