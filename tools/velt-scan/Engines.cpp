#include "tools/velt-scan/Engines.h"

#include <KORtk/Exception.h>
#include <arpa/inet.h>
#include <system/UUID.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <typeinfo>

#include <velt/Config.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/connection/Connection.h>
#include <velt/errors/Failures.h>
#include <velt/lookup/Resolver.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/runtime/Proxy.h>
#include <velt/scanning/EFabricScanAgent.h>
#include <velt/scanning/ScanAgent.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/ScannerStream.h>

#include "tools/velt-scan/Files.h"

namespace velt_scan {
namespace {

using VELT::Config;
using VELT::EFabricScanAgent;
using velt_tools::Unusable;

constexpr char kUsualPolicy[] = "content_in";
constexpr char const* kStopping[] = {"QUARANTINE", "QUARANTINE:DENY", "DENY"};
constexpr char const* kRewriting[] = {"CLEAN", "REPLACE"};

bool IsOneOf(std::string const& action, char const* const* begin, char const* const* end) {
    return std::find(begin, end, action) != end;
}

void LoadList(VELT::NetPolicy& list, char const* name) {
    try {
        list.load(VELT::Proxy::ConfigFileName(name));
    } catch (VELT::FWException<VELT::fw_exception_tag::resource> const&) {  // as empty as for a gateway
    }
}

double Since(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

std::string ListOf(eFabric::IIdentityList const& list) {
    std::string text;
    for (unsigned i = 0; i < list.size(); ++i) text += std::string(text.empty() ? "" : ", ") + list.at(i).c_str();
    return text.empty() ? "none" : text;
}

// The policies that a session can be scanned with.
bool IsPolicy(std::string const& name) {
    for (auto const& ids : Config::s_PolicyIds)
        for (auto const& id : ids)
            if (id.c_str() && name == id.c_str()) return true;
    return false;
}

// A plain output is that of an agent for tests: it owns neither its result nor its content.
struct Drop {
    void operator()(VELT::ScanOutput* output) const {
        if (typeid(*output) == typeid(VELT::ScanOutput)) {
            delete output->result;
            delete output->output;
        }
        delete output;
    }
};

// One item, by an agent that has taken it.
class ItemScan {
public:
    ItemScan(VELT::ScanAgent& agent, VELT::ScanContext& context, Verdict& verdict)
        : m_agent(agent), m_context(context), m_verdict(verdict) {}

    // The engines give up on what is too large or too deep: the signatures look at it as it is. The action that policy
    // has for such a thing holds unless what they find has a stronger one.
    void run() {
        if (!once(false) || !VELT::ProcessScanResult().DoFallBackScan(m_output.get())) return;
        std::string const first = m_verdict.action;
        m_verdict.fallback = true;
        bool const done = once(true);
        char const* const second = m_verdict.action.c_str();
        if (done && Config::getPolicyLoader()->compareActions(m_context.policy, first.c_str(), second) == 2)
            m_verdict.action = first;
    }
    VELT::ScanOutput const* output() const { return m_output.get(); }

private:
    bool once(bool fallback) {
        m_output.reset();
        VELT::ScanOutput* made = nullptr;
        bool const done = m_agent.scan(0, made, fallback) == 0 && made;
        m_output.reset(made);
        done ? m_verdict.read(*m_context.connection, *m_output) : m_verdict.fail("the scan failed");
        return done;
    }

    VELT::ScanAgent& m_agent;
    VELT::ScanContext& m_context;
    Verdict& m_verdict;
    std::unique_ptr<VELT::ScanOutput, Drop> m_output;
};

// Empty: what goes on is this output's content.
std::string WhyNotWritten(Verdict const& verdict, VELT::ScanOutput const* output) {
    if (verdict.kind == Verdict::Kind::Error || !verdict.troubles.empty() || !output || !output->output)
        return "nothing can be said of it";
    if (IsOneOf(verdict.action, std::begin(kStopping), std::end(kStopping))) return "policy stops it";
    if (IsOneOf(verdict.action, std::begin(kRewriting), std::end(kRewriting)) && !verdict.modified)
        return "nothing stands in for it";
    return {};
}

}  // namespace

// One session, which is the same for every file.
class Engines::Session : public VELT::Connection {
public:
    explicit Session(Choice const& choice) : m_choice(choice) {}

