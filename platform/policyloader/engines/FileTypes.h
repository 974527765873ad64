// FileTypes: what a content is, told by its first bytes; and the words that rules have for that.
// Owner: a scan thread keeps one; its tables are read when they are first needed.  Threads: its own.
// Units: bytes.  Failure: EngineFailure when the tables cannot be read.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct magic_set;

namespace policyloader {

class FileTypes {
public:
    static constexpr std::size_t kHeadBytes = 64u << 10;  // so many are looked at

    // MIME types, the most certain one first: a content may be of several kinds at once. Never empty.
    std::vector<std::string> of(std::string_view head);

private:
    struct Closer {
        void operator()(magic_set* opened) const;
    };
    void load();

    std::unique_ptr<magic_set, Closer> m_magic;
};

// The MIME types that a rule's word stands for, each whole or with a "*" at its end: a word of the table, or a MIME
// type itself. Empty: nobody knows the word.
std::vector<std::string> TypesOfWord(std::string_view word);
// One of the types fits one of the patterns. `exception`: by its first type alone, for what is two things at once is
// not excepted by either.
bool TypesFit(std::vector<std::string> const& patterns, std::vector<std::string> const& types, bool exception);

class Rule;
// What the words of its "type" stand for. Failure: std::invalid_argument.
std::vector<std::string> ReadRuleTypes(Rule const& rule);

}  // namespace policyloader
