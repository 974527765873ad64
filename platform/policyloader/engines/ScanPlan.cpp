#include <policyloader/engines/ScanPlan.h>

#include <iterator>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/EngineSettings.h>

namespace policyloader {
namespace {

constexpr char kDefaultAlert[] =
    "This part of the message was removed.\n\nName: %FILENAME%\nFound: %INFECTIONS%\nBy: %SCANNER%\n";

namespace keys = engine_settings;

unsigned NumberOf(SettingsView const& view, EngineSetting const& key, unsigned standard) {
    return view.number(key.section, key.key, standard);
}

bool FlagOf(SettingsView const& view, EngineSetting const& key) { return view.flag(key.section, key.key, true); }

std::string TextOf(SettingsView const& view, EngineSetting const& key, char const* standard) {
    auto const text = view.text(key.section, key.key);
    return text && !text->empty() ? std::string(*text) : standard;
}

ScanLimits ReadLimits(SettingsView const& view) {
    ScanLimits limits;
    limits.depth = NumberOf(view, keys::MaxDepth, limits.depth);
    limits.parts = NumberOf(view, keys::MaxParts, static_cast<unsigned>(limits.parts));
    limits.scanBytes = NumberOf(view, keys::MaxScanSize, 0);
    limits.expansion = NumberOf(view, keys::MaxExpansion, static_cast<unsigned>(limits.expansion));
    limits.action = TextOf(view, keys::OnLimit, limits.action.c_str());
    return limits;
}

ClamdSettings ReadClamd(SettingsView const& view) {
    ClamdSettings clamd;
    try {
        clamd.servers = ReadServers(view.list(keys::ClamdSockets.section, keys::ClamdSockets.key));
    } catch (EngineFailure const& failure) {
        clamd.error = failure.what();
    }
    double const seconds = view.real(keys::ClamdTimeout.section, keys::ClamdTimeout.key, clamd.seconds);
    if (seconds > 0) clamd.seconds = seconds;
    clamd.maxBytes = NumberOf(view, keys::ClamdMaxSize, 0);
    return clamd;
}

// A code that nobody knows stands below the strongest alone.
int UsualStrength(std::string const& action) {
    constexpr int strongest = std::size(kUsualActions) - 1;
    for (int strength = 0; strength < strongest; ++strength)
        if (action == kUsualActions[strength]) return 2 * strength;
    return 2 * strongest - (action == kUsualActions[strongest] ? 0 : 1);
}

}  // namespace

ScanPlan::ScanPlan(SettingsView const& view, EngineSelection const& selection, RuleCaches& caches)
    : settings(view), limits(ReadLimits(view)) {
    antiVirus = selection.antiVirus && FlagOf(view, keys::AntiVirusEnabled);
    antiVirusAction = TextOf(view, keys::AntiVirusAction, "DENY");
    antiVirusAlert = TextOf(view, keys::AntiVirusAlert, kDefaultAlert);
    if (antiVirus) clamd = ReadClamd(view);
    spam = SpamSettings::read(view, selection.spam, caches.content);
    disclaimer = Disclaimer::read(view, selection.info);
    content = selection.content && FlagOf(view, keys::ContentEnabled);
    format = selection.format && FlagOf(view, keys::FormatEnabled);
    if (content) readContent(caches);
    if (format) readFormat(caches);
    if (selection.mail && FlagOf(view, keys::MailEnabled)) readMail(caches);
}

void ScanPlan::readContent(RuleCaches& caches) {
    auto const& view = settings;
    contentAction = TextOf(view, keys::ContentAction, "DENY");
    contentAlert = TextOf(view, keys::ContentAlert, kDefaultAlert);
    threshold = view.real(keys::ContentThreshold.section, keys::ContentThreshold.key, 1);
    rules = caches.content.get(view.rulesKey(kContentName), [&] { return view.rules(kContentName); });
    content = rules->size() > 0 || !rules->error().empty();
}

void ScanPlan::readFormat(RuleCaches& caches) {
    auto const& view = settings;
    formatAction = TextOf(view, keys::FormatAction, "DENY");
    formatAlert = TextOf(view, keys::FormatAlert, kDefaultAlert);
    onEncrypted = TextOf(view, keys::OnEncrypted, "DENY");
    onBroken = TextOf(view, keys::OnBroken, "DENY");
    formatRules = caches.format.get(view.rulesKey(kFormatName), [&] { return view.rules(kFormatName); });
}

void ScanPlan::readMail(RuleCaches& caches) {
    auto const& view = settings;
    mail.rules = caches.mail.get(view.rulesKey(kMailFilterName), [&] { return view.rules(kMailFilterName); });
    mail.isOn = mail.rules->size() > 0 || !mail.rules->error().empty();
    if (!mail.isOn) return;
    mail.action = TextOf(view, keys::MailAction, "DENY");
    mail.alert = TextOf(view, keys::MailAlert, kDefaultAlert);
}

bool ScanPlan::isStronger(std::string const& a, std::string const& b) const {
    int const order = settings.compareActions(a.c_str(), b.c_str());
    if (order >= 0) return order == 2;
    return UsualStrength(a) > UsualStrength(b);
}

}  // namespace policyloader
