// A library to be loaded before the C library: the calls of fork that VELT_FORKS_FAIL names ("2,4") fail with EAGAIN.
// They are counted along the line of descent: a child goes on from where its parent was when it was made.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

int s_calls = 0;

bool Fails(int call) {
    char const* const list = std::getenv("VELT_FORKS_FAIL");
    return list && ("," + std::string(list) + ",").find("," + std::to_string(call) + ",") != std::string::npos;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) pid_t fork() {
    if (Fails(++s_calls)) {
        errno = EAGAIN;
        return -1;
    }
    return reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"))();
}
