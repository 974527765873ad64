#include <velt/lookup/HostCheck.h>

#include <cstring>

#include <velt/connection/TCPConnection.h>
#include <velt/streams/NameMatch.h>
#include <velt/streams/NetUtils.h>

namespace VELT {

HostCheck::HostCheck(char const* text) : pattern(new char[std::strlen(text) + 1]) {
    std::strcpy(pattern.get(), text);
    StrToLowerCase(pattern.get());
}

int HostCheck::score(Connection* session, TCPConnection& end) { return calc_score(pattern.get(), session, end); }

std::unique_ptr<HostCheck> HostCheck::parse(char const* text, LineRemark& remark) {
    std::size_t const length = std::strlen(text);
    auto const blank = [&](std::size_t at) { return static_cast<unsigned char>(text[at]) <= ' '; };
    if (length == 0)
        remark = {"the pattern is empty: it matches no name", text};
    else if (blank(0))
        remark = {"the blank belongs to the pattern: it matches no name", text};
    else if (blank(length - 1))
        remark = {"the blank at the end belongs to the pattern: it matches no name", text + length - 1};
    return std::make_unique<HostCheck>(text);
}

// A name that does not match scores 0, and so more than a side that has no line for it at all.
int HostCheck::calc_score(char const* pattern, Connection*, TCPConnection& end) {
    if (std::strcmp(pattern, "*") == 0) return 0;
    char const* const host = end.get_host();
    if (!host || *host == '\0') return -1;
    return name_match(pattern, host, false);
}

int HostCheck::host_match(char const* pattern, char const* name) { return name_match(pattern, name, true); }

}  // namespace VELT
