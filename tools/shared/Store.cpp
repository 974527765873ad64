#include "tools/shared/Store.h"

#include <KORtk/Exception.h>
#include <KORtk/Text.h>
#include <QXlog/QXlog.h>
#include <dlfcn.h>
#include <system/SystemPath.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <velt/Config.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/EFabricScanAgent.h>

namespace velt_tools {
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

std::string TemporaryFolder() {
    char const* const named = ::secure_getenv("TMPDIR");
    return named && *named ? named : "/tmp";
}

std::unique_ptr<VELT::Proxy> MakeProxy(Configuration const& configuration) {
    if (!configuration.root.empty()) ::setenv("VELT_ROOT", configuration.root.c_str(), 1);
    QXlog::detail::noLogging();
    return std::make_unique<VELT::Proxy>();
}

}  // namespace

Store::Store(Configuration const& configuration, std::string const& tool) : m_proxy(MakeProxy(configuration)) {
    m_proxy->m_proxyName = configuration.proxy.empty() ? tool : configuration.proxy;
    m_proxy->m_scanDir = TemporaryFolder();
    load(configuration);
}

// A gateway would go on without the folder, with what is built in.
void Store::load(Configuration const& configuration) {
    std::string const folder = SystemPath("/config/qxxmlconf");
    if (::access(folder.c_str(), R_OK | X_OK) != 0) throw Unusable(folder + ": " + std::strerror(errno));
    auto const file = [](std::string const& name) { return VELT::Proxy::ConfigFileName(name + ".xml"); };
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

Store::~Store() { Config::initialise(nullptr); }

Config& Store::config() { return m_proxy->m_config; }

}  // namespace velt_tools
