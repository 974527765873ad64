// Saving a mail with some of its headers replaced.
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>

#include <velt/streams/ScannerStream.h>
#include <velt/streams/SpoolFile.h>

namespace VELT {

namespace {

constexpr unsigned kNoLimit = 0x7FFFFFFF;

bool IsFolded(char const* line) { return *line == ' ' || *line == '\t'; }

}  // namespace

// One run over the header block. Each step answers false when the file is gone and the run is over.
struct ScannerStream::HeaderRewrite {
    bool Run();

    bool Put(char const* data, unsigned long length) { return stream.writefile(path, fd, data, length); }
    bool PutLine(char* line, int length);
    bool PutPiece(char* line, int length, LINE_STATE_T state);
    bool PutHeldReturn(bool at_line_end);
    bool PutHeader(char* line, int length);
    bool PutRest();

    ScannerStream& stream;
    char const* path;
    int fd;
    Replacements const& replacements;
    bool replaced = false;     // the header before was; its folded lines go with it
    bool continued = false;    // the line before was a piece of one that is too long for the buffer
    bool held_return = false;  // that piece ended in a '\r' which may or may not belong to the line's end
};

int ScannerStream::spool_to_disk(char const* path, Replacements const& replacements) {
    restore_saved_chr();
    int const fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return -1;
    if (seek(0, 0) != 0) {
        ::close(fd);
        ::unlink(path);
        return -1;
    }
    HeaderRewrite rewrite{*this, path, fd, replacements};
    if (!rewrite.Run()) return -1;
    int const result = CloseWritten(fd, path, true);
    seek(0, 0);
    return result;
}

bool ScannerStream::HeaderRewrite::Run() {
    for (;;) {
        char* line = nullptr;
        bool io_done = false;
        LINE_STATE_T state = LINE_CLOSED;
        int const length = stream.getline(line, true, io_done, state, true);
        if (state == LINE_CLOSED && length < 0 && stream.eof != 0) return stream.dropfile(path, fd);  // not to be read
        if (state == LINE_OVERFLOW || continued) {
            if (!PutPiece(line, length, state)) return false;
            continue;
        }
        if (state != LINE_COMPLETE || length <= 0) return Put("\n", 1) && PutRest();
        if (!PutHeader(line, length)) return false;
    }
}

bool ScannerStream::HeaderRewrite::PutHeader(char* line, int length) {
    if (IsFolded(line)) return replaced || PutLine(line, length);
    bool failed = false;
    replaced = stream.replaceheader(path, fd, line, replacements, failed);
    if (failed) return false;
    return replaced || PutLine(line, length);
}

// The NUL behind the line makes room for its end; the stream puts the byte that belongs there back.
bool ScannerStream::HeaderRewrite::PutLine(char* line, int length) {
    line[length] = '\n';
    return Put(line, static_cast<unsigned long>(length) + 1);
}

bool ScannerStream::HeaderRewrite::PutPiece(char* line, int length, LINE_STATE_T state) {
    replaced = false;
    if (!PutHeldReturn(state == LINE_COMPLETE && length == 0)) return false;
    if (state == LINE_OVERFLOW) {
        continued = true;
        held_return = static_cast<unsigned>(length) + 2 == stream.buffer_size;
        return Put(line, static_cast<unsigned long>(length));
    }
    continued = false;
    if (state == LINE_COMPLETE) return PutLine(line, length);
    return PutRest() && Put("\n", 1);  // the data ended within the line
}

bool ScannerStream::HeaderRewrite::PutHeldReturn(bool at_line_end) {
    bool const put = held_return && !at_line_end;
    held_return = false;
    return !put || Put("\r", 1);
}

// A stream without a buffer has nothing to give, unless there is data that then cannot be had.
bool ScannerStream::HeaderRewrite::PutRest() {
    for (;;) {
        char* data = nullptr;
        bool io_done = false;
        int const count = stream.readdata(data, kNoLimit, true, io_done);
        if (count == 0 || (count < 0 && stream.eof == 0)) return true;
        if (count < 0) return stream.dropfile(path, fd);
        if (!Put(data, static_cast<unsigned long>(count))) return false;
    }
}

bool ScannerStream::replaceheader(char const* path, int fd, char const* line, Replacements const& replacements,
                                  bool& failed) {
    for (auto const& [header, value] : replacements) {
        if (::strncasecmp(line, header.c_str(), header.size()) != 0) continue;
        std::string const text = header + ' ' + value + '\n';
        failed = !writefile(path, fd, text.data(), text.size());
        return true;
    }
    return false;
}

bool ScannerStream::writefile(char const* path, int fd, char const* data, unsigned long length) {
    while (length > 0) {
        ssize_t const sent = ::write(fd, data, length);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return dropfile(path, fd);
        data += sent;
        length -= static_cast<unsigned long>(sent);
    }
    return true;
}

// Always false: the copy is gone.
bool ScannerStream::dropfile(char const* path, int fd) {
    int const error = errno;
    ::close(fd);
    ::unlink(path);
    seek(0, 0);
    errno = error;
    return false;
}

}  // namespace VELT
