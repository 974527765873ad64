// Rule: one <rule .../> of a settings section: its attributes as written. What they mean is its engine's affair.
// Owner: the snapshot. Immutable, read from any thread. Texts are interned and live for ever, beyond the snapshot.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace policyloader {

class Window;

class Rule {
public:
    struct Place {
        char const* file;
        unsigned line;
        unsigned column;
    };
    using Attribute = std::pair<char const*, char const*>;  // name, value; both interned

    Rule(Place place, std::vector<Attribute> attributes, Window const* when);

    std::optional<std::string_view> get(std::string_view name) const;
    std::vector<Attribute> const& attributes() const { return m_attributes; }
    Place const& place() const { return m_place; }
    Window const* when() const { return m_when; }                // null: always
    std::uint64_t fingerprint() const { return m_fingerprint; }  // equal for equal attributes in equal order

private:
    Place m_place;
    std::vector<Attribute> m_attributes;
    Window const* m_when;
    std::uint64_t m_fingerprint;
};

}  // namespace policyloader
