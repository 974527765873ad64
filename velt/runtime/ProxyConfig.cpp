// What Proxy reads at start-up: the standard settings, the bindings, the logging and the network lists.
#include <arpa/inet.h>

#include <iostream>

#include <QXlog/QXlog.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/errors/Failures.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/Proxy.h>
#include <velt/runtime/TCPServiceLoop.h>
#include <velt/scanning/Scanner.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/Qxtrans.h>
#include <velt/streams/ScannerStream.h>
#include <velt/streams/TCPStream.h>

namespace VELT {

namespace {

constexpr unsigned kKiB = 1024;
constexpr unsigned kMsPerSecond = 1000;

// A list that is not there makes every session one of the other side, or of none; that is no reason not to start.
void LoadNetPolicy(NetPolicy& policy, std::string const& path) {
    try {
        policy.load(path);
    } catch (FWException<fw_exception_tag::resource> const&) {
    }
}

}  // namespace

struct Proxy::StreamSettings {
    unsigned netBytes, netBuffers;
    unsigned scanBytes, scanBuffers;
    std::string captures;  // the directory
};

// The framework's loader is the store behind every setting: it was loaded before.
void Proxy::GetStandardConfig() {
    InitialiseLogging();
    StreamSettings streams;
    ReadNetworkSettings(streams);
    ReadProcessSettings(streams);
    m_acceptCount = ReadSetting<VELTCFG::network::AcceptCount>(m_config);
    streams.scanBytes = ReadSetting<VELTCFG::scanning::MaxScanMem>(m_config) * kKiB;
    streams.scanBuffers = ReadSetting<VELTCFG::scanning::InitialScanMemPool>(m_config);
    SetUpStreams(streams);
    LoadSvcBindings();
    Scanner::initialise(&m_config);
    LoadNetPolicy(m_insidePolicy, ConfigFileName("inside.txt"));
    LoadNetPolicy(m_outsidePolicy, ConfigFileName("outside.txt"));
    ProcessScanResult::Initialise();
    CreateServiceLoop();
    if (m_acceptCount == 0) m_acceptCount = 1;
}

void Proxy::ReadNetworkSettings(StreamSettings& streams) {
    namespace network = VELTCFG::network;
    m_maxConnections = ReadSetting<network::MaxConnections>(m_config);
    m_connectTimeoutSeconds = ReadSetting<network::ConnectTimeout>(m_config);
    m_timeoutSeconds = ReadSetting<network::Timeout>(m_config);
    m_queueRatio = ReadSetting<network::QueueRatio>(m_config);
    m_maxQueuedConnections = ReadSetting<network::MaxQueuedConnections>(m_config);
    streams.netBytes = ReadSetting<network::NetMem>(m_config) * kKiB;
    streams.netBuffers = ReadSetting<network::InitialNetMemPool>(m_config);
}

void Proxy::ReadProcessSettings(StreamSettings& streams) {
    namespace process = VELTCFG::process;
    m_idleTimeout = ReadSetting<process::IdleTimeout>(m_config);
    m_proxyIdleTimeout = ReadSetting<process::ProxyIdleTimeout>(m_config);
    m_forkedModelThreads = ReadSetting<process::ForkedModelThreads>(m_config);
    m_forkedModel = ReadSetting<process::ForkedModel>(m_config);
    m_monitorHealth = ReadSetting<process::MonitorHealth>(m_config);
    m_threadLimit = ReadSetting<process::ThreadLimit>(m_config);
    m_refreshRate = ReadSetting<process::ProxyRefreshRate>(m_config);
    m_permThreads = ReadSetting<process::PermThreads>(m_config);
    m_handlerStackSize = ReadSetting<process::ConnectionHandlerStacksize>(m_config);
    streams.captures = ReadSetting<process::TCPDebugDirectory>(m_config).str();
}

// The two pools take their arguments in opposite orders.
void Proxy::SetUpStreams(StreamSettings const& streams) {
    ScannerStream::set_buffer_pool(streams.scanBuffers, streams.scanBytes);
    ScannerStream::set_spool_dir(m_scanDir);
    TCPStream::set_pool(new BufferPool(streams.netBytes, streams.netBuffers));
    TCPStream::set_debug_dir(streams.captures);
    m_timeoutMs = m_timeoutSeconds * kMsPerSecond;
    m_connectTimeoutMs = m_connectTimeoutSeconds * kMsPerSecond;
    TCPStream::set_default_timeout(m_timeoutMs);
}

// Whatever is not the TCP service is a retryer, whose queue one process walks.
void Proxy::CreateServiceLoop() {
    if (std::string_view(m_serviceType) == "tcp") {
        m_serviceLoop = new TCPServiceLoop(&m_config);
        return;
    }
    m_acceptCount = 1;
    m_serviceLoop = new RetryerServiceLoop(&m_config, m_retryerArgument);
}

void Proxy::InitialiseLogging() {
    bool const enabled = ReadSetting<VELTCFG::process::LoggingEnabled>(m_config);
    try {
        OpenLog();
        QXlog::initEvRep(0, 0);
        if (m_debugForeground && !m_runAsService) QXlog::detail::stdErrLogging(true);
        if (!m_loggingOn || !enabled) QXlog::detail::noLogging();
    } catch (KORtk::Exception const& failure) {
        QXlog::detail::noLogging();
        std::cerr << "Failure during initialisation of the logging system: " << failure.what()
                  << "\nWill attempt to continue." << std::endl;
    }
}

void Proxy::OpenLog() {
    QXlog::init(m_logName.empty() ? m_proxyName : m_logName, ConfigFileName(m_proxyName + "-logging.xml"));
}

// For what is reported before the settings are read, which may turn the log off. A malformed file is told of then.
void Proxy::OpenEarlyLog() {
    if (!m_loggingOn) return;
    try {
        OpenLog();
    } catch (KORtk::Exception const&) {
    }
}

// --- bindings ---

void Proxy::LoadSvcBindings() {
    auto const addresses = ReadSetting<VELTCFG::network::BindAddress>(m_config);
    auto const ports = ReadSetting<VELTCFG::network::BindPorts>(m_config);
    for (auto const& address : addresses) {
        for (unsigned short const port : ports) AddSvcBinding(::inet_addr(address.str().c_str()), port);
    }
    qxtrans_select(qxtrans_named(ReadSetting<VELTCFG::network::Interception>(m_config).str()));
    qxtrans_init();
}

void Proxy::AddSvcBinding(unsigned short port) {
    for (auto const& address : ReadSetting<VELTCFG::network::BindAddress>(s_pProxyInstance->m_config)) {
        s_pProxyInstance->AddSvcBinding(::inet_addr(address.str().c_str()), port);
    }
}

void Proxy::AddSvcBinding(sockaddr_in& address) { m_svcBindings.push_back(new sockaddr_in(address)); }

void Proxy::AddSvcBinding(unsigned int address, unsigned short port) {
    if (CheckDupSvcBinding(address, static_cast<short>(port)) != 0) return;
    sockaddr_in binding{};
    binding.sin_family = AF_INET;
    binding.sin_port = htons(port);
    binding.sin_addr.s_addr = address;
    AddSvcBinding(binding);
}

// The port comes signed; it is compared as the number that it stands for.
int Proxy::CheckDupSvcBinding(unsigned long address, short port) {
    for (sockaddr_in const* const binding : m_svcBindings) {
        if (ntohs(binding->sin_port) != static_cast<unsigned short>(port)) continue;
        if (binding->sin_addr.s_addr == address) return 2;
        if (address == INADDR_ANY) return 1;
        if (binding->sin_addr.s_addr == INADDR_ANY) return 2;
    }
    return 0;
}

}  // namespace VELT
