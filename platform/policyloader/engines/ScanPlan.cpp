#include <policyloader/engines/ScanPlan.h>

#include <policyloader/engines/Engine.h>

namespace policyloader {
namespace {

constexpr char kDefaultAlert[] =
    "This part of the message was removed.\n\nName: %FILENAME%\nFound: %INFECTIONS%\nBy: %SCANNER%\n";

std::string TextOf(SettingsView const& view, char const* section, char const* name, char const* standard) {
    auto const text = view.text(section, name);
    return text && !text->empty() ? std::string(*text) : standard;
}

ScanLimits ReadLimits(SettingsView const& view) {
    ScanLimits limits;
    limits.depth = view.number(kFormatName, "MaxDepth", limits.depth);
    limits.parts = view.number(kFormatName, "MaxParts", static_cast<unsigned>(limits.parts));
    limits.scanBytes = view.number(kFormatName, "MaxScanSize", 0);
    limits.expansion = view.number(kFormatName, "MaxExpansion", static_cast<unsigned>(limits.expansion));
    limits.action = TextOf(view, kFormatName, "OnLimit", limits.action.c_str());
    return limits;
}

// From weak to strong; a code that nobody knows stands below "DENY" alone.
int UsualStrength(std::string const& action) {
    constexpr char const* order[] = {"EFABRIC:ALLOWTHRU", "LOG", "CLEAN", "REPLACE"};
    int strength = 0;
    for (auto const* known : order) {
        if (action == known) return strength;
        ++strength;
    }
    return action == "DENY" ? strength + 1 : strength;
}

}  // namespace

ScanPlan::ScanPlan(SettingsView const& view, EngineSelection const& selection, ContentCache& cache)
    : settings(view), limits(ReadLimits(view)) {
    antiVirus = selection.antiVirus && view.flag(kAntiVirusName, "Enabled", true);
    antiVirusAction = TextOf(view, kAntiVirusName, "Action", "DENY");
    antiVirusAlert = TextOf(view, kAntiVirusName, "AlertText", kDefaultAlert);
    content = selection.content && view.flag(kContentName, "Enabled", true);
    if (!content) return;
    contentAction = TextOf(view, kContentName, "Action", "DENY");
    contentAlert = TextOf(view, kContentName, "AlertText", kDefaultAlert);
    threshold = view.real(kContentName, "Threshold", 1);
    rules = cache.get(view.rulesKey(kContentName), [&] { return view.rules(kContentName); });
    content = rules->size() > 0 || !rules->error().empty();
}

bool ScanPlan::isStronger(std::string const& a, std::string const& b) const {
    int const order = settings.compareActions(a.c_str(), b.c_str());
    if (order >= 0) return order == 2;
    return UsualStrength(a) > UsualStrength(b);
}

}  // namespace policyloader
