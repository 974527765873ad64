#include <KORlog/InfoBag.h>

#include <algorithm>
#include <cstring>

namespace KORlog {
namespace {

using Nested = std::shared_ptr<InfoBag const>;

bool SameValue(Value const& a, Value const& b) {
    if (a.index() != b.index()) return false;
    Nested const* const first = std::get_if<Nested>(&a);
    if (!first) return a == b;
    Nested const& second = std::get<Nested>(b);
    if (!*first || !second) return *first == second;
    return **first == *second;
}

bool SamePair(Pair const& a, Pair const& b) { return std::strcmp(a.key, b.key) == 0 && SameValue(a.value, b.value); }

}  // namespace

InfoBag::InfoBag() = default;
InfoBag::InfoBag(Pair pair) { m_items.push_back(std::move(pair)); }

InfoBag& InfoBag::operator|=(Pair pair) {
    auto const same = [&](Pair const& have) { return SamePair(have, pair); };
    if (std::none_of(m_items.begin(), m_items.end(), same)) m_items.push_back(std::move(pair));
    return *this;
}

InfoBag& InfoBag::operator|=(InfoBag const& other) {
    if (&other == this) return *this;
    for (Pair const& pair : other.m_items) *this |= pair;
    return *this;
}

Value const* InfoBag::find(char const* key) const {
    for (Pair const& pair : m_items) {
        if (std::strcmp(pair.key, key) == 0) return &pair.value;
    }
    return nullptr;
}

bool InfoBag::operator==(InfoBag const& other) const {
    return std::equal(m_items.begin(), m_items.end(), other.m_items.begin(), other.m_items.end(), SamePair);
}

InfoBag operator|(InfoBag bag, Pair pair) { return std::move(bag |= std::move(pair)); }
InfoBag operator|(InfoBag bag, InfoBag const& other) { return std::move(bag |= other); }
InfoBag operator|(Pair first, Pair second) { return InfoBag(std::move(first)) | std::move(second); }
InfoBag operator|(Pair pair, InfoBag const& bag) { return InfoBag(std::move(pair)) | bag; }

}  // namespace KORlog
