// Rule: one <rule .../> of a settings section: its attributes as written. What they mean is its engine's affair.
// Owner: the snapshot. Immutable, read from any thread. Texts are interned and live for ever, beyond the snapshot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace policyloader {

class Window;

// Where something stands in a file.
struct Place {
    char const* file = "";  // interned
    unsigned line = 0;
    unsigned column = 0;
};

class Rule {
public:
    using Attribute = std::pair<char const*, char const*>;  // name, value; both interned

    Rule(Place place, std::vector<Attribute> attributes, Window const* when);

    std::optional<std::string_view> get(std::string_view name) const;
    std::vector<Attribute> const& attributes() const { return m_attributes; }  // without "when"
    Place const& place() const { return m_place; }
    bool appliesAt(std::time_t when) const;
    std::uint64_t fingerprint() const { return m_fingerprint; }  // equal for equal attributes in equal order
    std::size_t hash() const { return m_fingerprint + m_place.line; }
    friend bool operator==(Rule const& x, Rule const& y);

private:
    Place m_place;
    std::vector<Attribute> m_attributes;
    Window const* m_when;  // null: always
    std::uint64_t m_fingerprint;
};

constexpr std::uint64_t RuleKeySeed = 0x9E3779B97F4A7C15;

constexpr std::uint64_t MixRuleKey(std::uint64_t key, std::uint64_t next) {
    key = (key ^ next) * 0xFF51AFD7ED558CCD;
    key = (key ^ key >> 32) * 0xC4CEB9FE1A85EC53;
    return key ^ key >> 29;
}

}  // namespace policyloader
