#include "tools/velt-queue/CommandLine.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace velt_queue {
namespace {

struct CommandRow {
    std::string_view name;
    Command command;
    bool changes;
    Queue filtered;  // the queue that a filter chooses from, where the command changes something
};

constexpr CommandRow kCommands[] = {
    {"list", Command::List, false, Queue::Deferred},        {"show", Command::Show, false, Queue::Deferred},
    {"release", Command::Release, true, Queue::Quarantine}, {"retry", Command::Retry, true, Queue::Deferred},
    {"delete", Command::Delete, true, Queue::Quarantine},
};

CommandRow const& RowOf(Command command) {
    return *std::find_if(std::begin(kCommands), std::end(kCommands),
                         [&](CommandRow const& one) { return one.command == command; });
}

bool TakeQueue(Options& options, std::string const& text) {
    for (Queue const queue : {Queue::Deferred, Queue::Quarantine}) {
        if (text == NameOf(queue)) options.queue = queue;
    }
    return options.queue.has_value();
}

constexpr velt_tools::FlagOption<Options> kFlags[] = {
    {"--all", [](Options& o) -> bool& { return o.filter.all; }},
    {"--body", [](Options& o) -> bool& { return o.body; }},
    {"--dry-run", [](Options& o) -> bool& { return o.dryRun; }},
};

constexpr velt_tools::ValueOption<Options> kValues[] = {
    {"--queue", TakeQueue},
    {"--older", [](Options& o, std::string const& v) { return (o.filter.olderThan = ReadAge(v)).has_value(); }},
    {"--to", [](Options& o, std::string const& v) { return !(o.filter.to = v)->empty(); }},
    {"--from", [](Options& o, std::string const& v) { return (o.filter.from = v).has_value(); }},
    {"--verdict", [](Options& o, std::string const& v) { return !(o.filter.verdict = v)->empty(); }},
};

// False: there is none of that name.
bool TakeCommand(Options& options, std::string const& word) {
    for (CommandRow const& row : kCommands) {
        if (word != row.name) continue;
        options.command = row.command;
        return true;
    }
    options.problem = "no such command: " + word;
    return false;
}

void TakeId(Options& options, std::string const& word) {
    if (!IsId(word)) options.problem = "no id of a mail: " + word;
    options.ids.push_back(word);
}

std::string ProblemOf(Options const& options) {
    bool const chosen = !options.ids.empty() || options.filter.isSet();
    if (!options.ids.empty() && options.filter.isSet()) return "either ids or a filter";
    if (options.body && (options.command != Command::Show || options.ids.size() != 1)) return "--body shows one mail";
    if (options.body && options.json) return "--body is the message as it is, which --json is not";
    if (options.dryRun && !RowOf(options.command).changes) return "--dry-run is for what changes something";
    if (!chosen && options.command != Command::List) return "which mail? Name ids, or a filter, or --all";
    return {};
}

}  // namespace

bool Options::concerns(Queue which) const {
    if (queue) return *queue == which;
    CommandRow const& row = RowOf(command);
    return !row.changes || !filter.isSet() || row.filtered == which;
}

Options ParseCommandLine(int argc, char** argv) {
    bool hasCommand = false;
    Options options =
        velt_tools::CommandLine<Options>(argc, argv, kFlags, kValues).read([&](Options& into, std::string const& word) {
            hasCommand ? TakeId(into, word) : void(hasCommand = TakeCommand(into, word));
        });
    if (options.goOn()) options.problem = ProblemOf(options);
    return options;
}

}  // namespace velt_queue
