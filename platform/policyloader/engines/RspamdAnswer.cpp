#include <cmath>
#include <string>

#include <nlohmann/json.hpp>

#include <policyloader/engines/ClamdAnswer.h>
#include <policyloader/engines/SpamAnswer.h>

namespace policyloader {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kMostSymbols = 1000;
constexpr std::size_t kMostDepth = 64;  // of what is read; a judgement has four levels

SpamAnswer NoJudgement(char const* what) { return {SpamAnswer::Rubbish, what, {}}; }

// Nothing too deep is built, so that nothing too deep is destroyed. A zero byte would be an end to the parser.
Json Parse(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) return Json(Json::value_t::discarded);
    bool tooDeep = false;
    auto const watch = [&](int depth, Json::parse_event_t, Json&) {
        tooDeep |= depth > static_cast<int>(kMostDepth);
        return !tooDeep;
    };
    Json json = Json::parse(text, watch, false);
    return tooDeep ? Json(Json::value_t::discarded) : json;
}

bool ReadNumber(Json const& object, char const* name, double& number) {
    auto const at = object.find(name);
    if (at == object.end() || !at->is_number()) return false;
    number = at->get<double>();
    return std::isfinite(number);
}

std::string ReadText(Json const& object, char const* name) {
    auto const at = object.find(name);
    return at != object.end() && at->is_string() ? PrintableAnswer(at->get_ref<std::string const&>()) : std::string();
}

void ReadSymbols(Json const& reply, SpamJudgement& judgement) {
    auto const symbols = reply.find("symbols");
    if (symbols == reply.end() || !symbols->is_object()) return;
    for (auto const& [name, symbol] : symbols->items()) {
        double score = 0;
        if (judgement.tests.size() >= kMostSymbols) return;
        if (!name.empty() && symbol.is_object() && ReadNumber(symbol, "score", score))
            judgement.tests.emplace_back(PrintableAnswer(name), score);
    }
}

}  // namespace

// "soft reject" asks for another try later: the message has not been judged yet.
SpamAnswer SpamAnswer::parseRspamd(std::string_view body) {
    auto const json = Parse(body);
    if (!json.is_object()) return NoJudgement("no JSON object");
    if (json.contains("error")) return {Refused, "error: " + ReadText(json, "error"), {}};
    if (ReadText(json, "action") == "soft reject") return {Refused, "asks to try again later", {}};
    SpamAnswer answer{Judged, {}, {}};
    if (!ReadNumber(json, "score", answer.judgement.score)) return NoJudgement("no score");
    if (!ReadNumber(json, "required_score", answer.judgement.threshold)) return NoJudgement("no required score");
    ReadSymbols(json, answer.judgement);
    return answer;
}

}  // namespace policyloader
