// ScanTime: the time at which a scan takes place, in seconds since the epoch. 0: never set.
// Threads: set and read from any, without a lock; a copy holds the time of that moment. Nothing fails.
#pragma once

#include <atomic>
#include <ctime>

#include <Export.h>

// How the setter counts. A time_t names the same instant either way, so both hold the value as given.
enum st_mode_t { ST_UTC = 0, ST_LOCAL = 1 };

class VELTPLATFORM_API ScanTime {
public:
    ScanTime() : m_t(0) {}
    ScanTime(ScanTime const& other) : m_t(other.Get()) {}
    ScanTime& operator=(ScanTime const& other);
    void Set();  // now
    void Set(long t, st_mode_t mode);
    std::time_t Get() const { return m_t.load(std::memory_order_relaxed); }

private:
    std::atomic<std::time_t> m_t;
};
