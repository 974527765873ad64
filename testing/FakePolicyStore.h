// FakePolicyStore: a policy store whose content a test writes down, with no files and no engines.
// Owner: the test; it must outlive every Config that reads from it, its interned texts live for ever.
// Threads: Put before others start; reads from any thread. Failure: what was not put is null.
#pragma once

#include <eFabric/Policy.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace velt_testing {

// One value. What it was not made as, it cannot be read as.
class FakeValue final : public eFabric::IProductValue {
public:
    static FakeValue Unsigned(unsigned value) {
        FakeValue made;
        made.m_unsigned = value;
        return made;
    }
    static FakeValue Int(int value) {
        FakeValue made;
        made.m_int = value;
        return made;
    }
    static FakeValue Flag(unsigned char byte) {  // any byte: a store may leave more than 0 and 1
        FakeValue made;
        made.m_flag = byte;
        return made;
    }
    static FakeValue Text(std::string value) {
        FakeValue made;
        made.m_text = std::move(value);
        return made;
    }
    static FakeValue NullText() {  // a store that delivers a text and leaves the pointer alone
        FakeValue made;
        made.m_nullText = true;
        return made;
    }
    static FakeValue List(std::vector<FakeValue> elements) {
        FakeValue made;
        made.m_elements = std::move(elements);
        return made;
    }
    static FakeValue Unreadable() { return {}; }
    static FakeValue Missing() {  // an element that the list answers null for
        FakeValue made;
        made.m_missing = true;
        return made;
    }

    unsigned size() const override { return static_cast<unsigned>(m_elements.size()); }
    eFabric::IProductValue const* at(unsigned index) const override {
        return m_elements[index].m_missing ? nullptr : &m_elements[index];
    }
    bool getInt(int* out) const override { return Give(m_int, out); }
    bool getUnsigned(unsigned* out) const override { return Give(m_unsigned, out); }
    bool getBool(bool* out) const override {
        if (m_flag) *reinterpret_cast<unsigned char*>(out) = *m_flag;
        return m_flag.has_value();
    }
    bool getString(char const** out) const override {
        if (m_text) *out = m_text->c_str();
        return m_text || m_nullText;
    }
    bool getAlert(eFabric::ProductAlertValue*) const override { return false; }

private:
    template <class T>
    static bool Give(std::optional<T> const& value, T* out) {
        if (value) *out = *value;
        return value.has_value();
    }

    std::optional<int> m_int;
    std::optional<unsigned> m_unsigned;
    std::optional<unsigned char> m_flag;
    std::optional<std::string> m_text;
    std::vector<FakeValue> m_elements;
    bool m_nullText = false;
    bool m_missing = false;
};

class FakeIdentityList final : public eFabric::IIdentityList {
public:
    unsigned size() const override { return static_cast<unsigned>(names.size()); }
    InternedString at(unsigned index) const override { return names[index]; }
    std::vector<InternedString> names;
};

class FakePolicyStore : public eFabric::IPolicyLoader {
public:
    virtual ~FakePolicyStore() = default;

    // A value of one policy, for those without an identity or for one identity.
    void Put(std::string const& policy, std::string const& section, std::string const& key, FakeValue value,
             std::string const& identity = {}) {
        m_values.insert_or_assign({policy, identity, section, key}, std::move(value));
    }
    void Remove(std::string const& policy, std::string const& section, std::string const& key) {
        m_values.erase({policy, {}, section, key});
    }
    void PutIdentities(std::string const& policy, std::vector<std::string> const& names) {
        for (std::string const& name : names) m_identities[policy].names.push_back(internAttribute(name.c_str()));
    }

    InternedString internAttribute(char const* text) const override { return Intern(text); }
    InternedString internSettings(char const* text) const override { return Intern(text); }
    eFabric::IIdentityList const* identities(InternedString const& policy, int*) const override {
        auto const found = m_identities.find(policy.c_str());
        return found == m_identities.end() ? nullptr : &found->second;
    }
    eFabric::IProductValue const* productValue(InternedString const& policy, InternedString const& identity,
                                               InternedString const& settings, InternedString const& attribute,
                                               std::time_t when, int* status) const override {
        ++reads;
        lastTime = when;
        lastStatus = *status;
        *status = statusAnswer;
        lastPolicy = policy;
        lastIdentity = identity;
        auto const found =
            m_values.find({policy.c_str(), identity ? identity.c_str() : "", settings.c_str(), attribute.c_str()});
        return found == m_values.end() ? nullptr : &found->second;
    }
    int compareActions(InternedString const& policy, char const* first, char const* second) const override {
        lastPolicy = policy;
        lastActions = {first, second};
        return actionsAnswer;
    }

    bool initialise(eFabric::eConfig&, int, KORPropertyBag*) override { return true; }
    IScanThread* createScanThread(InternedString) override { return nullptr; }
    int countEngines() const override { return 0; }
    IKORPropertyBag const* engineInformation(int) const override { return nullptr; }
    IKORError const& lastError() const override { return m_error; }

    int actionsAnswer = 0;
    int statusAnswer = 0;                       // of every read, whatever it gives
    mutable std::atomic<unsigned> interned{0};  // calls, not texts
    mutable std::atomic<unsigned> reads{0};
    mutable std::time_t lastTime = 0;
    mutable int lastStatus = -1;
    mutable InternedString lastPolicy;
    mutable InternedString lastIdentity;
    mutable std::pair<std::string, std::string> lastActions;

private:
    class NoError final : public IKORError {
    public:
        bool IsSet() const override { return false; }
        unsigned long GetCode() const override { return 0; }
        int GetLevel() const override { return 0; }
        wchar_t const* GetText() const override { return L""; }
        wchar_t const* GetDetail() const override { return L""; }
        char const* GetAttribute(char const*) const override { return nullptr; }
        char const* FirstAttribute(long&) const override { return nullptr; }
        char const* NextAttribute(long&) const override { return nullptr; }
    };

    // Interned texts outlive their store, as settings keep the first store's names for the life of the process.
    InternedString Intern(char const* text) const {
        static std::mutex mutex;
        static std::set<std::string> texts;
        ++interned;
        std::lock_guard<std::mutex> const hold(mutex);
        return InternedString(texts.insert(text).first->c_str());
    }

    std::map<std::tuple<std::string, std::string, std::string, std::string>, FakeValue> m_values;
    std::map<std::string, FakeIdentityList> m_identities;
    NoError m_error;
};

}  // namespace velt_testing
