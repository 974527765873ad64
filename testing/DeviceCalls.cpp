// The calls that DeviceModel and ManagerModel stand under: what a program defines is found before the system's own.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#undef _FORTIFY_SOURCE
#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "testing/DeviceModel.h"
#include "testing/FailingNew.h"
#include "testing/ManagerModel.h"

using velt_testing::DeviceModel;
using velt_testing::ManagerModel;
using velt_testing::SparedNew;

namespace {

template <class Function>
Function Next(char const* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

void Keep(int priority, char const* format, va_list values) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, values);
    DeviceModel::TakesSyslog(priority, text);
}

}  // namespace

extern "C" {

int open(char const* path, int flags, ...) {
    SparedNew const models;
    static auto const real = Next<int (*)(char const*, int, ...)>("open");
    va_list values;
    va_start(values, flags);
    unsigned const mode = va_arg(values, unsigned);
    va_end(values);
    int result;
    bool const taken = DeviceModel::TakesOpen(path, flags, result) || ManagerModel::TakesOpen(path, flags, result);
    return taken ? result : real(path, flags, mode);
}

std::FILE* fopen(char const* path, char const* mode) {
    SparedNew const models;
    static auto const real = Next<std::FILE* (*)(char const*, char const*)>("fopen");
    return real(ManagerModel::PathFor(DeviceModel::PathFor(path)).c_str(), mode);
}

int access(char const* path, int mode) noexcept {
    SparedNew const models;
    static auto const real = Next<int (*)(char const*, int)>("access");
    int result;
    bool const taken = DeviceModel::TakesAccess(path, result) || ManagerModel::TakesAccess(path, result);
    return taken ? result : real(path, mode);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    SparedNew const models;
    static auto const real = Next<int (*)(int, unsigned long, ...)>("ioctl");
    va_list values;
    va_start(values, request);
    void* const argument = va_arg(values, void*);
    va_end(values);
    int result;
    bool const taken = DeviceModel::TakesIoctl(fd, request, argument, result) ||
                       ManagerModel::TakesIoctl(fd, request, argument, result);
    return taken ? result : real(fd, request, argument);
}

void syslog(int priority, char const* format, ...) {
    va_list values;
    va_start(values, format);
    Keep(priority, format, values);
    va_end(values);
}

void __syslog_chk(int priority, int, char const* format, ...) {
    va_list values;
    va_start(values, format);
    Keep(priority, format, values);
    va_end(values);
}

}  // extern "C"
