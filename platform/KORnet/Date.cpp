#include <KORnet/Date.h>

#include <cstdio>
#include <cstdlib>

namespace KORnet {

std::string rfc2822Date(std::time_t time) {
    static constexpr char const* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr char const* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm local{};
    ::tzset();
    if (!::localtime_r(&time, &local)) return {};
    long const offset = std::labs(local.tm_gmtoff) / 60;  // minutes
    char text[96];
    std::snprintf(text, sizeof text, "%s, %02d %s %04ld %02d:%02d:%02d %c%02ld%02ld", kDays[local.tm_wday],
                  local.tm_mday, kMonths[local.tm_mon], local.tm_year + 1900L, local.tm_hour, local.tm_min,
                  local.tm_sec, local.tm_gmtoff < 0 ? '-' : '+', offset / 60, offset % 60);
    return text;
}

}  // namespace KORnet
