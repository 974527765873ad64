#include "RetryFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>

#include "BlockReader.h"
#include "Disk.h"

namespace smtp {
namespace {

namespace fs = std::filesystem;

constexpr long kAhead = 60;      // seconds
constexpr long kBehind = 86400;  // of the modification time; above every "NewFileDelta"
constexpr std::chrono::hours kLongUnfinished{1};

bool SetBehind(char const* path) {
    timespec const times[2] = {{0, UTIME_OMIT}, {::time(nullptr) - kBehind, 0}};
    return ::utimensat(AT_FDCWD, path, times, AT_SYMLINK_NOFOLLOW) == 0;
}

// False: it is not there. A folder that is made is flushed into the one above it, or a loss of power would take it away
// with all that was put into it since.
bool MakeFolder(fs::path const& path, mode_t mode, bool& made) {
    std::error_code ignored;
    made = false;
    if (fs::is_directory(path, ignored)) return true;
    if (path.has_parent_path() && !MakeFolder(path.parent_path(), 0755, made)) return false;
    made = ::mkdir(path.c_str(), mode) == 0;
    if (!made) return errno == EEXIST && fs::is_directory(path, ignored);
    return ::chmod(path.c_str(), mode) == 0 && FlushDirectory(path.has_parent_path() ? path.parent_path() : ".");
}

// One that rests, be it only for the time that it took to be kept; a new one is due whatever the clock shows.
bool LiesAhead(fs::path const& path) {
    struct stat facts {};
    return ::lstat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_ctime > ::time(nullptr) + kAhead &&
           facts.st_ctime > facts.st_mtime;
}

bool IsLongUnfinished(fs::directory_entry const& entry) {
    std::error_code error;
    if (!entry.path().filename().string().ends_with(kUnfinishedSuffix)) return false;
    if (!entry.is_regular_file(error) || entry.is_symlink(error)) return false;
    struct stat facts {};
    if (::stat(entry.path().c_str(), &facts) != 0) return false;
    return ::time(nullptr) - facts.st_ctime > std::chrono::seconds(kLongUnfinished).count();
}

// No sum says who wrote a file. One of the directory's owner is let in, and one that the superuser put there.
bool IsOurs(struct stat const& facts, std::string const& path) {
    struct stat folder {};
    bool const known = facts.st_uid == 0 || facts.st_uid == ::geteuid() ||
                       (::stat(fs::path(path).parent_path().c_str(), &folder) == 0 && facts.st_uid == folder.st_uid);
    return known && !(facts.st_mode & S_IWOTH);
}

}  // namespace

bool MakeRetryDirectory(std::string const& directory, long user, long group) {
    bool made = false;
    if (!MakeFolder(fs::path(directory).parent_path(), 0700, made)) return false;
    return !made || ::chown(directory.c_str(), static_cast<uid_t>(user), static_cast<gid_t>(group)) == 0;
}

bool LetRest(int fd) {
    timespec const times[2] = {{0, UTIME_OMIT}, {::time(nullptr) - kBehind, 0}};
    return ::futimens(fd, times) == 0;
}

unsigned long SweepUnfinished(std::string const& directory) {
    std::error_code error;
    unsigned long removed = 0;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        std::error_code ignored;
        if (IsLongUnfinished(*it) && fs::remove(it->path(), ignored)) ++removed;
    }
    return removed;
}

unsigned long RestThoseAhead(std::string const& directory) {
    std::error_code error;
    unsigned long changed = 0;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        if (it->path().extension() == kRetrySuffix && LiesAhead(it->path()) && SetBehind(it->path().c_str())) ++changed;
    }
    return changed;
}

RetryFile::~RetryFile() {
    if (m_fd >= 0) ::close(m_fd);
}

