// ParkingLot: the connections that clients keep for their next item, in the order in which they were parked. Each has a
// thread of the process: where another client would find none, the one that has been here longest is hung up on. Its
// client finds it closed when it wants to go on, and takes another.
// Owner: the process. Threads: any. Failure: std::bad_alloc.
#pragma once

#include <deque>
#include <mutex>

namespace scannerd {

class ParkingLot {
public:
    void Enter(int fd);
    void Leave(int fd);  // before it is closed; does nothing to one that is not here
    bool MakeRoom();     // false: nobody is here

private:
    std::mutex m_lock;  // guards the rest
    std::deque<int> m_parked;
};

}  // namespace scannerd
