#include "tools/velt-scan/Printing.h"

#include <cstdio>

namespace velt_scan {
namespace {

std::string Joined(std::vector<std::string> const& parts, char const* between) {
    std::string text;
    for (auto const& part : parts) text += (text.empty() ? "" : between) + part;
    return text;
}

std::string ScoreOf(double score) {
    char text[64];
    std::snprintf(text, sizeof text, "score %g", score);
    return text;
}

// "KORAVScanner (AV): EICAR-Test-File, DENY, at Message > Part:a.zip > Entry:a.com"
std::string LineOf(Finding const& finding) {
    std::string line = finding.engine + (finding.kind.empty() ? "" : " (" + finding.kind + ")") + ": ";
    line += finding.names.empty() ? finding.text : Joined(finding.names, ", ");
    if (!finding.limit.empty()) line += ", limit " + finding.limit;
    if (finding.score) line += ", " + ScoreOf(*finding.score);
    line += finding.actions.empty() ? ", no action" : ", " + finding.actions.back();
    if (finding.cleaned) line += ", cleaned";
    return line + (finding.where.empty() ? "" : ", at " + Joined(finding.where, " > "));
}

std::string LineOf(Trouble const& trouble) {
    std::string const code = trouble.code ? " " + std::to_string(*trouble.code) : "";
    return (trouble.engine.empty() ? "" : trouble.engine + ": ") + "error" + code + ": " + trouble.text;
}

void PrintLine(char const* indent, std::string const& line) { std::printf("%s%s\n", indent, Printable(line).c_str()); }

class ForPeople final : public Printer {
public:
    explicit ForPeople(bool quiet) : m_quiet(quiet) {}

    void print(Verdict const& verdict) override {
        bool const clean = verdict.kind == Verdict::Kind::Clean;
        if (clean && m_quiet) return;
        std::string head = verdict.file + ": " + NameOf(verdict.kind);
        if (!verdict.action.empty()) head += ", " + verdict.action;
        if (verdict.modified) head += ", rewritten";
        if (verdict.fallback) head += ", fallback scan";
        PrintLine("", head);
        for (auto const& trouble : verdict.troubles) PrintLine("    ", LineOf(trouble));
        for (auto const& finding : verdict.findings) PrintLine("    ", LineOf(finding));
        if (!verdict.unwritten.empty()) PrintLine("    ", "not written: " + verdict.unwritten);
    }
    void print(Totals const& totals) override {
        if (m_quiet) return;
        std::printf("%lu file%s: %lu clean, %lu found, %lu error%s; %.1f ms\n", totals.files,
                    totals.files == 1 ? "" : "s", totals.clean, totals.found, totals.error,
                    totals.error == 1 ? "" : "s", totals.milliseconds);
    }

private:
    bool const m_quiet;
};

}  // namespace

void Totals::add(Verdict const& verdict) {
    ++files;
    ++(verdict.kind == Verdict::Kind::Clean ? clean : verdict.kind == Verdict::Kind::Found ? found : error);
    milliseconds += verdict.milliseconds;
}

char const* NameOf(Verdict::Kind kind) {
    static constexpr char const* kNames[] = {"clean", "found", "error"};
    return kNames[static_cast<int>(kind)];
}

std::unique_ptr<Printer> Printer::forPeople(bool quiet) { return std::make_unique<ForPeople>(quiet); }

}  // namespace velt_scan
