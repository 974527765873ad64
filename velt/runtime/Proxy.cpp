#include <velt/runtime/Proxy.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <QXStats/QXCounter.h>
#include <QXlog/QXlog.h>
#include <eFabric/Report.h>
#include <system/SegvHandler.h>
#include <system/SystemPath.h>
#include <velt/connection/Connection.h>
#include <velt/errors/ErrnoEvents.h>
#include <velt/logging/Events.h>
#include <velt/logging/Keys.h>
#include <velt/logging/Log.h>
#include <velt/runtime/ProxyHealth.h>
#include <velt/runtime/ProxyMonitor.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/runtime/Shutdown.h>
#include <velt/runtime/Thread.h>
#include <velt/scanning/EFabricScanAgent.h>
#include <velt/scanning/Scanner.h>
#include <velt/scanning/ScannerServer.h>
#include <velt/streams/NetUtils.h>

namespace VELT {

namespace {

constexpr mode_t kScanDirMode = 0666;  // whoever sets the spool up opens it; until then nothing can be put there
constexpr mode_t kEngineDirMode = 0755;

std::string TextOf(char const* text) { return text ? text : ""; }

// A failed open leaves the descriptors as they are.
void DetachStandardStreams() {
    int const null = ::open("/dev/null", O_RDWR);
    if (null == -1) return;
    for (int fd = 0; fd <= 2; ++fd) ::dup2(null, fd);
    if (null > 2) ::close(null);
}

// The system's log keeps the pointer, also beyond the proxy's own end.
void CopyLogToTerminal(std::string const& name) {
    static std::string& kept = *new std::string;
    kept = name;
    ::openlog(kept.c_str(), LOG_PID | LOG_PERROR, LOG_DAEMON);
}

void WaitForEnd(pid_t child) {
    while (::waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
    }
}

}  // namespace

Proxy* Proxy::s_pProxyInstance = nullptr;

Proxy::Proxy()
    : m_loggingOn(true),
      m_timeoutSeconds(0),
      m_timeoutMs(0),
      m_connectTimeoutSeconds(0),
      m_connectTimeoutMs(0),
      m_idleTimeout(0),
      m_threadLimit(0),
      m_refreshRate(0),
      m_handlerStackSize(0),
      m_proxyIdleTimeout(0),
      m_queueRatio(0),
      m_clockInConnectionChild(false),
      m_forkedModel(false),
      m_antiSpamSdk(false),
      m_maxConnections(1),
      m_acceptCount(1),
      m_maxQueuedConnections(0),
      m_permThreads(0),
      m_loopbackAllowed(false),
      m_monitor(nullptr),
      m_serviceLoop(nullptr),
      m_monitorHealth(false),
      m_runAsService(true),
      m_debugForeground(false),
      m_singleProcess(false),
      m_argc(0),
      m_argv(nullptr),
      m_serviceType("tcp"),
      m_retryerArgument(nullptr),
      m_forkedModelThreads(false),
      m_restarted(false) {
    s_pProxyInstance = this;
    ::umask(0);
    for (int const signal : {SIGPIPE, SIGXFSZ, SIGCHLD}) HandleSignal(signal, SIG_IGN);
    ReadInterfaces();
    SegvHandler::Install();
}

// The loop, the monitor and the bindings are left to the end of the process.
Proxy::~Proxy() {
    for (sockaddr_in* const address : m_interfaceAddresses) std::free(address);
    if (s_pProxyInstance == this) s_pProxyInstance = nullptr;
}

void Proxy::ReadInterfaces() {
    m_interfaceAddresses = getinterface_addresses();
    for (sockaddr_in const* const address : m_interfaceAddresses) {
        if (address->sin_addr.s_addr == htonl(INADDR_LOOPBACK)) continue;
        m_interfaceNames.emplace_back(::inet_ntoa(address->sin_addr));
    }
}

int Proxy::ProxyInit() { return 0; }

void Proxy::Shutdown() {
    LogEvent(events::PROXY_STOPS, [] { return KORlog::InfoBag(QXPROP_VELT_PID(::getpid())); });
    delete this;
}

// In the foreground, what goes to syslog before the log is up is seen on standard error, too.
int Proxy::Start(int argc, char** argv) {
    for (int i = 0; i < argc; ++i) m_commandLine.append(argv[i]).append(" ");
    if (ProcessArgs(argc, argv) != 0) return -1;
    if (m_debugForeground) CopyLogToTerminal(m_proxyName);
    return m_runAsService ? StartAsService() : ProxyMain();
}

// The count is that of all arguments, not of what is left after the options.
int Proxy::ProcessArgs(int argc, char** argv) {
    optind = 0;  // so that a second call begins anew
    for (int option; (option = ::getopt(argc, argv, "naps:l:dt:")) != -1;) TakeOption(option);
    if (argc < 2) {
        std::fputs("Not enough arguments\n", stderr);
        std::exit(0);
    }
    TakePositionals(argc, argv);
    return 0;
}

void Proxy::TakeOption(int option) {
    switch (option) {
        case 'a':
            m_antiSpamSdk = true;
            break;
        case 'd':
            m_debugForeground = true;
            m_runAsService = false;
            break;
        case 'l':
            m_logName = optarg;
            break;
        case 'n':
            m_loggingOn = false;
            break;
        case 'p':
            m_singleProcess = true;
            m_runAsService = false;
            break;
        case 's':
            m_serviceType = optarg;
            break;
        case 't':
            m_retryerArgument = optarg;
            m_logName = optarg;
            break;
        default:
            break;
    }
}

// Names that are missing are empty texts, and m_argc then tells how many are.
void Proxy::TakePositionals(int argc, char** argv) {
    char const* const name = optind < argc ? argv[optind] : nullptr;
    char const* const product = optind + 1 < argc ? argv[optind + 1] : nullptr;
    SetProxyName(name);
    m_productName = TextOf(product);
    m_productConfigFile = ConfigFileName(m_productName + ".xml");
    m_argc = argc - optind - 2;
    m_argv = argv + std::min(optind + 2, argc);
}

std::string Proxy::ConfigFileName(std::string name) { return SystemPath("/config/qxxmlconf/" + name); }

void Proxy::SetProxyName(char const* name) {
    m_proxyName = TextOf(name);
    m_scanDir = SystemPath("/scandir/" + m_proxyName);
    ::mkdir(m_scanDir.c_str(), kScanDirMode);
    ::mkdir((m_scanDir + "/segv").c_str(), kScanDirMode);
}

int Proxy::StartAsService() {
    std::fflush(nullptr);
    pid_t const service = ::fork();
    int const error = errno;
    if (service > 0) std::exit(0);
    OpenEarlyLog();
    if (service == -1) {
        LogEvent(events::SERVICE_FORK_FAILED, [error] { return _find_errno(error); });
    } else {
        LogEvent(events::SERVICE_STARTED, [] { return KORlog::InfoBag(QXPROP_VELT_PID(::getpid())); });
    }
    QXlog::shutdownEvRep();
    if (service == -1) return -1;
    ::setsid();
    DetachStandardStreams();
    return Supervise();
}

// Restarts the service whenever it ends, however it ended, and at once. Only a signal ends this process. Should it not
// be able to fork, it runs the service itself.
int Proxy::Supervise() {
    while (!ServiceLoop::shutdown) {
        std::fflush(nullptr);
        pid_t const service = ::fork();
        if (service <= 0) break;
        HandleSignal(SIGCHLD, SIG_DFL);
        WaitForEnd(service);
        m_restarted = true;
    }
    HandleSignal(SIGCHLD, SIG_IGN);
    return ProxyMain();
}

int Proxy::ProxyMain() {
    if (!LoadFramework()) return -1;
    if (!LoadIdentities()) return -1;
    GetStandardConfig();
    if (!m_serviceLoop) return -1;
    LogEvent(events::PROXY_STARTS, [this] { return KORlog::InfoBag(QXPROP_VELT_COMMAND_LINE(m_commandLine)); });
    if (ProxyInit() != 0) return -1;
    if (m_monitorHealth) ProxyHealth::init(m_proxyName);
    m_monitor = new ProxyMonitor;
    if (m_singleProcess) {
        m_monitor->Process(m_serviceLoop, m_argc, m_argv);
    } else {
        m_monitor->Service(m_argc, m_argv, m_serviceLoop, &m_config, m_acceptCount);
    }
    Scanner::finish();
}

// A proxy that serves scans to others has no use for the anti-spam engine, whatever its command line says.
bool Proxy::LoadFramework() {
    bool const antiSpam = m_antiSpamSdk && m_proxyName != "ls";
    std::string path = ConfigFileName("efabric");
    InitialiseOS();
    QXStats::QXCounter::initialise(m_proxyName);
    ::mkdir(path.c_str(), kEngineDirMode);
    path += "/" + m_proxyName + ".xml";
    return EFabricScanAgent::load(m_productConfigFile, m_proxyName, antiSpam, path.c_str());
}

// Without its identities a gateway would run everybody under the wrong policy. What an expression's own library throws
// was reported with its place by the rule engine.
bool Proxy::LoadIdentities() {
    try {
        Config::initialise();
        return true;
    } catch (KORtk::Exception const& error) {
        eFabric::Report(error.text());
    } catch (std::exception const&) {
    }
    return false;
}

// --- what the rest of the library asks ---

std::vector<sockaddr_in*> Proxy::GetSvcBindings() { return s_pProxyInstance->m_svcBindings; }

std::vector<std::string>& Proxy::GetInterfaces() { return s_pProxyInstance->m_interfaceNames; }

void Proxy::SetHostInformation(std::string& shortName, std::string& fullName) {
    if (!s_pProxyInstance) return;
    s_pProxyInstance->m_hostName = shortName;
    s_pProxyInstance->m_fullHostName = fullName;
}

std::string Proxy::GetProxyHostName(bool full) {
    if (!s_pProxyInstance) return {};
    return full ? s_pProxyInstance->m_fullHostName : s_pProxyInstance->m_hostName;
}

bool Proxy::IsLoopbackConnection(sockaddr_in const& address) {
    if (ntohl(address.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET) return true;
    auto const& own = s_pProxyInstance->m_interfaceAddresses;
    return std::any_of(own.begin(), own.end(), [&](sockaddr_in const* candidate) {
        return candidate->sin_addr.s_addr == address.sin_addr.s_addr;
    });
}

// A tie goes to outside, the side that is not trusted.
bool Proxy::FindConnectionDirection(bool& outside, Connection* session) {
    outside = false;
    TCPConnection& source = session->getSourceConnection();
    int const insideScore = s_pProxyInstance->m_insidePolicy.score(session, source);
    int const outsideScore = s_pProxyInstance->m_outsidePolicy.score(session, source);
    if (insideScore == -1 && outsideScore == -1) return false;
    outside = insideScore <= outsideScore;
    return true;
}

void Proxy::DisableLogging() {
    s_pProxyInstance->m_loggingOn = false;
    QXlog::detail::noLogging();
}

// Nothing scans outside this process, so that every connection thread may have to: it gets the system's own stack.
// Engines that run on the threads of connections need the system's stack.
void Proxy::CheckStackSize() {
    if (!ScannerProcessActive()) s_pProxyInstance->m_handlerStackSize = 0;
}

int ProxyStart(int argc, char** argv) { return Proxy::s_pProxyInstance->Start(argc, argv); }

void ProxyStop() { Proxy::s_pProxyInstance->Shutdown(); }

}  // namespace VELT
