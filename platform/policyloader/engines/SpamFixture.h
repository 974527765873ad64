// SpamFixture: scans with the anti-spam engine on, and what its result says in words.
// Owner: a test, one thread.  Failure: fails the test.
#pragma once

#include <sstream>
#include <string>

#include <eFabric/SessionNames.h>

#include <policyloader/engines/ScanFixture.h>

namespace policyloader {

class SpamFixture : public ScanFixture {
protected:
    void Spam(std::string const& inside) { Policy("<settings section='SpamScanner'>" + inside + "</settings>"); }
    std::string Path(std::string const& name) const { return m_folder + "/" + name; }
    // The servers at these names in the test's folder are asked.
    void Ask(std::string const& source, std::string const& more = "", std::string const& names = "one") {
        std::string items;
        for (auto rest = names; !rest.empty();) {
            std::string const name = rest.substr(0, rest.find(' '));
            rest.erase(0, name.size() + (name.size() < rest.size()));
            items += "<item>" + Path(name) + "</item>";
        }
        Spam("<set name='Source'>" + source + "</set><list name='Servers'>" + items + "</list>" + more);
    }
    // A mail with an envelope, as a host hands it over.
    static std::unique_ptr<MemoryTransport> Enveloped(std::string const& text, char const* sender,
                                                      std::vector<char const*> const& recipients) {
        namespace names = eFabric::session;
        auto mail = std::make_unique<MemoryTransport>(text);
        auto& session = *mail->bag.NewPropertyBagProperty("ES_SCANRESSUBSTITUTIONS")->GetBag();
        session.NewProperty(names::kSender)->SetNarrow(sender);
        auto& list = *session.NewProperty(names::kRecipients);
        for (char const* const one : recipients) list.AddNarrow(one);
        session.NewProperty(names::kClientAddress)->SetNarrow("192.0.2.7");
        session.NewProperty(names::kClientName)->SetNarrow("client.example.test");
        return mail;
    }
    static double Number(Verdict const& verdict, char const* property) {
        auto const* const result = verdict.resultOf("SpamScanner");
        IKORPropertyBag const* const bag = result ? result->GetPropertyBag() : nullptr;
        auto const* const value = bag ? bag->GetProperty(property) : nullptr;
        double number = -999;
        EXPECT_EQ(value ? value->GetType() : KORProp_Double, KORProp_Double);
        return value && value->GetDouble(number) ? number : -999;
    }
    static double Score(Verdict const& verdict) { return Number(verdict, "E_SR_AS_SCORE"); }
    // "NAME=1.5 OTHER=2"
    static std::string Tests(Verdict const& verdict) {
        auto const* const result = verdict.resultOf("SpamScanner");
        IKORPropertyBag const* const bag = result ? result->GetPropertyBag() : nullptr;
        auto const* const names = bag ? bag->GetProperty("E_SR_INFECTIONNAME") : nullptr;
        auto const* const scores = bag ? bag->GetProperty("E_SR_AS_INFECTION_SCORE") : nullptr;
        if (!names || !scores) return names || scores ? "one alone" : "";
        std::ostringstream text;
        double score = 0;
        for (unsigned i = 0; scores->GetDoubleAt(i, score); ++i)
            text << (i ? " " : "") << KORtk::Utf8Array(names->GetWideAt(i)).str() << "=" << score;
        return text.str();
    }
    void ExpectError(Verdict const& verdict, std::string const& number) {
        EXPECT_TRUE(verdict.hasError());
        EXPECT_EQ(verdict.text("SpamScanner", "E_SR_SCANERROR_ID"), number);
        EXPECT_EQ(verdict.text("SpamScanner", "E_SR_TYPE"), "5");
        EXPECT_EQ(Score(verdict), -999);
        EXPECT_EQ(verdict.action(), "");
    }
    static bool HasResult(Verdict const& verdict) { return verdict.resultOf("SpamScanner"); }
};

}  // namespace policyloader
