// StoreWorld: the fixture of the store's tests: a store out of a text, and short verbs to ask it.
#pragma once

#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <string>

#include <eFabric/XmlFile.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreSnapshot.h>

namespace policyloader {

class StoreWorld : public ::testing::Test {
protected:
    static constexpr std::time_t Monday9 = 1609750800;    // 2021-01-04 09:00 UTC
    static constexpr std::time_t Saturday9 = 1610182800;  // 2021-01-09 09:00 UTC

    StoreWorld() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    static InternedString In(char const* text) { return text ? InternPool::process().intern(text) : InternedString(); }
    void Parse(std::string const& policies) { store = ParseStore("rules.xml", "<rules>" + policies + "</rules>"); }
    static std::string ErrorOf(std::string const& document) {
        try {
            ParseStore("r", document);
            return "(none)";
        } catch (eFabric::XmlError const& error) {
            return error.text();
        }
    }
    eFabric::IProductValue const* Value(char const* policy, char const* identity, char const* name,
                                        std::time_t when = Monday9) const {
        return store->productValue(In(policy), In(identity), In("s"), In(name), when);
    }
    std::string Text(char const* policy, char const* identity, char const* name, std::time_t when = Monday9) const {
        char const* text = nullptr;
        auto const* const value = Value(policy, identity, name, when);
        if (!value) return "(null)";
        return value->getString(&text) ? text : "(no text)";
    }

    std::unique_ptr<StoreSnapshot const> store;
};

}  // namespace policyloader
