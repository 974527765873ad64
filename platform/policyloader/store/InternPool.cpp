#include <policyloader/store/InternPool.h>

#include <pthread.h>

#include <functional>

namespace policyloader {

InternPool& InternPool::process() {
    static InternPool& pool = *Create();
    return pool;
}

InternPool* InternPool::Create() {
    auto* const pool = new InternPool;
    ::pthread_atfork(&LockAll, &UnlockAll, &UnlockAll);
    return pool;
}

void InternPool::LockAll() {
    for (auto& shard : process().m_shards) shard.mutex.lock();
}

void InternPool::UnlockAll() {
    for (auto& shard : process().m_shards) shard.mutex.unlock();
}

InternedString InternPool::intern(std::string_view text) {
    std::string owned(text);
    auto& shard = m_shards[std::hash<std::string>{}(owned) % m_shards.size()];
    std::lock_guard const lock(shard.mutex);
    return InternedString(shard.texts.insert(std::move(owned)).first->c_str());
}

wchar_t const* InternPool::internWide(std::wstring const& text) {
    auto& shard = m_shards[std::hash<std::wstring>{}(text) % m_shards.size()];
    std::lock_guard const lock(shard.mutex);
    return shard.wide.insert(text).first->c_str();
}

std::size_t InternPool::size() const {
    std::size_t count = 0;
    for (auto const& shard : m_shards) {
        std::lock_guard const lock(shard.mutex);
        count += shard.texts.size();
    }
    return count;
}

}  // namespace policyloader