bool RetryFile::ReadPart(std::uint64_t from, std::uint64_t length, std::string& out) {
    out.resize(length);
    std::uint64_t done = 0;
    while (done < length) {
        ssize_t const count = ::pread(m_fd, out.data() + done, length - done, static_cast<off_t>(from + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) break;
        done += static_cast<std::uint64_t>(count);
    }
    out.resize(done);
    return true;
}

RetryFault RetryFile::Read() {
    struct stat facts {};
    std::string part;
    if (::fstat(m_fd, &facts) != 0) return RetryFault::Unreadable;
    m_seen = facts.st_ctime;
    if (!IsOurs(facts, m_path)) return RetryFault::NotOurs;
    if (S_ISREG(facts.st_mode) && facts.st_nlink > 1) return RetryFault::MoreNames;
    if (!ReadPart(0, RetryLayout::kFirstLine, part)) return RetryFault::Unreadable;
    RetryFault fault = ReadFirstLine(part, m_layout);
    if (fault != RetryFault::None) return fault;
    if (static_cast<std::uint64_t>(facts.st_size) != m_layout.end()) return RetryFault::Truncated;
    if (!ReadPart(RetryLayout::kFirstLine, m_layout.envelopeLength, part)) return RetryFault::Unreadable;
    fault = ReadEnvelope(part, m_layout, m_envelope);
    return fault == RetryFault::None ? ReadStatus() : fault;
}

// The slot with the higher number holds; a write that was cut off leaves the other one.
RetryFault RetryFile::ReadStatus() {
    bool found = false;
    for (unsigned which : {0u, 1u}) {
        std::string part;
        RetryStatus status;
        if (!ReadPart(m_layout.slot(which), m_layout.slotLength, part)) return RetryFault::Unreadable;
        if (!ReadSlot(part, m_envelope.recipients.size(), status)) continue;
        if (found && status.sequence <= m_status.sequence) continue;
        m_status = std::move(status);
        m_slot = which;
        found = true;
    }
    return found ? RetryFault::None : RetryFault::StatusDamaged;
}

RetryFault RetryFile::ReadMessage(std::function<bool(std::string_view)> const& take) {
    std::uint32_t sum = 0;
    std::string block;
    for (std::uint64_t at = m_layout.message(); at < m_layout.end(); at += block.size()) {
        if (!ReadPart(at, std::min<std::uint64_t>(BlockReader::kBlock, m_layout.end() - at), block)) {
            return RetryFault::Unreadable;
        }
        if (block.empty()) return RetryFault::Truncated;
        sum = Checksum(block, sum);
        if (!take(block)) return RetryFault::Unreadable;
    }
    return sum == m_layout.messageSum ? RetryFault::None : RetryFault::MessageDamaged;
}

RetryFault RetryFile::ReadMessage(VELT::ScannerStream& out) {
    return ReadMessage([&](std::string_view block) {
        return out.write(block.data(), static_cast<unsigned>(block.size())) == static_cast<long>(block.size());
    });
}

// The slot that does not hold is written over. Until it is flushed the other one stands as the last word.
bool RetryFile::Note(RetryStatus status) {
    if (m_status.sequence >= RetryLayout::kMaxSequence) return errno = EOVERFLOW, false;
    status.sequence = m_status.sequence + 1;
    bool const written = WriteAt(m_fd, WriteSlot(status), m_layout.slot(1 - m_slot)) && LetRest(m_fd) && Flush(m_fd);
    if (!written) return false;
    m_status = std::move(status);
    m_slot = 1 - m_slot;
    return true;
}

bool RetryFile::FlushStatus() const { return Flush(m_fd); }

bool RetryFile::Rest() { return LetRest(m_fd); }

bool RetryFile::Wake() {
    timespec const times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    return ::futimens(m_fd, times) == 0;
}

bool RetryFile::IsStillNamed() const { return IsAt(m_path); }

bool RetryFile::IsAt(std::string const& path) const {
    struct stat own {};
    struct stat named {};
    if (::fstat(m_fd, &own) != 0 || ::lstat(path.c_str(), &named) != 0) {
        if (errno == ENOTDIR) errno = ENOENT;
        return false;
    }
    return (own.st_dev == named.st_dev && own.st_ino == named.st_ino) || (errno = ENOENT, false);
}

bool RetryFile::Lock() { return ::lockf(m_fd, F_TLOCK, 0) == 0; }

bool RetryFile::HasOtherName() const {
    struct stat facts {};
    return ::fstat(m_fd, &facts) == 0 && facts.st_nlink > (IsStillNamed() ? 1 : 0);
}

bool RetryFile::Move(std::string const& directory) {
    if (!MoveFile(m_path, directory)) return false;
    m_path = directory + m_path.substr(m_path.rfind('/') + 1);
    return true;
}

// It has its lock and its owner before it has a name by which somebody could take it.
std::unique_ptr<RetryFile> RetryFile::CopyInto(std::string const& directory) {
    std::string const to = directory + m_path.substr(m_path.rfind('/') + 1);
    if (::access(to.c_str(), F_OK) == 0) return errno = EEXIST, nullptr;
    std::string const unfinished = to + ".tmp";
    int const fd = ::open(unfinished.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return nullptr;
    auto copy = std::make_unique<RetryFile>(fd, unfinished);
    bool const whole = copy->Lock() && CopyContent(m_fd, fd) && (errno = EIO, copy->Read() == RetryFault::None) &&
                       CopyFacts(m_fd, fd) && Flush(fd);
    if (whole && RenameUnlessTaken(unfinished, to)) return copy->m_path = to, std::move(copy);
    int const error = errno;
    ::unlink(unfinished.c_str());
    errno = error;
    return nullptr;
}

bool RetryFile::Rename(std::string const& name) {
    std::string const to = folder() + name;
    if (to != m_path && ::rename(m_path.c_str(), to.c_str()) != 0) return false;
    m_path = to;
    return FlushDirectory(folder());
}

// A removal that is not flushed would come back with the machine, and the mail with it.
bool RetryFile::Remove() {
    if (!IsStillNamed()) return errno == ENOENT;
    if (::unlink(m_path.c_str()) != 0 && errno != ENOENT) return false;
    return FlushDirectory(folder());
}

}  // namespace smtp
