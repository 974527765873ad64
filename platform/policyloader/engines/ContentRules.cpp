#include <policyloader/engines/ContentRules.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <future>
#include <stdexcept>

namespace policyloader {
namespace {

constexpr std::string_view kRegexMark = "regex:";
constexpr std::size_t kMaxCachedSets = 256;

struct WhereName {
    std::string_view name;
    Where where;
};
constexpr WhereName kWhereNames[] = {
    {"subject", Where::Subject},
    {"header", Where::Header},
    {"body", Where::Body},
    {"attachment", Where::Attachment},
};

std::string PlaceOf(Rule const& rule) {
    auto const& place = rule.place();
    return std::string(place.file) + ":" + std::to_string(place.line) + ":" + std::to_string(place.column);
}

[[noreturn]] void Fail(Rule const& rule, std::string const& reason) {
    throw std::invalid_argument(PlaceOf(rule) + ": rule \"" + std::string(rule.get("name").value_or("")) +
                                "\": " + reason);
}

double ReadWeight(Rule const& rule) {
    auto const text = rule.get("weight");
    if (!text) return 1;
    std::string const copy(*text);
    char* end = nullptr;
    double const value = std::strtod(copy.c_str(), &end);
    if (copy.empty() || *end != '\0' || !(value >= -1e9 && value <= 1e9)) Fail(rule, "weight is not a number");
    return value;
}

// "body", or several with commas between; nothing or "any": all.
std::vector<Where> ReadWheres(Rule const& rule) {
    std::vector<Where> wheres;
    std::string_view rest = rule.get("where").value_or("any");
    while (!rest.empty()) {
        std::size_t const comma = rest.find(',');
        std::string_view const word = rest.substr(0, comma);
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
        std::size_t const before = wheres.size();
        for (auto const& row : kWhereNames)
            if (word == row.name || word == "any") wheres.push_back(row.where);
        if (wheres.size() == before) Fail(rule, "where is none of subject, header, body, attachment, any");
    }
    if (wheres.empty()) Fail(rule, "where is empty");
    return wheres;
}

std::string ReadExpression(Rule const& rule) {
    auto const match = rule.get("match").value_or("");
    if (match.substr(0, kRegexMark.size()) == kRegexMark) {
        if (match.size() == kRegexMark.size()) Fail(rule, "match has an empty expression");
        return std::string(match.substr(kRegexMark.size()));
    }
    if (match.empty()) Fail(rule, "match is missing");
    return PhraseExpression(match);
}

// Compiling wants a deeper stack than the thread of a session has.
std::shared_ptr<ContentRules const> Compile(std::vector<Rule const*> const& rules) {
    if (rules.empty()) return std::make_shared<ContentRules>(rules);
    auto work = std::async(std::launch::async, [&] { return std::make_shared<ContentRules>(rules); });
    return work.get();
}

}  // namespace

std::string PhraseExpression(std::string_view phrase) {
    std::string out;
    bool blank = false;
    for (char const c : phrase) {
        bool const isBlank = std::isspace(static_cast<unsigned char>(c));
        if (isBlank && !blank) out += "\\s+";
        blank = isBlank;
        if (isBlank) continue;
        if (std::strchr("\\^$.|?*+()[]{}#", c)) out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

ContentRules::ContentRules(std::vector<Rule const*> const& rules) {
    try {
        for (auto const* rule : rules) add(*rule);
        compile(rules);
    } catch (std::invalid_argument const& problem) {
        m_error = problem.what();
    }
}

void ContentRules::add(Rule const& rule) {
    ContentRule made;
    made.name = rule.get("name").value_or("");
    if (made.name.empty()) Fail(rule, "name is missing");
    made.action = rule.get("action").value_or("");
    made.weight = ReadWeight(rule);
    auto const expression = ReadExpression(rule);
    for (auto const where : ReadWheres(rule)) {
        auto& context = m_contexts[static_cast<std::size_t>(where)];
        context.patterns.push_back({expression, Pattern::Text});
        context.rules.push_back(m_rules.size());
    }
    m_rules.push_back(std::move(made));
}

void ContentRules::compile(std::vector<Rule const*> const& rules) {
    for (auto& context : m_contexts) {
        if (context.patterns.empty()) continue;
        try {
            context.database = std::make_unique<PatternDatabase>(context.patterns);
        } catch (PatternError const& problem) {
            Fail(*rules[context.rules[problem.index()]], problem.what());
        }
        context.patterns = {};
    }
}

std::shared_ptr<ContentRules const> ContentCache::get(std::uint64_t key, Maker const& make) {
    auto const found = slot(key);
    std::call_once(found->once, [&] { found->rules = Compile(make()); });
    return found->rules;
}

std::shared_ptr<ContentCache::Slot> ContentCache::slot(std::uint64_t key) {
    std::lock_guard<std::mutex> const guard(m_mutex);
    auto const at = m_slots.find(key);
    if (at != m_slots.end()) return at->second;
    // Reloads with ever new rules must not fill the memory; who still scans with an old set keeps it alive.
    if (m_slots.size() >= kMaxCachedSets) m_slots.clear();
    ++m_compiled;
    return m_slots.emplace(key, std::make_shared<Slot>()).first->second;
}

std::size_t ContentCache::compiled() const {
    std::lock_guard<std::mutex> const guard(m_mutex);
    return m_compiled;
}

}  // namespace policyloader
