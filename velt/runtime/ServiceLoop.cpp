#include <velt/runtime/ServiceLoop.h>

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <system/SegvHandler.h>
#include <velt/Config.h>
#include <velt/config_details/settings/process.h>
#include <velt/runtime/ConnThreadPool.h>
#include <velt/runtime/Shutdown.h>
#include <velt/scanning/ScanAgent.h>

namespace VELT {

std::atomic<bool> ServiceLoop::shutdown{false};
std::atomic<bool> ServiceLoop::bProxyShutdown{false};
ConnThreadPool* ServiceLoop::connthreads = nullptr;

ServiceLoop::ServiceLoop() : m_parentReadFd(-1), m_parentWriteFd(-1) {
    SegvHandler::Install();
    SegvHandler::SetUserHandler(ScanAgent::segv);
    [[maybe_unused]] int const ignored = ::chdir("/tmp");
    std::atexit(setupshutdown);
    bProxyShutdown = false;
    shutdown = false;
    SetStoppedByHangup(this);
}

ServiceLoop::~ServiceLoop() {
    ForgetStoppedByHangup(this);
    delete connthreads;
    connthreads = nullptr;
}

void ServiceLoop::ServiceLoopConfig(Config* config) {
    SetShutDownTimeout(ReadSetting<VELTCFG::process::ShutDownTimeout>(*config));
}

int ServiceLoop::PreForkInit() {
    HandleSignal(SIGINT, SIG_DFL);
    HandleSignal(SIGHUP, sigfinish_handler);
    std::atexit(setupshutdown);
    return 0;
}

int ServiceLoop::PostForkInit() { return 0; }

void ServiceLoop::Process(int, char**) {}

void ServiceLoop::SetArguments(int, char**) {}

void ServiceLoop::Run() {}

void ServiceLoop::IdleTimeout() {}

void ServiceLoop::SetPipes(int readFd, int writeFd) {
    m_parentReadFd = readFd;
    m_parentWriteFd = writeFd;
}

void ServiceLoop::WriteMsgToParent(ProxyMessage message) {
    char const bytes[kProxyMessageHeader] = {0, 0, static_cast<char>(message)};
    [[maybe_unused]] ssize_t const ignored = ::write(m_parentWriteFd, bytes, sizeof bytes);
}

int ServiceLoop::ReadParentData(char* buffer, int size) {
    while (size > 0) {
        ssize_t const got = ::read(m_parentReadFd, buffer, static_cast<std::size_t>(size));
        if (got == 0) return -2;
        if (got < 0 && errno != EINTR) return -1;
        if (got < 0) continue;
        buffer += got;
        size -= static_cast<int>(got);
    }
    return 0;
}

// The parent sends no payloads.
int ServiceLoop::HandleMessageFromParent() {
    char bytes[kProxyMessageHeader];
    int const result = ReadParentData(bytes, sizeof bytes);
    if (result != 0) return result;
    if (bytes[2] == MSG_LEAVE) bProxyShutdown = true;
    return 0;
}

}  // namespace VELT
