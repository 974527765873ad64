// PatternDatabase: many expressions compiled into one automaton; PatternStream runs it over one text given in pieces.
// Owner: databases are shared and immutable, any thread; a PatternScratch and the streams that use it belong to one
// thread.  Units: bytes.  Failure: PatternError names the expression that does not compile; EngineFailure for the rest.
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct hs_database;
struct hs_scratch;
struct hs_stream;

namespace policyloader {

class PatternError : public std::runtime_error {
public:
    PatternError(std::size_t index, std::string const& text) : std::runtime_error(text), m_index(index) {}
    std::size_t index() const { return m_index; }  // of the expression, in the order given

private:
    std::size_t m_index;
};

struct Pattern {
    enum Kind { Bytes, Text };  // Text: UTF-8, any case, "^" and "$" at each line
    std::string expression;
    Kind kind;
};

class PatternDatabase {
public:
    explicit PatternDatabase(std::vector<Pattern> const& patterns);  // throws PatternError
    ~PatternDatabase();
    PatternDatabase(PatternDatabase const&) = delete;
    PatternDatabase& operator=(PatternDatabase const&) = delete;
    hs_database const* get() const { return m_database; }

private:
    hs_database* m_database = nullptr;
};

class PatternScratch {
public:
    PatternScratch() = default;
    ~PatternScratch();
    PatternScratch(PatternScratch const&) = delete;
    PatternScratch& operator=(PatternScratch const&) = delete;
    void fit(PatternDatabase const& database);  // before the first stream of a database; grows, never shrinks
    hs_scratch* get() const { return m_scratch; }

private:
    hs_scratch* m_scratch = nullptr;
};

class MatchHandler {
public:
    virtual void matched(unsigned id) = 0;  // each expression at most once in a stream

protected:
    ~MatchHandler() = default;
};

class PatternStream {
public:
    // All three outlive the stream; the scratch fits the database.
    PatternStream(PatternDatabase const& database, PatternScratch const& scratch, MatchHandler& handler);
    ~PatternStream();
    PatternStream(PatternStream const&) = delete;
    PatternStream& operator=(PatternStream const&) = delete;
    void data(std::string_view piece);
    void finish();  // the text ends here

private:
    hs_stream* m_stream = nullptr;
    PatternScratch const& m_scratch;
    MatchHandler& m_handler;
};

}  // namespace policyloader
