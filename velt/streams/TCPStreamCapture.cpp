// The capture of all that a stream receives and sends, and the stream that plays such a file back.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <velt/errors/ErrnoEvents.h>
#include <velt/errors/Failures.h>
#include <velt/streams/TCPStream.h>

namespace VELT {

namespace {

constexpr mode_t kDirectoryMode = 0777;
constexpr mode_t kFileMode = 0600;

ssize_t ReadFile(int fd, void* data, std::size_t length) {
    for (;;) {
        ssize_t const got = ::read(fd, data, length);
        if (got >= 0 || errno != EINTR) return got;
    }
}

// Whether the next `length` bytes of the file are `data`. What the file lacks counts as zeros.
bool IsNext(int fd, char const* data, unsigned length) {
    bool same = true;
    bool ended = false;
    for (unsigned step; length > 0; data += step, length -= step) {
        char block[4096] = {};
        step = std::min<unsigned>(length, sizeof block);
        if (!ended) ended = ReadFile(fd, block, step) < static_cast<ssize_t>(step);
        same = same && std::memcmp(block, data, step) == 0;
    }
    return same;
}

}  // namespace

void TCPStream::set_debug_dir(std::string const& path) {
    s_debugdir = path;
    if (path.empty()) return;
    ::mkdir(path.c_str(), kDirectoryMode);
    ::chmod(path.c_str(), kDirectoryMode);
}

// The directory is open to all: a link or a pipe that somebody laid there must neither lead the capture away nor hold
// the session up.
void TCPStream::debug(std::string const& name, char const* part) {
    if (s_debugdir.empty()) return;
    std::string const path = s_debugdir + '/' + name + '-' + part + ".qxd";
    CloseCapture();
    debug_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kFileMode);
}

void TCPStream::CloseCapture() {
    if (debug_fd < 0) return;
    ::close(debug_fd);
    debug_fd = -1;
}

// What cannot be written is lost, and nobody is told: the session goes on as if nothing were captured.
void TCPStream::write_debug(int type, char const* data, int length) {
    if (debug_fd < 0 || replay) return;
    CaptureRecord header{type, length};
    std::size_t const bytes = length > 0 ? static_cast<std::size_t>(length) : 0;
    iovec const pieces[] = {{&header, sizeof header}, {const_cast<char*>(data), bytes}};
    [[maybe_unused]] ssize_t const ignored = ::writev(debug_fd, pieces, 2);
}

void TCPStream::use_debug_file(char const* path) {
    int const fd = ::open(path, O_RDONLY | O_CREAT | O_TRUNC, kFileMode);
    if (fd < 0) throw_connection_exception(errno, KORtk::Location{__FILE__, __LINE__, __func__}, "");
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    CloseCapture();
    debug_fd = fd;
    replay = true;
    replay_in_left = 0;
    replay_out_left = 0;
    replay_record = {};
}

// A whole header is passed over. Where the file has no whole one, the last that was read is acted on.
int TCPStream::ReplayInput(char* data, unsigned length, unsigned* received) {
    if (replay_out_left != 0) return -1;
    if (replay_in_left == 0 && ReadFile(debug_fd, &replay_record, sizeof replay_record) != sizeof replay_record) {
        auto const left = static_cast<std::uint32_t>(replay_record.length);
        bool const isInput = replay_record.type == CaptureRecord::received;
        (isInput ? replay_in_left : replay_out_left) = left;
        if (!isInput) return -1;
    }
    ssize_t const got = ReadFile(debug_fd, data, std::min(replay_in_left, length));
    if (got < 0) return errno ? errno : -1;
    replay_in_left -= static_cast<std::uint32_t>(got);
    *received = static_cast<unsigned>(got);
    return 0;
}

// Each round compares with the head of `data`, and what is left of the record stays as it is.
int TCPStream::compare_write(char const* data, unsigned length) {
    if (replay_in_left != 0) return -1;
    while (length > 0) {
        ssize_t got = sizeof replay_record;
        if (replay_out_left == 0) {
            got = ReadFile(debug_fd, &replay_record, sizeof replay_record);
            if (got != sizeof replay_record && !ExpectsOutput()) return -1;
        }
        unsigned const bytes = std::min(replay_out_left, length);
        if (bytes == 0 && got <= 0) return -1;  // an empty record ends the file: there is nothing to compare with
        if (!IsNext(debug_fd, data, bytes))
            throw TCPTestFailure(KORtk::Location{__FILE__, __LINE__, __func__},
                                 "Outputstream does not match logged output");
        length -= bytes;
    }
    return 0;
}

bool TCPStream::ExpectsOutput() {
    auto const left = static_cast<std::uint32_t>(replay_record.length);
    bool const isOutput = replay_record.type == CaptureRecord::sent;
    (isOutput ? replay_out_left : replay_in_left) = left;
    return isOutput;
}

}  // namespace VELT
