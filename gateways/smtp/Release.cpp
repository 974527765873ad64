#include "Release.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <vector>

#include "Disk.h"

namespace smtp {
namespace {

namespace fs = std::filesystem;
using State = RetryStatus::Recipient;

RetryStatus WithStates(RetryStatus status, State from, State to) {
    std::replace(status.recipients.begin(), status.recipients.end(), from, to);
    return status;
}

// It may have been begun long ago, and its time to be delivered would be over.
RetryStatus ReleasedNow(RetryStatus status) {
    status.released = std::time(nullptr);
    return WithStates(std::move(status), State::Held, State::Waiting);
}

std::string NameOf(std::string const& path, char const* suffix) {
    std::string const name = fs::path(path).filename();
    return name.ends_with(suffix) ? name.substr(0, name.size() - std::strlen(suffix)) : "";
}

// The file, locked. Null, with errno: ENOENT where there is none any more, EAGAIN where somebody works on it.
std::unique_ptr<RetryFile> Open(std::string const& path) {
    int const fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    auto file = std::make_unique<RetryFile>(fd, path);
    if (!file->Lock()) return nullptr;
    if (!file->IsStillNamed()) return nullptr;
    return file;
}

std::unique_ptr<RetryFile> OpenAndRead(std::string const& path) {
    auto file = Open(path);
    errno = file ? EIO : errno;
    return file && file->Read() == RetryFault::None ? std::move(file) : nullptr;
}

// Both are locked. Names are flushed before what they say is relied upon: the copy's before the other file is none to
// be released any more, and that before the copy can be delivered and gone.
bool HandOver(RetryFile& from, RetryFile& copy, std::string const& name, RetryStatus const& status) {
    if (!FlushDirectory(fs::path(copy.path()).parent_path()) || !from.Rename(name + kReleasedSuffix)) return false;
    if (!copy.Note(status)) return false;
    copy.Wake();    // it would be due later
    from.Remove();  // the next one to look over the directories does it otherwise
    return true;
}

// What the quarantine has of a mail that lies in the deferred directory. Null with ENOENT: nothing. Both directories
// may be one: the file itself is none of these, and is not opened, or its lock would go with that descriptor.
std::unique_ptr<RetryFile> OpenOther(RetryFile const& copy, std::string const& quarantine, std::string const& name) {
    for (char const* const suffix : {kRetrySuffix, kReleasedSuffix}) {
        std::string const path = quarantine + name + suffix;
        if (copy.IsAt(path)) continue;
        if (errno != ENOENT) return nullptr;
        auto other = OpenAndRead(path);
        if (other && other->IsCopyOf(copy)) return other;
        if (!other && errno != ENOENT) return nullptr;
    }
    return errno = ENOENT, nullptr;
}

// Whoever finds them half-way.
class Finisher {
public:
    Finisher(std::string const& quarantine, std::string const& deferred)
        : m_quarantine(quarantine), m_deferred(deferred) {}

    // Names without suffix, of mail that may be on its way.
    std::vector<std::string> found() const {
        std::vector<std::string> names;
        std::error_code error;
        bool const areOne = fs::equivalent(m_quarantine, m_deferred, error);
        for (fs::directory_iterator it(m_quarantine, error), end; !error && it != end; it.increment(error)) {
            std::string const marked = NameOf(it->path(), kReleasedSuffix), held = NameOf(it->path(), kRetrySuffix);
            if (!marked.empty()) names.push_back(marked);
            if (!areOne && !held.empty() && ::access(pathOf(held).c_str(), F_OK) == 0) names.push_back(held);
        }
        return names;
    }

    // False, with errno: ENOENT where there is nothing to be finished, EAGAIN where somebody else is at it.
    bool finish(std::string const& name) const {
        auto const copy = OpenAndRead(pathOf(name));
        if (!copy && errno == ENOENT) return forget(name, nullptr);  // it has left
        if (!copy) return false;
        if (!copy->status().isHeld()) return forget(name, copy.get());
        if (!copy->status().released) return errno = ENOENT, false;
        auto const other = OpenOther(*copy, m_quarantine, name);
        return other && HandOver(*other, *copy, name, ReleasedNow(copy->status()));
    }

private:
    std::string pathOf(std::string const& name) const { return m_deferred + name + kRetrySuffix; }

    // The copy was noted as one that waits: only the removal was missing, and maybe that it is so on disk.
    bool forget(std::string const& name, RetryFile const* copy) const {
        auto const marked = Open(m_quarantine + name + kReleasedSuffix);
        if (!marked || (copy && !copy->FlushStatus())) return false;
        if (marked->Remove()) errno = ENOENT;
        return false;
    }

    std::string const& m_quarantine;
    std::string const& m_deferred;
};

}  // namespace

bool MoveReleased(RetryFile& file, std::string const& deferred) {
    std::string const name = NameOf(file.path(), kRetrySuffix);
    if (file.IsAt(deferred + name + kRetrySuffix)) return true;
    if (file.Move(deferred)) return true;
    if (errno != EXDEV) return false;
    RetryStatus const waits = file.status();
    if (!file.Note(WithStates(waits, State::Waiting, State::Held))) return false;
    auto const copy = file.CopyInto(deferred);
    return copy && HandOver(file, *copy, name, waits);
}

bool ReleaseThere(RetryFile& file, std::string const& quarantine, RetryStatus const& status) {
    std::string const name = NameOf(file.path(), kRetrySuffix);
    auto const other = OpenOther(file, quarantine, name);
    if (other) return HandOver(*other, file, name, status);
    return errno == ENOENT && file.Note(status) && file.Wake();
}

void FinishReleases(std::string const& quarantine, std::string const& deferred,
                    std::function<void(std::string const& name, int error)> const& tell) {
    Finisher const finisher(quarantine, deferred);
    for (std::string const& name : finisher.found()) {
        bool const finished = finisher.finish(name);
        if (finished || (errno != ENOENT && errno != EAGAIN)) tell(name, finished ? 0 : errno);
    }
}

}  // namespace smtp
