// SettingsView: what an engine sees of the policy store for one policy, one identity and one time.
// A small value over immutable tables; those of the process's store live for ever, and so do the texts and
// rules that a view gives. Threads: any, without a lock. Failure: what is not configured, or has another form, is
// absent.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>
#include <vector>

#include <eFabric/Interned.h>
#include <policyloader/store/Rule.h>

namespace policyloader {

class Value;
struct Plan;
struct StoreTables;

class SettingsView {
public:
    SettingsView(StoreTables const& tables, Plan const* plan, std::time_t when)
        : m_tables(&tables), m_plan(plan), m_when(when) {}

    // The identity's own value first, then those it inherits, the policy's, its base policies'.
    bool has(std::string_view section, std::string_view name) const { return find(section, name) != nullptr; }
    std::optional<std::string_view> text(std::string_view section, std::string_view name) const;
    unsigned number(std::string_view section, std::string_view name, unsigned standard) const;
    double real(std::string_view section, std::string_view name, double standard) const;
    bool flag(std::string_view section, std::string_view name, bool standard) const;
    std::vector<std::string_view> list(std::string_view section, std::string_view name) const;  // a scalar: one element

    // The rules of a section that apply at this time: the identity's, the inherited ones', the policy's, its bases'.
    std::vector<Rule const*> rules(std::string_view section) const;
    // Equal for equal results of rules(), across identities, policies and reloads: cache compiled patterns under it.
    std::uint64_t rulesKey(std::string_view section) const;

    // The place in the policy's list of actions: 0 equal, 1 `a` is weaker, 2 `a` is stronger, -1 one is unknown.
    int compareActions(char const* a, char const* b) const;

    std::time_t when() const { return m_when; }  // never 0

private:
    char const* known(std::string_view text) const;  // its interned form; null: no section or setting of this name
    Value const* find(std::string_view section, std::string_view name) const;

    StoreTables const* m_tables;
    Plan const* m_plan;  // null: the policy is not known, and the view is empty
    std::time_t m_when;
};

// Who hands out views: the loader (always of the newest snapshot), or one snapshot itself.
class SettingsSource {
public:
    // `when` 0 is now. A null or unknown identity sees the policy's own settings.
    virtual SettingsView view(InternedString policy, InternedString identity, std::time_t when) const = 0;

protected:
    ~SettingsSource() = default;
};

}  // namespace policyloader
