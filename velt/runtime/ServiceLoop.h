// ServiceLoop: what one worker process does. A monitor owns one object, calls its hooks round each fork and gives every
// child a pair of pipes to its parent. TCPServiceLoop is the standard subclass.
// Also the stop machinery of a process: one flag, the signal that sets it, and the alarm that kills the process group
// when an exit hangs.
// Owner: ProxyMonitor. Threads: start-up and the worker's main thread; the static flags from any thread or handler.
// Order of calls: constructor, PreForkInit, (privileges are dropped), SetArguments; then for each child SetPipes before
// the fork, PostForkInit and Run after it.
// Units: ShutDownTimeout in seconds. Failure: operations report by their result.
#pragma once

#include <atomic>

#include <velt/Export.h>
#include <velt/runtime/ProxyMessage.h>

namespace VELT {

class Config;
class ConnThreadPool;

class VELT_API ServiceLoop {
public:
    ServiceLoop();

    virtual void WriteMsgToParent(ProxyMessage message);
    virtual int HandleMessageFromParent();               // 0, or what ReadParentData gave
    virtual int ReadParentData(char* buffer, int size);  // 0: all read; -1: failed; -2: end of file
    virtual ~ServiceLoop();
    virtual void Process(int argc, char** argv);  // single-process mode's main, in place of Run
    virtual void SetArguments(int argc, char** argv);
    virtual void Run();               // the child's main
    virtual void StopServices() = 0;  // also called from a signal handler: closes descriptors, no more
    virtual int PreForkInit();        // in the parent, before privileges are dropped
    virtual int PostForkInit();       // in the child
    virtual void SetPipes(int readFd, int writeFd);
    virtual void IdleTimeout();

    ServiceLoop(ServiceLoop const&) = delete;
    ServiceLoop& operator=(ServiceLoop const&) = delete;

    static void ServiceLoopConfig(Config* config);

    static std::atomic<bool> shutdown;        // the one stop flag of the process
    static std::atomic<bool> bProxyShutdown;  // the parent asked this child to leave; for hosts
    static ConnThreadPool* connthreads;       // this process's pool, null until PostForkInit

protected:
    int m_parentReadFd;  // the child's ends of its pipes, -1: none
    int m_parentWriteFd;
};

VELT_API void sigfinish_handler(int);     // stops the process in order
VELT_API void childshutdown_signal(int);  // does nothing but interrupt a poll
VELT_API void setupshutdown();            // arms the last-resort alarm; runs at process exit
VELT_API void shutdown_signal(int);       // kills the process group
VELT_API void pdk_dump_stack();           // the caller's stack to syslog

}  // namespace VELT
