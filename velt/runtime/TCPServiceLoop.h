// TCPServiceLoop: the worker of a TCP gateway. The constructor binds the configured ports while the process still has
// its start-up privileges; after the fork it accepts in one of two ways.
// Threaded model: one thread per listening socket accepts and feeds the ConnThreadPool.
// Forked model: one thread polls all sockets and forks a process per connection, MaxConnections at once.
// The listening sockets are shared with the monitor and all other workers: they are closed, never shut down, and each
// accept follows a poll, as somebody else may have taken the connection.
// Owner: ProxyMonitor. Threads: as told at each field. Failure: a port that cannot be opened is reported and skipped.
#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <vector>

#include <velt/Export.h>
#include <velt/runtime/Lock.h>
#include <velt/runtime/ServiceLoop.h>

namespace QXStats {
class QXCounter;
}

namespace VELT {

class Config;
class Connection;
class TCPStream;

class VELT_API TCPServiceLoop : public ServiceLoop {
public:
    enum CONNECTION_QUEUEING_TYPE {
        QUEUE_WAIT = 0,    // give it to the pool, and wait if the pool's queue is full
        QUEUE_NOWAIT = 1,  // give it to the pool, never wait
        RUN_INLINE = 2,    // run it on the calling thread and delete it
    };
    using ConnectionFactory = Connection* (*)(bool transparent);

    explicit TCPServiceLoop(Config* config);

    ~TCPServiceLoop() override;
    void Run() override;
    void StopServices() override;
    int PreForkInit() override;
    int PostForkInit() override;

    virtual void RunChildConnection(int fd);
    virtual void CheckForChildExit(bool wait);
    virtual int ListenToPort(sockaddr_in const* address, int& fd);  // 0, or an errno value with fd -1
    virtual void AcceptConnections_Threaded();
    virtual void AcceptConnections_Forked();

    void NewConnection(int fd, CONNECTION_QUEUEING_TYPE type);  // takes the descriptor over
    Connection* NewConnection(TCPStream* stream);               // takes the stream over; null: it was closed
    void CheckConnectionLimit();

    static void RegisterConnectionFactory(ConnectionFactory factory);
    // Threaded model only: makes a new session of a socket that the host owned until now.
    static void RecycleConnection(int fd);

    static TCPServiceLoop* MyInstance;
    static ConnectionFactory s_CreateConnection;

protected:
    unsigned m_connectionCount;  // accepted by this process; guarded by m_countLock, read without it as a threshold
    Lock m_countLock;
    Config* m_config;
    QXStats::QXCounter* m_recycleCounter;
    std::unique_ptr<std::atomic<int>[]> m_listenSockets;  // room for all bindings; closed ones are -1
    int m_listenCount;                                    // how many were bound
    int m_pid;
    unsigned m_childCount;  // connection children alive; the accepting thread of the forked model only

private:
    friend class ListenThread;

    void InitialiseConnectionClasses();
    void OpenListenSockets();
    int OpenFailed(sockaddr_in const& address, char const* operation, int& fd);
    void SetListenersNonBlocking();
    void WatchParent();
    void HandleParentPipe(short events);
    void RestWithoutParent();
    void WakeAll();
    void CloseParentRead();
    void ClosePipes();
    void AcceptReady(std::vector<pollfd>& watched);
    [[noreturn]] void ServeInChild(int fd);

    int m_wakeFd;  // readable once the threads have to look at the stop flag; -1: none
};

}  // namespace VELT
