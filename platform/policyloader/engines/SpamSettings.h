// SpamSettings: what a policy says about unwanted mail, and the rules that judge where no server does.
// Owner: the plan of a scan.  Threads: the scan's.  Units: seconds of waiting, bytes.
// Failure: settings that cannot work together hold an `error`, which each scan then ends with.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <policyloader/engines/ContentRules.h>
#include <policyloader/engines/ServerAddress.h>
#include <policyloader/store/SettingsView.h>

namespace policyloader {

inline constexpr double kSpamThreshold = 5;  // where neither policy nor server has one

struct SpamSettings {
    enum Source { Rules, Spamd, Rspamd };

    bool isOn = false;  // somebody asked for it: the policy names a source, or has rules
    std::string error;
    Source source = Rules;
    std::vector<ServerAddress> servers;
    double seconds = 60;                    // of waiting, for all servers
    std::uint64_t maxBytes = 512u << 10;    // larger messages are judged by the rules
    std::optional<double> threshold;        // nothing: the judge's
    std::optional<double> actionThreshold;  // nothing: the threshold
    std::string action = "LOG";
    std::shared_ptr<ContentRules const> rules;  // the policy's and our own; null while off

    static std::optional<Source> sourceOf(std::string_view word);  // the empty word: rules
    static std::string unknownSource(std::string_view word);       // what is wrong with it
    static SpamSettings read(SettingsView const& view, bool selected, ContentCache& cache);

private:
    void readServers(SettingsView const& view);
};

}  // namespace policyloader
