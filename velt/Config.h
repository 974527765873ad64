// Config: the road from the policy store to a reader. It turns a policy slot and the two names of a setting into the
// store's value, and works out which identity a slot stands for.
// Owner: one object in Proxy for the process, and one in each Connection by value.
// Threads: a connection's Config belongs to that connection's thread; the process-wide one is read before threads
// start.
//          The process-wide tables are written by initialise() alone and read without lock afterwards.
// Failure: an absent or unusable setting is its default, without a message; before initialise() every setting is.
#pragma once

#include <eFabric/Interned.h>
#include <eFabric/Policy.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include <netinet/in.h>

#include <velt/Export.h>
#include <velt/config_details/cache.h>
#include <velt/config_details/commdef.h>
#include <velt/config_details/helpers.h>

class Identity;
class QXidRules;

namespace VELT {

class Connection;
struct ScanContext;

// One envelope address, with the directory groups it belongs to once they are known.
class VELT_API ConfigEmailAddress {
public:
    ConfigEmailAddress() = default;
    void Setup(std::string& text);  // takes the text over; what was known of the old address is forgotten
    std::string const& getAddress() const { return address; }

    bool groupsKnown = false;
    std::vector<std::string> groups;
    std::string address;
};

class VELT_API Config {
public:
    // The slots: which group of policies a setting is read through.
    enum PolicyIndex : unsigned {
        POLICY_BASE = 0,
        POLICY_CONNECTION = 1,
        POLICY_CONTENT = 2,
        POLICY_TRANSPORT = 3,
        POLICY_PROTOCOL = 4,
        POLICY_CONST = 5,
        POLICY_MACHINE = 6,
        POLICY_NETWORK = 7,
        POLICY_SYSTEM = 8,
    };
    static constexpr unsigned s_policyCount = 9;

    // One slot: the identity that its policy is read with. The identity is worked out at the first read after a marking
    // and kept until the next one.
    class VELT_API PolicyInfo {
    public:
        PolicyInfo() = default;
        void set(unsigned int newIndex) { index = newIndex; }
        void set(PolicyInfo* other);                    // takes its identity, which then counts as worked out
        void changed() { m_changed = true; }            // the identity is worked out again at the next read
        void resolve(Config* owner);                    // works the identity out now
        eFabric::InternedString policy(Config* owner);  // the identity, null for none

        // As Config::getProductValue, with this slot's identity under the policy id of `policy`.
        eFabric::IProductValue const* get(Config* owner, unsigned int policy, eFabric::InternedString const& settings,
                                          eFabric::InternedString const& attribute);

        void save_state(std::string& out) const;  // appends the identity's text; resolves nothing
        void restore_state(Config* owner, std::string const& field);

        // The facts that rules ask for. Null, or "" for a host, while the slot has no owner or no connection.
        ConfigEmailAddress* get_recipient_mail() const;
        ConfigEmailAddress* get_source_mail() const;
        Connection* get_connection() const;
        char const* get_client_host() const;
        char const* get_server_host() const;
        sockaddr_in const* get_client_address() const;
        sockaddr_in const* get_server_address() const;

        Config* config = nullptr;
        unsigned index = 0;
        bool m_changed = false;
        eFabric::InternedString identity;

    private:
        eFabric::InternedString SelectIdentity();
    };

    Config();
    ~Config();
    Config(Config const& other);
    Config& operator=(Config const& other);  // all fields; the slots then belong to this object

    // Once per process, after the scan agent's load: takes the store, interns the policy ids and loads the identities.
    // Throws what the rule file's patterns and the rule engine throw.
    static void initialise();
    static void initialise(eFabric::IPolicyLoader const* loader);  // with this store, which outlives every Config

    // The process-wide store; null before initialise().
    static eFabric::IPolicyLoader const* getPolicyLoader() { return s_Loader; }

    // The store's value, null when there is none. The store owns it for ever, yet a later read may give another one.
    eFabric::IProductValue const* getProductValue(unsigned int policy, eFabric::InternedString const& settings,
                                                  eFabric::InternedString const& attribute);

    // The start of a connection's own Config: chooses the direction, takes the parent's identities and marks them.
    void set(bool inbound, Connection* connection, Config* parent);

    // Each of these says that a fact of the connection has changed: slots 1 to 8 are marked. Nothing else happens: keys
    // and values are not kept.
    void allchange();
    void set(std::string const& key, std::string const& value);
    void set(char const* key, std::string const& value);  // throws std::logic_error for a null key
    void remove(std::string const& key);
    void remove(char const* key);  // throws std::logic_error for a null key
    void set_source_mail_address(std::string address);
    void set_recipient_mail_address(std::string address);

    // What a scan is run with: policy slot 2, "content".
    void set_scan_policy(ScanContext* context);  // exactly the slot's identity
    // Adds the identity unless it is there already. priority: 0 is the highest, -1 an identity without one.
    void set_scan_identity(ScanContext* context, int& priority, eFabric::InternedString& identity);
    void force_scan_identity(ScanContext* context, eFabric::InternedString const& identity);  // exactly this one
    // Reduces the identities to the one of the lowest priority number; outputs are untouched when there are none.
    void set_scan_highest_identity(ScanContext* context, int& priority, eFabric::InternedString& identity);
    bool compare_master_actions(ScanContext* context, char const* first, char const* second);

    // One line that carries direction and identities to another process.
    std::string save_state() const;
    void restore_state(std::string const& text);  // from now on no identity is worked out again

    // Position of an identity in its policy's list, -1 when it is not there; and the identity of a name, or null.
    static int find_identity_priority(unsigned row, unsigned index, eFabric::InternedString const& identity);
    static eFabric::InternedString find_identity(unsigned row, unsigned index, char const* text);

    // Owned by this object's thread.
    Connection* connection = nullptr;  // null in the process-wide object
    bool inbound = false;              // the row of the policy ids: true "_in", false "_out"
    bool restored = false;             // set by restore_state, never cleared
    std::array<PolicyInfo, s_policyCount> policies;
    ConfigEmailAddress source;
    ConfigEmailAddress recipient;

    // Process-wide: written by initialise(), then read without lock.
    static eFabric::IPolicyLoader const* s_Loader;
    static std::unique_ptr<QXidRules> s_IdentityResolver;
    static eFabric::InternedString s_PolicyIds[2][s_policyCount];
    static std::vector<eFabric::InternedString> s_Identities[2][s_policyCount];
    static std::vector<Identity const*> s_IdentityExpressions[2][s_policyCount];  // parallel to s_Identities

private:
    void AdoptSlots();
    static void initialise_policy_ids();
    static void initialise_identities();
};

// Reads one setting: the store's value, clamped to the descriptor's bounds, or the default.
//     unsigned const timeoutSeconds = ReadSetting<VELTCFG::network::Timeout>(config);
template <class Descriptor>
typename Descriptor::value_type ReadSetting(Config& config, unsigned policyIndex = Descriptor::name::text.policy) {
    using config_helper::CfgNameCache;
    eFabric::IPolicyLoader const* const loader = Config::getPolicyLoader();
    eFabric::InternedString const& attribute = CfgNameCache<Descriptor>::value.attribute(loader);
    eFabric::InternedString const& settings = CfgNameCache<Descriptor>::value.settings(loader);
    typename Descriptor::value_type value{};
    if (!config_helper::GetValue<Descriptor>(config.getProductValue(policyIndex, settings, attribute), value)) {
        return Descriptor::default_value();
    }
    return value;
}

}  // namespace VELT
