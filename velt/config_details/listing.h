// The settings as rows, for the tool that prints them; nothing that reads a setting needs it.
// A section, or a host, offers its setting_list; Describe turns it into rows. No state.
//     std::vector<SettingRow> rows = Describe(VELTCFG::smtp::Settings{});
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include <velt/config_details/commdef.h>

namespace VELT::config_attribute {

struct SettingRow {
    SettingText text;
    std::string type;
    std::string defaultValue;  // empty for a list
    std::string range;         // empty where there is none
};

namespace detail {

template <class T>
constexpr char const* TypeName() {
    if constexpr (std::is_same_v<T, bool>) return "bool";
    if constexpr (std::is_same_v<T, int>) return "int";
    if constexpr (std::is_same_v<T, unsigned>) return "unsigned";
    if constexpr (std::is_same_v<T, unsigned short>) return "unsigned short";
    if constexpr (std::is_same_v<T, CharBuf>) return "text";
}

template <class Name, class T, class Bounds>
SettingRow RowOf(bounded<Name, T, Bounds>) {
    return {Name::text, TypeName<T>(), std::to_string(Bounds::default_value),
            std::to_string(Bounds::min_value) + " to " + std::to_string(Bounds::max_value)};
}

template <class Name, class Bounds>
SettingRow RowOf(bounded<Name, bool, Bounds>) {
    return {Name::text, TypeName<bool>(), Bounds::default_value ? "true" : "false", ""};
}

template <class Name, class T, class Defaults>
SettingRow RowOf(unbounded<Name, T, Defaults>) {
    return {Name::text, TypeName<T>(), std::string("\"") + Defaults::value + "\"", ""};
}

template <class Name, class T>
SettingRow RowOf(list<Name, T>) {
    return {Name::text, std::string("list of ") + TypeName<T>(), "", ""};
}

}  // namespace detail

template <class... Descriptor>
std::vector<SettingRow> Describe(setting_list<Descriptor...>) {
    return {detail::RowOf(Descriptor{})...};
}

}  // namespace VELT::config_attribute
