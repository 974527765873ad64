// CommandLine: the words that a tool was called with, read into its options by tables.
// "--name value" and "--name=value" are the same; behind "--" no word is an option, and "-" alone never is. All tools
// take --help, --json, --root, --product and --proxy. Value. Failure: a text in Options::problem, the first one that
// there is; nothing is read behind it, nor behind --help.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/shared/Store.h"

namespace velt_tools {

// What the options of each tool begin with.
struct CommonOptions {
    bool help = false;
    bool json = false;
    Configuration configuration;
    std::string problem;  // empty: none

    bool goOn() const { return problem.empty() && !help; }
};

template <class Options>
struct FlagOption {
    std::string_view name;
    bool& (*flag)(Options& options);
};

template <class Options>
struct ValueOption {
    std::string_view name;
    bool (*take)(Options& options, std::string const& value);  // false: not this value
};

template <class Options>
class CommandLine {
public:
    using Flags = std::span<FlagOption<Options> const>;
    using Values = std::span<ValueOption<Options> const>;

    CommandLine(int argc, char** argv, Flags flags, Values values)
        : m_words(argv + (argc > 0), argv + argc), m_flags(flags), m_values(values) {}

    // `take(options, word)`: each word that is no option.
    template <class Take>
    Options read(Take&& take) {
        Options options;
        while (m_at < m_words.size() && options.goOn()) {
            std::string const& word = m_words[m_at++];
            if (m_wordsOnly || word == "-" || !word.starts_with('-')) {
                take(options, word);
            } else if (word == "--") {
                m_wordsOnly = true;
            } else if (!takeFlag(options, word) && !takeValue(options, word, m_values) &&
                       !takeValue(options, word, kCommonValues)) {
                options.problem = "no such option: " + word;
            }
        }
        std::string& root = options.configuration.root;
        while (root.ends_with('/')) root.pop_back();
        return options;
    }

private:
    static constexpr FlagOption<Options> kCommonFlags[] = {
        {"--help", [](Options& o) -> bool& { return o.help; }},
        {"--json", [](Options& o) -> bool& { return o.json; }},
    };
    static constexpr ValueOption<Options> kCommonValues[] = {
        {"--root", [](Options& o, std::string const& v) { return !(o.configuration.root = v).empty(); }},
        {"--product", [](Options& o, std::string const& v) { return !(o.configuration.product = v).empty(); }},
        {"--proxy", [](Options& o, std::string const& v) { return !(o.configuration.proxy = v).empty(); }},
    };

    bool takeFlag(Options& options, std::string const& word) const {
        for (Flags const flags : {Flags(kCommonFlags), m_flags}) {
            for (auto const& [name, flag] : flags) {
                if (word == name) return flag(options) = true;
            }
        }
        return false;
    }

    bool takeValue(Options& options, std::string const& word, Values values) {
        std::size_t const sign = word.find('=');
        for (auto const& [name, take] : values) {
            if (word.substr(0, sign) != name) continue;
            bool const apart = sign == std::string::npos;
            if (apart && m_at == m_words.size()) {
                options.problem = word + " takes a value";
            } else if (!take(options, apart ? m_words[m_at++] : word.substr(sign + 1))) {
                options.problem = std::string(name) + " takes another value";
            }
            return true;
        }
        return false;
    }

    std::vector<std::string> const m_words;
    std::size_t m_at = 0;
    bool m_wordsOnly = false;
    Flags const m_flags;
    Values const m_values;
};

}  // namespace velt_tools
