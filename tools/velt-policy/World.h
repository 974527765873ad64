// World: a configuration, loaded as a gateway loads it and by the same code, with nothing opened and nothing started.
// What a gateway would report, or pass over in silence, is told to a watcher. There is one at a time, as the library's
// tables are the process's. Owner: main, or a test. Thread: one. Failure: what cannot be loaded is a finding, and the
// rest is loaded all the same.
#pragma once

#include <velt/Config.h>
#include <velt/lookup/NetPolicy.h>
#include <velt/runtime/Proxy.h>

#include <memory>
#include <string>

#include <QXid/Rules.h>
#include <policyloader/store/PolicyLoader.h>

#include "tools/velt-policy/Findings.h"

namespace velt_policy {

struct Choice {
    std::string root;     // the folder that stands for "/"
    std::string product;  // PRODUCT.xml; empty: none
    std::string proxy;    // efabric/PROXY.xml and PROXY-logging.xml; empty: none
};

class World {
public:
    World(Choice choice, Findings& findings);
    ~World();
    World(World const&) = delete;
    World& operator=(World const&) = delete;

    // Null, or why there is nothing to load.
    static char const* unusable(std::string const& root);

    void loadNetworkLists();  // into the proxy, so that sessions have a direction
    bool hasStore() const { return m_hasStore; }
    bool hasRules() const { return m_hasRules; }                   // identities.xml can be read
    bool starts() const { return m_hasStore && m_hasIdentities; }  // a gateway would
    policyloader::StoreSources sources() const { return m_loader.sources(); }
    QXidRules const& rules() const { return *m_rules; }
    VELT::Config& config() { return m_config; }
    Choice const& choice() const { return m_choice; }
    static std::string path(std::string const& name);  // of a file of the configuration

private:
    void loadStore(Findings& findings);
    void loadIdentities(Findings& findings);
    static void tellIdentityErrors(Findings& findings);
    void loadRules(Findings& findings);
    std::vector<std::string> storeFiles() const;

    Choice const m_choice;
    policyloader::PolicyLoader m_loader;
    bool m_hasStore = false;
    bool m_hasIdentities = false;
    bool m_hasRules = false;
    std::unique_ptr<VELT::Proxy> m_proxy;
    std::unique_ptr<QXidRules> m_rules;  // every identity of a policy, those with a bad pattern among them
    VELT::Config m_config;
};

}  // namespace velt_policy
