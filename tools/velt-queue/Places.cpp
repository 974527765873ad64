#include "tools/velt-queue/Places.h"

#include <KORtk/Exception.h>
#include <KORtk/Text.h>
#include <QXlog/QXlog.h>
#include <dlfcn.h>
#include <system/SystemPath.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <gateways/smtp/SmtpSettings.h>
#include <velt/Config.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/EFabricScanAgent.h>

namespace velt_queue {
namespace {

using VELT::Config;
using VELT::EFabricScanAgent;

std::string Narrow(wchar_t const* text) { return text ? KORtk::Utf8Array(text).str() : std::string(); }

// What the framework says when it does not start. Its loader is the process's.
std::string StartError() {
    using Create = eFabric::IPolicyLoader* (*)(int, int);
    auto const create = reinterpret_cast<Create>(::dlsym(RTLD_DEFAULT, "CreatePolicyLoader"));
    if (!create) return "libpolicyloader.so cannot be loaded";
    IKORError const& error = create(3, 1)->lastError();
    std::string const detail = Narrow(error.GetDetail());
    return Narrow(error.GetText()) + (detail.empty() ? "" : ": " + detail);
}

// The policy store of a gateway, while the object lives.
class Store {
public:
    explicit Store(Configuration const& configuration) : m_proxy(new VELT::Proxy) {
        std::string const folder = SystemPath("/config/qxxmlconf");
        if (::access(folder.c_str(), R_OK | X_OK) != 0) throw Unusable(folder + ": " + std::strerror(errno));
        auto const file = [](std::string const& name) { return VELT::Proxy::ConfigFileName(name + ".xml"); };
        m_proxy->m_proxyName = configuration.proxy.empty() ? "velt-queue" : configuration.proxy;
        std::string const product = configuration.product.empty() ? "" : file(configuration.product);
        std::string const own = configuration.proxy.empty() ? "" : file("efabric/" + configuration.proxy);
        if (!EFabricScanAgent::load(product, m_proxy->m_proxyName, false, own.empty() ? nullptr : own.c_str()))
            throw Unusable(StartError());
        try {
            Config::initialise(EFabricScanAgent::getPolicyLoader());
        } catch (KORtk::Exception const& error) {
            throw Unusable(error.text());
        }
    }
    ~Store() {
        Config::initialise(nullptr);
        delete m_proxy;
    }
    Store(Store const&) = delete;
    Store& operator=(Store const&) = delete;
    Config& config() { return m_proxy->m_config; }

private:
    VELT::Proxy* const m_proxy;
};

}  // namespace

char const* NameOf(Queue queue) { return queue == Queue::Deferred ? "deferred" : "quarantine"; }

Places ReadPlaces(Configuration const& configuration) {
    if (!configuration.root.empty()) ::setenv("VELT_ROOT", configuration.root.c_str(), 1);
    QXlog::detail::noLogging();
    Store store(configuration);
    smtp::KeepSettings const keep = smtp::ReadKeepSettings(store.config());
    std::string const relay = VELT::ReadSetting<VELTCFG::smtp::RelayHost>(store.config()).str();
    unsigned const port = VELT::ReadSetting<VELTCFG::smtp::RelayPort>(store.config());
    return {keep.directory, keep.quarantine, relay.empty() ? "" : relay + ':' + std::to_string(port),
            keep.longestGap()};
}

}  // namespace velt_queue
