#include "tools/velt-queue/Actions.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

namespace velt_queue {
namespace {

using smtp::RetryFault;
using smtp::RetryFile;
using State = smtp::RetryStatus::Recipient;

constexpr std::size_t kMaxHeader = 65536;
constexpr char kGone[] = "it is gone";
constexpr char kHalfWay[] = "released, but it cannot be moved; release it again";
constexpr char kTaken[] = "somebody works on it; try again";

std::string Because(char const* what) { return std::string(what) + ": " + std::strerror(errno); }

// The file, locked, while it is worked on.
std::unique_ptr<RetryFile> Lock(Mail const& mail, Problem& problem) {
    int const fd = ::open(mail.path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return problem = errno == ENOENT ? kGone : Because("it cannot be opened"), nullptr;
    auto file = std::make_unique<RetryFile>(fd, mail.path);
    if (!file->Lock()) return problem = kTaken, nullptr;
    if (!file->IsStillNamed()) return problem = errno == ENOENT ? kGone : Because("it cannot be looked at"), nullptr;
    return file;
}

// The file as it is now: it may have been tried since it was listed.
std::unique_ptr<RetryFile> LockAndRead(Mail const& mail, Problem& problem) {
    auto file = Lock(mail, problem);
    if (!file) return nullptr;
    RetryFault const fault = file->Read();
    if (fault == RetryFault::None) return file;
    problem = smtp::TextOf(fault);
    return nullptr;
}

std::string WhoReleases() {
    passwd const* const who = ::getpwuid(::getuid());
    return "released by " + (who ? std::string(who->pw_name) : "uid " + std::to_string(::getuid()));
}

// As the quarantine is: what was held goes to whoever delivers it.
bool MakeDeferred(Places const& places) {
    struct stat facts {};
    bool const known = ::stat(places.quarantine.c_str(), &facts) == 0;
    bool const mine = !known || (facts.st_uid == ::geteuid() && facts.st_gid == ::getegid());
    return smtp::MakeRetryDirectory(places.deferred, mine ? -1L : static_cast<long>(facts.st_uid),
                                    mine ? -1L : static_cast<long>(facts.st_gid));
}

// The first who released it is who did. Its time to be delivered begins now.
smtp::RetryStatus Released(smtp::RetryStatus status) {
    std::replace(status.recipients.begin(), status.recipients.end(), State::Held, State::Waiting);
    if (!status.released) status.reason = WhoReleases();
    status.released = std::time(nullptr);
    status.due = status.skipped = 0;
    return status;
}

Problem ReleaseHere(RetryFile& file, Places const& places) {
    if (!file.status().isHeld()) return "it is not held";
    if (smtp::ReleaseThere(file, places.quarantine, Released(file.status()))) return {};
    return errno == EAGAIN ? kTaken : Because("it cannot be released");
}

// The one of a release that was cut off, which nobody could finish any more.
Problem DeleteCopy(RetryFile& file, Mail const& mail, Places const& places) {
    if (file.Read() != RetryFault::None || !file.status().released) return {};
    Mail other = mail;
    other.path = places.deferred + mail.id + smtp::kRetrySuffix;
    if (file.IsAt(other.path)) return {};
    Problem problem;
    auto const copy = LockAndRead(other, problem);
    if (!copy) return problem == kGone ? "" : problem;
    if (!copy->IsCopyOf(file) || !copy->status().isHeld()) return {};
    return copy->Remove() ? "" : Because("its copy cannot be removed");
}

}  // namespace

// It is in the file before it is in the other directory: there it would be one that is held.
Problem Release(Mail const& mail, Places const& places) {
    Problem problem;
    auto const file = LockAndRead(mail, problem);
    if (!file) return problem;
    if (mail.queue == Queue::Deferred) return ReleaseHere(*file, places);
    if (!MakeDeferred(places)) return Because(places.deferred.c_str());
    smtp::RetryStatus status = Released(file->status());
    // It was copied once, or was to be. The copy is not here any more: it may have been delivered.
    status.unsure |= file->status().isHeld() && file->status().released;
    if (!file->Note(status)) return Because("its file cannot be written");
    if (!file->Wake()) return Because("its time cannot be set");
    return smtp::MoveReleased(*file, places.deferred) ? "" : Because(kHalfWay);
}

void FinishReleases(Places const& places, std::function<void(Mail const&, Problem const&)> const& tell) {
    smtp::FinishReleases(places.quarantine, places.deferred, [&](std::string const& name, int error) {
        Mail mail;
        mail.id = name;
        mail.path = places.deferred + name + smtp::kRetrySuffix;
        errno = error;
        tell(mail, error ? Because(kHalfWay) : "");
    });
}

// Who asks has looked at the mail: what a retryer would not have counted of the time before is not counted.
Problem Retry(Mail const& mail, Places const& places) {
    Problem problem;
    auto const file = LockAndRead(mail, problem);
    if (!file) return problem;
    if (file->status().isHeld()) return "it is held; release it";
    if (mail.queue == Queue::Quarantine) return "it was released and is to be moved; release it again";
    smtp::RetryStatus status = file->status();
    std::int64_t const now = std::time(nullptr);
    status.due = -now;
    status.skipped += std::max<std::int64_t>(0, now - file->seen() - places.longestGap);
    if (!file->Note(status)) return Because("its file cannot be written");
    return file->Wake() ? "" : Because("its time cannot be set");
}

Problem Delete(Mail const& mail, Places const& places) {
    Problem problem;
    auto const file = Lock(mail, problem);
    if (!file) return problem;
    if (mail.queue == Queue::Quarantine) problem = DeleteCopy(*file, mail, places);
    if (!problem.empty()) return problem;
    return file->Remove() ? "" : Because("it cannot be removed");
}

Problem WriteBody(Mail const& mail) {
    RetryFile file(::open(mail.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC), mail.path);
    RetryFault fault = file.Read();
    if (fault == RetryFault::None) {
        fault = file.ReadMessage(
            [](std::string_view block) { return std::fwrite(block.data(), 1, block.size(), stdout) == block.size(); });
    }
    return fault == RetryFault::None ? "" : smtp::TextOf(fault);
}

std::string HeaderOf(Mail const& mail) {
    std::string header;
    RetryFile file(::open(mail.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC), mail.path);
    if (file.Read() != RetryFault::None) return header;
    static_cast<void>(file.ReadMessage([&](std::string_view block) {
        header += block.substr(0, kMaxHeader - header.size());
        return header.size() < kMaxHeader && header.find("\r\n\r\n") == std::string::npos;
    }));
    std::size_t const end = header.find("\r\n\r\n");
    return header.substr(0, end == std::string::npos ? end : end + 2);
}

}  // namespace velt_queue
