// EngineSettings: every setting that the scan engines read from the policy store, and every attribute of their rules.
// The scan plan reads by this table, and a tool that checks a configuration knows by it what is read. Constants;
// nothing fails.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <policyloader/engines/Engine.h>

namespace policyloader {

class Value;

struct EngineSetting {
    enum class Kind { flag, number, real, text, list };

    char const* section;
    char const* key;
    Kind kind;
    char const* standard;  // what holds without it, for people

    char const* type() const;
    std::optional<std::string> read(Value const& value) const;  // as an engine takes it; nothing: the standard holds
    // Why the engine fails each scan where this is its text, or one of its list; empty where it does not.
    std::string fault(std::string_view text) const;
};

namespace engine_settings {
using Kind = EngineSetting::Kind;
inline constexpr EngineSetting AntiVirusEnabled{kAntiVirusName, "Enabled", Kind::flag, "true"};
inline constexpr EngineSetting AntiVirusAction{kAntiVirusName, "Action", Kind::text, "DENY"};
inline constexpr EngineSetting AntiVirusAlert{kAntiVirusName, "AlertText", Kind::text, "a text of its own"};
inline constexpr EngineSetting ClamdSockets{kAntiVirusName, "ClamdSockets", Kind::list, ""};
inline constexpr EngineSetting ClamdTimeout{kAntiVirusName, "ClamdTimeout", Kind::real, "60"};
inline constexpr EngineSetting ClamdMaxSize{kAntiVirusName, "ClamdMaxSize", Kind::number, "0"};
inline constexpr EngineSetting ContentEnabled{kContentName, "Enabled", Kind::flag, "true"};
inline constexpr EngineSetting ContentAction{kContentName, "Action", Kind::text, "DENY"};
inline constexpr EngineSetting ContentAlert{kContentName, "AlertText", Kind::text, "a text of its own"};
inline constexpr EngineSetting ContentThreshold{kContentName, "Threshold", Kind::real, "1"};
inline constexpr EngineSetting FormatEnabled{kFormatName, "Enabled", Kind::flag, "true"};
inline constexpr EngineSetting FormatAction{kFormatName, "Action", Kind::text, "DENY"};
inline constexpr EngineSetting FormatAlert{kFormatName, "AlertText", Kind::text, "a text of its own"};
inline constexpr EngineSetting OnEncrypted{kFormatName, "OnEncrypted", Kind::text, "DENY"};
inline constexpr EngineSetting OnBroken{kFormatName, "OnBroken", Kind::text, "DENY"};
inline constexpr EngineSetting MailEnabled{kMailFilterName, "Enabled", Kind::flag, "true"};
inline constexpr EngineSetting MailAction{kMailFilterName, "Action", Kind::text, "DENY"};
inline constexpr EngineSetting MailAlert{kMailFilterName, "AlertText", Kind::text, "a text of its own"};
inline constexpr EngineSetting SpamEnabled{kSpamName, "Enabled", Kind::flag, "true"};
inline constexpr EngineSetting SpamSource{kSpamName, "Source", Kind::text, "rules"};
inline constexpr EngineSetting SpamServers{kSpamName, "Servers", Kind::list, ""};
inline constexpr EngineSetting SpamTimeout{kSpamName, "Timeout", Kind::real, "60"};
inline constexpr EngineSetting SpamMaxSize{kSpamName, "MaxSize", Kind::number, "524288"};
inline constexpr EngineSetting SpamThreshold{kSpamName, "Threshold", Kind::real, "the server's, or 5"};
inline constexpr EngineSetting SpamActionThreshold{kSpamName, "ActionThreshold", Kind::real, "the threshold"};
inline constexpr EngineSetting SpamAction{kSpamName, "Action", Kind::text, "LOG"};
inline constexpr EngineSetting MaxDepth{kFormatName, "MaxDepth", Kind::number, "16"};
inline constexpr EngineSetting MaxParts{kFormatName, "MaxParts", Kind::number, "10000"};
inline constexpr EngineSetting MaxScanSize{kFormatName, "MaxScanSize", Kind::number, "0"};
inline constexpr EngineSetting MaxExpansion{kFormatName, "MaxExpansion", Kind::number, "100"};
inline constexpr EngineSetting OnLimit{kFormatName, "OnLimit", Kind::text, "DENY"};
inline constexpr EngineSetting InfoEnabled{kInfoName, "Enabled", Kind::flag, "true"};
inline constexpr EngineSetting InfoText{kInfoName, "Text", Kind::text, "that of Html"};
inline constexpr EngineSetting InfoHtml{kInfoName, "Html", Kind::text, "that of Text"};
inline constexpr EngineSetting InfoPosition{kInfoName, "Position", Kind::text, "bottom"};
inline constexpr EngineSetting InfoParts{kInfoName, "Parts", Kind::text, "all"};
inline constexpr EngineSetting InfoOnce{kInfoName, "Once", Kind::flag, "true"};
inline constexpr EngineSetting InfoLeaveDkim{kInfoName, "LeaveDkimSigned", Kind::flag, "false"};
}  // namespace engine_settings

inline constexpr EngineSetting kEngineSettings[] = {
    engine_settings::AntiVirusEnabled, engine_settings::AntiVirusAction, engine_settings::AntiVirusAlert,
    engine_settings::ClamdSockets,     engine_settings::ClamdTimeout,    engine_settings::ClamdMaxSize,
    engine_settings::ContentEnabled,   engine_settings::ContentAction,   engine_settings::ContentAlert,
    engine_settings::ContentThreshold, engine_settings::MaxDepth,        engine_settings::MaxParts,
    engine_settings::MaxScanSize,      engine_settings::MaxExpansion,    engine_settings::OnLimit,
    engine_settings::FormatEnabled,    engine_settings::FormatAction,    engine_settings::FormatAlert,
    engine_settings::OnEncrypted,      engine_settings::OnBroken,        engine_settings::SpamEnabled,
    engine_settings::SpamSource,       engine_settings::SpamServers,     engine_settings::SpamTimeout,
    engine_settings::SpamMaxSize,      engine_settings::SpamThreshold,   engine_settings::SpamActionThreshold,
    engine_settings::SpamAction,       engine_settings::MailEnabled,     engine_settings::MailAction,
    engine_settings::MailAlert,        engine_settings::InfoEnabled,     engine_settings::InfoText,
    engine_settings::InfoHtml,         engine_settings::InfoPosition,    engine_settings::InfoParts,
    engine_settings::InfoOnce,         engine_settings::InfoLeaveDkim,
};

// The attributes of a <rule> of the engines that have rules.
using RuleAttributes = std::span<std::string_view const>;
inline constexpr std::string_view kTextRuleAttributes[] = {"name", "where", "match", "missing", "weight", "action"};
inline constexpr std::string_view kFormatRuleAttributes[] = {"name", "type", "match", "size", "action"};
inline constexpr std::string_view kMailRuleAttributes[] = {
    "name", "header",     "match",       "missing",    "repeated", "fields",          "header-size",
    "size", "recipients", "attachments", "attachment", "type",     "attachment-size", "action",
};

// The actions that need no list of a policy's, from weak to strong.
inline constexpr std::string_view kUsualActions[] = {"EFABRIC:ALLOWTHRU", "LOG", "CLEAN", "REPLACE", "QUARANTINE",
                                                     "QUARANTINE:DENY",   "DENY"};

RuleAttributes RuleAttributesOf(std::string_view section);  // empty: no engine reads rules there
EngineSetting const* FindEngineSetting(std::string_view section, std::string_view key);  // null: no engine reads it

}  // namespace policyloader
