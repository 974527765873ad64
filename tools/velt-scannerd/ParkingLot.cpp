#include "ParkingLot.h"

#include <sys/socket.h>

#include <algorithm>

namespace scannerd {

void ParkingLot::Enter(int fd) {
    std::lock_guard const hold(m_lock);
    m_parked.push_back(fd);
}

void ParkingLot::Leave(int fd) {
    std::lock_guard const hold(m_lock);
    m_parked.erase(std::remove(m_parked.begin(), m_parked.end(), fd), m_parked.end());
}

bool ParkingLot::MakeRoom() {
    std::lock_guard const hold(m_lock);
    if (m_parked.empty()) return false;
    ::shutdown(m_parked.front(), SHUT_RDWR);
    m_parked.pop_front();
    return true;
}

}  // namespace scannerd
