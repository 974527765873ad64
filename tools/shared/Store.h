// Store: the policy store as a gateway has it, for a tool that asks it while the object lives.
// There is one in a process, as the library's tables are the process's; whatever the tool starts of the library ends
// before it. Owner: the tool. Thread: the main one. Failure: Unusable, for a configuration that a gateway would not
// start with.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

namespace VELT {
class Config;
class Proxy;
}  // namespace VELT

namespace velt_tools {

struct Unusable : std::runtime_error {
    using runtime_error::runtime_error;
};

// Which configuration is read; empty: as a gateway does without.
struct Configuration {
    std::string root;     // the folder that stands for "/"
    std::string product;  // PRODUCT.xml
    std::string proxy;    // efabric/PROXY.xml
};

class Store {
public:
    // `tool`: its name, where no proxy is chosen. Nothing is logged from now on, and what is spooled is spooled as by
    // any program.
    Store(Configuration const& configuration, std::string const& tool);
    ~Store();
    Store(Store const&) = delete;
    Store& operator=(Store const&) = delete;

    VELT::Proxy& proxy() { return *m_proxy; }
    VELT::Config& config();

private:
    void load(Configuration const& configuration);

    std::unique_ptr<VELT::Proxy> const m_proxy;
};

}  // namespace velt_tools
