#include "tools/velt-policy/CommandLine.h"

#include <string_view>
#include <utility>

namespace velt_policy {
namespace {

std::vector<std::string> Split(std::string const& list) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at < list.size();) {
        std::size_t const comma = std::min(list.find(',', at), list.size());
        if (comma > at) parts.push_back(list.substr(at, comma - at));
        at = comma + 1;
    }
    return parts;
}

// An option that takes a value; which command knows it: 'c', 'e' or 'b' for both.
struct ValueOption {
    std::string_view name;
    char command;
    void (*take)(Options& options, std::string value);
};

constexpr ValueOption kValueOptions[] = {
    {"--product", 'b', [](Options& o, std::string v) { o.choice.product = std::move(v); }},
    {"--proxy", 'b', [](Options& o, std::string v) { o.choice.proxy = std::move(v); }},
    {"--own", 'c', [](Options& o, std::string v) { o.ownSections.push_back(std::move(v)); }},
    {"--from", 'e', [](Options& o, std::string v) { o.query.from = std::move(v); }},
    {"--from-host", 'e', [](Options& o, std::string v) { o.query.fromHost = std::move(v); }},
    {"--to", 'e', [](Options& o, std::string v) { o.query.to = std::move(v); }},
    {"--to-host", 'e', [](Options& o, std::string v) { o.query.toHost = std::move(v); }},
    {"--sender", 'e', [](Options& o, std::string v) { o.query.sender = std::move(v); }},
    {"--rcpt", 'e', [](Options& o, std::string v) { o.query.recipient = std::move(v); }},
    {"--groups", 'e', [](Options& o, std::string v) { o.query.recipientGroups = Split(v); }},
    {"--sender-groups", 'e', [](Options& o, std::string v) { o.query.senderGroups = Split(v); }},
    {"--setting", 'e', [](Options& o, std::string v) { o.query.setting = std::move(v); }},
    {"--policy", 'e', [](Options& o, std::string v) { o.query.policy = std::move(v); }},
};

struct FlagOption {
    std::string_view name;
    bool Options::*flag;
};

constexpr FlagOption kFlagOptions[] = {
    {"--batch", &Options::batch}, {"--json", &Options::json}, {"--resolve", &Options::resolve}};

class Words {
public:
    Words(int argc, char** argv) : m_words(argv + (argc > 0), argv + argc) {}
    bool more() const { return m_at < m_words.size(); }
    std::string take() { return m_words[m_at++]; }

private:
    std::vector<std::string> const m_words;
    std::size_t m_at = 0;
};

class Parser {
public:
    Parser(int argc, char** argv) : m_words(argc, argv) {}

    Options parse() {
        takeCommand();
        while (m_words.more() && m_options.problem.empty() && !m_options.help) takeWord(m_words.take());
        if (m_options.problem.empty() && !m_options.help) finish();
        return std::move(m_options);
    }

private:
    void takeCommand() {
        std::string const command = m_words.more() ? m_words.take() : "";
        m_options.help = command == "--help" || command == "help";
        m_options.explain = command == "explain";
        if (!m_options.help && !m_options.explain && command != "check")
            m_options.problem = command.empty() ? "check or explain?" : "no such command: " + command;
    }

    void takeWord(std::string const& word) {
        if (word == "--help") {
            m_options.help = true;
        } else if (word.rfind("--", 0) != 0) {
            takeFolder(word);
        } else if (!takeFlag(word) && !takeValue(word)) {
            m_options.problem = "no such option: " + word;
        }
    }

    void takeFolder(std::string const& word) {
        if (m_hasFolder) m_options.problem = "one folder is enough: " + word;
        m_hasFolder = true;
        m_options.choice.root = word;
    }

    bool takeFlag(std::string const& word) {
        for (auto const& [name, flag] : kFlagOptions) {
            if (word != name || !m_options.explain) continue;
            return m_options.*flag = true;
        }
        return false;
    }

    // "--name value" and "--name=value".
    bool takeValue(std::string const& word) {
        std::size_t const sign = word.find('=');
        char const command = m_options.explain ? 'e' : 'c';
        for (auto const& [name, commands, take] : kValueOptions) {
            if (word.substr(0, sign) != name || (commands != 'b' && commands != command)) continue;
            if (sign == std::string::npos && !m_words.more()) {
                m_options.problem = word + " takes a value";
                return true;
            }
            take(m_options, sign == std::string::npos ? m_words.take() : word.substr(sign + 1));
            return true;
        }
        return false;
    }

    // "/" is what an empty root stands for.
    void finish() {
        auto& root = m_options.choice.root;
        while (!root.empty() && root.back() == '/') root.pop_back();
        if (m_options.explain && !m_options.batch && m_options.query.from.empty())
            m_options.problem = "explain takes --from, or --batch";
    }

    Words m_words;
    Options m_options;
    bool m_hasFolder = false;
};

}  // namespace

Options ParseCommandLine(int argc, char** argv) { return Parser(argc, argv).parse(); }

}  // namespace velt_policy
