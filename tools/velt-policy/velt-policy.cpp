// velt-policy: checks a configuration, and explains what a gateway decides by it.
#include <csignal>
#include <cstdio>
#include <string>

#include "tools/velt-policy/Checks.h"
#include "tools/velt-policy/CommandLine.h"
#include "tools/velt-policy/Explain.h"
#include "tools/velt-policy/Manual.h"
#include "tools/velt-policy/World.h"

namespace {

using namespace velt_policy;

constexpr int kClean = 0, kFindings = 1, kUsage = 2;

int Finished(int status) { return std::fflush(stdout) == 0 && !std::ferror(stdout) ? status : kUsage; }

int Check(Options const& options) {
    Findings findings;
    World const world(options.choice, findings);
    CheckSettings(world, options.ownSections, findings);
    CheckIdentities(world, findings);
    CheckNetworkLists(findings);
    CheckServerFiles(findings);
    CheckLogging(world, findings);
    findings.print(stdout);
    for (auto const& path : UnreadFiles(options.choice))
        std::fprintf(stderr, "velt-policy: %s is not looked at: see --product and --proxy\n", path.c_str());
    return Finished(findings.none() ? kClean : kFindings);
}

}  // namespace

int main(int argc, char** argv) {
    // As in a gateway: a directory server that ends is an error of the write.
    std::signal(SIGPIPE, SIG_IGN);
    Options const options = ParseCommandLine(argc, argv);
    if (!options.problem.empty()) {
        std::fprintf(stderr, "velt-policy: %s\n%s", options.problem.c_str(), kUsageText);
        return kUsage;
    }
    if (options.help) {
        std::fputs(kManual, stdout);
        return Finished(kClean);
    }
    if (char const* const reason = World::unusable(options.choice.root)) {
        std::fprintf(stderr, "velt-policy: %s/config/qxxmlconf: %s\n", options.choice.root.c_str(), reason);
        return kUsage;
    }
    return options.explain ? Finished(Explain(options)) : Check(options);
}
