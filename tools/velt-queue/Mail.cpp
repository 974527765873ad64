#include "tools/velt-queue/Mail.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

namespace velt_queue {
namespace {

using smtp::RetryFault;
using State = smtp::RetryStatus::Recipient;

// Asked for without taking the lock, so that no retryer passes the file by.
bool IsLocked(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

std::string ProblemOf(RetryFault fault, int error) {
    std::string problem = smtp::TextOf(fault);
    if (fault == RetryFault::Unreadable && error) problem += std::string(": ") + std::strerror(error);
    return problem;
}

void ReadInto(Mail& mail, int fd) {
    mail.locked = IsLocked(fd);
    smtp::RetryFile file(fd, mail.path);
    errno = 0;
    RetryFault const fault = file.Read();
    if (fault != RetryFault::None) return void(mail.problem = ProblemOf(fault, errno));
    mail.envelope = file.envelope();
    mail.status = file.status();
    mail.size = file.messageLength();
}

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

}  // namespace

std::optional<Mail> ReadMail(Queue queue, std::string const& directory, std::string const& id) {
    Mail mail;
    mail.queue = queue;
    mail.id = id;
    mail.path = directory + id + smtp::kRetrySuffix;
    int const fd = ::open(mail.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) return std::nullopt;
    fd < 0 ? void(mail.problem = ProblemOf(RetryFault::Unreadable, errno)) : ReadInto(mail, fd);
    return mail;
}

std::vector<Mail> ReadQueue(Queue queue, std::string const& directory) {
    std::unique_ptr<DIR, CloseDirectory> const open(::opendir(directory.c_str()));
    if (!open && errno == ENOENT) return {};
    if (!open) throw Unusable(directory + ": " + std::strerror(errno));
    std::vector<Mail> mails;
    while (dirent const* const entry = ::readdir(open.get())) {
        std::string const name = entry->d_name;
        if (name.front() == '.' || !name.ends_with(smtp::kRetrySuffix)) continue;
        auto mail = ReadMail(queue, directory, name.substr(0, name.size() - std::strlen(smtp::kRetrySuffix)));
        if (mail) mails.push_back(std::move(*mail));
    }
    std::sort(mails.begin(), mails.end(), [](Mail const& one, Mail const& other) {
        return std::tie(one.envelope.taken, one.id) < std::tie(other.envelope.taken, other.id);
    });
    return mails;
}

bool IsId(std::string const& text) {
    return !text.empty() && text.front() != '.' && text.find('/') == std::string::npos &&
           text.find('\0') == std::string::npos;
}

std::string DestinationOf(Mail const& mail, std::string const& relay) {
    if (!mail.envelope.server.empty()) return mail.envelope.server;
    if (!relay.empty()) return relay;
    std::set<std::string> domains;
    for (std::size_t i = 0; i < mail.envelope.recipients.size(); ++i) {
        State const state = mail.status.recipients[i];
        std::string const& address = mail.envelope.recipients[i].address;
        if (state == State::Waiting || state == State::Held) domains.insert(address.substr(address.rfind('@') + 1));
    }
    std::string out;
    for (std::string const& domain : domains) out += (out.empty() ? "" : ", ") + domain;
    return out;
}

}  // namespace velt_queue
