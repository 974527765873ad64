// The verdicts as JSON.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/velt-scan/Printing.h"

namespace velt_scan {
namespace {

using Json = nlohmann::ordered_json;

Json OrNull(std::string const& text) { return text.empty() ? Json() : Json(text); }

// Names out of an object may be any bytes.
void PrintLine(Json const& json) {
    std::printf("%s\n", json.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}

Json JsonOf(Finding const& finding) {
    Json json;
    json["engine"] = finding.engine;
    json["kind"] = OrNull(finding.kind);
    json["action"] = finding.actions.empty() ? Json() : Json(finding.actions.back());
    json["actions"] = finding.actions;
    json["names"] = finding.names;
    json["text"] = OrNull(finding.text);
    json["limit"] = OrNull(finding.limit);
    json["path"] = finding.where;
    json["score"] = finding.score ? Json(*finding.score) : Json();
    json["cleaned"] = finding.cleaned;
    json["decided"] = finding.decided;
    return json;
}

Json JsonOf(Trouble const& trouble) {
    Json json;
    json["engine"] = OrNull(trouble.engine);
    json["text"] = trouble.text;
    json["code"] = trouble.code ? Json(*trouble.code) : Json();
    return json;
}

template <class T>
Json ListOf(std::vector<T> const& list) {
    Json json = Json::array();
    for (auto const& one : list) json.push_back(JsonOf(one));
    return json;
}

class Lines final : public Printer {
public:
    explicit Lines(bool quiet) : m_quiet(quiet) {}

    void print(Verdict const& verdict) override {
        if (m_quiet && verdict.kind == Verdict::Kind::Clean) return;
        Json json;
        json["file"] = verdict.file;
        json["verdict"] = NameOf(verdict.kind);
        json["action"] = OrNull(verdict.action);
        json["identity"] = OrNull(verdict.identity);
        json["findings"] = ListOf(verdict.findings);
        json["errors"] = ListOf(verdict.troubles);
        json["components"] = verdict.components;
        json["rewritten"] = verdict.modified;
        json["fallback"] = verdict.fallback;
        json["not_written"] = OrNull(verdict.unwritten);
        json["bytes"] = verdict.bytes;
        json["milliseconds"] = verdict.milliseconds;
        PrintLine(json);
    }
    void print(Totals const& totals) override {
        if (m_quiet) return;
        Json json;
        json["files"] = totals.files;
        json["clean"] = totals.clean;
        json["found"] = totals.found;
        json["error"] = totals.error;
        json["milliseconds"] = totals.milliseconds;
        PrintLine(json);
    }

private:
    bool const m_quiet;
};

}  // namespace

std::unique_ptr<Printer> Printer::json(bool quiet) { return std::make_unique<Lines>(quiet); }

}  // namespace velt_scan
