#include <eFabric/ScanTime.h>

ScanTime& ScanTime::operator=(ScanTime const& other) {
    m_t.store(other.Get(), std::memory_order_relaxed);
    return *this;
}

void ScanTime::Set() { m_t.store(std::time(nullptr), std::memory_order_relaxed); }

void ScanTime::Set(long t, st_mode_t) { m_t.store(t, std::memory_order_relaxed); }
