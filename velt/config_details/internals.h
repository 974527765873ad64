// The conversions behind GetValue: one stored value into one C++ type. No state; any thread.
// Failure: false, with the output untouched; a number outside its limits is clamped and is no failure.
#pragma once

#include <eFabric/Policy.h>

#include <algorithm>
#include <limits>
#include <new>

#include <velt/config_details/vector.h>

namespace VELT::config_helper::detail {

constexpr unsigned short NarrowToShort(unsigned value) {
    return static_cast<unsigned short>(std::min<unsigned>(value, std::numeric_limits<unsigned short>::max()));
}

template <class Bounds, class T>
constexpr T Clamp(T value) {
    return std::clamp<T>(value, Bounds::min_value, Bounds::max_value);
}

inline bool ReadNumber(eFabric::IProductValue const& value, unsigned& out) { return value.getUnsigned(&out); }

inline bool ReadNumber(eFabric::IProductValue const& value, int& out) { return value.getInt(&out); }

inline bool ReadNumber(eFabric::IProductValue const& value, unsigned short& out) {
    unsigned wide = 0;
    if (!value.getUnsigned(&wide)) return false;
    out = NarrowToShort(wide);
    return true;
}

// A store may leave any byte in the flag: it is looked at as a byte, and all but 0 is true.
inline bool ReadFlag(eFabric::IProductValue const& value, bool& out) {
    alignas(bool) unsigned char byte[sizeof(bool)];
    if (!value.getBool(::new (byte) bool(false))) return false;
    out = byte[0] != 0;
    return true;
}

// The text is borrowed from the store.
inline bool ReadText(eFabric::IProductValue const& value, CharBuf& out) {
    char const* text = nullptr;
    if (!value.getString(&text)) return false;
    out = text ? CharBuf(text) : CharBuf();
    return true;
}

}  // namespace VELT::config_helper::detail