    void getConnectionAttributes(IKORPropertyBag* bag) override {
        for (auto const& [name, text] : m_choice.marks) bag->NewProperty(name.c_str())->SetNarrow(text.c_str());
    }
    VELT::ScanContext& chosen() { return m_chosen; }

private:
    Choice const& m_choice;
    VELT::ScanContext m_chosen;  // policy and identity
};

// The library's, as in a gateway; but nothing listens, and nothing is counted for others.
class Engines::Agent {
public:
    explicit Agent(VELT::Proxy& proxy) {
        VELT::ScannerStream::set_buffer_pool(0,
                                             VELT::ReadSetting<VELTCFG::scanning::MaxScanMem>(proxy.m_config) * 1024);
        VELT::ScannerStream::s_spooldir = proxy.m_scanDir + "/";
        VELT::ScanAgent::initialise(&proxy.m_config);
        VELT::ScanAgent::start();
    }
    ~Agent() { VELT::ScanAgent::finish(); }
    Agent(Agent const&) = delete;
    Agent& operator=(Agent const&) = delete;
};

Engines::Engines(velt_tools::Configuration const& configuration, Choice choice)
    : m_choice(std::move(choice)),
      m_store(configuration, "velt-scan"),
      m_agent(std::make_unique<Agent>(m_store.proxy())),
      m_session(std::make_unique<Session>(m_choice)) {
    m_choice.from.empty() ? chooseByName() : chooseByRules();
}

Engines::~Engines() = default;

void Engines::chooseByName() {
    std::string const policy = m_choice.policy.empty() ? kUsualPolicy : m_choice.policy;
    if (!IsPolicy(policy)) throw Unusable("there is no policy \"" + policy + "\"");
    auto const& loader = *EFabricScanAgent::getPolicyLoader();
    auto& chosen = m_session->chosen();
    chosen.policy = loader.internAttribute(policy.c_str());
    chosen.identities.assign(1, InternedString());
    if (m_choice.identity.empty()) return;
    auto const* const list = loader.identities(chosen.policy, nullptr);
    for (unsigned i = 0; list && i < list->size(); ++i)
        if (m_choice.identity == list->at(i).c_str()) chosen.identities[0] = list->at(i);
    if (!chosen.identities[0])
        throw Unusable("there is no identity \"" + m_choice.identity + "\" in policy \"" + policy +
                       "\", which has: " + ListOf(*list));
}

void Engines::chooseByRules() {
    VELT::Resolver::s_reverse_lookups_banned = true;
    LoadList(m_store.proxy().m_insidePolicy, "inside.txt");
    LoadList(m_store.proxy().m_outsidePolicy, "outside.txt");
    sockaddr_in from{}, none{};
    from.sin_family = none.sin_family = AF_INET;
    if (::inet_pton(AF_INET, m_choice.from.c_str(), &from.sin_addr) != 1)
        throw Unusable("\"" + m_choice.from + "\" is no IPv4 address");
    m_session->SetConnection(&m_store.config(), nullptr, false, from, none, none);
    if (!m_session->SetupInsideOutside()) throw Unusable("neither inside.txt nor outside.txt knows " + m_choice.from);
    Config& config = m_session->GetConfig();
    config.set_source_mail_address(m_choice.sender);
    config.set_recipient_mail_address(m_choice.recipient);
    int priority = -1;
    InternedString identity;
    config.set_scan_policy(&m_session->chosen());
    config.set_scan_identity(&m_session->chosen(), priority, identity);
}

void Engines::fill(VELT::ScanContext& context, VELT::ScannerStream& content) {
    context.connection = m_session.get();
    context.data = &content;
    context.policy = m_session->chosen().policy;
    context.identities = m_session->chosen().identities;
    if (!m_choice.marks.empty()) context.connection_attributes = new VELT::ScanConnectionAttributes(m_session.get());
}

void Engines::scanInto(Verdict& verdict, VELT::ScannerStream& content, std::string const& target) {
    VELT::ScanContext context;
    fill(context, content);
    std::unique_ptr<VELT::ScanAgent> const agent(VELT::ScanAgent::get());
    unsigned count = 0;
    if (!agent || agent->setup_scan(&context, count, 0) != 0 || count != 1)
        return verdict.fail("no engine takes the file");
    ItemScan item(*agent, context, verdict);
    item.run();
    if (target.empty()) return;
    verdict.unwritten = WhyNotWritten(verdict, item.output());
    if (verdict.unwritten.empty() && !WriteWhole(*item.output()->output, target))
        verdict.fail("cannot be written: " + target);
}

Verdict Engines::scan(std::string const& file, std::string const& output) {
    Verdict verdict;
    verdict.file = file;
    auto const begin = std::chrono::steady_clock::now();
    try {
        VELT::ScannerStream content(UUID::get(), false);
        std::string const problem = ReadFile(file, content);
        verdict.bytes = content.size();
        problem.empty() ? scanInto(verdict, content, output) : verdict.fail(problem);
    } catch (std::exception const& failure) {
        verdict.fail(failure.what());
    } catch (KORtk::Exception const& failure) {
        verdict.fail(failure.text());
    }
    verdict.milliseconds = Since(begin);
    return verdict;
}

}  // namespace velt_scan
