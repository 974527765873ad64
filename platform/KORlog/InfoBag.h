// InfoBag: the values that an event carries, as an ordered set of pairs of a key and a value.
// Owner: a value; copies are deep but for nested bags, which are constant and shared. Threads: as std::vector.
// A pair that is in the bag already, key and value, is not added again. Failure: std::bad_alloc only.
#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <Export.h>
#include <KORtk/Text.h>

namespace KORlog {

class InfoBag;

using Value = std::variant<long, unsigned long, unsigned short, double, std::string, KORtk::Utf8Array,
                           std::shared_ptr<InfoBag const>>;

struct Pair {
    char const* key;  // a literal: it outlives every bag
    Value value;
};

// What a key is given by reference. It is read when the pair is made, since a bag may outlive it in a sink's queue.
template <class T>
struct Ref {
    explicit Ref(T const& value) : v(value) {}
    T const& v;
};

// A key makes pairs: key(value). int, bool and time_t become long; char texts std::string; wide texts Utf8Array.
struct Key {
    char const* name;
    template <class T>
    Pair operator()(T const& value) const;
    template <class T>
    Pair operator()(Ref<T> value) const;
};

class VELTPLATFORM_API InfoBag {
public:
    InfoBag();
    InfoBag(Pair pair);
    InfoBag& operator|=(Pair pair);
    InfoBag& operator|=(InfoBag const& other);

    std::size_t size() const { return m_items.size(); }
    bool empty() const { return m_items.empty(); }
    Value const* find(char const* key) const;  // the first of this name, or null; valid until the bag changes
    Value const* find(Key const& key) const { return find(key.name); }
    std::vector<Pair> const& items() const { return m_items; }

    bool operator==(InfoBag const& other) const;  // same pairs in the same order, nested bags by their content

private:
    std::vector<Pair> m_items;
};

VELTPLATFORM_API InfoBag operator|(InfoBag bag, Pair pair);
VELTPLATFORM_API InfoBag operator|(InfoBag bag, InfoBag const& other);
VELTPLATFORM_API InfoBag operator|(Pair first, Pair second);
VELTPLATFORM_API InfoBag operator|(Pair pair, InfoBag const& bag);

namespace detail {
inline Value MakeValue(unsigned long v) { return v; }
inline Value MakeValue(unsigned long long v) { return static_cast<unsigned long>(v); }
inline Value MakeValue(unsigned v) { return static_cast<unsigned long>(v); }
inline Value MakeValue(unsigned short v) { return v; }
inline Value MakeValue(double v) { return v; }
inline Value MakeValue(std::string v) { return v; }
inline Value MakeValue(std::string_view v) { return std::string(v); }
inline Value MakeValue(char const* v) { return std::string(v ? v : ""); }
inline Value MakeValue(KORtk::Utf8Array v) { return v; }
inline Value MakeValue(wchar_t const* v) { return KORtk::Utf8Array(v); }
inline Value MakeValue(std::wstring const& v) { return KORtk::Utf8Array(v); }
inline Value MakeValue(InfoBag v) { return std::make_shared<InfoBag const>(std::move(v)); }
inline Value MakeValue(Pair v) { return std::make_shared<InfoBag const>(std::move(v)); }
template <std::integral T>
requires(sizeof(T) <= sizeof(long) && (std::is_signed_v<T> || std::same_as<T, bool>)) Value MakeValue(T v) {
    return static_cast<long>(v);
}
}  // namespace detail

template <class T>
Pair Key::operator()(T const& value) const {
    return Pair{name, detail::MakeValue(value)};
}

template <class T>
Pair Key::operator()(Ref<T> value) const {
    return Pair{name, detail::MakeValue(value.v)};
}

}  // namespace KORlog
