#include <velt/runtime/TCPServiceLoop.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <QXStats/QXCounter.h>
#include <velt/Config.h>
#include <velt/connection/Connection.h>
#include <velt/errors/ErrnoEvents.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/ProxyHealth.h>
#include <velt/runtime/Shutdown.h>
#include <velt/streams/Qxtrans.h>
#include <velt/streams/TCPStream.h>

namespace VELT {

namespace {

constexpr int kBacklog = 20;
constexpr int kBindRetryMs = 50;
constexpr int kBindRetries = 60;  // three seconds

QXStats::QXCounter& RecycleCounter() {
    static auto& counter = *new QXStats::QXCounter("recycle.con");
    return counter;
}

// The workers of the service before this one hold its ports until they have seen that their monitor is gone: a service
// that was restarted waits for them. A first start finds out at once that a port is another program's.
bool Bind(int fd, sockaddr_in const& address) {
    int left = Proxy::s_pProxyInstance->m_restarted ? kBindRetries : 0;
    while (::bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == -1) {
        if (errno != EADDRINUSE || left-- == 0) return false;
        ::poll(nullptr, 0, kBindRetryMs);
    }
    return true;
}

// A throw-away session is how a protocol class sets up its statics.
void InitialiseClass(TCPServiceLoop::ConnectionFactory factory, bool transparent, Config& config) {
    std::unique_ptr<Connection> const session(factory(transparent));
    if (session) session->InitialiseConnectionClass(transparent, config);
}

}  // namespace

TCPServiceLoop* TCPServiceLoop::MyInstance = nullptr;
TCPServiceLoop::ConnectionFactory TCPServiceLoop::s_CreateConnection = nullptr;

TCPServiceLoop::TCPServiceLoop(Config* config)
    : m_connectionCount(0),
      m_config(config),
      m_recycleCounter(&RecycleCounter()),
      m_listenCount(0),
      m_pid(0),
      m_childCount(0),
      m_wakeFd(-1) {
    ServiceLoopConfig(config);
    connthreads = nullptr;
    MyInstance = this;
    InitialiseConnectionClasses();
    OpenListenSockets();
}

// A hangup that comes from here on must not reach what is being taken apart.
TCPServiceLoop::~TCPServiceLoop() {
    ForgetStoppedByHangup(this);
    delete connthreads;
    connthreads = nullptr;
    TCPServiceLoop::StopServices();
    if (m_wakeFd != -1) ::close(m_wakeFd);
    if (MyInstance == this) MyInstance = nullptr;
}

void TCPServiceLoop::InitialiseConnectionClasses() {
    if (!s_CreateConnection) return;
    Connection::Initialise();
    InitialiseClass(s_CreateConnection, false, *m_config);
    InitialiseClass(s_CreateConnection, true, *m_config);
}

// A binding that fails is skipped; the process starts with the rest, even with none.
void TCPServiceLoop::OpenListenSockets() {
    std::vector<sockaddr_in*> const bindings = Proxy::GetSvcBindings();
    m_listenSockets = std::make_unique<std::atomic<int>[]>(bindings.size());
    std::fill_n(m_listenSockets.get(), bindings.size(), -1);
    for (sockaddr_in const* const binding : bindings) {
        int fd = -1;
        if (ListenToPort(binding, fd) == 0 && fd != -1) m_listenSockets[m_listenCount++] = fd;
    }
}

int TCPServiceLoop::OpenFailed(sockaddr_in const& address, char const* operation, int& fd) {
    int const error = errno;
    LogEvent(events::LISTEN_FAILED, [&] {
        char text[INET_ADDRSTRLEN] = "";
        ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
        return QXPROP_VELT_LISTEN_PORT(ntohs(address.sin_port)) | QXPROP_VELT_LISTEN_ADDRESS(text) |
               QXPROP_VELT_SOCKET_OPERATION(operation) | _find_errno(error);
    });
    if (fd != -1) ::close(fd);
    fd = -1;
    return error;
}

// The port counts as failed until the very end, so that every way out but the last leaves it so.
int TCPServiceLoop::ListenToPort(sockaddr_in const* address, int& fd) {
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return OpenFailed(*address, "socket", fd);
    int const on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // every client's socket inherits it
    if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
        OpenFailed(*address, "setsockopt", fd);
        return -1;
    }
    boost::shared_ptr<ProxyHealth::ProxyPort> health;
    if (ProxyHealth::is_active()) health = ProxyHealth::listener(ntohs(address->sin_port));
    if (health) health->set_notok();
    if (qxtrans_prepare_listener(fd) == -1) return OpenFailed(*address, "IP_TRANSPARENT", fd);
    if (!Bind(fd, *address)) {
        return OpenFailed(*address, "bind", fd);
    }
    ::listen(fd, kBacklog);
    if (health) health->set_ok();
    return 0;
}

