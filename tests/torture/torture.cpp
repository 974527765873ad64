// Runs scenarios while calls of the system fail. Each line of its input names one; each run is a process of its own,
// and gives a line of output: "right" (it says that all was done, and it was), "refused" (it says that it failed),
// "false ..." (it says that all was done, and this is not), "left ..." (something that it left behind), "signal N",
// "hung". The plan of failures is the file of VELT_FAULTS; it counts while the scenario acts.
#include <KORtk/Exception.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <new>

#include "Scenario.h"
#include "testing/SessionWorld.h"
#include "testing/faults/FaultPlan.h"

namespace torture {

namespace {

constexpr int kLimitMs = 20000;  // of one run; every wait in it is shorter

velt_testing::SessionWorld* s_world = nullptr;

template <class Function>
Function OfFaults(char const* name) {
    void* const found = ::dlsym(RTLD_DEFAULT, name);
    if (found) return reinterpret_cast<Function>(found);
    std::fprintf(stderr, "%s is not loaded\n", name);
    std::exit(2);
}

velt_testing::FaultPlan& Plan() {
    static auto& plan = *OfFaults<velt_testing::FaultPlan* (*)()>("velt_faults_plan")();
    return plan;
}

std::vector<NamedScenario> AllScenarios() {
    std::vector<NamedScenario> all;
    for (auto const& some : {StreamScenarios(), SpoolScenarios(), ConnectScenarios(), MailScenarios()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

std::ptrdiff_t CountOf(std::string const& directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

// What it says of itself. An exception tells of a failure, too.
bool ActWithFailures(Scenario& scenario) {
    bool said = false;
    Plan().armed = 1;
    try {
        said = scenario.Act();
    } catch (std::exception const&) {
    } catch (KORtk::Exception const&) {
    }
    Plan().armed = 0;
    return said;
}

std::string Run(NamedScenario const& named) {
    std::string const spool = SpoolPath("");
    auto const files = CountOf(spool);
    auto const descriptors = CountOf("/proc/self/fd");
    auto scenario = named.make();
    bool const said = ActWithFailures(*scenario);
    std::string const wrong = said ? scenario->Judge() : "";
    scenario.reset();
    if (!wrong.empty()) return "false: " + wrong;
    if (CountOf("/proc/self/fd") != descriptors) return "left a descriptor open";
    if (CountOf(spool) != files) return "left a file in the spool directory";
    return said ? "right" : "refused";
}

[[noreturn]] void RunAndTell(NamedScenario const& named, int answer) {
    std::string text;
    try {
        text = Run(named);
    } catch (std::exception const& error) {
        text = std::string("broken: ") + error.what();
    }
    [[maybe_unused]] auto const told = ::write(answer, text.data(), text.size());
    ::_exit(0);
}

// What the process says until it ends.
std::string Listen(int answer, pid_t child) {
    pollfd one{answer, POLLIN, 0};
    bool const hung = ::poll(&one, 1, kLimitMs) == 0;
    if (hung) ::kill(child, SIGKILL);
    char text[1024];
    ssize_t const length = ::read(answer, text, sizeof text);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (hung) return "hung";
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : "ended by itself";
}

std::string RunInChild(NamedScenario const& named) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return "broken: pipe";
    pid_t const child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        RunAndTell(named, ends[1]);
    }
    ::close(ends[1]);
    std::string const said = child > 0 ? Listen(ends[0], child) : "broken: fork";
    ::close(ends[0]);
    return said;
}

std::string RunByName(std::vector<NamedScenario> const& scenarios, std::string const& name) {
    for (auto const& named : scenarios)
        if (name == named.name) return RunInChild(named);
    return "broken: no such scenario";
}

}  // namespace

void SpareThisThread() { OfFaults<void (*)()>("velt_faults_spare_thread")(); }

std::string SpoolPath(std::string_view name) { return s_world->root() / ("scandir/" + std::string(name)); }

std::string Numbered(unsigned bytes) {
    std::string text;
    for (unsigned line = 0; text.size() < bytes; ++line) {
        text += std::to_string(line) + ' ';
        text.append(line * 7 % 60, static_cast<char>('a' + line % 26));
        text += "\r\n";
    }
    return text;
}

std::string Compare(std::string_view name, std::string_view got, std::string_view want) {
    if (got == want) return {};
    std::size_t at = 0;
    while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
    return std::string(name) + ": " + std::to_string(got.size()) + " bytes instead of " + std::to_string(want.size()) +
           ", the same up to " + std::to_string(at);
}

}  // namespace torture

int main() {
    using namespace torture;
    ::setpgid(0, 0);  // the library may kill its own group
    Plan();
    // The C library reads its configuration of names once, and aborts where it has no memory for that.
    static_cast<void>(::gethostbyname("localhost"));
    velt_testing::SessionWorld world;
    world.proxy().m_loopbackAllowed = true;
    s_world = &world;
    ::signal(SIGCHLD, SIG_DFL);  // how a run ended is to be known
    auto const scenarios = AllScenarios();
    for (std::string name; std::getline(std::cin, name);) std::cout << RunByName(scenarios, name) << std::endl;
}
