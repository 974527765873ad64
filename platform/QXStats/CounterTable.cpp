#include <QXStats/CounterTable.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system/Descriptor.h>
#include <system/SystemPath.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>

namespace QXStats {
namespace {

constexpr char kMagic[8] = {'V', 'E', 'L', 'T', 'C', 'N', 'T', 'R'};
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kFree = 0, kClaimed = 1, kInUse = 2;
constexpr int kPatience = 10000;  // yields to whoever is making a slot, before it is given up as dead

static_assert(std::atomic<std::uint32_t>::is_always_lock_free && std::atomic<unsigned long>::is_always_lock_free);
static_assert(sizeof(CounterTable) == 131072);

// The proxy's name as a file name: nothing of it leads to another folder.
std::string FileName(std::string const& proxy) {
    std::string name = proxy.substr(0, 100);
    std::replace(name.begin(), name.end(), '/', '_');
    std::replace(name.begin(), name.end(), '\0', '_');
    if (name.empty() || name.front() == '.') name.insert(0, "_");
    return name;
}

// A file that another user owns could be cut short under the mapping, so it is not shared with.
bool Trusted(int fd) {
    struct stat info;
    if (::fstat(fd, &info) != 0) return false;
    return S_ISREG(info.st_mode) && info.st_nlink == 1 && (info.st_uid == ::geteuid() || info.st_uid == 0) &&
           info.st_size == static_cast<off_t>(sizeof(CounterTable));
}

void* Map(int fd, int protection) {
    void* const memory = ::mmap(nullptr, sizeof(CounterTable), protection, MAP_SHARED, fd, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

bool CopyName(char* to, std::size_t room, std::string_view name) {
    std::memset(to, 0, room);
    std::memcpy(to, name.data(), std::min(name.size(), room - 1));
    return name.size() < room;
}

std::string_view BoundedText(char const* text, std::size_t room) { return {text, ::strnlen(text, room)}; }

}  // namespace

std::string CounterTable::FilePath(std::string const& proxy) {
    return SystemPath("/run/velt/" + FileName(proxy) + ".counters");
}

std::string CounterTable::MemoryPath(std::string const& proxy) { return "/dev/shm/velt-" + FileName(proxy); }

CounterTable* CounterTable::OpenShared(std::string const& proxy) {
    std::string const file = FilePath(proxy);
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    for (std::string const& path : {file, MemoryPath(proxy)}) {
        if (CounterTable* const table = MapFile(path, proxy)) return table;
    }
    return MapPrivate(proxy);
}

CounterTable const* CounterTable::Open(std::string const& file) {
    Descriptor const fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info;
    if (!fd || ::fstat(fd.get(), &info) != 0) return nullptr;
    if (!S_ISREG(info.st_mode) || info.st_size != static_cast<off_t>(sizeof(CounterTable))) {
        errno = EBADMSG;
        return nullptr;
    }
    auto const* const table = static_cast<CounterTable const*>(Map(fd.get(), PROT_READ));
    if (!table || table->WellFormed()) return table;
    ::munmap(const_cast<CounterTable*>(table), sizeof(CounterTable));
    errno = EBADMSG;
    return nullptr;
}

// A file that is there is counted on in; otherwise a whole new one takes the name, so that nobody sees half a table.
CounterTable* CounterTable::MapFile(std::string const& file, std::string const& proxy) {
    Descriptor const have(::open(file.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (have && Trusted(have.get())) {
        auto* const table = static_cast<CounterTable*>(Map(have.get(), PROT_READ | PROT_WRITE));
        if (table && table->WellFormed()) return table;
        if (table) ::munmap(table, sizeof(CounterTable));
    }
    std::string fresh = file + ".XXXXXX";
    Descriptor const made(::mkostemp(fresh.data(), O_CLOEXEC));
    if (!made) return nullptr;
    auto* const memory = ::posix_fallocate(made.get(), 0, sizeof(CounterTable)) == 0 && ::fchmod(made.get(), 0644) == 0
                             ? Map(made.get(), PROT_READ | PROT_WRITE)
                             : nullptr;
    if (memory) {
        auto* const table = static_cast<CounterTable*>(memory);
        table->Format(proxy);
        if (::rename(fresh.c_str(), file.c_str()) == 0) return table;
        ::munmap(memory, sizeof(CounterTable));
    }
    ::unlink(fresh.c_str());
    return nullptr;
}

CounterTable* CounterTable::MapPrivate(std::string const& proxy) {
    void* const memory =
        ::mmap(nullptr, sizeof(CounterTable), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    auto* const table = static_cast<CounterTable*>(memory);
    table->Format(proxy);
    return table;
}

void CounterTable::Format(std::string const& proxy) {
    CopyName(m_header.proxy, sizeof m_header.proxy, proxy);
    m_header.version = kVersion;
    m_header.slots = kSlots;
    std::memcpy(m_header.magic, kMagic, sizeof kMagic);
}

bool CounterTable::WellFormed() const {
    return std::memcmp(m_header.magic, kMagic, sizeof kMagic) == 0 && m_header.version == kVersion &&
           m_header.slots == kSlots;
}

// All look from the first slot on, and a slot once claimed stays, so two who make the same name meet at the same slot.
std::atomic<unsigned long>* CounterTable::Find(std::string_view name) {
    if (name.empty() || name.size() >= kNameRoom) return nullptr;
    for (Slot& slot : m_slots) {
        std::uint32_t state = kFree;
        if (slot.state.compare_exchange_strong(state, kClaimed, std::memory_order_acquire)) {
            CopyName(slot.name, sizeof slot.name, name);
            slot.state.store(kInUse, std::memory_order_release);
            return &slot.value;
        }
        for (int wait = 0; state == kClaimed && wait < kPatience; ++wait) {
            ::sched_yield();
            state = slot.state.load(std::memory_order_acquire);
        }
        if (state == kInUse && BoundedText(slot.name, sizeof slot.name) == name) return &slot.value;
    }
    return nullptr;
}

std::vector<CounterTable::Value> CounterTable::Read() const {
    std::vector<Value> values;
    for (Slot const& slot : m_slots) {
        std::uint32_t const state = slot.state.load(std::memory_order_acquire);
        if (state == kFree) break;
        if (state != kInUse) continue;
        values.push_back({std::string(BoundedText(slot.name, sizeof slot.name)), slot.value.load()});
    }
    return values;
}

std::string CounterTable::Proxy() const { return std::string(BoundedText(m_header.proxy, sizeof m_header.proxy)); }

}  // namespace QXStats
