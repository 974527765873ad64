// ProxyMonitor: the parent process of the workers. It keeps a number of children alive, each running the ServiceLoop,
// and learns from the end of file on a child's pipe that it has ended.
// Owner: Proxy, for the life of the process. Threads: one; no thread exists in the parent.
// Failure: a child that cannot be forked is reported and its place is lost. Pipes that cannot be made, or no longer fit
// a select set, are an FWException<fw_exception_tag::resource>.
#pragma once

#include <signal.h>
#include <sys/select.h>

#include <list>

#include <velt/Export.h>
#include <velt/runtime/ProxyMessage.h>

namespace QXStats {
class QXCounter;
}

namespace VELT {

class Config;
class ServiceLoop;

// ChildData: the parent's record of one child; owns the parent's ends of both pipes.
class VELT_API ChildData {
public:
    ChildData() = default;
    virtual ~ChildData();
    ChildData(ChildData const&) = delete;
    ChildData& operator=(ChildData const&) = delete;

    int m_fromChild[2] = {-1, -1};  // [0] the parent reads, [1] the child writes
    int m_toChild[2] = {-1, -1};    // [0] the child reads, [1] the parent writes
    bool m_pinned = false;          // set by a host: no child may be asked to leave
    bool m_leaving = false;         // was asked to leave
};

class VELT_API ProxyMonitor {
public:
    using ChildList = std::list<ChildData*>;
    using iterator = ChildList::iterator;

    ProxyMonitor();
    virtual ~ProxyMonitor();
    ProxyMonitor(ProxyMonitor const&) = delete;
    ProxyMonitor& operator=(ProxyMonitor const&) = delete;

    // Both take the loop over. Service returns when ServiceLoop::shutdown is set, Process with the loop's Process.
    void Service(int argc, char** argv, ServiceLoop* service, Config* config, unsigned children);
    void Process(ServiceLoop* service, int argc, char** argv);

    ServiceLoop* CreateService(ServiceLoop* service);
    int CreateChildProcesses(int count, int& created);  // 0 in a new child; -1: count below 1, or fork failed
    void CreatePipes();
    void MonitorChildren();
    void HandleMessage(iterator& child);
    bool ReadChildData(iterator& child, char* buffer, int size);  // false at end of file, which removes the entry
    void ShutdownChild(iterator& child);                          // asks the child to leave if enough others remain
    void HandleIdleTimeout(iterator& child);
    bool WriteMsgToChild(int fd, ProxyMessage message);

protected:
    QXStats::QXCounter* m_forks;
    ServiceLoop* m_service;  // owned
    unsigned m_wantedChildren;
    int m_priority;        // given to nice(2) in each child
    ChildList m_children;  // owned

private:
    void BecomeChild();
    [[noreturn]] void RunChild();
    int WaitForChildren(fd_set& readable, sigset_t const& signals);
    void HandleReadable(fd_set const& readable);
};

}  // namespace VELT
