// StoreModel: the policy store as its files say it, before inheritance is worked out.
// Files are added one after the other, and later ones win: a plain value replaces all earlier values of its name in the
// same policy and identity; a value with a window goes before the earlier ones; rules go before the earlier ones;
// actions, base and inherits replace. New identities go behind the known ones. Owner: its reader, then the snapshot.
// One thread while it is built. Failure: eFabric::XmlError.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <eFabric/Interned.h>
#include <policyloader/store/StorePool.h>

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

// One value as a file says it.
struct SaidValue {
    Value const* value = nullptr;
    Window const* window = nullptr;   // null: always
    char const* when = nullptr;       // the window as written, interned
    unsigned file = 0;                // from 1, in the order in which they were added
    Place place;                      // of its element
    std::vector<unsigned> itemLines;  // of a list
};

struct ReplacedValue {
    SaidValue said;
    Place by;  // of the value of a later file
};

struct Setting {
    SaidValue plain;                  // without a value: there is none
    std::vector<SaidValue> windowed;  // the first that applies counts
    std::vector<ReplacedValue> replaced;
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
    unsigned file = 0;          // the last that had it
    std::vector<Place> places;  // of its elements, one of each file that has it
    Scope scope;
};

struct PolicyNode {
    InternedString name;
    std::optional<InternedString> base;  // null inside: none, said so. Absent: by name
    Place basePlace;
    std::optional<std::vector<InternedString>> actions;  // weak to strong
    Place actionsPlace;
    unsigned file = 0;          // the last that had it
    std::vector<Place> places;  // of its elements, one of each file that has it
    Scope scope;
    std::vector<std::unique_ptr<IdentityNode>> identities;  // in order of priority
    std::unordered_map<char const*, IdentityNode*> identityByName;
};

class StoreModel {
public:
    explicit StoreModel(std::shared_ptr<StorePool> pool = std::make_shared<StorePool>()) : m_pool(std::move(pool)) {}
    void add(eFabric::XmlFile const& file);

    PolicyNode* find(InternedString name) const;
    PolicyNode& get(InternedString name);  // makes it when it is new
    std::vector<std::unique_ptr<PolicyNode>> const& policies() const { return m_policies; }
    StorePool& pool() const { return *m_pool; }

private:
    friend class StoreReader;

    std::shared_ptr<StorePool> const m_pool;  // has the values, windows and rules
    unsigned m_files = 0;
    std::vector<std::unique_ptr<PolicyNode>> m_policies;
    std::unordered_map<char const*, PolicyNode*> m_policyByName;
};

IdentityNode* FindIdentity(PolicyNode const& policy, InternedString name);
IdentityNode& GetIdentity(PolicyNode& policy, InternedString name);  // makes it when it is new

}  // namespace policyloader
