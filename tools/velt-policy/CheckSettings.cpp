#include <eFabric/XmlFile.h>
#include <policyloader/engines/ContentRules.h>
#include <policyloader/engines/EngineSettings.h>
#include <policyloader/engines/FormatRules.h>
#include <policyloader/engines/MailRules.h>
#include <policyloader/store/Value.h>

#include <algorithm>
#include <set>

#include "tools/velt-policy/Checks.h"
#include "tools/velt-policy/KnownSettings.h"
#include "tools/velt-policy/Readers.h"

namespace velt_policy {
namespace {

using policyloader::RuleSource;
using policyloader::ValueSource;

std::string NameOf(ValueSource const& value) { return std::string(value.section) + '/' + value.name; }

std::string Shown(KnownSetting const& setting, std::string const& text) {
    return setting.type.find("text") == std::string::npos ? text : Quoted(text);
}

std::string ErrorOf(RuleSource const& source) {
    std::string_view const section = source.section;
    if (section == policyloader::kFormatName) return policyloader::FormatRules({source.rule}).error();
    if (section == policyloader::kMailFilterName) return policyloader::MailRules({source.rule}).error();
    return policyloader::ContentRules({source.rule}).error();
}

class SettingsCheck {
public:
    SettingsCheck(World const& world, std::vector<std::string> const& own, Findings& findings)
        : m_sources(world.sources()), m_readers(m_sources), m_own(own), m_findings(findings) {
        for (auto const& policy : m_sources.policies())
            for (auto const& action : policy.actions) m_actions.insert(action.c_str());
    }

    void run() {
        for (auto const& policy : m_sources.policies()) lookAt(policy);
        for (auto const& identity : m_sources.identities()) lookAt(identity);
        for (auto const& value : m_sources.values()) lookAt(value);
        for (auto const& rule : m_sources.rules()) lookAt(rule);
    }

private:
    void lookAt(policyloader::PolicySource const& policy) {
        if (m_readers.policyIsRead(policy.name.c_str())) return;
        for (auto const& place : policy.places)
            m_findings.warning(SpotOf(place), "policy " + Quoted(policy.name.c_str()) +
                                                  " is not read: it is none of the library's, and the base of none");
    }

    void lookAt(policyloader::IdentitySource const& identity) {
        std::string const policy = identity.policy.c_str();
        if (!m_readers.policyIsRead(policy) || m_readers.hasIdentities(policy)) return;
        for (auto const& place : identity.places)
            m_findings.warning(SpotOf(place), "identity " + Quoted(identity.name.c_str()) +
                                                  " is never chosen: policy " + Quoted(policy) +
                                                  " is only read as a base, without its identities");
    }

    void lookAt(ValueSource const& value) {
        if (isOwn(value.section)) return;
        auto const* const setting = FindSetting(value.section, value.name);
        if (!setting) return tellUnknown(value);
        tellReading(*setting, value);
        tellFaults(value);
        if (value.replacedBy.line == 0) tellUnread(*setting, value);
    }

    bool isOwn(char const* section) const { return std::find(m_own.begin(), m_own.end(), section) != m_own.end(); }

    void tellUnknown(ValueSource const& value) {
        std::string const nearest = NearestSetting(value.section, value.name);
        std::string const hint = nearest.empty() ? "" : "; is " + nearest + " meant?";
        m_findings.warning(SpotOf(value.place), "setting " + NameOf(value) + " is not known" + hint);
    }

    void tellReading(KnownSetting const& setting, ValueSource const& value) {
        auto const reading = setting.read(setting, *value.value);
        if (reading.kind == Reading::Kind::asIs) tellMeaning(setting, value, reading.effective);
        tell(setting, value, reading, *value.value, SpotOf(value.place), "");
        for (unsigned i = 0; i < reading.items.size(); ++i) {
            tell(setting, value, reading.items[i], *value.value->at(i), spotOfItem(value, i),
                 ", item " + std::to_string(i + 1));
        }
    }

    static Spot spotOfItem(ValueSource const& value, unsigned i) {
        auto const& lines = value.itemLines;
        bool const below = i < lines.size() && lines[i] != value.place.line;
        return below ? Spot{value.place.file, lines[i], 1} : SpotOf(value.place);
    }

    // What an engine cannot work with: each of its scans fails.
    void tellFaults(ValueSource const& value) {
        auto const* const setting = policyloader::FindEngineSetting(value.section, value.name);
        for (unsigned i = 0; setting && i < value.value->size(); ++i) {
            char const* text = nullptr;
            auto const fault = value.value->at(i)->getString(&text) ? setting->fault(text) : std::string();
            if (!fault.empty()) m_findings.error(spotOfItem(value, i), NameOf(value) + ": " + fault);
        }
    }

