#include <velt/runtime/ProxyMonitor.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>

#include <QXStats/QXCounter.h>
#include <velt/Config.h>
#include <velt/config_details/settings/process.h>
#include <velt/errors/ErrnoEvents.h>
#include <velt/errors/Failures.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/Notify.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/scanning/Scanner.h>

namespace VELT {

namespace {

constexpr int kSelectable = FD_SETSIZE;  // descriptors below this fit a select set

// SIGHUP may arrive only where the monitor lets it: one that came between the look at the stop flag and the wait would
// be lost. The wait alone is not enough, as it lets no signal in while a child is readable, and children that die at
// once may always be.
class HangupHeldBack {
public:
    HangupHeldBack() {
        sigset_t hangup;
        ::sigemptyset(&hangup);
        ::sigaddset(&hangup, SIGHUP);
        ::sigprocmask(SIG_BLOCK, &hangup, &m_before);
    }
    ~HangupHeldBack() { Release(); }
    HangupHeldBack(HangupHeldBack const&) = delete;
    HangupHeldBack& operator=(HangupHeldBack const&) = delete;

    void LetIn() const {
        sigset_t held;
        ::sigprocmask(SIG_SETMASK, &m_before, &held);
        ::sigprocmask(SIG_SETMASK, &held, nullptr);
    }
    void Release() const { ::sigprocmask(SIG_SETMASK, &m_before, nullptr); }
    sigset_t const& before() const { return m_before; }

private:
    sigset_t m_before;
};

QXStats::QXCounter& Forks() {
    static auto& counter = *new QXStats::QXCounter("forks");
    return counter;
}

void CloseEnd(int& fd) {
    if (fd != -1) ::close(fd);
    fd = -1;
}

[[noreturn]] void ThrowResource(int error, char const* text) {
    throw FWException<fw_exception_tag::resource>(error, text);
}

}  // namespace

ChildData::~ChildData() {
    CloseEnd(m_fromChild[0]);
    CloseEnd(m_toChild[1]);
}

ProxyMonitor::ProxyMonitor() : m_forks(&Forks()), m_service(nullptr), m_wantedChildren(0), m_priority(0) {}

ProxyMonitor::~ProxyMonitor() {
    delete m_service;
    for (ChildData* const child : m_children) delete child;
    m_children.clear();
}

void ProxyMonitor::Service(int argc, char** argv, ServiceLoop* service, Config* config, unsigned children) {
    m_wantedChildren = children;
    m_priority = ReadSetting<VELTCFG::process::Priority>(*config);
    m_service = service;
    m_service->PreForkInit();
    Proxy::s_pProxyInstance->SetUidAndGid();
    m_service->SetArguments(argc, argv);
    MonitorChildren();
    NotifyStopping();
}

void ProxyMonitor::Process(ServiceLoop* service, int argc, char** argv) {
    m_service = service;
    m_service->PreForkInit();
    Proxy::s_pProxyInstance->SetUidAndGid();
    Scanner::start(true, true);
    m_service->Process(argc, argv);
}

ServiceLoop* ProxyMonitor::CreateService(ServiceLoop* service) {
    service->PreForkInit();
    Proxy::s_pProxyInstance->SetUidAndGid();
    return service;
}

// There is no pause between a child's end and its replacement.
void ProxyMonitor::MonitorChildren() {
    HangupHeldBack const hangup;
    while (!ServiceLoop::shutdown) {
        std::size_t const have = m_children.size();
        if (have < m_wantedChildren) {
            int created = 0;
            if (CreateChildProcesses(static_cast<int>(m_wantedChildren - have), created) == 0) {
                hangup.Release();
                RunChild();
            }
        }
        fd_set readable;
        if (WaitForChildren(readable, hangup.before()) > 0) HandleReadable(readable);
        hangup.LetIn();
    }
}

void ProxyMonitor::RunChild() {
    m_service->PostForkInit();
    Scanner::start(false, true);
    m_service->Run();
    Scanner::finish();
}

// The number of readable children; 0 or less when there is nothing to read, and then the set says nothing.
int ProxyMonitor::WaitForChildren(fd_set& readable, sigset_t const& signals) {
    FD_ZERO(&readable);
    int highest = -1;
    for (ChildData const* const child : m_children) {
        int const fd = child->m_fromChild[0];
        if (fd < 0 || fd >= kSelectable) continue;
        FD_SET(fd, &readable);
        highest = std::max(highest, fd);
    }
    int const ready = ::pselect(highest + 1, &readable, nullptr, nullptr, nullptr, &signals);
    if (ready == -1 && errno != EINTR) {
        timespec const rest{0, 100'000'000};  // such an error does not go away by itself: not in a tight loop
        ::pselect(0, nullptr, nullptr, nullptr, &rest, &signals);
    }
    return ready;
}

void ProxyMonitor::HandleReadable(fd_set const& readable) {
    for (iterator next = m_children.begin(); next != m_children.end();) {
        iterator child = next++;
        int const fd = (*child)->m_fromChild[0];
        if (fd >= 0 && fd < kSelectable && FD_ISSET(fd, &readable)) HandleMessage(child);
    }
}

// A child that could not be forked keeps its entry, and so its place, for as long as the monitor lives.
int ProxyMonitor::CreateChildProcesses(int count, int& created) {
    created = 0;
    pid_t child = -1;
    for (int i = 0; i < count; ++i) {
        CreatePipes();
        std::fflush(nullptr);
        child = ::fork();
        if (child == -1) {
            int const error = errno;
            LogEvent(events::CHILD_FORK_FAILED, [error] { return _find_errno(error); });
            return -1;
        }
        if (child == 0) {
            BecomeChild();
            return 0;
        }
        CloseEnd(m_children.back()->m_fromChild[1]);
        CloseEnd(m_children.back()->m_toChild[0]);
        ++created;
    }
    return child;
}

// The records stay behind as dead memory; the parent closed the other ends of the siblings' pipes when it made those.
void ProxyMonitor::BecomeChild() {
    (*m_forks)++;
    LogEvent(events::CHILD_STARTED, [] { return KORlog::InfoBag(QXPROP_VELT_PID(::getpid())); });
    for (ChildData* const child : m_children) {
        CloseEnd(child->m_fromChild[0]);
        CloseEnd(child->m_toChild[1]);
    }
    [[maybe_unused]] int const ignored = ::nice(m_priority);
}

void ProxyMonitor::CreatePipes() {
    std::unique_ptr<ChildData> child(new (std::nothrow) ChildData);
    if (!child) throw VeltException(KORtk::Here(), "Unable to create ChildData object.");
    if (::pipe2(child->m_fromChild, O_CLOEXEC) == -1) ThrowResource(errno, "Unable to create child read pipe.");
    if (child->m_fromChild[0] >= kSelectable) {
        CloseEnd(child->m_fromChild[1]);
        ThrowResource(EMFILE, "Maximum number of children created - FD_SETSIZE reached.");
    }
    if (::pipe2(child->m_toChild, O_CLOEXEC) == -1) {
        int const error = errno;
        CloseEnd(child->m_fromChild[1]);
        ThrowResource(error, "Unable to create child write pipe.");
    }
    m_service->SetPipes(child->m_toChild[0], child->m_fromChild[1]);
    m_children.push_back(child.get());
    child.release();
}

// The payload of a message is read whatever its type, so that the next message begins where it should.
void ProxyMonitor::HandleMessage(iterator& child) {
    unsigned char header[kProxyMessageHeader];
    if (!ReadChildData(child, reinterpret_cast<char*>(header), sizeof header)) return;
    int const length = header[0] << 8 | header[1];
    std::unique_ptr<char[]> payload;
    if (length != 0) {
        payload = std::make_unique<char[]>(static_cast<std::size_t>(length));
        if (!ReadChildData(child, payload.get(), length)) return;
    }
    if (header[2] == MSG_RELEASE_ME) ShutdownChild(child);
    if (header[2] == MSG_STOPPING && ServiceLoop::shutdown) m_service->StopServices();
}

bool ProxyMonitor::ReadChildData(iterator& child, char* buffer, int size) {
    while (size > 0) {
        ssize_t const got = ::read((*child)->m_fromChild[0], buffer, static_cast<std::size_t>(size));
        if (got == -1 && errno == EINTR) continue;
        if (got == -1) return false;
        if (got == 0) {
            delete *child;
            m_children.erase(child);
            return false;
        }
        buffer += got;
        size -= static_cast<int>(got);
    }
    return true;
}

void ProxyMonitor::ShutdownChild(iterator& child) {
    std::size_t leaving = 0;
    for (ChildData const* const other : m_children) {
        if (other->m_pinned) return;
        if (other->m_leaving) ++leaving;
    }
    if (m_children.size() - leaving <= m_wantedChildren) return;
    if (WriteMsgToChild((*child)->m_toChild[1], MSG_LEAVE)) (*child)->m_leaving = true;
}

void ProxyMonitor::HandleIdleTimeout(iterator& child) { ShutdownChild(child); }

bool ProxyMonitor::WriteMsgToChild(int fd, ProxyMessage message) {
    char const bytes[kProxyMessageHeader] = {0, 0, static_cast<char>(message)};
    return ::write(fd, bytes, sizeof bytes) == sizeof bytes;
}

}  // namespace VELT
