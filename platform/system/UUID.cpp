#include <system/UUID.h>

#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cstring>

namespace {

constexpr std::size_t kFetch = 256;  // the system gives so many bytes whole or none

// A session has two texts, and the library's generator makes a dozen system calls for each. Here a thread fetches
// random bytes for sixteen at once. A child process must not go on with its parent's bytes: fork makes them old.
std::atomic<unsigned> s_forks{0};

struct RandomBytes {
    unsigned char bytes[kFetch];
    std::size_t left = 0;
    unsigned forks = 0;
};

void CountForks() {
    [[maybe_unused]] static int const registered =
        ::pthread_atfork(nullptr, nullptr, [] { s_forks.fetch_add(1, std::memory_order_relaxed); });
}

// False: the system has no random bytes to give.
bool Fetch(RandomBytes& random) {
    CountForks();
    random.forks = s_forks.load(std::memory_order_relaxed);
    random.left = ::getrandom(random.bytes, kFetch, 0) == kFetch ? kFetch : 0;
    return random.left != 0;
}

void Take(uuid_t& uuid) {
    thread_local RandomBytes random;
    bool const usable = random.left != 0 && random.forks == s_forks.load(std::memory_order_relaxed);
    if (!usable && !Fetch(random)) return ::uuid_generate(uuid);
    random.left -= sizeof uuid;
    std::memcpy(uuid, random.bytes + random.left, sizeof uuid);
    std::memset(random.bytes + random.left, 0, sizeof uuid);
    uuid[6] = static_cast<unsigned char>((uuid[6] & 0x0f) | 0x40);  // version 4
    uuid[8] = static_cast<unsigned char>((uuid[8] & 0x3f) | 0x80);  // the variant of RFC 4122
}

}  // namespace

std::string UUID::get() {
    uuid_t uuid;
    Take(uuid);
    char text[UUID_STR_LEN];
    ::uuid_unparse_lower(uuid, text);
    return text;
}
