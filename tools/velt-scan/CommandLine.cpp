#include "tools/velt-scan/CommandLine.h"

#include <filesystem>
#include <set>
#include <string_view>

namespace velt_scan {
namespace {

bool TakeMark(Options& options, std::string const& text) {
    std::size_t const sign = text.find('=');
    if (sign == 0 || sign == std::string::npos) return false;
    options.choice.marks.emplace_back(text.substr(0, sign), text.substr(sign + 1));
    return true;
}

template <std::string Choice::*field>
bool Take(Options& options, std::string const& value) {
    options.choice.*field = value;
    return !value.empty();
}

constexpr velt_tools::FlagOption<Options> kFlags[] = {{"--quiet", [](Options& o) -> bool& { return o.quiet; }}};

constexpr velt_tools::ValueOption<Options> kValues[] = {
    {"--policy", Take<&Choice::policy>},
    {"--identity", Take<&Choice::identity>},
    {"--from", Take<&Choice::from>},
    {"--sender", Take<&Choice::sender>},
    {"--rcpt", Take<&Choice::recipient>},
    {"--mark", TakeMark},
    {"--output", [](Options& o, std::string const& v) { return !(o.output = v).empty(); }},
};

// Nothing is written over what another file of the same call has left.
std::string ProblemOfOutput(Options const& options) {
    std::error_code ignored;
    if (options.output.empty()) return {};
    if (!std::filesystem::is_directory(options.output, ignored))
        return options.files.size() > 1 ? "--output takes a folder where files are several" : "";
    std::set<std::string> names;
    for (auto const& file : options.files) {
        std::string const name = std::filesystem::path(file).filename();
        if (file == "-" || name.empty()) return "what has no name is not written into a folder";
        if (!names.insert(name).second) return "two files would be written as " + name;
    }
    return {};
}

std::string ProblemOf(Options const& options) {
    Choice const& choice = options.choice;
    if (options.files.empty()) return "which file?";
    if (choice.from.empty() && (!choice.sender.empty() || !choice.recipient.empty()))
        return "--sender and --rcpt choose an identity together with --from";
    if (!choice.from.empty() && (!choice.policy.empty() || !choice.identity.empty()))
        return "--from chooses the policy and the identity";
    return ProblemOfOutput(options);
}

}  // namespace

Options ParseCommandLine(int argc, char** argv) {
    Options options =
        velt_tools::CommandLine<Options>(argc, argv, kFlags, kValues).read([](Options& into, std::string const& word) {
            into.files.push_back(word);
        });
    if (options.goOn()) options.problem = ProblemOf(options);
    return options;
}

}  // namespace velt_scan
