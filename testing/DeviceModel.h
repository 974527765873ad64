// DeviceModel: an interception device for tests, under the system calls of the code that is tested. As long as one
// lives, open, fopen, access and ioctl of this program lead to it where they name the device or its entries in /proc,
// and what goes to syslog is kept. Everything else reaches the system.
// A handle is a real descriptor: dup, fork and close are the system's own, and the model sees the last close.
// Owner: the test, one at a time. Threads: any may call; the script and the counts are the test's between its calls.
// Failure: fails the test that asks.
#pragma once

#include <netinet/in.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <testing/Fd.h>
#include <testing/TempRoot.h>

namespace velt_testing {

class DeviceModel {
public:
    struct Record {
        sockaddr_in local, source, target;
    };
    struct Call {
        unsigned long request;
        unsigned handle;    // which of the handles, from 0 in the order of their opens
        std::string bytes;  // what the argument pointed to
        bool hasArgument;
    };
    // What the device answers to a request; negative: -1 with this errno. It may rewrite the argument.
    using Script = std::function<int(unsigned long request, void* argument)>;

    DeviceModel();
    ~DeviceModel();
    DeviceModel(DeviceModel const&) = delete;
    DeviceModel& operator=(DeviceModel const&) = delete;

    void WriteInterfaces(std::string const& text);  // the entry; without this there is none
    void SetPresent(bool present) { m_present = present; }
    void RefuseOpens(int error) { m_refusal = error; }  // 0: no longer
    void Answer(Script script) { m_script = std::move(script); }
    void Answer(int answer);  // to every request

    std::vector<Call> const& calls() const { return m_calls; }
    std::vector<std::string> const& syslog() const { return m_syslog; }  // "priority text"
    unsigned opens() const { return static_cast<unsigned>(m_handles.size()); }
    int openFlags() const { return m_openFlags; }  // of the latest
    unsigned refusedOpens() const { return m_refused; }
    unsigned statusTests() const { return m_statusTests; }
    unsigned interfaceReads() const { return m_interfaceReads; }
    unsigned held();              // handles that somebody still has
    bool IsHandle(int fd) const;  // of the device, and open
    static Record RecordOf(Call const& call);

    // For the calls that the model stands under. False: not the model's business.
    static bool TakesOpen(char const* path, int flags, int& result);
    static bool TakesAccess(char const* path, int& result);
    static bool TakesIoctl(int fd, unsigned long request, void* argument, int& result);
    static bool TakesSyslog(int priority, std::string const& text);
    static std::string PathFor(char const* path);  // where a file is in truth

private:
    struct Handle {
        Fd end;  // the model's
        unsigned long long inode;
    };
    int Open(int flags);
    int Ask(unsigned handle, unsigned long request, void* argument);
    int FindHandle(int fd) const;

    TempRoot m_root;
    mutable std::mutex m_lock;
    Script m_script;
    bool m_present = true;
    int m_refusal = 0;
    std::vector<Handle> m_handles;
    std::vector<Call> m_calls;
    std::vector<std::string> m_syslog;
    unsigned m_refused = 0;
    int m_openFlags = 0;
    unsigned m_statusTests = 0;
    unsigned m_interfaceReads = 0;
};

}  // namespace velt_testing
