#include <policyloader/engines/OutputBuilder.h>

#include <algorithm>
#include <cctype>

#include <gmime/gmime-encodings.h>
#include <strings.h>

#include <KORtk/Text.h>

#include <policyloader/engines/TempObject.h>

namespace policyloader {
namespace {

constexpr char kNewFields[] =
    "Content-Type: text/plain; charset=utf-8\n"
    "Content-Transfer-Encoding: quoted-printable\n"
    "Content-Disposition: inline\n";

std::string Quoted(std::string const& text) {
    GMimeEncoding state;
    g_mime_encoding_init_encode(&state, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE);
    std::string out(g_mime_encoding_outlen(&state, text.size()) + 16, '\0');
    out.resize(g_mime_encoding_flush(&state, text.data(), text.size(), out.data()));
    return out;
}

std::string WithLineEnds(std::string_view text, std::string const& lineEnd) {
    std::string out;
    for (char const c : text) c == '\n' ? out += lineEnd : out += c;
    return out;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

std::string JoinNames(std::vector<std::string> const& names) {
    std::string out;
    for (auto const& name : names) out.append(out.empty() ? "" : ", ").append(name);
    return out;
}

}  // namespace

std::string FillMarks(std::string_view text, std::function<bool(std::string const&, std::string&)> const& value) {
    std::string out;
    while (!text.empty()) {
        std::size_t const begin = text.find('%');
        out.append(text.substr(0, begin));
        if (begin == std::string_view::npos) return out;
        text.remove_prefix(begin);
        std::size_t const end = text.find('%', 1);
        std::string put;
        bool const known = end != std::string_view::npos && end > 1 && value(std::string(text.substr(1, end - 1)), put);
        out.append(known ? std::string_view(put) : std::string_view("%"));
        text.remove_prefix(known ? end + 1 : 1);
    }
    return out;
}

OutputBuilder::OutputBuilder(ScanPlan const& plan, ResultSet const& results, IKORPropertyBag const* substitutions,
                             ReadBuffer& buffer)
    : m_plan(plan), m_results(results), m_substitutions(substitutions), m_buffer(buffer) {
    collect();
}

void OutputBuilder::collect() {
    for (auto* const result : m_results.triggered()) {
        if (!result->wantsReplacing()) continue;
        for (auto* const component : result->components()) m_cuts.push_back({component->replaceable(), result});
    }
    // Of parts within one another the outermost goes.
    auto const before = [](Cut const& a, Cut const& b) {
        auto const &x = a.component->range(), &y = b.component->range();
        return x.headBegin != y.headBegin ? x.headBegin < y.headBegin : x.bodyEnd > y.bodyEnd;
    };
    std::stable_sort(m_cuts.begin(), m_cuts.end(), before);
    std::vector<Cut> apart;
    for (auto const& cut : m_cuts)
        if (apart.empty() || cut.component->range().headBegin >= apart.back().component->range().bodyEnd)
            apart.push_back(cut);
    m_cuts.swap(apart);
}

void OutputBuilder::build(eFabric::IStreamTransport& in, eFabric::IStreamTransport* out) {
    if (out) {
        out->SetRecommendedBase(eFabric::Base_Byte);
        return write(in, [&](std::string_view text) { WriteAll(*out, text); });
    }
    TempObject made;
    write(in, [&](std::string_view text) { made.append(text); });
    if (!in.seek(0)) throw EngineFailure(FailureId::Write, "the object cannot be rewritten");
    made.readAll([&](std::string_view text) { WriteAll(in, text); });
    if (!in.seteof()) throw EngineFailure(FailureId::Write, "the object cannot be cut off");
}

void OutputBuilder::write(eFabric::IStreamTransport& in, Sink const& sink) {
    std::uint64_t at = 0;
    auto const lineEnd = lineEndOf(in);
    for (auto const& cut : m_cuts) {
        auto const& range = cut.component->range();
        ReadRange(in, at, range.headBegin, m_buffer, sink);
        sink(replacement(in, cut, lineEnd));
        at = range.bodyEnd;
    }
    ReadRange(in, at, in.size(), m_buffer, sink);
}

std::string OutputBuilder::lineEndOf(eFabric::IStreamTransport& in) {
    std::string head;
    ReadRange(in, 0, std::min<std::uint64_t>(in.size(), kBlockBytes), m_buffer, [&](std::string_view b) { head += b; });
    std::size_t const end = head.find('\n');
    return end != std::string::npos && (end == 0 || head[end - 1] != '\r') ? "\n" : "\r\n";
}

std::string OutputBuilder::replacement(eFabric::IStreamTransport& in, Cut const& cut, std::string const& lineEnd) {
    std::string out;
    if (cut.component->kind() == Component::Message) out = keptFields(in, *cut.component, lineEnd);
    out += WithLineEnds(kNewFields, lineEnd) + lineEnd;
    return out + WithLineEnds(Quoted(alertText(cut)), lineEnd);
}

// A message keeps the fields of its own; those that told of its content go.
std::string OutputBuilder::keptFields(eFabric::IStreamTransport& in, Component const& component,
                                      std::string const& lineEnd) {
    std::string block, out;
    auto const& range = component.range();
    ReadRange(in, range.headBegin, range.bodyBegin, m_buffer, [&](std::string_view b) { block += b; });
    bool kept = false, versioned = false;
    for (std::string_view rest = block; !rest.empty();) {
        std::size_t const end = rest.find('\n');
        auto const line = rest.substr(0, end == std::string_view::npos ? end : end + 1);
        rest.remove_prefix(line.size());
        bool const folded = line.front() == ' ' || line.front() == '\t';
        bool const blank = line == "\n" || line == "\r\n";
        if (!folded) kept = !blank && !StartsWith(line, "Content-");
        versioned |= StartsWith(line, "MIME-Version");
        if (kept) out += line;
    }
    if (!out.empty() && out.back() != '\n') out += lineEnd;
    return versioned ? out : out + "MIME-Version: 1.0" + lineEnd;
}

std::string OutputBuilder::alertText(Cut const& cut) const {
    bool const antiVirus = cut.result->type() == EngineType::AntiVirus;
    auto const value = [&](std::string const& name, std::string& text) {
        auto const* const property = m_substitutions ? m_substitutions->GetProperty(name.c_str()) : nullptr;
        wchar_t const* const wide = property ? property->GetWide() : nullptr;
        wchar_t const* const file = cut.component->GetComponentName();
        if (wide)
            text = KORtk::Utf8Array(wide).str();
        else if (name == "FILENAME")
            text = file ? KORtk::Utf8Array(file).str() : "-";
        else if (name == "INFECTIONS")
            text = JoinNames(cut.result->names());
        else if (name == "SCANNER")
            text = cut.result->GetScannerClassName();
        else
            return false;
        return true;
    };
    return FillMarks(antiVirus ? m_plan.antiVirusAlert : m_plan.contentAlert, value);
}

}  // namespace policyloader
