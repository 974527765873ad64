#include "SpoolGate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace scannerd {
namespace {

constexpr std::size_t kLongestPath = 4095;  // bytes

class Handle {
public:
    explicit Handle(int fd) : m_fd(fd) {}
    ~Handle() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Handle(Handle const&) = delete;
    Handle& operator=(Handle const&) = delete;
    Handle& operator=(Handle&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

bool IsPlainName(std::string_view name) { return !name.empty() && name != "." && name != ".."; }

// Every name between the slashes is one of a file or folder, and nothing else.
bool IsPlainPath(std::string_view path) {
    for (std::size_t at = 0; at <= path.size();) {
        std::size_t const end = std::min(path.find('/', at), path.size());
        if (!IsPlainName(path.substr(at, end - at))) return false;
        at = end + 1;
    }
    return true;
}

// Name by name below an open folder; a link on the way, or at its end, ends it. A pipe does not hold the caller up.
int OpenBelow(int root, std::string_view rest) {
    Handle folder(::fcntl(root, F_DUPFD_CLOEXEC, 0));
    for (;;) {
        std::size_t const slash = rest.find('/');
        std::string const name(rest.substr(0, slash));
        if (slash == rest.npos) {
            return ::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        }
        folder = Handle(::openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (folder.get() < 0) return -1;
        rest.remove_prefix(slash + 1);
    }
}

// Null: the file may be read.
char const* Objection(int fd, struct stat const& root, std::uint64_t size) {
    struct stat file {};
    if (::fstat(fd, &file) != 0 || !S_ISREG(file.st_mode)) return "not a regular file";
    if (file.st_nlink != 1) return "a file with more than one name, or with none";
    if (file.st_uid != ::geteuid() && file.st_uid != root.st_uid) return "another user's file";
    if (file.st_mode & S_IWOTH) return "a file that anyone may write to";
    if (static_cast<std::uint64_t>(file.st_size) != size) return "not of the size that the client says";
    return nullptr;
}

}  // namespace

SpoolGate::SpoolGate(std::vector<std::string> roots) {
    for (std::string& root : roots) {
        while (root.size() > 1 && root.back() == '/') root.pop_back();
        if (root.empty() || root.front() != '/' || root == "/") continue;
        m_roots.push_back(std::move(root) + '/');
    }
}

int SpoolGate::Open(std::string const& path, std::uint64_t size, char const*& why) const {
    why = "not a plain absolute path";
    if (path.size() > kLongestPath || path.empty() || path.front() != '/') return -1;
    if (path.find('\0') != path.npos || !IsPlainPath(std::string_view(path).substr(1))) return -1;
    auto const root =
        std::find_if(m_roots.begin(), m_roots.end(), [&](std::string const& one) { return path.starts_with(one); });
    why = "below none of the spool roots";
    if (root == m_roots.end()) return -1;
    why = "cannot be opened, or is reached through a link";
    Handle const folder(::open(root->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat facts {};
    if (folder.get() < 0 || ::fstat(folder.get(), &facts) != 0) return -1;
    Handle file(OpenBelow(folder.get(), std::string_view(path).substr(root->size())));
    if (file.get() < 0) return -1;
    why = Objection(file.get(), facts, size);
    return why ? -1 : file.release();
}

}  // namespace scannerd
