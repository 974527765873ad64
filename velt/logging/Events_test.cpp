// Linked as a host is, to the shared library alone.
#include "velt/logging/Events.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

std::vector<QXlog::Event const*> const kEvents = {
#define VELT_EVENT(name, number, reason, keys, words, advice) &VELT::events::name,
#define VELT_EVENT_ALONE(name, number, keys, words, advice) &VELT::events::name,
#include "velt/logging/Events.def"
#undef VELT_EVENT
#undef VELT_EVENT_ALONE
};

}  // namespace

TEST(Events, AreAllWithinAHostsReach) {
    std::set<std::string> names;
    for (auto const* event : kEvents) names.insert(event->asString());
    EXPECT_EQ(names.size(), kEvents.size());
}

TEST(Events, WithoutAReasonSaySo) {
    EXPECT_EQ(VELT::events::IDENTITY_SELECTED.asString(), "15004");
    EXPECT_EQ(VELT::events::IDENTITY_SELECTED.reason(), nullptr);
}
