#include "StoredFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "BlockReader.h"
#include "Disk.h"
#include "RetryFile.h"

namespace smtp {
namespace {

using State = RetryStatus::Recipient;

constexpr mode_t kMode = S_IRUSR | S_IWUSR;
constexpr mode_t kUndone = S_IXUSR;

// One of the open file. It goes with the descriptor, and is not to be given up before: closing takes along what the
// process has locked by lockf meanwhile.
bool LockOpenFile(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool WriteMessage(int fd, Content const& content, RetryLayout& layout) {
    BlockReader reader(content);
    std::uint64_t at = layout.message();
    while (reader.left()) {
        std::string_view block;
        errno = EIO;
        if (!reader.Next(block)) return false;
        layout.messageSum = Checksum(block, layout.messageSum);
        if (!WriteAt(fd, block, at)) return false;
        at += block.size();
    }
    return true;
}

// The first line comes last: a file that was not finished does not begin as one that was.
bool WriteAll(int fd, RetryDraft const& draft, RetryLayout& layout) {
    std::string const head = WriteEnvelope(draft.envelope);
    layout.envelopeLength = head.size();
    layout.envelopeSum = Checksum(head);
    layout.slotLength = SlotLength(draft.status.recipients.size());
    layout.messageLength = draft.content.size();
    std::string const slot = WriteSlot(draft.status);
    errno = EFBIG;
    if (head.size() > RetryLayout::kMaxEnvelope) return false;
    return WriteAt(fd, head + slot + slot, RetryLayout::kFirstLine) && WriteMessage(fd, draft.content, layout) &&
           WriteAt(fd, WriteFirstLine(layout), 0) && (draft.status.tries == 0 || LetRest(fd)) && Flush(fd);
}

}  // namespace

StoredFiles::~StoredFiles() {
    if (!m_stored) Undo();
    LetGo();
}

// Names come last and close together: what fails mostly fails before the first one, and nobody has seen anything.
bool StoredFiles::Store(std::vector<RetryDraft> const& drafts) {
    bool const written =
        std::all_of(drafts.begin(), drafts.end(), [this](RetryDraft const& draft) { return Write(draft); });
    m_stored = written && Name(drafts) && FlushDirectory(m_directory);
    if (m_stored) return true;
    int const error = errno;
    if (!Undo()) m_left = errno;
    errno = error;
    return false;
}

bool StoredFiles::Write(RetryDraft const& draft) {
    m_files.push_back({-1, m_directory + draft.name + kUnfinishedSuffix, {}, draft.status.recipients.size()});
    File& file = m_files.back();
    file.fd = ::open(file.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kMode);
    return file.fd >= 0 && LockOpenFile(file.fd) && WriteAll(file.fd, draft, file.layout);
}

bool StoredFiles::Name(std::vector<RetryDraft> const& drafts) {
    m_named = !drafts.empty();
    for (std::size_t i = 0; i < drafts.size(); ++i) {
        std::string path = m_directory + drafts[i].name + kRetrySuffix;
        if (::rename(m_files[i].path.c_str(), path.c_str()) != 0) return false;
        m_files[i].path = std::move(path);
    }
    return true;
}

bool StoredFiles::Undo() {
    bool const undone = m_files.empty() || Remove() || !m_named || SayNobodyWaits();
    LetGo();
    return undone;
}

// What had no name yet is not worth a flush: should it come back it is swept.
bool StoredFiles::Remove() const {
    bool removed = true;
    for (File const& file : m_files) removed &= ::unlink(file.path.c_str()) == 0 || errno == ENOENT;
    return removed && (!m_named || FlushDirectory(m_directory));
}

// In the slot that does not hold. Before it does the mode is another, also on disk: nobody takes it for one that was
// delivered. A file that waits all the same has its mode back, as it will be.
bool StoredFiles::SayNobodyWaits() const {
    bool said = true;
    for (File const& file : m_files) {
        RetryStatus status;
        status.sequence = 1;
        status.recipients.assign(file.recipients, State::Failed);
        bool const marked = ::fchmod(file.fd, kMode | kUndone) == 0;
        bool const flushed = marked && Flush(file.fd);
        bool const written = marked && WriteAt(file.fd, WriteSlot(status), file.layout.slot(1));
        int const error = errno;
        if (marked && !written) ::fchmod(file.fd, kMode);
        errno = error;
        said &= flushed && written && Flush(file.fd);
    }
    return said;
}

void StoredFiles::LetGo() {
    for (File const& file : m_files) {
        if (file.fd >= 0) ::close(file.fd);
    }
    m_files.clear();
}

Found LookFor(std::string const& path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) return Found::Nothing;
    return facts.st_mode & kUndone ? Found::Undone : Found::File;
}

bool StoreRetryFiles(std::string const& directory, std::vector<RetryDraft> const& drafts, int* left) {
    StoredFiles files(directory);
    bool const stored = files.Store(drafts);
    if (left) *left = files.left();
    return stored;
}

}  // namespace smtp
