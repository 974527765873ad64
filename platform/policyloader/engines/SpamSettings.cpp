#include <policyloader/engines/SpamSettings.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/EngineSettings.h>

namespace policyloader {
namespace {

namespace keys = engine_settings;

constexpr std::uint64_t kWithOurRules = 0x7370616d;

std::optional<double> RealOf(SettingsView const& view, EngineSetting const& key) {
    double const value = view.real(key.section, key.key, std::numeric_limits<double>::quiet_NaN());
    return std::isnan(value) ? std::nullopt : std::optional(value);
}

// The test message of the trade, and what nobody's mail program leaves out.
std::vector<Rule> const& OurRules() {
    auto const missing = [](char const* name, char const* field, char const* weight) {
        return Rule(Place{"built in"}, {{"name", name}, {"missing", field}, {"weight", weight}}, nullptr);
    };
    static std::vector<Rule> const rules{Rule(Place{"built in"},
                                              {{"name", "TEST_MESSAGE"},
                                               {"where", "body"},
                                               {"match",
                                                "XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-"
                                                "ANTI-UBE-TEST-EMAIL*C.34X"},
                                               {"weight", "1000"}},
                                              nullptr),
                                         missing("MISSING_FROM", "From", "1.5"), missing("MISSING_DATE", "Date", "1"),
                                         missing("MISSING_SUBJECT", "Subject", "0.5"),
                                         missing("MISSING_MESSAGE_ID", "Message-ID", "0.5")};
    return rules;
}

// A rule of the policy stands for ours of the same name.
std::vector<Rule const*> WithOurRules(std::vector<Rule const*> rules) {
    auto const policys = rules;
    for (auto const& ours : OurRules()) {
        bool const replaced = std::any_of(policys.begin(), policys.end(),
                                          [&](Rule const* one) { return one->get("name") == ours.get("name"); });
        if (!replaced) rules.push_back(&ours);
    }
    return rules;
}

}  // namespace

std::optional<SpamSettings::Source> SpamSettings::sourceOf(std::string_view word) {
    if (word.empty() || word == "rules") return Rules;
    if (word == "spamd") return Spamd;
    if (word == "rspamd") return Rspamd;
    return std::nullopt;
}

std::string SpamSettings::unknownSource(std::string_view word) {
    return "no source of judgement: " + std::string(word) + "; there are rules, spamd and rspamd";
}

void SpamSettings::readServers(SettingsView const& view) {
    auto const name = view.text(keys::SpamSource.section, keys::SpamSource.key).value_or("");
    auto const known = sourceOf(name);
    if (!known) error = unknownSource(name);
    source = known.value_or(Rules);
    try {
        servers = ReadServers(view.list(keys::SpamServers.section, keys::SpamServers.key));
    } catch (EngineFailure const& failure) {
        error = failure.what();
    }
    if (source != Rules && servers.empty() && error.empty()) error = "no server is configured";
}

SpamSettings SpamSettings::read(SettingsView const& view, bool selected, ContentCache& cache) {
    SpamSettings spam;
    bool const asked = view.has(keys::SpamSource.section, keys::SpamSource.key) || !view.rules(kSpamName).empty();
    spam.isOn = selected && asked && view.flag(keys::SpamEnabled.section, keys::SpamEnabled.key, true);
    spam.readServers(view);
    double const seconds = view.real(keys::SpamTimeout.section, keys::SpamTimeout.key, spam.seconds);
    if (seconds > 0) spam.seconds = seconds;
    auto const most = static_cast<unsigned>(spam.maxBytes);
    spam.maxBytes = view.number(keys::SpamMaxSize.section, keys::SpamMaxSize.key, most);
    spam.threshold = RealOf(view, keys::SpamThreshold);
    spam.actionThreshold = RealOf(view, keys::SpamActionThreshold);
    auto const action = view.text(keys::SpamAction.section, keys::SpamAction.key).value_or("");
    if (!action.empty()) spam.action = action;
    if (spam.isOn) {
        spam.rules = cache.get(MixRuleKey(view.rulesKey(kSpamName), kWithOurRules),
                               [&] { return WithOurRules(view.rules(kSpamName)); });
    }
    return spam;
}

}  // namespace policyloader
