#include <policyloader/engines/AntiVirusEngine.h>

#include <algorithm>
#include <optional>

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

class AntiVirusEngine::Scan final : public ComponentScan, private MatchHandler {
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

private:
    void matched(unsigned id) override { found(m_engine.m_database->patternName(id)); }
    void found(std::string const& name) { m_engine.m_findings.push_back({&name, &m_component}); }

    AntiVirusEngine& m_engine;
    Component& m_component;
    PatternStream m_stream;
    std::optional<Digest> m_digest;
};

AntiVirusEngine::AntiVirusEngine(std::shared_ptr<SignatureDatabase const> database, PatternScratch& scratch)
    : m_database(std::move(database)), m_scratch(scratch) {
    if (m_database) m_scratch.fit(m_database->patterns());
}

bool AntiVirusEngine::begin(ScanPlan const& plan) {
    m_plan = &plan;
    m_findings.clear();
    if (!plan.antiVirus) return false;
    if (!m_database) throw EngineFailure(FailureId::Database, "no signature database");
    return true;
}

std::unique_ptr<ComponentScan> AntiVirusEngine::object(Component& component) {
    return std::make_unique<Scan>(*this, component);
}

std::unique_ptr<ComponentScan> AntiVirusEngine::open(EntityHead const&, Component& component) {
    return std::make_unique<Scan>(*this, component);
}

void AntiVirusEngine::report(ResultSet& results) {
    if (m_findings.empty()) return;
    // What was found in a part was mostly found in the object around it too: the part says more.
    auto const inPart = [&](Finding const& seen) {
        return std::any_of(m_findings.begin(), m_findings.end(), [&](Finding const& other) {
            return !other.component->IsTopLevel() && *other.name == *seen.name;
        });
    };
    auto& result = results.add(name(), type());
    std::string description;
    for (auto const& finding : m_findings) {
        if (!finding.component->IsTopLevel() || !inPart(finding)) result.addComponent(*finding.component);
        result.addName(*finding.name);
    }
    for (auto const& found : result.names()) description.append(description.empty() ? "" : ", ").append(found);
    result.setDescription(description);
    result.setAction(m_plan->antiVirusAction);
}

}  // namespace policyloader
