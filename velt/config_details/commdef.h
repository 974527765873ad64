// How a setting is declared: as a type, not an object.
//
// A name tag is an empty type in VELTCFG::<section>, called attrname_<Key> (listname_<Key> for a repeated setting). Its
// static member `text` tells section, key, unit and help. A descriptor joins the tag with a type, a default and bounds:
//
//     namespace VELTCFG::smtp {
//     struct attrname_GreetTimeout {
//         static constexpr VELT::config_attribute::SettingText text{"smtp", "GreetTimeout", "seconds",
//                                                                   "How long a client may take to say its name."};
//     };
//     using GreetTimeout = VELT::config_attribute::bounded<attrname_GreetTimeout, unsigned,
//                              VELT::config_attribute::integral_bounds<unsigned, 300, 1, 3600>>;
//     using Settings = VELT::config_attribute::setting_list<GreetTimeout>;   // what the listing of settings shows
//     }
//
// A host daemon declares its own settings in the same way and reads them with VELT::ReadSetting (velt/Config.h).
// A default outside its own bounds does not compile. Nothing here exists at run time.
#pragma once

#include <KORtk/Text.h>

#include <limits>
#include <string>
#include <type_traits>

#include <velt/config_details/vector.h>

namespace VELT::config_attribute {

// What a name tag says of its setting. `policy` is the policy slot that the setting is read through, 0 being "base".
struct SettingText {
    char const* section;
    char const* key;
    char const* unit;  // empty: the value has none
    char const* help;  // for the operator: one or two sentences
    unsigned policy = 0;
};

template <class T, T Default, T Min, T Max>
struct integral_bounds {
    static_assert(Min <= Default && Default <= Max, "a default lies outside its own bounds");
    using value_type = T;
    static constexpr T default_value = Default;
    static constexpr T min_value = Min;
    static constexpr T max_value = Max;
};

template <bool Default>
struct bool_bounds {
    using value_type = bool;
    static constexpr bool default_value = Default;
};

// A number or flag with a default and limits.
template <class Name, class T, class Bounds>
struct bounded {
    static_assert(std::is_same_v<T, typename Bounds::value_type>, "a setting and its bounds differ in type");
    using name = Name;
    using value_type = T;
    using bounds = Bounds;
    static constexpr T default_value() { return Bounds::default_value; }
};

// A text. Defaults::value is the default's literal.
template <class Name, class T, class Defaults>
struct unbounded {
    using name = Name;
    using value_type = T;
    using defaults = Defaults;
    static T default_value() { return T(Defaults::value); }
};

// A repeated setting; it has no default: an absent one is an empty vector.
template <class Name, class T>
struct list {
    using name = Name;
    using element_type = T;
    using value_type = config_types::vector<T, typename config_types::detail::element_converter<T>::type>;
    static constexpr value_type default_value() { return {}; }
};

// The settings that one section (or one host) declares, for the listing and for nothing else.
template <class... Descriptor>
struct setting_list {};

}  // namespace VELT::config_attribute
