// The main of every unit test program. The library may kill its own process group when a shutdown hangs, so a test
// process leads a group of its own before anything else happens. It may also end the process, and with success: a test
// that was cut short so has failed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

pid_t s_testing = 0;  // the process whose tests have not ended; those that it forks end as they like

void FailInMidTest() {
    if (::getpid() != s_testing) return;
    std::fputs("The process was ended in the middle of a test.\n", stderr);
    std::fflush(nullptr);
    ::_exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    ::setpgid(0, 0);
    ::testing::InitGoogleTest(&argc, argv);
    s_testing = ::getpid();
    std::atexit(FailInMidTest);
    int const result = RUN_ALL_TESTS();
    s_testing = 0;
    return result;
}
