// ScanPlan: every setting that one scan needs, read once before it begins.
// Owner: the scan; a value over immutable things.  Threads: the scan's.  Units: bytes, parts, levels.
// Failure: settings of the wrong form count as absent; rules that cannot be used carry their error.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <policyloader/engines/ClamdScan.h>
#include <policyloader/engines/ContentRules.h>
#include <policyloader/engines/Disclaimer.h>
#include <policyloader/engines/FormatRules.h>
#include <policyloader/engines/MailRules.h>
#include <policyloader/engines/SpamSettings.h>
#include <policyloader/store/SettingsView.h>

class IKORPropertyBag;

namespace policyloader {

// Beyond one of these a scan ends with a format result. They protect the process, so they hold for every object.
struct ScanLimits {
    unsigned depth = 16;
    std::size_t parts = 10000;
    std::uint64_t scanBytes = 0;    // 0: none
    std::uint64_t expansion = 100;  // decoded bytes for each byte of the object, never below kExpansionFloor
    std::string action = "DENY";
};
inline constexpr std::uint64_t kExpansionFloor = 64u << 20;

// Which engines a scan thread uses.
struct EngineSelection {
    bool antiVirus = true;
    bool content = true;
    bool format = true;
    bool mail = true;
    bool spam = true;
    bool info = true;
};

// Compiled rules of every engine, shared by all threads.
struct RuleCaches {
    ContentCache content;
    FormatCache format;
    MailCache mail;
};

struct MailSettings {
    bool isOn = false;  // there are rules
    std::string action;
    std::string alert;
    std::shared_ptr<MailRules const> rules;  // null while off
};

struct ScanPlan {
    SettingsView settings;
    ScanLimits limits;
    bool unpack = true;
    IKORPropertyBag const* session = nullptr;  // what the host tells of the object's road; null: nothing

    bool antiVirus = false;
    std::string antiVirusAction;
    std::string antiVirusAlert;
    ClamdSettings clamd;
    bool replacesInfected() const { return antiVirusAction == "CLEAN" || antiVirusAction == "REPLACE"; }

    bool content = false;
    std::string contentAction;
    std::string contentAlert;
    double threshold = 1;
    std::shared_ptr<ContentRules const> rules;  // null: none

    bool format = false;
    std::string formatAction;
    std::string formatAlert;
    std::string onEncrypted;
    std::string onBroken;
    std::shared_ptr<FormatRules const> formatRules;  // null: none

    MailSettings mail;
    SpamSettings spam;
    Disclaimer disclaimer;

    ScanPlan(SettingsView const& view, EngineSelection const& selection, RuleCaches& caches);

    // Whether `a` is to win over `b`: by the policy's order, and by the usual one where the policy does not know them.
    bool isStronger(std::string const& a, std::string const& b) const;

private:
    void readContent(RuleCaches& caches);
    void readFormat(RuleCaches& caches);
    void readMail(RuleCaches& caches);
};

}  // namespace policyloader
