// Record: one report with all that a sink may show. Value; owns all its texts, so it may wait in a queue.
#pragma once

#include <KORlog/InfoBag.h>

#include <sys/types.h>
#include <chrono>
#include <string>

namespace QXlog::detail {

struct Record {
    std::chrono::system_clock::time_point time;
    std::string identity;
    pid_t pid = 0;
    int event = 0;
    int reason = -1;              // kNoReason
    char const* words = nullptr;  // of the catalogue; null when it knows none
    std::string text;
    std::string file;
    int line = 0;
    std::string function;
    KORlog::InfoBag bag;
};

// What comes from the network is cut to these, in bytes before escaping for a value and after it for a record.
struct Limits {
    std::size_t value = 1024;
    std::size_t record = 16384;
};

}  // namespace QXlog::detail
