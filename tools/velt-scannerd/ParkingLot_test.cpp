#include "ParkingLot.h"

#include <gtest/gtest.h>

#include "testing/Sockets.h"

namespace scannerd {
namespace {

using velt_testing::Fd;

bool IsHungUpOn(Fd const& other) {
    char byte;
    return ::recv(other.get(), &byte, 1, MSG_DONTWAIT) == 0;
}

TEST(ParkingLot, HangsUpOnTheOneThatHasBeenThereLongest) {
    ParkingLot lot;
    auto first = velt_testing::SocketPair(), second = velt_testing::SocketPair();
    lot.Enter(first.first.get());
    lot.Enter(second.first.get());
    EXPECT_TRUE(lot.MakeRoom());
    EXPECT_TRUE(IsHungUpOn(first.second));
    EXPECT_FALSE(IsHungUpOn(second.second));
    EXPECT_TRUE(lot.MakeRoom());
    EXPECT_TRUE(IsHungUpOn(second.second));
    EXPECT_FALSE(lot.MakeRoom());
}

TEST(ParkingLot, LeavesThoseAloneThatHaveLeft) {
    ParkingLot lot;
    auto gone = velt_testing::SocketPair(), here = velt_testing::SocketPair();
    lot.Enter(gone.first.get());
    lot.Enter(here.first.get());
    lot.Leave(gone.first.get());
    lot.Leave(gone.first.get());
    EXPECT_TRUE(lot.MakeRoom());
    EXPECT_FALSE(IsHungUpOn(gone.second));
    EXPECT_TRUE(IsHungUpOn(here.second));
}

}  // namespace
}  // namespace scannerd
