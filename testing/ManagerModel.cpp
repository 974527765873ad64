#include "testing/ManagerModel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace velt_testing {

namespace {

constexpr std::string_view kControlDevice = "/dev/qxrmgrctl";
constexpr std::string_view kResourceDevice = "/dev/qxrmgr";
constexpr std::string_view kEntry = "/proc/qxrmgr";
constexpr std::string_view kSettings = "/proc/qxrmgr/settings";
constexpr unsigned kSetupNameBytes = 32;
constexpr unsigned kSetupNameAt = 24;  // behind five numbers and their padding

std::atomic<ManagerModel*> s_manager{nullptr};

std::size_t BytesOf(unsigned long request) {
    if (request == 1) return kSetupNameAt + sizeof(char*);
    return request == 4 ? sizeof(ManagerModel::WaitRecord) : 0;
}

unsigned long long SocketInode(int fd) {
    struct stat found {};
    return ::fstat(fd, &found) == 0 && S_ISSOCK(found.st_mode) ? found.st_ino : 0;
}

bool IsHeld(int end) {
    pollfd one{end, POLLIN, 0};
    ::poll(&one, 1, 0);
    return (one.revents & POLLHUP) == 0;
}

}  // namespace

ManagerModel::ManagerModel() { s_manager = this; }

ManagerModel::~ManagerModel() { s_manager = nullptr; }

void ManagerModel::ToOffer(Offer offer) {
    std::lock_guard const hold(m_lock);
    m_answers.push_back({0, offer});
}

void ManagerModel::ToFail(int error) {
    std::lock_guard const hold(m_lock);
    m_answers.push_back({error, {}});
}

void ManagerModel::SetUp(int resource, bool up) {
    std::lock_guard const hold(m_lock);
    m_down[resource] = !up;
}

void ManagerModel::SetName(int resource, std::string name) {
    std::lock_guard const hold(m_lock);
    m_names[resource] = std::move(name);
}

void ManagerModel::Answer(unsigned long request, int answer) {
    std::lock_guard const hold(m_lock);
    m_told[request] = answer;
}

void ManagerModel::RefuseOpens(int error, unsigned after) {
    std::lock_guard const hold(m_lock);
    m_refusal = error;
    m_refuseAfter = after;
}

void ManagerModel::SetPresent(bool present) {
    std::lock_guard const hold(m_lock);
    m_present = present;
}

void ManagerModel::WriteSettings(std::string const& text) const { m_root.Write("settings", text); }

void ManagerModel::Forget() {
    std::lock_guard const hold(m_lock);
    m_calls.clear();
    auto const isClosed = [](Handle const& handle) { return !IsHeld(handle.end.get()); };
    m_handles.erase(std::remove_if(m_handles.begin(), m_handles.end(), isClosed), m_handles.end());
}

std::vector<ManagerModel::Call> ManagerModel::calls() const {
    std::lock_guard const hold(m_lock);
    return m_calls;
}

std::vector<ManagerModel::WaitRecord> ManagerModel::waits() const {
    std::vector<WaitRecord> found;
    for (Call const& call : calls()) {
        if (call.request != 4) continue;
        std::memcpy(&found.emplace_back(), call.bytes.data(), sizeof(WaitRecord));
    }
    return found;
}

unsigned ManagerModel::opens(int device) const {
    std::lock_guard const hold(m_lock);
    return static_cast<unsigned>(
        std::count_if(m_handles.begin(), m_handles.end(), [&](Handle const& one) { return one.device == device; }));
}

unsigned ManagerModel::held(int device) const {
    std::lock_guard const hold(m_lock);
    unsigned count = 0;
    for (Handle const& handle : m_handles) count += handle.device == device && IsHeld(handle.end.get());
    return count;
}

int ManagerModel::openFlags() const {
    std::lock_guard const hold(m_lock);
    return m_openFlags;
}

std::string ManagerModel::setupName() const {
    std::lock_guard const hold(m_lock);
    return m_setupName;
}

int ManagerModel::Open(int device, int flags) {
    std::lock_guard const hold(m_lock);
    m_openFlags = flags;
    if (m_refusal != 0 && m_refuseAfter == 0) {
        errno = m_refusal;
        return -1;
    }
    if (m_refusal != 0) --m_refuseAfter;
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    m_handles.push_back({device, Fd(ends[0]), SocketInode(ends[1])});
    return ends[1];
}

int ManagerModel::Wait(WaitRecord& record) {
    WaitAnswer answer{EAGAIN, {}};
    if (!m_answers.empty()) {
        answer = m_answers.front();
        m_answers.pop_front();
    }
    if (answer.error) return -answer.error;
    record.id = answer.offer.id;
    record.sequence = answer.offer.sequence;
    record.address = answer.offer.address.sin_addr.s_addr;
    record.port = 0xABCD0000u | answer.offer.address.sin_port;  // the high bits say nothing
    return answer.offer.resource;
}

int ManagerModel::Told(unsigned long request) {
    auto const told = m_told.find(request);
    return told == m_told.end() ? 0 : told->second;
}

int ManagerModel::Ask(int device, unsigned long request, void* argument) {
    Call call{device, request, {}, argument != nullptr};
    if (argument) call.bytes.assign(static_cast<char const*>(argument), BytesOf(request));
    m_calls.push_back(call);
    if (request == 4) return Wait(*static_cast<WaitRecord*>(argument));
    if (request == 5) return !m_down[device];
    if (request == 7) {
        auto const name = m_names.find(device);
        if (name == m_names.end()) return -ENODEV;
        std::memcpy(argument, name->second.data(), name->second.size());
        return 0;
    }
    if (request == 1) {
        char const* name;
        std::memcpy(&name, call.bytes.data() + kSetupNameAt, sizeof name);
        m_setupName.assign(name, kSetupNameBytes);
    }
    return Told(request);
}

bool ManagerModel::TakesOpen(char const* path, int flags, int& result) {
    ManagerModel* const model = s_manager;
    std::string_view const name = path ? path : "";
    if (!model || name.substr(0, kResourceDevice.size()) != kResourceDevice) return false;
    int const device = name == kControlDevice ? control : std::atoi(path + kResourceDevice.size());
    if (device < 0 && name != kControlDevice) {
        errno = ENOENT;
        result = -1;
        return true;
    }
    result = model->Open(device, flags);
    return true;
}

bool ManagerModel::TakesAccess(char const* path, int& result) {
    ManagerModel* const model = s_manager;
    if (!model || !path || (path != kEntry && path != kControlDevice)) return false;
    std::lock_guard const hold(model->m_lock);
    result = model->m_present ? 0 : -1;
    if (result) errno = ENOENT;
    return true;
}

bool ManagerModel::TakesIoctl(int fd, unsigned long request, void* argument, int& result) {
    ManagerModel* const model = s_manager;
    unsigned long long const inode = model ? SocketInode(fd) : 0;
    if (inode == 0) return false;
    std::lock_guard const hold(model->m_lock);
    for (Handle const& handle : model->m_handles) {
        if (handle.inode != inode) continue;
        result = model->Ask(handle.device, request, argument);
        if (result >= 0) return true;
        errno = -result;
        result = -1;
        return true;
    }
    return false;
}

std::string ManagerModel::PathFor(std::string path) {
    ManagerModel* const model = s_manager;
    return model && path == kSettings ? model->m_root / "settings" : path;
}

}  // namespace velt_testing
