#include <KORtk/Exception.h>
#include <QXlog/Settings.h>
#include <dirent.h>

#include <algorithm>
#include <memory>

#include "tools/velt-policy/Checks.h"

namespace velt_policy {
namespace {

constexpr std::string_view kLogging = "-logging.xml";

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() > end.size() && text.substr(text.size() - end.size()) == end;
}

std::vector<std::string> XmlFilesIn(std::string const& folder) {
    struct Close {
        void operator()(::DIR* open) const { ::closedir(open); }
    };
    std::unique_ptr<::DIR, Close> const open(::opendir(folder.c_str()));
    std::vector<std::string> names;
    while (dirent const* const entry = open ? ::readdir(open.get()) : nullptr)
        if (EndsWith(entry->d_name, ".xml")) names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

void CheckFile(std::string const& name, Findings& findings) try {
    static_cast<void>(QXlog::detail::ReadSettings(World::path(name)));
} catch (KORtk::Exception const& error) {
    findings.report(Level::error, error.text());
}

}  // namespace

void CheckLogging(World const& world, Findings& findings) {
    std::string const& proxy = world.choice().proxy;
    if (!proxy.empty()) return CheckFile(proxy + std::string(kLogging), findings);
    for (auto const& name : XmlFilesIn(World::path("")))
        if (EndsWith(name, kLogging)) CheckFile(name, findings);
}

std::vector<std::string> UnreadFiles(Choice const& choice) {
    std::vector<std::string> unread;
    for (auto const& name : XmlFilesIn(World::path(""))) {
        bool const read = name == "rules.xml" || name == "identities.xml" || name == choice.product + ".xml";
        if (!read && !EndsWith(name, kLogging)) unread.push_back(World::path(name));
    }
    for (auto const& name : XmlFilesIn(World::path("efabric")))
        if (name != choice.proxy + ".xml") unread.push_back(World::path("efabric/" + name));
    return unread;
}

}  // namespace velt_policy
