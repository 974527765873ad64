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

// An option that takes a value; false: not this one.
struct ValueOption {
    std::string_view name;
    bool (*take)(Options& options, std::string const& value);
};

template <std::string Choice::*field>
bool Take(Options& options, std::string const& value) {
    options.choice.*field = value;
    return !value.empty();
}

constexpr ValueOption kValueOptions[] = {
    {"--root", [](Options& o, std::string const& v) { return Take<&Choice::root>(o, v); }},
    {"--product", [](Options& o, std::string const& v) { return Take<&Choice::product>(o, v); }},
    {"--proxy", [](Options& o, std::string const& v) { return Take<&Choice::proxy>(o, v); }},
    {"--policy", [](Options& o, std::string const& v) { return Take<&Choice::policy>(o, v); }},
    {"--identity", [](Options& o, std::string const& v) { return Take<&Choice::identity>(o, v); }},
    {"--from", [](Options& o, std::string const& v) { return Take<&Choice::from>(o, v); }},
    {"--sender", [](Options& o, std::string const& v) { return Take<&Choice::sender>(o, v); }},
    {"--rcpt", [](Options& o, std::string const& v) { return Take<&Choice::recipient>(o, v); }},
    {"--mark", TakeMark},
    {"--output", [](Options& o, std::string const& v) { return !(o.output = v).empty(); }},
};

struct FlagOption {
    std::string_view name;
    bool Options::*flag;
};

constexpr FlagOption kFlagOptions[] = {
    {"--help", &Options::help}, {"--json", &Options::json}, {"--quiet", &Options::quiet}};

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
        if (m_filesOnly || word == "-" || word.rfind('-', 0) != 0) {
            m_options.files.push_back(word);
        } else if (word == "--") {
            m_filesOnly = true;
        } else if (!takeFlag(word) && !takeValue(word)) {
            m_options.problem = "no such option: " + word;
        }
    }

    bool takeFlag(std::string const& word) {
        for (auto const& [name, flag] : kFlagOptions)
            if (word == name) return m_options.*flag = true;
        return false;
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
        auto& root = m_options.choice.root;
        while (!root.empty() && root.back() == '/') root.pop_back();
        auto const& choice = m_options.choice;
        if (m_options.files.empty()) {
            m_options.problem = "which file?";
        } else if (choice.from.empty() && (!choice.sender.empty() || !choice.recipient.empty())) {
            m_options.problem = "--sender and --rcpt choose an identity together with --from";
        } else if (!choice.from.empty() && (!choice.policy.empty() || !choice.identity.empty())) {
            m_options.problem = "--from chooses the policy and the identity";
        } else if (!m_options.output.empty()) {
            checkOutput();
        }
    }

    // Nothing is written over what another file of the same call has left.
    void checkOutput() {
        std::error_code ignored;
        if (!std::filesystem::is_directory(m_options.output, ignored)) {
            if (m_options.files.size() > 1) m_options.problem = "--output takes a folder where files are several";
            return;
        }
        std::set<std::string> names;
        for (auto const& file : m_options.files) {
            std::string const name = std::filesystem::path(file).filename();
            if (file == "-" || name.empty()) m_options.problem = "what has no name is not written into a folder";
            if (!names.insert(name).second) m_options.problem = "two files would be written as " + name;
        }
    }

    std::vector<std::string> const m_words;
    std::size_t m_at = 0;
    bool m_filesOnly = false;
    Options m_options;
};

}  // namespace

Options ParseCommandLine(int argc, char** argv) { return Parser(argc, argv).parse(); }

}  // namespace velt_scan
