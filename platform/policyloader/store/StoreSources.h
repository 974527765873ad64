// StoreSources: where the values of a store come from: file and line, window, and the block that has each.
// For tools that check or explain a configuration. It works on what the files say, by the same order of inheritance as
// the look-up tables, and is slower than them by far: never on the way of a session.
//   StoreSources const sources = PolicyLoader::process().sources();   // or of a StoreSnapshot, such as ParseStore
//   gives auto const found = sources.find(policy, identity, settings, attribute, when); if (found)
//   Print(found->place.file, found->place.line, found->window, found->policy, found->identity);
// Owner: whoever asks; it keeps what it points at. Immutable, any thread. Texts are interned and live for ever.
// Failure: what is not configured is absent.
#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <eFabric/Interned.h>
#include <policyloader/store/Rule.h>

namespace policyloader {

class StoreModel;
class Value;
struct PolicyNode;

// A value as a file says it, and the block that it stands in.
struct ValueSource {
    InternedString policy;
    InternedString identity;  // null: the policy's own settings. Else the identity whose block has it: an inherited one
    char const* section = nullptr;
    char const* name = nullptr;
    Value const* value = nullptr;     // text(), items() and getAlert() give it raw
    char const* window = nullptr;     // as written; null: always
    Place place;                      // of its element
    std::vector<unsigned> itemLines;  // of a list: the line of each item
    Place replacedBy;                 // where a later file replaces it; line 0: it is in force
};

struct RuleSource {
    InternedString policy;
    InternedString identity;  // null: the policy's own
    char const* section = nullptr;
    Rule const* rule = nullptr;  // its place() is in it
};

struct IdentitySource {
    InternedString policy;
    InternedString name;
    std::vector<InternedString> inherits;
    std::vector<Place> places;  // one of each file that has it; the first decides its rank
};

struct PolicySource {
    InternedString name;
    InternedString base;                  // the one in effect, written down or by name; null: none
    std::vector<InternedString> actions;  // its own, weak to strong
    Place actionsPlace;                   // line 0: it has none of its own
    std::vector<Place> places;            // one of each file that has it; none: a standard policy not written down
};

class StoreSources {
public:
    explicit StoreSources(std::shared_ptr<StoreModel const> model) : m_model(std::move(model)) {}

    // The value that a look-up gives for the same question, with its source. `when` 0 is now.
    std::optional<ValueSource> find(InternedString policy, InternedString identity, InternedString settings,
                                    InternedString attribute, std::time_t when) const;

    // Everything that the files say, those values that a later file replaces among it; by file and place in it.
    std::vector<ValueSource> values() const;
    // Policy by policy, its own first, identities in their order of priority.
    std::vector<RuleSource> rules() const;
    std::vector<IdentitySource> identities() const;
    std::vector<PolicySource> policies() const;

private:
    std::shared_ptr<StoreModel const> m_model;
};

}  // namespace policyloader
