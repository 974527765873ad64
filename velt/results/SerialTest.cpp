#include <velt/results/SerialTest.h>

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

// Names that the linker gives to what it wraps.
extern "C" {
void __wrap_syslog(int priority, char const* format, ...);
void __wrap___syslog_chk(int priority, int flag, char const* format, ...);
}

namespace {

void KeepSyslog(int priority, char const* format, va_list arguments) {
    if (!velt_testing::KeptSyslog::s_kept) return ::vsyslog(priority, format, arguments);
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    velt_testing::KeptSyslog::s_kept->push_back(std::to_string(priority) + ' ' + text);
}

}  // namespace

void __wrap_syslog(int priority, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    KeepSyslog(priority, format, arguments);
    va_end(arguments);
}

void __wrap___syslog_chk(int priority, int, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    KeepSyslog(priority, format, arguments);
    va_end(arguments);
}
