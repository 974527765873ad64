// A wire that breaks while a real client and the scanner daemon's own conversation use it: at every step of an item, in
// every way. Each has its result, at most one event, one counter, and an end.
#include "FaultyWire.h"

#include <QXStats/QXCounter.h>
#include <gtest/gtest.h>

#include <chrono>

#include "WireWorld.h"
#include "testing/EventCapture.h"

namespace velt_wire {
namespace {

constexpr auto kLongest = std::chrono::seconds(15);

// What comes of it: the result of the scan, and the reason of its event. 0: none.
struct End {
    int result;
    unsigned reason;
    bool operator==(End const&) const = default;
};

constexpr End kGood{0, 0}, kNotDelivered{-1001, 400}, kLost{-1, 400}, kLacking{-1, 401}, kRefused{-1, 402},
    kWithdrawn{-1, 0};

struct Place {
    char const* name;
    Speaker speaker;
    char const* behind;
    unsigned time;
    End reset, halfClose, stall, rubbish, shorter;
};

constexpr End kRefusedItem{-1001, 402};

// One item that is scanned with attributes, and whose content comes back changed. A byte of content is nobody's
// business; a kept connection that breaks costs a new one and no scan.
Place const kPlaces[] = {
    {"headers of the set-up", Speaker::Client, "get setup_scan\nproto", 1, kNotDelivered, kNotDelivered, kNotDelivered,
     kRefusedItem, kRefusedItem},
    {"properties of the item", Speaker::Client, "scan_properties.NO", 1, kNotDelivered, kNotDelivered, kNotDelivered,
     kRefusedItem, kGood},
    {"content", Speaker::Client, "Subject", 1, kNotDelivered, kNotDelivered, kNotDelivered, kGood, kNotDelivered},
    {"answer to the set-up", Speaker::Daemon, "Sta", 1, kNotDelivered, kNotDelivered, kNotDelivered, kNotDelivered,
     kNotDelivered},
    {"request of a scan", Speaker::Client, "get scan\nide", 1, kLost, kLost, kWithdrawn, kRefused, kRefused},
    {"question for attributes", Speaker::Daemon, "State Att", 1, kLost, kLost, kLost, kLost, kRefused},
    {"attributes", Speaker::Client, "conattr.HO", 1, kLost, kLost, kWithdrawn, kRefused, kRefused},
    {"headers of the answer", Speaker::Daemon, "output_in_", 1, kLacking, kLost, kLacking, kLost, kLacking},
    {"verdict", Speaker::Daemon, "msr.mod", 1, kLost, kLost, kLost, kLacking, kLacking},
    {"properties after the scan", Speaker::Daemon, "\n\n\r", 1, kLost, kLost, kLost, kLost, kLost},
    {"content after the scan", Speaker::Daemon, "Subject", 1, kLost, kLost, kLost, kGood, kLost},
    {"stasis", Speaker::Client, "get sta", 1, kGood, kGood, kGood, kGood, kGood},
    {"answer to the stasis", Speaker::Daemon, "Sta", 4, kGood, kGood, kGood, kGood, kGood},
    {"wakeup", Speaker::Client, "get wake", 1, kGood, kGood, kGood, kGood, kGood},
    {"answer to the wakeup", Speaker::Daemon, "Sta", 5, kGood, kGood, kGood, kGood, kGood},
};

struct Way {
    char const* name;
    Break how;
    End Place::*end;
};

constexpr Way kWays[] = {
    {"reset", Break::Reset, &Place::reset},       {"half close", Break::HalfClose, &Place::halfClose},
    {"stall", Break::Stall, &Place::stall},       {"drip", Break::Drip, nullptr},
    {"rubbish", Break::Rubbish, &Place::rubbish}, {"short body", Break::Short, &Place::shorter},
};

unsigned ReasonOf(velt_testing::EventCapture const& events, std::string const& where) {
    std::vector<unsigned> reasons;
    for (std::string const& name : events.Names())
        if (name.starts_with("190002:")) reasons.push_back(static_cast<unsigned>(std::stoul(name.substr(7))));
    EXPECT_LE(reasons.size(), 1u) << where;
    return reasons.empty() ? 0 : reasons.front();
}

unsigned long Failures() { return QXStats::QXCounter("scanner.conn.failures").value(); }

class BrokenExchange : public testing::Test {
protected:
    BrokenExchange() {
        item.attributes = true;
        item.properties = 2;
    }

    // The first scan is of an item that breaks nothing, so that its connection is kept; the second of one that does.
    void Have(Place const& place, Way const& way) {
        std::string const where = std::string(way.name) + " in " + place.name;
        FaultyWire wire(world.SpoolFolder(), {place.speaker, place.behind, place.time, way.how});
        velt_testing::EventCapture events;
        events.AllowAll();
        unsigned long const failures = Failures();
        auto const begin = std::chrono::steady_clock::now();
        auto const hasBroken = [&] { return wire.HasBroken(); };
        ++server;
        End end{0, 0};
        for (int scan = 0; scan < 2 && end.result == 0; ++scan)
            end.result = world.ScanAt(wire.address(), server, item, hasBroken, way.how == Break::Stall);
        end.reason = ReasonOf(events, where);
        End const expected = way.end ? place.*way.end : kGood;
        EXPECT_EQ(end.result, expected.result) << where;
        EXPECT_EQ(end.reason, expected.reason) << where;
        EXPECT_TRUE(wire.HasBroken()) << where;
        EXPECT_EQ(Failures() - failures, end.result == 0 ? 0u : 1u) << where;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, kLongest) << where;
        EXPECT_TRUE(world.IsFree()) << where;
        world.CloseIdle();
    }

    WireWorld world;
    Item item = ItemNamed("a replaced part");
    int server = 100;
};

TEST_F(BrokenExchange, HasItsResultAtEveryStepAndInEveryWay) {
    for (Place const& place : kPlaces)
        for (Way const& way : kWays) Have(place, way);
}

TEST_F(BrokenExchange, IsNoneWhereTheConnectionIsRefused) {
    velt_testing::Listener closed(16, 0, "127.0.0.2");
    sockaddr_in const nobody = closed.address();
    closed.Close();
    velt_testing::EventCapture events;
    events.AllowAll();
    unsigned long const failures = Failures();
    EXPECT_EQ(world.ScanAt(
                  nobody, ++server, item, [] { return false; }, false),
              -1000);
    EXPECT_EQ(ReasonOf(events, "refused"), 400u);
    EXPECT_EQ(Failures() - failures, 1u);
    EXPECT_TRUE(world.IsFree());
}

}  // namespace
}  // namespace velt_wire
