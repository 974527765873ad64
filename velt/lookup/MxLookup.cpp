// The list of mail exchangers that an answer is turned into.
#include <algorithm>
#include <cstring>

#include <velt/lookup/Resolver.h>

namespace VELT {

static_assert(sizeof(Resolver::IPaddressNode) == sizeof(sockaddr_in));
static_assert(offsetof(Resolver::IPaddressNode, address) == offsetof(sockaddr_in, sin_addr));

bool Resolver::IsEqualRecordName::operator()(Record const& record) const { return std::strcmp(record.name, text) == 0; }

bool Resolver::Lookup::AddMX(unsigned max, char const* name, int preference) {
    std::size_t const length = std::strlen(name);
    if (length >= sizeof Record::name) return true;
    if (size() >= max) return false;
    auto const known = std::find_if(begin(), end(), IsEqualRecordName{name});
    Record& record = known != end() ? *known : emplace_back();
    record.preference = std::min(record.preference, preference);
    std::memcpy(record.name, name, length + 1);
    return true;
}

bool Resolver::Lookup::AddAddress(char const* name, in_addr const* address) {
    auto const known = std::find_if(begin(), end(), IsEqualRecordName{name});
    if (known == end()) return true;
    IPaddressNode node{};
    node.address = *address;
    known->addresses.push_back(node);
    return true;
}

void Resolver::Lookup::SortByPreference() { std::sort(begin(), end(), CmpRecordPref()); }

// Mail given to this machine, or to an exchanger that is not better than it, would come back.
void Resolver::Lookup::RemoveSameServerMXAnswers() {
    for (std::string const& own : s_excludedhosts) {
        auto const found = std::find_if(begin(), end(), IsEqualRecordName{own.c_str()});
        if (found == end()) continue;
        int const preference = found->preference;
        erase(std::find_if(begin(), end(), [=](Record const& r) { return r.preference == preference; }), end());
    }
}

}  // namespace VELT
