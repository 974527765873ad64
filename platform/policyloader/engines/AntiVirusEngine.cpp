#include <policyloader/engines/AntiVirusEngine.h>

#include <optional>
#include <set>
#include <utility>

#include <openssl/evp.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ResultSet.h>

namespace policyloader {
namespace {

class Digest {
public:
    Digest() : m_context(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        if (!m_context) throw std::bad_alloc();
        check(EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr));
    }
    void data(std::string_view piece) { check(EVP_DigestUpdate(m_context.get(), piece.data(), piece.size())); }
    Sha256 finish() {
        Sha256 sum{};
        check(EVP_DigestFinal_ex(m_context.get(), sum.data(), nullptr));
        return sum;
    }

private:
    static void check(int done) {
        if (done != 1) throw EngineFailure(FailureId::Matcher, "SHA-256 failed");
    }
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> m_context;
};

}  // namespace

class AntiVirusEngine::Scan : public ComponentScan, private MatchHandler {
public:
    Scan(AntiVirusEngine& engine, Component& component)
        : m_engine(engine), m_component(component), m_stream(engine.m_database->patterns(), engine.m_scratch, *this) {
        if (engine.m_database->hasSums()) m_digest.emplace();
    }
    void data(std::string_view piece) override {
        m_stream.data(piece);
        if (m_digest) m_digest->data(piece);
    }
    void end() override {
        m_stream.finish();
        auto const* const name = m_digest ? m_engine.m_database->sumName(m_digest->finish()) : nullptr;
        if (name) found(*name);
    }

protected:
    AntiVirusEngine& m_engine;
    Component& m_component;

private:
    void matched(unsigned id) override { found(m_engine.m_database->patternName(id)); }
    void found(std::string const& name) { m_engine.m_findings.push_back({name, &m_component}); }

    PatternStream m_stream;
    std::optional<Digest> m_digest;
};

// The same, and the servers see it too.
class AntiVirusEngine::ServerScan final : public Scan {
public:
    ServerScan(AntiVirusEngine& engine, Component& component, std::unique_ptr<ClamdScan> question, bool ofObject)
        : Scan(engine, component), m_question(std::move(question)), m_ofObject(ofObject) {}
    void data(std::string_view piece) override {
        Scan::data(piece);
        m_engine.asking([&] { m_question->data(piece); });
    }
    // The servers work on the object while the engines end theirs.
    void end() override {
        Scan::end();
        m_engine.asking([&] {
            m_question->end();
            if (m_ofObject) m_engine.m_question = std::move(m_question);
        });
        if (m_question) m_engine.conclude(*m_question, m_component);
    }

private:
    std::unique_ptr<ClamdScan> m_question;
    bool const m_ofObject;
};

AntiVirusEngine::AntiVirusEngine(std::shared_ptr<SignatureDatabase const> database, PatternScratch& scratch,
                                 std::shared_ptr<ClamdServers> servers)
    : m_database(std::move(database)), m_scratch(scratch), m_servers(std::move(servers)) {
    if (m_database) m_scratch.fit(m_database->patterns());
}

bool AntiVirusEngine::begin(ScanPlan const& plan) {
    m_plan = &plan;
    m_findings.clear();
    m_question.reset();
    m_failure.reset();
    m_asked = false;
    m_patience = Patience(plan.clamd.seconds);
    if (!plan.antiVirus) return false;
    if (!m_database) throw EngineFailure(FailureId::Database, "no signature database");
    if (!plan.clamd.error.empty()) m_failure.emplace(FailureId::Rules, plan.clamd.error);
    return true;
}

// What a server does not answer is told at the end, beside what was found without it.
template <class Call>
void AntiVirusEngine::asking(Call&& call) {
    if (m_failure) return;
    try {
        call();
    } catch (EngineFailure const& failure) {
        m_failure = failure;
    }
}

// Null: no server is to be asked.
std::unique_ptr<ClamdScan> AntiVirusEngine::ask() {
    if (m_plan->clamd.servers.empty() || m_failure) return nullptr;
    return std::make_unique<ClamdScan>(*m_servers, m_plan->clamd, m_patience);
}

void AntiVirusEngine::conclude(ClamdScan& question, Component& component) {
    asking([&] {
        if (auto name = question.answer()) m_findings.push_back({std::move(*name), &component});
    });
}

// Further looks at the same object show nothing that the servers do not unpack themselves.
std::unique_ptr<ComponentScan> AntiVirusEngine::object(Component& component) {
    auto question = m_asked ? nullptr : ask();
    m_asked = true;
    if (!question) return std::make_unique<Scan>(*this, component);
    return std::make_unique<ServerScan>(*this, component, std::move(question), true);
}

std::unique_ptr<ComponentScan> AntiVirusEngine::open(EntityHead const& head, Component& component) {
    bool const wanted = m_plan->replacesInfected() && !head.multipart && !component.IsTopLevel();
    auto question = wanted ? ask() : nullptr;
    if (!question) return std::make_unique<Scan>(*this, component);
    return std::make_unique<ServerScan>(*this, component, std::move(question), false);
}

void AntiVirusEngine::report(ResultSet& results) {
    if (m_question) conclude(*m_question, *results.components().root());
    m_question.reset();
    if (!m_findings.empty()) reportFindings(results);
    if (m_failure) throw EngineFailure(*m_failure);
}

void AntiVirusEngine::reportFindings(ResultSet& results) {
    // What was found in an entry was mostly found in what is around it too: the innermost says most.
    std::set<std::pair<IKORScanPolContextElement const*, std::string_view>> around;
    for (auto const& finding : m_findings)
        for (auto const* at = finding.component->GetParent(); at; at = at->GetParent())
            if (!around.emplace(at, finding.name).second) break;
    auto& result = results.add(name(), type());
    std::string description;
    for (auto const& finding : m_findings) {
        if (around.count({finding.component, finding.name}) == 0) result.addComponent(*finding.component);
        result.addName(finding.name);
    }
    for (auto const& found : result.names()) description.append(description.empty() ? "" : ", ").append(found);
    result.setDescription(description);
    result.setAction(m_plan->antiVirusAction);
}

}  // namespace policyloader