    // A text that is read as it stands, and yet says nothing to its reader.
    void tellMeaning(KnownSetting const& setting, ValueSource const& value, std::string const& text) {
        std::string const said = NameOf(value) + ": " + Quoted(text) + " is none of ";
        if (!setting.isChoice(text))
            m_findings.warning(SpotOf(value.place),
                               said + setting.choices() + ": a gateway takes the default, " + Quoted(setting.standard));
        if (policyloader::FindEngineSetting(setting.section, setting.key) && namesAction(setting.key))
            tellAction(SpotOf(value.place), NameOf(value), text);
    }

    static bool namesAction(std::string const& key) { return key == "Action" || key.substr(0, 2) == "On"; }

    void tellAction(Spot spot, std::string const& what, std::string const& action) {
        auto const& usual = policyloader::kUsualActions;
        bool const known = std::find(std::begin(usual), std::end(usual), action) != std::end(usual);
        if (!known && !m_actions.count(action))
            m_findings.warning(std::move(spot),
                               what + ": " + Quoted(action) + " is no action of a gateway or of <actions>");
    }

    void tell(KnownSetting const& setting, ValueSource const& value, Reading const& reading,
              eFabric::IProductValue const& raw, Spot spot, std::string const& item) {
        if (reading.kind == Reading::Kind::asIs) return;
        std::string const said = NameOf(value) + item + ": " + Quoted(RawText(raw));
        bool const clamped = reading.kind == Reading::Kind::clamped;
        std::string const range = setting.range.empty() ? "0 to 65535" : setting.range;
        std::string const type = item.empty() ? setting.type : setting.type.substr(sizeof "list of " - 1);
        std::string const why = clamped ? " is out of range, " + range : " cannot be read as " + type;
        bool const standard = !clamped && item.empty();
        m_findings.warning(std::move(spot), said + why + ": a gateway reads " + (standard ? "the default, " : "") +
                                                Shown(setting, reading.effective));
    }

    void tellUnread(KnownSetting const& setting, ValueSource const& value) {
        std::string const policy = value.policy.c_str();
        if (!m_readers.policyIsRead(policy) || isRead(setting.slot, policy, value.identity)) return;
        if (value.identity && !m_readers.hasIdentities(policy)) return;  // told of the identity
        std::string const where =
            value.identity ? "identity " + Quoted(value.identity.c_str()) + " of policy " : "policy ";
        m_findings.warning(SpotOf(value.place), NameOf(value) + " is not read in " + where + Quoted(policy) +
                                                    ": it is read through " + Readers::slotText(setting.slot));
    }

    bool isRead(unsigned slot, std::string const& policy, InternedString const& identity) const {
        return identity ? m_readers.hasIdentities(slot, policy) : m_readers.policyIsRead(slot, policy);
    }

    void lookAt(RuleSource const& source) {
        auto const spot = SpotOf(source.rule->place());
        if (isOwn(source.section)) return;
        if (policyloader::RuleAttributesOf(source.section).empty())
            return m_findings.warning(spot, "a rule of section " + Quoted(source.section) +
                                                " is not read: only those of " + policyloader::kContentName + ", " +
                                                policyloader::kFormatName + ", " + policyloader::kMailFilterName +
                                                " and " + policyloader::kSpamName + " are");
        tellRule(source, spot);
        std::string const policy = source.policy.c_str();
        bool const told = !m_readers.policyIsRead(policy) || (source.identity && !m_readers.hasIdentities(policy));
        if (!told && !isRead(VELT::Config::POLICY_CONTENT, policy, source.identity))
            m_findings.warning(spot, "the rule is not read in policy " + Quoted(policy) + ": rules are read through " +
                                         Readers::slotText(VELT::Config::POLICY_CONTENT));
    }

    void tellRule(RuleSource const& source, Spot const& spot) {
        auto const known = policyloader::RuleAttributesOf(source.section);
        for (auto const& [name, text] : source.rule->attributes()) {
            if (std::find(std::begin(known), std::end(known), std::string_view(name)) == std::end(known))
                m_findings.warning(spot, "attribute " + Quoted(name) + " of the rule is not read");
        }
        if (auto const action = source.rule->get("action"); action && !action->empty())
            tellAction(spot, "attribute \"action\" of the rule", std::string(*action));
        auto const error = ErrorOf(source);
        if (!error.empty()) m_findings.report(Level::error, error);
    }

    policyloader::StoreSources const m_sources;
    Readers const m_readers;
    std::vector<std::string> const& m_own;
    Findings& m_findings;
    std::set<std::string> m_actions;  // of any policy
};

void TellMissing(Findings& findings) {
    std::string const rules = World::path("rules.xml");
    if (!eFabric::XmlFile::Read(rules)) findings.warning({rules, 0, 0}, "is missing: every setting has its default");
}

}  // namespace

void CheckSettings(World const& world, std::vector<std::string> const& own, Findings& findings) {
    if (!world.hasStore()) return;
    TellMissing(findings);
    SettingsCheck(world, own, findings).run();
}

}  // namespace velt_policy
