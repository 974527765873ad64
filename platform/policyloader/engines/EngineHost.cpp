#include <policyloader/engines/EngineHost.h>

#include <mutex>
#include <new>

#include <gmime/gmime.h>

#include <policyloader/engines/ClamdScan.h>
#include <policyloader/engines/ScanPlan.h>
#include <policyloader/engines/ScanThread.h>
#include <policyloader/engines/SignatureDatabase.h>

namespace policyloader {
namespace {

constexpr char kEngineVersion[] = "1.0.0";
constexpr char kDatabaseName[] = "/signatures.db";

// The library is never shut down: threads may still scan while the process ends.
void StartMimeLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { g_mime_init(); });
}

std::unique_ptr<KORPropertyBag> Information(char const* type, std::string const& definitions) {
    auto bag = std::make_unique<KORPropertyBag>();
    bag->NewProperty("EngineType")->SetNarrow(type);
    bag->NewProperty("Version")->SetNarrow(kEngineVersion);
    bag->NewProperty("Definitions")->SetNarrow(definitions.c_str());
    return bag;
}

}  // namespace

EngineHost::EngineHost()
    : m_ruleCaches(std::make_shared<RuleCaches>()),
      m_virusServers(std::make_shared<ClamdServers>()),
      m_spamServers(std::make_shared<ServerRota>()) {
    StartMimeLibrary();
}
EngineHost::~EngineHost() = default;

bool EngineHost::initialise(std::string const& avDirectory, ErrorState& error) {
    m_information.clear();
    m_signatures = SignatureDatabase::load(avDirectory + kDatabaseName, error);
    if (!m_signatures) return false;
    m_information.push_back(Information(kAntiVirusName, m_signatures->definitions()));
    m_information.push_back(Information(kContentName, "policy"));
    m_information.push_back(Information(kFormatName, "policy"));
    m_information.push_back(Information(kMailFilterName, "policy"));
    m_information.push_back(Information(kSpamName, "policy"));
    m_information.push_back(Information(kInfoName, "policy"));
    return true;
}

int EngineHost::countEngines() const { return static_cast<int>(m_information.size()); }

IKORPropertyBag const* EngineHost::engineInformation(int index) const {
    bool const there = index >= 0 && index < countEngines();
    return there ? m_information[static_cast<std::size_t>(index)].get() : nullptr;
}

IScanThread* EngineHost::createScanThread(SettingsSource const& settings, InternedString policy) {
    try {
        auto state = std::make_shared<ThreadState>(settings, m_signatures, m_ruleCaches, m_virusServers, m_spamServers);
        return new ScanThread(std::move(state), policy);
    } catch (std::exception const&) {
        return nullptr;
    }
}

}  // namespace policyloader
