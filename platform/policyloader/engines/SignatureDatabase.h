// SignatureDatabase: what the signature engine searches for: byte patterns and SHA-256 sums by name.
// Owner: shared, immutable; any thread.  Units: bytes.
// Failure: load answers null and says file, line, column and reason; a file that is not there is no failure.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <policyloader/engines/PatternDatabase.h>

namespace policyloader {

class ErrorState;

using Sha256 = std::array<unsigned char, 32>;

class SignatureError : public std::runtime_error {
public:
    SignatureError(std::string const& reason, std::size_t line, std::size_t column)
        : std::runtime_error(reason), line(line), column(column) {}
    std::size_t const line, column;  // from 1
};

class SignatureDatabase {
public:
    static std::shared_ptr<SignatureDatabase const> load(std::string const& path, ErrorState& error);
    explicit SignatureDatabase(std::string_view text);  // throws SignatureError

    PatternDatabase const& patterns() const { return *m_patterns; }
    std::string const& patternName(unsigned id) const { return m_names[id]; }
    bool hasSums() const { return !m_sums.empty(); }
    std::string const* sumName(Sha256 const& sum) const;  // null: not listed
    std::string const& definitions() const { return m_definitions; }

private:
    struct SumHash {
        std::size_t operator()(Sha256 const& sum) const;
    };
    void readLine(std::string_view line, std::size_t number);

    std::vector<Pattern> m_expressions;  // until they are compiled
    std::vector<std::size_t> m_lines;    // of the expressions
    std::vector<std::string> m_names;    // by id
    std::unordered_map<Sha256, std::string, SumHash> m_sums;
    std::unique_ptr<PatternDatabase const> m_patterns;
    std::string m_definitions = "built-in";
};

}  // namespace policyloader
