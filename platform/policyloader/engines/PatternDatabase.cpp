#include <policyloader/engines/PatternDatabase.h>

#include <hs/hs.h>

#include <policyloader/engines/EngineFailure.h>

namespace policyloader {
namespace {

constexpr std::size_t kPieceBytes = 1u << 30;  // the library counts with 32 bits

unsigned FlagsOf(Pattern::Kind kind) {
    unsigned const common = HS_FLAG_SINGLEMATCH | HS_FLAG_DOTALL;
    return kind == Pattern::Bytes ? common : common | HS_FLAG_CASELESS | HS_FLAG_MULTILINE | HS_FLAG_UTF8 | HS_FLAG_UCP;
}

void Check(hs_error_t status, char const* what) {
    if (status == HS_NOMEM) throw std::bad_alloc();
    if (status != HS_SUCCESS)
        throw EngineFailure(FailureId::Matcher, std::string(what) + ": error " + std::to_string(status));
}

int OnMatch(unsigned id, unsigned long long, unsigned long long, unsigned, void* context) {
    static_cast<MatchHandler*>(context)->matched(id);
    return 0;
}

}  // namespace

PatternDatabase::PatternDatabase(std::vector<Pattern> const& patterns) {
    std::vector<char const*> expressions;
    std::vector<unsigned> flags, ids;
    for (auto const& pattern : patterns) {
        expressions.push_back(pattern.expression.c_str());
        flags.push_back(FlagsOf(pattern.kind));
        ids.push_back(static_cast<unsigned>(ids.size()));
    }
    hs_compile_error_t* error = nullptr;
    auto const status =
        hs_compile_multi(expressions.data(), flags.data(), ids.data(), static_cast<unsigned>(patterns.size()),
                         HS_MODE_STREAM, nullptr, &m_database, &error);
    if (status == HS_SUCCESS) return;
    std::string const text = error && error->message ? error->message : "not compiled";
    std::size_t const index = error && error->expression >= 0 ? static_cast<std::size_t>(error->expression) : 0;
    hs_free_compile_error(error);
    throw PatternError(index, text);
}

PatternDatabase::~PatternDatabase() { hs_free_database(m_database); }

PatternScratch::~PatternScratch() { hs_free_scratch(m_scratch); }

void PatternScratch::fit(PatternDatabase const& database) {
    Check(hs_alloc_scratch(database.get(), &m_scratch), "matcher's working memory");
}

PatternStream::PatternStream(PatternDatabase const& database, PatternScratch const& scratch, MatchHandler& handler)
    : m_scratch(scratch), m_handler(handler) {
    Check(hs_open_stream(database.get(), 0, &m_stream), "matcher's stream");
}

PatternStream::~PatternStream() { hs_close_stream(m_stream, nullptr, nullptr, nullptr); }

void PatternStream::data(std::string_view piece) {
    while (!piece.empty()) {
        auto const part = piece.substr(0, kPieceBytes);
        Check(hs_scan_stream(m_stream, part.data(), static_cast<unsigned>(part.size()), 0, m_scratch.get(), &OnMatch,
                             &m_handler),
              "matching");
        piece.remove_prefix(part.size());
    }
}

void PatternStream::finish() {
    Check(hs_reset_stream(m_stream, 0, m_scratch.get(), &OnMatch, &m_handler), "end of matching");
}

}  // namespace policyloader
