#include <policyloader/engines/EngineSettings.h>

#include <charconv>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ServerAddress.h>
#include <policyloader/engines/SpamSettings.h>
#include <policyloader/store/Value.h>

namespace policyloader {
namespace {

std::string Shortest(double value) {
    char text[40];
    auto const [end, error] = std::to_chars(text, text + sizeof text, value);
    return error == std::errc() ? std::string(text, end) : std::string();
}

std::optional<std::string> Flag(Value const& value) {
    bool flag = false;
    if (!value.getBool(&flag)) return std::nullopt;
    return flag ? "true" : "false";
}

std::optional<std::string> Number(Value const& value) {
    unsigned number = 0;
    if (!value.getUnsigned(&number)) return std::nullopt;
    return std::to_string(number);
}

std::optional<std::string> Real(Value const& value) {
    auto const real = value.real();
    return real ? std::optional(Shortest(*real)) : std::nullopt;
}

std::optional<std::string> Text(Value const& value) {
    if (!value.text() || !*value.text()) return std::nullopt;
    return value.text();
}

std::optional<std::string> List(Value const& value) {
    std::string texts;
    for (unsigned i = 0; i < value.size(); ++i) {
        char const* text = nullptr;
        if (value.at(i)->getString(&text) && *text) texts.append(texts.empty() ? "" : ", ").append(text);
    }
    return texts.empty() ? std::nullopt : std::optional(texts);
}

bool Is(EngineSetting const& one, EngineSetting const& other) {
    return std::string_view(one.section) == other.section && std::string_view(one.key) == other.key;
}

std::string FaultOfServers(std::string_view text) {
    try {
        ReadServers({text});
        return {};
    } catch (EngineFailure const& failure) {
        return failure.what();
    }
}

}  // namespace

char const* EngineSetting::type() const {
    static constexpr char const* Names[] = {"bool", "unsigned", "number", "text", "list"};
    return Names[static_cast<int>(kind)];
}

std::optional<std::string> EngineSetting::read(Value const& value) const {
    static constexpr decltype(&Flag) Readers[] = {Flag, Number, Real, Text, List};
    return Readers[static_cast<int>(kind)](value);
}

std::string EngineSetting::fault(std::string_view text) const {
    namespace settings = engine_settings;
    if (Is(*this, settings::ClamdSockets) || Is(*this, settings::SpamServers)) return FaultOfServers(text);
    bool const bad = Is(*this, settings::SpamSource) && !SpamSettings::sourceOf(text);
    return bad ? SpamSettings::unknownSource(text) : std::string();
}

RuleAttributes RuleAttributesOf(std::string_view section) {
    if (section == kContentName || section == kSpamName) return kTextRuleAttributes;
    if (section == kMailFilterName) return kMailRuleAttributes;
    return section == kFormatName ? RuleAttributes(kFormatRuleAttributes) : RuleAttributes();
}

EngineSetting const* FindEngineSetting(std::string_view section, std::string_view key) {
    for (auto const& one : kEngineSettings)
        if (one.section == section && one.key == key) return &one;
    return nullptr;
}

}  // namespace policyloader
