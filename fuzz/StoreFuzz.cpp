// The two XML files of policy: what parses answers look-ups, and what does not names its place.
#include <ctime>
#include <string>

#include <QXid/IdentityFile.h>
#include <eFabric/XmlFile.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreSnapshot.h>

#include "fuzz/Input.h"

using policyloader::InternPool;
using velt_fuzz::Require;

namespace {

void CheckError(eFabric::XmlError const& error) {
    Require(!error.reason().empty(), "an error has a reason");
    Require(error.text().find(error.reason()) != std::string::npos, "an error's text holds its reason");
    Require(error.place().line == 0 || error.place().column > 0, "a line comes with a column");
}

void Ask(policyloader::StoreSnapshot const& store, char const* policy, InternedString identity) {
    constexpr std::time_t Monday9 = 1609750800;
    auto const name = InternPool::process().intern(policy);
    auto const view = store.view(name, identity, Monday9);
    Require(view.has("s", "a") == (store.productValue(name, identity, InternPool::process().intern("s"),
                                                      InternPool::process().intern("a"), Monday9) != nullptr),
            "a view and a look-up agree");
    auto const key = view.rulesKey("s");
    Require(key == view.rulesKey("s") && view.rules("s").size() < 1000000, "rules are stable");
    Require(store.compareActions(name, "LOG", "DENY") != 0, "two actions are not equal");
}

void Store(std::string const& text) {
    try {
        auto const store = policyloader::ParseStore("store", text);
        for (auto const* const policy : {"base", "content_in", "p"}) {
            auto const& identities = store->identities(InternPool::process().intern(policy));
            Ask(*store, policy, InternedString());
            for (unsigned i = 0; i < identities.size(); ++i) Ask(*store, policy, identities.at(i));
        }
    } catch (eFabric::XmlError const& error) {
        CheckError(error);
    }
}

bool EveryAtomHolds(AtomicValue const&, AtomicValue const&, AtomicValue const&, void*, EvalData*&) { return true; }

void Identities(std::string const& text) {
    try {
        auto const list = qxid::ParseIdentities("identities", text);
        for (auto const& error : list.errors) CheckError(error);
        for (auto const& entry : list.entries) {
            if (!entry.expression) continue;
            bool const holds = entry.expression->holds(&EveryAtomHolds, nullptr);
            Require(holds == entry.expression->holds(&EveryAtomHolds, nullptr), "an expression is stable");
        }
    } catch (eFabric::XmlError const& error) {
        CheckError(error);
    }
}

}  // namespace

// The first byte chooses the file; without one of the two, the text stands for the condition of an identity.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    unsigned const kind = input.Byte();
    std::string const text = input.Rest();
    if (kind == 'r')
        Store(text);
    else if (kind == 'i')
        Identities(text);
    else
        Identities("<identities><identity name='i'><![CDATA[" + text + "]]></identity></identities>");
    return 0;
}
