// GetValue: the value of a setting as its descriptor declares it. No state; any thread.
// Failure: false for an absent value and for one that cannot be converted; the reader then takes the default. A number
// outside its limits is clamped in silence.
#pragma once

#include <eFabric/Policy.h>

#include <type_traits>

#include <velt/config_details/commdef.h>
#include <velt/config_details/internals.h>

namespace VELT::config_helper {

namespace detail {

template <class Descriptor>
struct Reader;

template <class Name, class T, class Bounds>
struct Reader<config_attribute::bounded<Name, T, Bounds>> {
    static bool Read(eFabric::IProductValue const& value, T& out) {
        T raw{};
        if (!ReadNumber(value, raw)) return false;
        out = Clamp<Bounds>(raw);
        return true;
    }
};

template <class Name, class Bounds>
struct Reader<config_attribute::bounded<Name, bool, Bounds>> {
    static bool Read(eFabric::IProductValue const& value, bool& out) { return ReadFlag(value, out); }
};

template <class Name, class Defaults>
struct Reader<config_attribute::unbounded<Name, CharBuf, Defaults>> {
    static bool Read(eFabric::IProductValue const& value, CharBuf& out) { return ReadText(value, out); }
};

template <class Name, class T>
struct Reader<config_attribute::list<Name, T>> {
    using vector = typename config_attribute::list<Name, T>::value_type;
    static bool Read(eFabric::IProductValue const& value, vector& out) {
        out = vector(&value);
        return true;
    }
};

}  // namespace detail

template <class CFGNAME>
bool GetValue(eFabric::IProductValue const* value, typename CFGNAME::value_type& out) {
    return value && detail::Reader<CFGNAME>::Read(*value, out);
}

}  // namespace VELT::config_helper