int TCPServiceLoop::PreForkInit() {
    ServiceLoop::PreForkInit();
    return 0;
}

int TCPServiceLoop::PostForkInit() {
    Proxy const& proxy = *Proxy::s_pProxyInstance;
    if (!proxy.m_forkedModel) {
        connthreads = new ConnThreadPool(proxy.m_maxConnections, proxy.m_maxQueuedConnections);
        connthreads->StartPool(static_cast<int>(proxy.m_permThreads));
    }
    m_pid = ::getpid();
    return 0;
}

void TCPServiceLoop::Run() {
    if (Proxy::s_pProxyInstance->m_forkedModel) {
        AcceptConnections_Forked();
    } else {
        AcceptConnections_Threaded();
    }
}

// Runs in a signal handler, too, beside the main thread: no socket is closed twice.
void TCPServiceLoop::StopServices() {
    for (int i = 0; i < m_listenCount; ++i) {
        int const fd = m_listenSockets[i].exchange(-1);
        if (fd != -1) ::close(fd);
    }
}

void TCPServiceLoop::RegisterConnectionFactory(ConnectionFactory factory) { s_CreateConnection = factory; }

void TCPServiceLoop::RecycleConnection(int fd) { MyInstance->NewConnection(fd, QUEUE_NOWAIT); }

void TCPServiceLoop::NewConnection(int fd, CONNECTION_QUEUEING_TYPE type) {
    m_countLock.Acquire();
    ++m_connectionCount;
    m_countLock.Release();
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    Connection* const session = NewConnection(new TCPStream(fd));
    if (!session) return;
    if (type != RUN_INLINE) {
        connthreads->QueueConnection(session, type == QUEUE_WAIT);
        return;
    }
    session->m_workerId = m_pid;
    session->Run();
    delete session;
}

// A socket whose facts cannot be had, and one that nobody makes a session for, is closed without a word.
Connection* TCPServiceLoop::NewConnection(TCPStream* stream) {
    std::unique_ptr<TCPStream> owned(stream);
    sockaddr_in peer{}, local{}, destination{};
    bool transparent = false;
    if (stream->GetConnectionInfo(peer, local, destination, transparent) != 0 || !s_CreateConnection) return nullptr;
    Connection* const session = s_CreateConnection(transparent);
    if (!session) {
        int const error = errno;
        LogEvent(events::NO_CONNECTION_OBJECT, [error] { return _find_errno(error); });
        return nullptr;
    }
    session->SetConnection(m_config, owned.release(), transparent, peer, destination, local);
    return session;
}

// Retires the worker, not a connection: the one that crosses the limit was accepted and runs to its end.
void TCPServiceLoop::CheckConnectionLimit() {
    unsigned const limit = Proxy::s_pProxyInstance->m_refreshRate;
    if (shutdown || limit == 0) return;
    m_countLock.Acquire();
    unsigned const count = m_connectionCount;
    m_countLock.Release();
    if (count <= limit) return;
    shutdown = true;
    (*m_recycleCounter)++;
    LogEvent(events::RECYCLE_CONNECTIONS, [count] { return KORlog::InfoBag(QXPROP_VELT_MAX_CONNECTIONS(count)); });
}

}  // namespace VELT
