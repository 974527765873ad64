// BufferPool: the free input buffers of one size, shared by all streams of a process.
// Owner: the process; made at start and never destroyed before it ends. Threads: any; one Lock guards the queue.
// Units: bytes. Failure: a buffer that could not be allocated is null; nothing throws after construction.
#pragma once

#include <memory>

#include <velt/Export.h>
#include <velt/runtime/Lock.h>

namespace VELT {

class VELT_API BufferPool {
public:
    // A buffer that cannot be allocated now is left out: the pool starts smaller.
    BufferPool(unsigned size, unsigned initial_count);
    ~BufferPool();  // frees the buffers that are queued
    BufferPool(BufferPool const&) = delete;
    BufferPool& operator=(BufferPool const&) = delete;

    // The buffer that waits longest, or a new one. `size` is set also when the answer is null.
    char* obtain_buffer(unsigned& size);
    // Gives a buffer back, last in the queue; null is ignored. The pool keeps all that it ever got.
    void release_buffer(char* buffer);

    unsigned size() const { return m_size; }

private:
    // A ring, so that handing buffers out and back allocates nothing.
    class FreeQueue {
    public:
        bool empty() const { return m_count == 0; }
        char* pop_front();
        bool push_back(char* buffer);  // false: no memory to grow

    private:
        bool grow();

        std::unique_ptr<char*[]> m_slots;
        unsigned m_capacity = 0;  // a power of two, or 0
        unsigned m_head = 0;
        unsigned m_count = 0;
    };

    Lock m_lock;
    FreeQueue m_free;  // guarded by m_lock
    unsigned m_size;   // fixed by construction, read without lock
};

}  // namespace VELT
