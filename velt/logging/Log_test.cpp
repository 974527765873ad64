#include "velt/logging/Log.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <stdexcept>
#include <string>

#include "testing/EventCapture.h"
#include "velt/logging/Events.h"
#include "velt/logging/Keys.h"

namespace {

using velt_testing::EventCapture;

TEST(Reports, BuildNoBagForAnEventThatIsOff) {
    EventCapture events;
    QXlog::detail::noLogging();
    bool built = false;
    VELT::LogEvent(VELT::events::SESSION_BEGINS, [&] {
        built = true;
        return KORlog::InfoBag();
    });
    EXPECT_FALSE(built);
}

TEST(Reports, CarryBagTextAndPlace) {
    EventCapture events;
    events.Expect(VELT::events::PROXY_STARTS);
    int const line = __LINE__ + 1;
    VELT::LogEvent(
        VELT::events::PROXY_STARTS, [] { return VELT::QXPROP_VELT_COMMAND_LINE("smtp -d"); }, "text");
    auto const came = events.Events().at(0);
    EXPECT_EQ(velt_testing::Describe(came.bag), "velt_command_line=smtp -d");
    EXPECT_EQ(came.text, "text");
    EXPECT_NE(came.file.find("Log_test.cpp"), std::string::npos);
    EXPECT_EQ(came.line, line);
    EXPECT_NE(came.function.find("TestBody"), std::string::npos);
}

TEST(Reports, WhoseBagFailsDoNotDisturbTheCaller) {
    EventCapture events;
    EXPECT_NO_THROW(VELT::LogEvent(VELT::events::PROXY_STARTS,
                                   []() -> KORlog::InfoBag { throw std::runtime_error("no name service"); }));
}

TEST(Keys, AreNamesOfTheLibrary) {
    EXPECT_STREQ(VELT::QXPROP_CONNECTION.name, "connection");
    EXPECT_STREQ(VELT::QXPROP_SCANNER_AV.name, "scanner_av");
    EXPECT_EQ(&VELT::QXPROP_AUDIT_ID, &QXlog::names::QXPROP_AUDIT_ID);
}

TEST(Catalogue, NamesAreTheObjectsOfTheirNumbers) {
    QXlog::Event const& byName = VELT::events::SESSION_BEGINS;
    QXlog::Event const& byNumber = QXlog::EventT<10003, QXlog::ReasonT<68>>::value;
    EXPECT_EQ(&byName, &byNumber);
    EXPECT_EQ(VELT::events::IDENTITY_SELECTED.asString(), "15004");
    EXPECT_EQ(VELT::events::IDENTITY_SELECTED.reason(), nullptr);
}

TEST(Catalogue, EveryRowHasItsNumberItsWordsAndItsKeys) {
    struct Row {
        QXlog::Event const& event;
        int number, reason;
        char const *keys, *words, *advice;
    };
    Row const rows[] = {
#define VELT_EVENT(name, number, reason, keys, words, advice) {VELT::events::name, number, reason, keys, words, advice},
#define VELT_EVENT_ALONE(name, number, keys, words, advice) {VELT::events::name, number, -1, keys, words, advice},
#include "velt/logging/Events.def"
#undef VELT_EVENT
#undef VELT_EVENT_ALONE
    };
    VELT::events::RegisterEventTexts();
    std::map<std::string, int> seen;
    for (Row const& row : rows) {
        std::string const name = row.event.asString();
        EXPECT_EQ(++seen[name], 1) << name;
        EXPECT_EQ(row.event.id(), row.number);
        EXPECT_EQ(row.event.reason() ? row.event.reason()->number() : -1, row.reason);
        EXPECT_STREQ(QXlog::FindText(row.number, row.reason), row.words);
        EXPECT_GT(std::strlen(row.advice), 10u) << name;
        EXPECT_GT(std::strlen(row.keys), 0u) << name;
    }
    EXPECT_EQ(seen.size(), std::size(rows));
}

}  // namespace
