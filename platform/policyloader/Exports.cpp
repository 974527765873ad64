// What libpolicyloader.so exports.
#include <eFabric/Policy.h>
#include <policyloader/store/PolicyLoader.h>

// Every version and flavour of the interface is served by the one loader.
eFabric::IPolicyLoader* CreatePolicyLoader(int, int) { return &policyloader::PolicyLoader::process(); }

void ShutdownPolicyLoader() { policyloader::PolicyLoader::Shutdown(); }
