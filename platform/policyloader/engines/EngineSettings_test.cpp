// The table of the engines' settings against what a scan is planned with.
#include <gtest/gtest.h>

#include <string>

#include <policyloader/engines/EngineSettings.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreSnapshot.h>
#include <policyloader/store/Value.h>

namespace policyloader {
namespace {

std::string Planned(ClamdSettings const& clamd) {
    return clamd.error + ' ' + std::to_string(clamd.seconds) + ' ' + std::to_string(clamd.maxBytes);
}

std::string Planned(SpamSettings const& spam) {
    std::string text = spam.error + ' ' + spam.action + ' ' + std::to_string(spam.isOn);
    for (double const one : {double(spam.source), spam.seconds, double(spam.maxBytes), spam.threshold.value_or(-1),
                             spam.actionThreshold.value_or(-1)})
        text += ' ' + std::to_string(one);
    return text;
}

std::string Planned(MailSettings const& mail) {
    return std::to_string(mail.isOn) + ' ' + mail.action + ' ' + mail.alert;
}

std::string InWords(Disclaimer const& made) {
    return ' ' + std::to_string(made.enabled) + ' ' + made.text + ' ' + made.html + ' ' + made.position + ' ' +
           made.parts + ' ' + std::to_string(made.once) + ' ' + std::to_string(made.leaveDkim);
}

// All that a plan has from settings.
std::string Planned(std::string const& settings) {
    auto const store = ParseStore("rules.xml", "<rules><policy name='content_in'>" + settings + "</policy></rules>");
    RuleCaches caches;
    auto const policy = InternPool::process().intern("content_in");
    ScanPlan const plan(store->view(policy, InternedString(), 1), EngineSelection(), caches);
    auto const& limits = plan.limits;
    return std::to_string(limits.depth) + ' ' + std::to_string(limits.parts) + ' ' + std::to_string(limits.scanBytes) +
           ' ' + std::to_string(limits.expansion) + ' ' + limits.action + ' ' + std::to_string(plan.antiVirus) + ' ' +
           plan.antiVirusAction + ' ' + plan.antiVirusAlert + ' ' + Planned(plan.clamd) + ' ' + Planned(plan.spam) +
           ' ' + Planned(plan.mail) + ' ' + std::to_string(plan.content) + ' ' + plan.contentAction + ' ' +
           plan.contentAlert + ' ' + std::to_string(plan.threshold) + ' ' + std::to_string(plan.format) + ' ' +
           plan.formatAction + ' ' + plan.formatAlert + ' ' + plan.onEncrypted + ' ' + plan.onBroken +
           InWords(plan.disclaimer);
}

std::string Settings(EngineSetting const& setting, std::string const& text) {
    return std::string("<settings section='") + setting.section + "'><set name='" + setting.key + "'>" + text +
           "</set></settings>";
}

constexpr char const kRule[] =
    "<settings section='KORContentScanner'><rule name='r' match='secret' action='LOG'/></settings>"
    "<settings section='KORMailFilter'><rule name='r' size='5'/></settings>"
    "<settings section='SpamScanner'><rule name='r' match='cheap'/></settings>";

TEST(EngineSettings, EachChangesWhatAScanIsPlannedWith) {
    std::string const usual = Planned(kRule);
    for (auto const& setting : kEngineSettings) {
        bool const flag = setting.kind == EngineSetting::Kind::flag;
        EXPECT_NE(
            Planned(kRule + Settings(setting, flag ? (std::string(setting.standard) == "true" ? "off" : "on") : "7")),
            usual)
            << setting.section << setting.key;
    }
}

TEST(EngineSettings, WithoutAReadingLeaveThePlanAsItIs) {
    std::string const usual = Planned(kRule);
    for (auto const& setting : kEngineSettings) {
        char const* const unreadable = setting.kind >= EngineSetting::Kind::text ? "" : "some";
        EXPECT_EQ(setting.read(Value::Scalar(unreadable)), std::nullopt) << setting.section << setting.key;
        EXPECT_EQ(Planned(kRule + Settings(setting, unreadable)), usual) << setting.section << setting.key;
    }
}

TEST(EngineSettings, AreReadAsTheirKindSays) {
    using namespace engine_settings;
    EXPECT_EQ(ContentEnabled.read(Value::Scalar("Yes")), "true");
    EXPECT_EQ(MaxDepth.read(Value::Scalar("17")), "17");
    EXPECT_EQ(MaxDepth.read(Value::Scalar("-1")), std::nullopt);
    EXPECT_EQ(ContentThreshold.read(Value::Scalar("2.50")), "2.5");
    EXPECT_EQ(OnLimit.read(Value::Scalar("LOG")), "LOG");
}

TEST(EngineSettings, AreFoundByTheirName) {
    EXPECT_EQ(FindEngineSetting("KORFormatScanner", "MaxDepth")->kind, EngineSetting::Kind::number);
    EXPECT_EQ(FindEngineSetting("KORFormatScanner", "maxdepth"), nullptr);
    EXPECT_EQ(FindEngineSetting("KORAVScanner", "MaxDepth"), nullptr);
}

}  // namespace
}  // namespace policyloader
