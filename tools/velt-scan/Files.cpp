#include "tools/velt-scan/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <velt/streams/ScannerStream.h>

namespace velt_scan {
namespace {

constexpr std::uint64_t kMost = 0xffffffff;  // of the stream
constexpr std::size_t kBlock = 65536;

std::string Reason() { return std::string("cannot be read: ") + std::strerror(errno); }

std::string ReadToEnd(int file, VELT::ScannerStream& content) {
    auto const block = std::make_unique<char[]>(kBlock);
    while (true) {
        ssize_t const got = ::read(file, block.get(), kBlock);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return Reason();
        if (got == 0) return {};
        if (content.size() + static_cast<std::uint64_t>(got) > kMost) return "larger than can be scanned";
        if (content.write(block.get(), static_cast<unsigned>(got)) != got) return "cannot be spooled";
    }
}

class Descriptor {
public:
    explicit Descriptor(char const* path) : m_fd(::open(path, O_RDONLY | O_CLOEXEC)) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

std::string Spool(int file, VELT::ScannerStream& content) {
    std::string const problem = ReadToEnd(file, content);
    content.seek(0, 0);
    return problem;
}

}  // namespace

std::string ReadFile(std::string const& path, VELT::ScannerStream& content) {
    if (path == "-") return Spool(STDIN_FILENO, content);
    Descriptor const file(path.c_str());
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) return Reason();
    if (S_ISDIR(status.st_mode)) return "is a folder";
    // What the system makes up as it is read has no size.
    if (!S_ISREG(status.st_mode) || status.st_size == 0) return Spool(file.get(), content);
    if (static_cast<std::uint64_t>(status.st_size) > kMost) return "larger than can be scanned";
    return content.spool_from_disk(path.c_str()) == 0 ? std::string() : "cannot be read";
}

bool WriteWhole(VELT::ScannerStream& content, std::string const& path) {
    std::string const made = path + ".velt-scan";
    content.seek(0, 0);
    bool const written = content.spool_to_disk(made.c_str()) == 0;
    if (written && std::rename(made.c_str(), path.c_str()) == 0) return true;
    ::unlink(made.c_str());
    return false;
}

}  // namespace velt_scan
