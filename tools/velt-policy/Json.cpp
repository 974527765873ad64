#include "tools/velt-policy/Json.h"

#include <nlohmann/json.hpp>

#include "tools/velt-policy/Readers.h"

namespace velt_policy {
namespace {

using Json = nlohmann::ordered_json;

struct Field {
    char const* name;
    std::string Query::*text;
};
constexpr Field kFields[] = {
    {"from", &Query::from},       {"from_host", &Query::fromHost}, {"to", &Query::to},
    {"to_host", &Query::toHost},  {"sender", &Query::sender},      {"rcpt", &Query::recipient},
    {"setting", &Query::setting}, {"policy", &Query::policy},
};
struct GroupField {
    char const* name;
    Query::Groups Query::*groups;
};
constexpr GroupField kGroupFields[] = {{"groups", &Query::recipientGroups}, {"sender_groups", &Query::senderGroups}};

struct Refused {
    std::string reason;
};

std::string TextOf(std::string const& name, Json const& value) {
    if (!value.is_string()) throw Refused{"\"" + name + "\" takes a text"};
    return value.get<std::string>();
}

void TakeField(std::string const& name, Json const& value, Query& query) {
    if (value.is_null()) return;
    for (auto const& [known, text] : kFields) {
        if (name != known) continue;
        query.*text = TextOf(name, value);
        return;
    }
    for (auto const& [known, groups] : kGroupFields) {
        if (name != known) continue;
        if (!value.is_array()) throw Refused{"\"" + name + "\" takes a list of texts"};
        (query.*groups).emplace();
        for (auto const& one : value) (query.*groups)->push_back(TextOf(name, one));
        return;
    }
    throw Refused{"\"" + name + "\" is no part of a query"};
}

std::string Line(Json const& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

Json PlaceOf(Json json, std::string const& file, unsigned line, unsigned column) {
    json["file"] = file;
    json["line"] = line;
    json["column"] = column;
    return json;
}

Json ConditionOf(RuleAnswer const& answer) {
    Json json = PlaceOf({}, answer.condition.place.file, answer.condition.place.line, answer.condition.place.column);
    json["text"] = answer.condition.text();
    json["held"] = answer.held;
    json["negated"] = answer.negated;
    json["decisive"] = answer.decisive;
    return json;
}

// The first condition on which the choice rests stands for the rule.
Json RuleOf(TriedIdentity const& chosen) {
    Json rule;
    Json conditions = Json::array();
    for (auto const& answer : chosen.why.asked) {
        Json const condition = ConditionOf(answer);
        if (answer.decisive && rule.is_null()) rule = condition;
        conditions.push_back(condition);
    }
    if (rule.is_null()) rule = PlaceOf({}, chosen.place.file, chosen.place.line, chosen.place.column);
    rule["conditions"] = conditions;
    return rule;
}

void AddValue(Json& json, SettingValue const& value) {
    json["known"] = value.known;
    json["raw"] = value.raw ? Json(*value.raw) : Json();
    json["value"] = value.known || value.raw ? Json(value.effective) : Json();
    json["clamped"] = value.clamped;
    json["default"] = value.standard;
    if (value.source.line == 0) {
        json["source"] = nullptr;
        return;
    }
    Json source = PlaceOf({}, value.source.file, value.source.line, value.source.column);
    source["policy"] = value.sourcePolicy;
    source["identity"] = value.sourceIdentity.empty() ? Json() : Json(value.sourceIdentity);
    source["window"] = value.window.empty() ? Json() : Json(value.window);
    json["source"] = source;
}

}  // namespace

std::string ReadQuery(std::string const& line, Query& query) try {
    Json const json = Json::parse(line);
    if (!json.is_object()) return "a query is an object";
    for (auto const& [name, value] : json.items()) TakeField(name, value, query);
    return {};
} catch (Json::exception const& error) {
    return error.what();
} catch (Refused const& refused) {
    return refused.reason;
}

std::string WriteAnswer(Decision const& decision) {
    Json json;
    json["direction"] = decision.inbound ? Json(*decision.inbound ? "in" : "out") : Json();
    json["slot"] = kSlotNames[decision.slot];
    json["policy"] = decision.policy.empty() ? Json() : Json(decision.policy);
    json["identity"] = decision.identity ? Json(*decision.identity) : Json();
    bool const ruled = decision.identity && !decision.tried.empty() && decision.tried.back().name == *decision.identity;
    json["rule"] = ruled ? RuleOf(decision.tried.back()) : Json();
    if (decision.value) AddValue(json, *decision.value);
    json["microseconds"] = decision.microseconds;
    return Line(json);
}

std::string WriteProblem(std::string const& problem) {
    Json json;
    json["error"] = problem;
    return Line(json);
}

}  // namespace velt_policy
