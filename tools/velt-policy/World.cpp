#include "tools/velt-policy/World.h"

#include <velt/config_details/RuleOperators.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/errors/Failures.h>
#include <velt/streams/ScannerStream.h>

#include <KORtk/Exception.h>
#include <KORtk/Text.h>
#include <QXid/IdentityFile.h>
#include <QXlog/QXlog.h>
#include <eFabric/Report.h>
#include <eFabric/XmlFile.h>
#include <sys/stat.h>
#include <system/SystemPath.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/velt-policy/StoreErrors.h"

namespace velt_policy {
namespace {

constexpr char kFolder[] = "/config/qxxmlconf";

std::wstring Widen(std::string const& text) { return KORtk::Utf8Array(text).wstr(); }

// What the library reports to syslog while something is loaded.
std::vector<std::string>& Reports() {
    static std::vector<std::string> reports;
    return reports;
}

class ReportsKept {
public:
    ReportsKept() : m_before(eFabric::ExchangeReportSink([](std::string const& line) { Reports().push_back(line); })) {
        Reports().clear();
    }
    ~ReportsKept() { eFabric::ExchangeReportSink(m_before); }
    ReportsKept(ReportsKept const&) = delete;
    ReportsKept& operator=(ReportsKept const&) = delete;

private:
    eFabric::ReportSink m_before;
};

// As the evaluator of a gateway, but that a pattern which does not compile ends nothing.
bool EvaluateAnyway(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
                    EvalData*& evalData) try {
    return VELT::evaluate_rule(subject, value, op, data, evalData);
} catch (KORtk::Exception const&) {
    return false;
} catch (std::exception const&) {
    return false;
}

Spot PlaceOf(IKORError const& error) {
    auto const number = [&](char const* name) {
        char const* const text = error.GetAttribute(name);
        return static_cast<unsigned>(text ? std::strtoul(text, nullptr, 10) : 0);
    };
    char const* const file = error.GetAttribute("file");
    return {file ? file : KORtk::Utf8Array(error.GetText()).str(), number("line"), number("column")};
}

}  // namespace

char const* World::unusable(std::string const& root) {
    std::string const folder = root + kFolder;
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0) return std::strerror(errno);
    if (!S_ISDIR(status.st_mode)) return std::strerror(ENOTDIR);
    return ::access(folder.c_str(), R_OK | X_OK) == 0 ? nullptr : std::strerror(errno);
}

std::string World::path(std::string const& name) { return SystemPath(std::string(kFolder) + '/' + name); }

World::World(Choice choice, Findings& findings) : m_choice(std::move(choice)) {
    ::setenv("VELT_ROOT", m_choice.root.c_str(), 1);
    QXlog::detail::noLogging();
    m_proxy = std::make_unique<VELT::Proxy>();
    loadStore(findings);
    loadIdentities(findings);
    loadRules(findings);
    VELT::ScannerStream::set_buffer_pool(0, VELT::ReadSetting<VELTCFG::scanning::MaxScanMem>(m_config) * 1024);
}

World::~World() { VELT::Config::initialise(nullptr); }

void World::loadNetworkLists() {
    for (auto const& [list, name] :
         {std::pair{&m_proxy->m_insidePolicy, "inside.txt"}, std::pair{&m_proxy->m_outsidePolicy, "outside.txt"}}) {
        try {
            list->load(path(name));
        } catch (VELT::FWException<VELT::fw_exception_tag::resource> const&) {  // as empty as for a gateway
        }
    }
}

std::vector<std::string> World::storeFiles() const {
    std::vector<std::string> files{path("rules.xml")};
    if (!m_choice.product.empty()) files.push_back(path(m_choice.product + ".xml"));
    if (!m_choice.proxy.empty()) files.push_back(path("efabric/" + m_choice.proxy + ".xml"));
    return files;
}

// Where the store does not load, its files are looked at for all that is wrong with them.
void World::loadStore(Findings& findings) {
    eFabric::eConfig config;
    config.rules = Widen(path("rules.xml"));
    if (!m_choice.product.empty()) config.product_config = Widen(path(m_choice.product + ".xml"));
    config.av_dat = Widen(SystemPath("/opt/KORAqxs/avengine/dat"));
    KORPropertyBag bag;
    if (!m_choice.proxy.empty()) {
        std::string const proxyFile = path("efabric/" + m_choice.proxy + ".xml");
        bag.NewProperty("EngineXMLFilePath")->SetNarrow(proxyFile.c_str());
    }
    m_hasStore = m_loader.initialise(config, 0, &bag);
    if (m_hasStore || TellStoreErrors(storeFiles(), findings)) return;
    IKORError const& error = m_loader.lastError();
    auto const placed = SplitPlace(KORtk::Utf8Array(error.GetDetail()).str());
    findings.error(placed.spot.line ? placed.spot : PlaceOf(error), placed.reason);
}

// A bad pattern is told with its condition, as there may be more than the first.
void World::loadIdentities(Findings& findings) {
    ReportsKept const kept;
    try {
        VELT::Config::initialise(&m_loader);
        m_hasIdentities = true;
    } catch (KORtk::Exception const&) {
        tellIdentityErrors(findings);
    } catch (std::exception const&) {
    }
}

// Not the first alone.
void World::tellIdentityErrors(Findings& findings) try {
    auto bytes = eFabric::XmlFile::Read(path("identities.xml"));
    if (!bytes) return;
    for (auto const& error : qxid::ParseIdentities(path("identities.xml"), std::move(*bytes)).errors)
        findings.report(Level::error, error.text());
} catch (eFabric::XmlError const& error) {
    findings.report(Level::error, error.text());
}

// Without a store no policy has an identity, and the engine would say so of every one.
void World::loadRules(Findings& findings) {
    ReportsKept const kept;
    m_rules = QXidRules::create();
    for (auto const& one : sources().policies()) {
        int status = 0;
        m_rules->addIdentities(*m_loader.identities(one.name, &status));
    }
    try {
        m_rules->load(path("identities.xml").c_str(), EvaluateAnyway);
        m_hasRules = true;
    } catch (KORtk::Exception const&) {  // told already
        return;
    }
    if (!m_hasStore) return;
    for (auto const& line : Reports()) findings.report(Level::warning, line);
}

}  // namespace velt_policy
