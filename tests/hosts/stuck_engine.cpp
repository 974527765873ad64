// A library to be loaded before the others: an engine that comes upon the words of VELT_STUCK_AT spins and never comes
// back, and the clock of the process is ahead by as many seconds as the file VELT_STUCK_AHEAD has bytes.
#include <dlfcn.h>
#include <hs/hs.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <string_view>

namespace {

std::time_t Ahead() {
    char const* const file = std::getenv("VELT_STUCK_AHEAD");
    struct stat facts;
    return file && ::stat(file, &facts) == 0 ? facts.st_size : 0;
}

// Without a system call, and as engines do with calls of the C library: the thread sanitizer lets signals in with
// those.
void SpinAt(std::string_view text) {
    char const* const words = std::getenv("VELT_STUCK_AT");
    if (!words) return;
    while (text.find(words) != text.npos) asm volatile("" : : : "memory");
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) time_t time(time_t* to) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += Ahead();
    if (to) *to = now.tv_sec;
    return now.tv_sec;
}

__attribute__((visibility("default"))) hs_error_t hs_scan_stream(hs_stream_t* stream, char const* data, unsigned length,
                                                                 unsigned flags, hs_scratch_t* scratch,
                                                                 match_event_handler found, void* whose) {
    SpinAt({data, length});
    return reinterpret_cast<decltype(&hs_scan_stream)>(::dlsym(RTLD_NEXT, "hs_scan_stream"))(
        stream, data, length, flags, scratch, found, whose);
}

}  // extern "C"
