#include "testing/Slapd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "testing/Sockets.h"

namespace velt_testing {

namespace {

constexpr std::chrono::seconds kLimit(60);
constexpr int kPorts = 3;              // that are tried: each may be somebody's before the server has it
constexpr rlim_t kDescriptors = 1024;  // the server takes memory for as many as it may have

unsigned short FreePort() {
    Fd const socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in name = Loopback(0);
    socklen_t length = sizeof name;
    ::bind(socket.get(), reinterpret_cast<sockaddr*>(&name), length);
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&name), &length);
    return ntohs(name.sin_port);
}

bool Accepts(unsigned short port) {
    Fd const socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in const name = Loopback(port);
    return ::connect(socket.get(), reinterpret_cast<sockaddr const*>(&name), sizeof name) == 0;
}

template <class Condition>
bool Waited(Condition condition) {
    auto const end = std::chrono::steady_clock::now() + kLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        ::poll(nullptr, 0, 10);
    }
    return true;
}

}  // namespace

Slapd::Slapd(std::string const& settings) {
    char folder[] = "/tmp/slapd.XXXXXX";
    if (!::mkdtemp(folder)) throw std::runtime_error("no folder for the directory server");
    m_folder = folder;
    Prepare(settings);
    for (int left = kPorts; left > 0; --left) {
        m_port = FreePort();
        if (Runs()) return;
    }
    throw std::runtime_error("the directory server does not start: " + Log());
}

Slapd::~Slapd() {
    Stop();
    std::filesystem::remove_all(m_folder);
}

void Slapd::Prepare(std::string const& settings) const {
    std::string const command = SLAPD_TESTING "/prepare " + m_folder;
    if (std::system(command.c_str()) != 0) throw std::runtime_error("the directory server could not be prepared");
    std::ofstream(m_folder + "/slapd.conf", std::ios::app) << settings;
}

std::string Slapd::Log() const {
    std::ostringstream content;
    content << std::ifstream(m_folder + "/log").rdbuf();
    return content.str();
}

void Slapd::Start() {
    if (!Runs()) throw std::runtime_error("the directory server does not start: " + Log());
}

bool Slapd::Runs() {
    std::string const log = m_folder + "/log", configuration = m_folder + "/slapd.conf";
    std::string const address = "ldap://127.0.0.1:" + std::to_string(m_port);
    m_pid = ::fork();
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        rlimit const descriptors{kDescriptors, kDescriptors};
        ::setrlimit(RLIMIT_NOFILE, &descriptors);
        int const out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execl("/usr/sbin/slapd", "slapd", "-f", configuration.c_str(), "-h", address.c_str(), "-d", "stats", nullptr);
        ::_exit(127);
    }
    bool serves = false, ended = false;
    Waited([&] { return (serves = Accepts(m_port)) || (ended = ::waitpid(m_pid, nullptr, WNOHANG) != 0); });
    if (ended) m_pid = -1;
    if (serves) {
        ++m_looks;
        return WaitForEnds(0);
    }
    Stop();
    return false;
}

void Slapd::Stop() {
    if (m_pid == -1) return;
    Thaw();
    ::kill(m_pid, SIGTERM);
    ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

void Slapd::Freeze() const {
    ::kill(m_pid, SIGSTOP);
    int status = 0;
    ::waitpid(m_pid, &status, WUNTRACED);
}

void Slapd::Thaw() const { ::kill(m_pid, SIGCONT); }

std::size_t Slapd::Noted(std::string const& what) const {
    std::ifstream log(m_folder + "/log");
    std::size_t count = 0;
    for (std::string line; std::getline(log, line);) count += line.find(what) != std::string::npos;
    return count;
}

// A connection is known by its number, whichever line tells of it first: the server's other threads may note a search
// and its answer before the listener has noted the accept. Each start numbers anew.
std::size_t Slapd::Connections() const {
    std::ifstream log(m_folder + "/log");
    std::set<std::string> numbers;
    std::size_t count = 0;
    for (std::string line; std::getline(log, line);) {
        if (line.find("slapd starting") != std::string::npos) numbers.clear();
        auto const begin = line.find("conn=");
        if (begin != std::string::npos)
            count += numbers.insert(line.substr(begin, line.find(' ', begin) - begin)).second;
    }
    return count - m_looks;
}

bool Slapd::WaitForEnds(std::size_t connections) const {
    return Waited([&] { return Noted(" closed") >= connections + m_looks; });
}

std::vector<std::string> Slapd::Lists() const {
    std::string const command = "ldapsearch -LLL -o ldif-wrap=no -x -D " + std::string(kAdmin) +
                                " -w secret -H ldap://127.0.0.1:" + std::to_string(m_port) + " -b ou=lists," + kBase +
                                " -s one 1.1 2>&1";
    std::vector<std::string> names;
    std::FILE* const out = ::popen(command.c_str(), "re");
    for (char line[1024]; out && std::fgets(line, sizeof line, out);) {
        std::string name(line);
        name.erase(name.find_last_not_of('\n') + 1);
        if (!name.empty()) names.push_back(name);
    }
    if (out) ::pclose(out);
    return names;
}

}  // namespace velt_testing
