// ConnThread: one thread of a ConnThreadPool. It takes a session, runs it, hands it back for deletion, and so on until
// the pool gives it no more.
// Owner: itself; it is detached and deletes itself at its end. Nobody touches it after construction but the pool's
// list.
#pragma once

#include <velt/Export.h>
#include <velt/runtime/Thread.h>

namespace VELT {

class ConnThreadPool;
class Connection;

class VELT_API ConnThread : public ThreadRunner {
public:
    // Starts the thread. A permanent thread stays until shutdown, a temporary one retires when it has been idle.
    // Throws FWException<fw_exception_tag::resource> when there is no thread to be had.
    ConnThread(ConnThreadPool* pool, bool permanent);
    ~ConnThread() override;

    void ThreadMain() override;

private:
    ConnThreadPool* m_pool;
    bool m_permanent;
    Connection* m_connection;  // the session being run; the pool deletes it
    int m_pid;
};

}  // namespace VELT
