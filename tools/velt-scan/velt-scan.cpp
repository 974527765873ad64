// velt-scan: scans files as a gateway scans what passes through it.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tools/velt-scan/CommandLine.h"
#include "tools/velt-scan/Engines.h"
#include "tools/velt-scan/Manual.h"
#include "tools/velt-scan/Printing.h"

namespace {

using namespace velt_scan;

constexpr int kClean = 0, kFound = 1, kError = 2;

int Failed(std::string const& reason) {
    std::fprintf(stderr, "velt-scan: %s\n", Printable(reason).c_str());
    return kError;
}

// A verdict that nobody reads is none.
int Finished(int status) {
    bool const told = std::fflush(stdout) == 0 && !std::ferror(stdout);
    return told ? status : Failed("the verdicts cannot be written");
}

std::string TargetOf(std::string const& output, std::string const& file) {
    std::error_code ignored;
    if (output.empty() || !std::filesystem::is_directory(output, ignored)) return output;
    return std::filesystem::path(output) / std::filesystem::path(file).filename();
}

int ScanAll(Options const& options) {
    Engines engines(options.configuration, options.choice);
    auto const printer = options.json ? Printer::json(options.quiet) : Printer::forPeople(options.quiet);
    Totals totals;
    for (auto const& file : options.files) {
        Verdict const verdict = engines.scan(file, TargetOf(options.output, file));
        totals.add(verdict);
        printer->print(verdict);
        std::fflush(stdout);
    }
    printer->print(totals);
    return Finished(totals.found ? kFound : totals.error ? kError : kClean);
}

}  // namespace

int main(int argc, char** argv) try {
    std::signal(SIGPIPE, SIG_IGN);
    Options const options = ParseCommandLine(argc, argv);
    if (!options.problem.empty()) {
        std::fprintf(stderr, "velt-scan: %s\n%s", options.problem.c_str(), kUsageText);
        return kError;
    }
    if (!options.help) return ScanAll(options);
    std::fputs(kManual, stdout);
    return Finished(kClean);
} catch (std::exception const& failure) {
    return Failed(failure.what());
}
