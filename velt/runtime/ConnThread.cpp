#include <velt/runtime/ConnThread.h>

#include <unistd.h>

#include <velt/connection/Connection.h>
#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/Proxy.h>

namespace VELT {

// The thread may be over, and this object gone, as soon as it is started.
ConnThread::ConnThread(ConnThreadPool* pool, bool permanent)
    : m_pool(pool), m_permanent(permanent), m_connection(nullptr), m_pid(0) {
    StartThread(static_cast<int>(Proxy::s_pProxyInstance->m_handlerStackSize), Thread::DETACHED);
}

ConnThread::~ConnThread() = default;

void ConnThread::ThreadMain() {
    m_pid = ::getpid();
    int const timeoutSeconds = m_permanent ? -1 : Proxy::s_pProxyInstance->m_proxyIdleTimeout;
    while ((m_connection = m_pool->GetConnection(timeoutSeconds, this)) != nullptr) {
        m_connection->m_workerId = m_pid;
        m_connection->Run();
        m_pool->RemoveConnection(m_connection);
    }
    delete this;
}

}  // namespace VELT
