// velt-rmgrd: the resource manager of scanner servers, for machines without the kernel module.
#include <getopt.h>
#include <pthread.h>
#include <sys/resource.h>
#include <system/SystemPath.h>
#include <unistd.h>
#ifdef VELT_WITH_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>
#include <thread>

#include <velt/scanning/RSMgrWire.h>
#include <velt/streams/BufferPool.h>
#include <velt/streams/TCPStream.h>

#include "Manager.h"
#include "Probe.h"
#include "ServersFile.h"

namespace {

constexpr unsigned kProbeTimeoutMs = 5000;
constexpr unsigned kProbeBufferBytes = 16384;
constexpr int kUsage = 2;
constexpr std::size_t kStackBytes = 512 * 1024;
constexpr int kEndSeconds = 2;

constexpr char const* kHelp =
    "usage: velt-rmgrd [option...]\n"
    "Tells gateways on this host which scanner server to use, and has the servers probed.\n"
    "  --socket PATH        where it listens; /run/velt/rmgrd.socket\n"
    "  --servers FILE       servers on other hosts, NAME ADDRESS PORT [ITEMS] on each line; read again on SIGHUP\n"
    "  --connections TEXT   how gateways keep connections: \"1 30 5 20\"\n"
    "  --probe SECONDS      between two looks at a server; 10\n"
    "  --policy NAME        by which the servers scan the test file; probe\n"
    "  --slow-start SECONDS until a server that came up has its whole share; 10\n";

struct Options {
    rmgrd::ManagerSettings manager;
    std::string servers;
    std::string policy = "probe";
};

[[noreturn]] void Refuse(std::string const& why) {
    std::fprintf(stderr, "velt-rmgrd: %s\n%s", why.c_str(), kHelp);
    std::exit(kUsage);
}

int Number(char const* text, int least) {
    char* end = nullptr;
    long const number = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || number < least || number > 86400) Refuse(std::string("not a time: ") + text);
    return static_cast<int>(number);
}

void ReadConnections(char const* text, int (&numbers)[4]) {
    char more;
    if (std::sscanf(text, "%d %d %d %d %c", &numbers[0], &numbers[1], &numbers[2], &numbers[3], &more) != 4)
        Refuse(std::string("not four numbers: ") + text);
}

Options Read(int argc, char** argv) {
    option const known[] = {{"socket", required_argument, nullptr, 's'},
                            {"servers", required_argument, nullptr, 'f'},
                            {"connections", required_argument, nullptr, 'c'},
                            {"probe", required_argument, nullptr, 'p'},
                            {"policy", required_argument, nullptr, 'y'},
                            {"slow-start", required_argument, nullptr, 'w'},
                            {"help", no_argument, nullptr, 'h'},
                            {}};
    Options options;
    options.manager.socketPath = SystemPath(VELT::manager::kSocketPath);
    for (int found; (found = ::getopt_long(argc, argv, "", known, nullptr)) != -1;) switch (found) {
            case 's':
                options.manager.socketPath = optarg;
                break;
            case 'f':
                options.servers = optarg;
                break;
            case 'c':
                ReadConnections(optarg, options.manager.connections);
                break;
            case 'p':
                options.manager.probeInterval = Number(optarg, 1);
                break;
            case 'y':
                options.policy = optarg;
                break;
            case 'w':
                options.manager.slowStart = Number(optarg, 0);
                break;
            case 'h':
                std::fputs(kHelp, stdout);
                std::exit(0);
            default:
                Refuse("unknown option");
        }
    if (optind != argc) Refuse(std::string("not an option: ") + argv[optind]);
    if (options.policy.find_first_of("\r\n") != std::string::npos) Refuse("not a policy");
    return options;
}

void Tell(std::string const& line) { std::fprintf(stderr, "%s\n", line.c_str()); }

// What cannot be read leaves the servers as they were.
void Load(rmgrd::Manager& manager, std::string const& path) {
    if (path.empty()) return;
    std::ifstream in(path);
    if (!in) return Tell(path + ": cannot be read");
    rmgrd::ServersFile file = rmgrd::ReadServers(in);
    for (std::string const& complaint : file.complaints) Tell(path + ", " + complaint);
    manager.SetServers(std::move(file.servers));
}

// From now on a gateway that asks is told of the servers of the file.
void NotifyReady() {
#ifdef VELT_WITH_SYSTEMD
    ::sd_notify(0, "READY=1");
#endif
}

// Returns with the signal that ends it.
void Serve(rmgrd::Manager& manager, sigset_t const& signals, std::string const& servers) {
    Load(manager, servers);
    std::thread running([&] { manager.Run(); });
    NotifyReady();
    for (int signal = 0; ::sigwait(&signals, &signal) != 0 || signal == SIGHUP;) Load(manager, servers);
    manager.Stop();
    running.join();
}

// A thread for each server adds up.
void KeepStacksSmall() {
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, kStackBytes);
    ::pthread_setattr_default_np(&attributes);
    ::pthread_attr_destroy(&attributes);
}

void RaiseLimit() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
    Options const options = Read(argc, argv);
    sigset_t signals;
    ::sigemptyset(&signals);
    for (int const signal : {SIGHUP, SIGINT, SIGTERM}) ::sigaddset(&signals, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    RaiseLimit();
    KeepStacksSmall();
    VELT::TCPStream::set_pool(new VELT::BufferPool(kProbeBufferBytes, 0));
    VELT::TCPStream::set_default_timeout(kProbeTimeoutMs);
    VELT::TCPStream::initialise(nullptr);
    try {
        rmgrd::Manager manager(
            options.manager,
            [&](rmgrd::ServerFacts const& server) { return rmgrd::Probe(server, options.policy, kProbeTimeoutMs); },
            Tell);
        Tell("listens at " + options.manager.socketPath);
        Serve(manager, signals, options.servers);
        if (manager.EndProbes(kEndSeconds)) return 0;
        ::unlink(options.manager.socketPath.c_str());
        ::_exit(0);  // a server that hangs is not waited for
    } catch (std::exception const& failure) {
        Tell(std::string("velt-rmgrd: ") + failure.what());
        return 1;
    }
    return 0;
}
