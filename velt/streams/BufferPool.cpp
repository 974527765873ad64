#include <velt/streams/BufferPool.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace VELT {

char* BufferPool::FreeQueue::pop_front() {
    char* const buffer = m_slots[m_head];
    m_head = (m_head + 1) & (m_capacity - 1);
    --m_count;
    return buffer;
}

bool BufferPool::FreeQueue::push_back(char* buffer) {
    if (m_count == m_capacity && !grow()) return false;
    m_slots[(m_head + m_count) & (m_capacity - 1)] = buffer;
    ++m_count;
    return true;
}

bool BufferPool::FreeQueue::grow() {
    unsigned const capacity = std::max(64u, m_capacity * 2);
    std::unique_ptr<char*[]> slots(new (std::nothrow) char*[capacity]);
    if (!slots) return false;
    for (unsigned i = 0; i < m_count; ++i) slots[i] = m_slots[(m_head + i) & (m_capacity - 1)];
    m_slots = std::move(slots);
    m_capacity = capacity;
    m_head = 0;
    return true;
}

BufferPool::BufferPool(unsigned size, unsigned initial_count) : m_size(size) {
    for (unsigned i = 0; i < initial_count; ++i) release_buffer(static_cast<char*>(std::malloc(size)));
}

BufferPool::~BufferPool() {
    while (!m_free.empty()) std::free(m_free.pop_front());
}

char* BufferPool::obtain_buffer(unsigned& size) {
    size = m_size;
    m_lock.Acquire();
    if (m_free.empty()) {
        m_lock.Release();
        return static_cast<char*>(std::malloc(m_size));
    }
    char* const buffer = m_free.pop_front();
    m_lock.Release();
    return buffer;
}

void BufferPool::release_buffer(char* buffer) {
    if (!buffer) return;
    m_lock.Acquire();
    bool const queued = m_free.push_back(buffer);
    m_lock.Release();
    if (!queued) std::free(buffer);
}

}  // namespace VELT
