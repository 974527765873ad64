#include "ServersFile.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace rmgrd;

namespace {

ServersFile Read(std::string const& text) {
    std::istringstream in(text);
    return ReadServers(in);
}

}  // namespace

TEST(ServersFileTest, ReadsOneServerALine) {
    ServersFile const file = Read("# the farm\n\nscan-a 192.0.2.1 4310\r\n  scan-b\t192.0.2.2 4310 8 # four cores\n");
    EXPECT_TRUE(file.complaints.empty());
    ASSERT_EQ(file.servers.size(), 2u);
    EXPECT_EQ(file.servers[0].name, "scan-a");
    EXPECT_EQ(PlaceOf(file.servers[0]), "192.0.2.1:4310");
    EXPECT_EQ(file.servers[0].capacity, 0);
    EXPECT_EQ(file.servers[1].capacity, 8);
}

TEST(ServersFileTest, TellsOfALineThatCannotBeUsedAndTakesTheOthers) {
    for (char const* const line :
         {"a", "a 192.0.2.1", "a 192.0.2 4310", "a host 4310", "a ::1 4310", "a 192.0.2.1 0", "a 192.0.2.1 65536",
          "a 192.0.2.1 43x", "a 192.0.2.1 4310 -1", "a 192.0.2.1 4310 x", "a 192.0.2.1 4310 1 more"}) {
        ServersFile const file = Read(std::string("b 192.0.2.9 1\n") + line + "\nc 192.0.2.9 2");
        EXPECT_EQ(file.servers.size(), 2u) << line;
        ASSERT_EQ(file.complaints.size(), 1u) << line;
        EXPECT_EQ(file.complaints[0].substr(0, 8), "line 2: ") << line;
    }
}

TEST(ServersFileTest, TakesAPlaceOnceAndNoMoreThanItsLimit) {
    EXPECT_EQ(Read("a 192.0.2.1 1\nb 192.0.2.1 1\n").complaints.at(0), "line 2: 192.0.2.1:1 stands there twice");
    std::string many;
    for (int i = 1; i <= 300; ++i) many += "a 192.0.2.1 " + std::to_string(i) + "\n";
    ServersFile const file = Read(many);
    EXPECT_EQ(file.servers.size(), 256u);
    EXPECT_EQ(file.complaints.size(), 44u);
}
