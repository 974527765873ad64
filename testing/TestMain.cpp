// The main of every unit test program. The library may kill its own process group when a shutdown hangs, so a test
// process leads a group of its own before anything else happens.
#include <gtest/gtest.h>
#include <unistd.h>

int main(int argc, char** argv) {
    ::setpgid(0, 0);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
