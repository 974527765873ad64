// StoreModel: the policy store as its files say it, before inheritance is worked out.
// Files are added one after the other, and later ones win: a plain value replaces all earlier values of its name in the
// same policy and identity; a value with a window goes before the earlier ones; rules go before the earlier ones;
// actions, base and inherits replace. New identities go behind the known ones. Owner: its reader, then the snapshot.
// One thread while it is built. Failure: eFabric::XmlError.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <eFabric/Interned.h>
#include <policyloader/store/Rule.h>
#include <policyloader/store/Value.h>
#include <policyloader/store/Window.h>

namespace eFabric {
class XmlFile;
}

namespace policyloader {

struct SettingKey {
    char const* section;  // both interned
    char const* name;
    friend bool operator<(SettingKey const& a, SettingKey const& b) {
        return a.section != b.section ? std::less<>()(a.section, b.section) : std::less<>()(a.name, b.name);
    }
};

struct WindowedValue {
    Window const* window;
    Value const* value;
    unsigned file;
};

struct Setting {
    Value const* plain = nullptr;
    unsigned plainFile = 0;
    unsigned plainLine = 0;
    std::vector<WindowedValue> windowed;  // the first that applies counts
};

struct FileRule {
    unsigned file;
    Rule const* rule;
};

// What one policy, or one identity of a policy, has of its own.
struct Scope {
    std::map<SettingKey, Setting> settings;
    std::map<char const*, std::vector<FileRule>> rules;  // by section, interned
};

struct IdentityNode {
    InternedString name;
    std::vector<InternedString> inherits;
    Place inheritsPlace;
    unsigned file = 0;  // the last that had it
    Scope scope;
};

struct PolicyNode {
    InternedString name;
    std::optional<InternedString> base;  // null inside: none, said so. Absent: by name
    Place basePlace;
    std::optional<std::vector<InternedString>> actions;  // weak to strong
    unsigned file = 0;                                   // the last that had it
    Scope scope;
    std::vector<std::unique_ptr<IdentityNode>> identities;  // in order of priority
    std::unordered_map<char const*, IdentityNode*> identityByName;
};

class StoreModel {
public:
    void add(eFabric::XmlFile const& file);

    PolicyNode* find(InternedString name) const;
    PolicyNode& get(InternedString name);  // makes it when it is new
    std::vector<std::unique_ptr<PolicyNode>> const& policies() const { return m_policies; }

private:
    friend class StoreReader;

    unsigned m_files = 0;
    std::vector<std::unique_ptr<PolicyNode>> m_policies;
    std::unordered_map<char const*, PolicyNode*> m_policyByName;
    std::deque<Value> m_values;
    std::deque<Rule> m_rules;
    std::deque<Window> m_windows;
};

IdentityNode* FindIdentity(PolicyNode const& policy, InternedString name);
IdentityNode& GetIdentity(PolicyNode& policy, InternedString name);  // makes it when it is new

}  // namespace policyloader
