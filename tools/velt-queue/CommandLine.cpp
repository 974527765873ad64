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

// An option that takes a value; false: not this one.
struct ValueOption {
    std::string_view name;
    bool (*take)(Options& options, std::string const& value);
};

constexpr ValueOption kValueOptions[] = {
    {"--root", [](Options& o, std::string const& v) { return !(o.configuration.root = v).empty(); }},
    {"--product", [](Options& o, std::string const& v) { return !(o.configuration.product = v).empty(); }},
    {"--proxy", [](Options& o, std::string const& v) { return !(o.configuration.proxy = v).empty(); }},
    {"--queue", TakeQueue},
    {"--older", [](Options& o, std::string const& v) { return (o.filter.olderThan = ReadAge(v)).has_value(); }},
    {"--to", [](Options& o, std::string const& v) { return !(o.filter.to = v)->empty(); }},
    {"--from", [](Options& o, std::string const& v) { return (o.filter.from = v).has_value(); }},
    {"--verdict", [](Options& o, std::string const& v) { return !(o.filter.verdict = v)->empty(); }},
};

class Parser {
public:
    Parser(int argc, char** argv) : m_words(argv + (argc > 0), argv + argc) {}

    Options parse() {
        while (m_at < m_words.size() && m_options.problem.empty() && !m_options.help) takeWord(m_words[m_at++]);
        if (m_options.problem.empty() && !m_options.help) finish();
        return std::move(m_options);
    }

private:
    void takeWord(std::string const& word) {
        if (m_idsOnly || word.rfind('-', 0) != 0) {
            m_hasCommand ? takeId(word) : takeCommand(word);
        } else if (word == "--") {
            m_idsOnly = true;
        } else if (!takeFlag(word) && !takeValue(word)) {
            m_options.problem = "no such option: " + word;
        }
    }

    void takeCommand(std::string const& word) {
        for (CommandRow const& row : kCommands) {
            if (word != row.name) continue;
            m_options.command = row.command;
            m_hasCommand = true;
        }
        if (!m_hasCommand) m_options.problem = "no such command: " + word;
    }

    void takeId(std::string const& word) {
        if (!IsId(word)) m_options.problem = "no id of a mail: " + word;
        m_options.ids.push_back(word);
    }

    bool takeFlag(std::string const& word) {
        if (word == "--all") return m_options.filter.all = true;
        if (word == "--body") return m_options.body = true;
        if (word == "--dry-run") return m_options.dryRun = true;
        if (word == "--help") return m_options.help = true;
        return word == "--json" && (m_options.json = true);
    }

    // "--name value" and "--name=value".
    bool takeValue(std::string const& word) {
        std::size_t const sign = word.find('=');
        for (auto const& [name, take] : kValueOptions) {
            if (word.substr(0, sign) != name) continue;
            bool const apart = sign == std::string::npos;
            if (apart && m_at == m_words.size()) {
                m_options.problem = word + " takes a value";
            } else if (!take(m_options, apart ? m_words[m_at++] : word.substr(sign + 1))) {
                m_options.problem = std::string(name) + " takes another value";
            }
            return true;
        }
        return false;
    }

    void finish() {
        auto& root = m_options.configuration.root;
        while (!root.empty() && root.back() == '/') root.pop_back();
        bool const chosen = !m_options.ids.empty() || m_options.filter.isSet();
        bool const changes = RowOf(m_options.command).changes;
        if (!m_options.ids.empty() && m_options.filter.isSet()) {
            m_options.problem = "either ids or a filter";
        } else if (m_options.body && (m_options.command != Command::Show || m_options.ids.size() != 1)) {
            m_options.problem = "--body shows one mail";
        } else if (m_options.body && m_options.json) {
            m_options.problem = "--body is the message as it is, which --json is not";
        } else if (m_options.dryRun && !changes) {
            m_options.problem = "--dry-run is for what changes something";
        } else if (!chosen && m_options.command != Command::List) {
            m_options.problem = "which mail? Name ids, or a filter, or --all";
        }
    }

    std::vector<std::string> const m_words;
    std::size_t m_at = 0;
    bool m_idsOnly = false;
    bool m_hasCommand = false;
    Options m_options;
};

}  // namespace

bool Options::concerns(Queue which) const {
    if (queue) return *queue == which;
    CommandRow const& row = RowOf(command);
    return !row.changes || !filter.isSet() || row.filtered == which;
}

Options ParseCommandLine(int argc, char** argv) { return Parser(argc, argv).parse(); }

}  // namespace velt_queue
