#include "testing/DeviceModel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace velt_testing {

namespace {

constexpr std::string_view kDevice = "/dev/qxnat";
constexpr std::string_view kInterfaces = "/proc/qxnat/interfaces";
constexpr std::string_view kStatus = "/proc/qxnat/status";

std::atomic<DeviceModel*> s_model{nullptr};

// Connection information has one address, everything else that has an argument a whole record.
std::size_t ArgumentBytes(unsigned long request) {
    return request == 2 ? sizeof(sockaddr_in) : sizeof(DeviceModel::Record);
}

unsigned long long InodeOf(int fd) {
    struct stat found {};
    return ::fstat(fd, &found) == 0 && S_ISSOCK(found.st_mode) ? found.st_ino : 0;
}

}  // namespace

DeviceModel::DeviceModel() {
    Answer(0);
    s_model = this;
}

DeviceModel::~DeviceModel() { s_model = nullptr; }

void DeviceModel::Answer(int answer) {
    m_script = [answer](unsigned long, void*) { return answer; };
}

void DeviceModel::WriteInterfaces(std::string const& text) { m_root.Write("interfaces", text); }

unsigned DeviceModel::held() {
    unsigned count = 0;
    for (Handle const& handle : m_handles) {
        pollfd one{handle.end.get(), POLLIN, 0};
        ::poll(&one, 1, 0);
        count += (one.revents & POLLHUP) == 0;
    }
    return count;
}

int DeviceModel::FindHandle(int fd) const {
    unsigned long long const inode = InodeOf(fd);
    for (std::size_t i = 0; inode && i < m_handles.size(); ++i)
        if (m_handles[i].inode == inode) return static_cast<int>(i);
    return -1;
}

bool DeviceModel::IsHandle(int fd) const { return FindHandle(fd) >= 0; }

DeviceModel::Record DeviceModel::RecordOf(Call const& call) {
    Record record{};
    EXPECT_EQ(call.bytes.size(), sizeof record);
    std::memcpy(&record, call.bytes.data(), std::min(call.bytes.size(), sizeof record));
    return record;
}

int DeviceModel::Open(int flags) {
    std::lock_guard<std::mutex> const hold(m_lock);
    m_openFlags = flags;
    int ends[2];
    if (m_refusal == 0 &&
        ::socketpair(AF_UNIX, SOCK_SEQPACKET | (flags & O_CLOEXEC ? SOCK_CLOEXEC : 0), 0, ends) == 0) {
        m_handles.push_back({Fd(ends[0]), InodeOf(ends[1])});
        return ends[1];
    }
    ++m_refused;
    if (m_refusal) errno = m_refusal;
    return -1;
}

int DeviceModel::Ask(unsigned handle, unsigned long request, void* argument) {
    std::lock_guard<std::mutex> const hold(m_lock);
    Call call{request, handle, {}, argument != nullptr};
    if (argument) call.bytes.assign(static_cast<char const*>(argument), ArgumentBytes(request));
    m_calls.push_back(call);
    int const answer = m_script(request, argument);
    if (answer >= 0) return answer;
    errno = -answer;
    return -1;
}

bool DeviceModel::TakesOpen(char const* path, int flags, int& result) {
    DeviceModel* const model = s_model;
    if (!model || !path || path != kDevice) return false;
    result = model->Open(flags);
    return true;
}

bool DeviceModel::TakesAccess(char const* path, int& result) {
    DeviceModel* const model = s_model;
    if (!model || !path || path != kStatus) return false;
    std::lock_guard<std::mutex> const hold(model->m_lock);
    ++model->m_statusTests;
    result = model->m_present ? 0 : -1;
    if (result) errno = ENOENT;
    return true;
}

bool DeviceModel::TakesIoctl(int fd, unsigned long request, void* argument, int& result) {
    DeviceModel* const model = s_model;
    int const handle = model ? model->FindHandle(fd) : -1;
    if (handle < 0) return false;
    result = model->Ask(static_cast<unsigned>(handle), request, argument);
    return true;
}

bool DeviceModel::TakesSyslog(int priority, std::string const& text) {
    DeviceModel* const model = s_model;
    if (!model) return false;
    std::lock_guard<std::mutex> const hold(model->m_lock);
    model->m_syslog.push_back(std::to_string(priority) + ' ' + text);
    return true;
}

std::string DeviceModel::PathFor(char const* path) {
    DeviceModel* const model = s_model;
    if (!model || path != kInterfaces) return path;
    ++model->m_interfaceReads;
    return model->m_root / "interfaces";
}

}  // namespace velt_testing
