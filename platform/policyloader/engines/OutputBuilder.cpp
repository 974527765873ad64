#include <policyloader/engines/OutputBuilder.h>

#include <algorithm>

#include <KORtk/Text.h>

#include <policyloader/engines/HeadFields.h>
#include <policyloader/engines/Marks.h>
#include <policyloader/engines/TempObject.h>
#include <policyloader/engines/TextCase.h>
#include <policyloader/engines/TextDecoder.h>
#include <policyloader/engines/TransferEncoder.h>

namespace policyloader {
namespace {

constexpr std::size_t kLongestName = 100;  // of a part that is put in

std::string Quoted(std::string const& text, std::string const& lineEnd) {
    TransferEncoder encoder(TransferEncoding::QuotedPrintable, lineEnd);
    std::string out(encoder.encode(WithLineEnds(text, lineEnd)));
    return out.append(encoder.finish());
}

bool IsContentField(std::string_view name) {
    constexpr std::string_view prefix = "Content-";
    return name.size() >= prefix.size() && SameText(name.substr(0, prefix.size()), prefix);
}

// The alert of "a.exe" is "a.exe.txt", so that nobody opens it as what it was.
std::string NewNameOf(Component const& component) {
    auto const* const wide = component.GetComponentName();
    auto name = wide ? OneLine(ToCleanUtf8(KORtk::Utf8Array(wide).str())) : std::string();
    if (name.empty()) return name;
    std::size_t cut = std::min(name.size(), kLongestName);
    while (cut < name.size() && cut > 0 && (name[cut] & 0xC0) == 0x80) --cut;
    return name.substr(0, cut) + ".txt";
}

std::string NameParameter(char const* parameter, std::string const& name, std::string const& lineEnd) {
    return name.empty() ? std::string() : FieldParameter(parameter, name, lineEnd);
}

std::string JoinNames(std::vector<std::string> const& names) {
    std::string out;
    for (auto const& name : names) out.append(out.empty() ? "" : ", ").append(name);
    return out;
}

}  // namespace

void OutputBuilder::replace(ResultSet const& results) {
    for (auto* const result : results.triggered()) {
        if (!result->wantsReplacing()) continue;
        for (auto* const component : result->components())
            m_changes.push_back({component->replaceable(), result, nullptr});
    }
    arrange();
}

void OutputBuilder::add(std::vector<TextEdit> const& edits) {
    for (auto const& edit : edits) m_changes.push_back({edit.component, nullptr, &edit});
    arrange();
}

std::size_t OutputBuilder::edited() const {
    return static_cast<std::size_t>(
        std::count_if(m_changes.begin(), m_changes.end(), [](Change const& change) { return change.edit; }));
}

// Of parts within one another the outermost is changed, and what is replaced is not added to.
void OutputBuilder::arrange() {
    auto const before = [](Change const& a, Change const& b) {
        auto const &x = a.component->range(), &y = b.component->range();
        return x.headBegin != y.headBegin ? x.headBegin < y.headBegin : x.bodyEnd > y.bodyEnd;
    };
    std::stable_sort(m_changes.begin(), m_changes.end(), before);
    std::vector<Change> apart;
    for (auto const& change : m_changes)
        if (apart.empty() || change.component->range().headBegin >= apart.back().component->range().bodyEnd)
            apart.push_back(change);
    m_changes.swap(apart);
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

void OutputBuilder::write(eFabric::IStreamTransport& in, ByteSink const& sink) {
    std::uint64_t at = 0;
    auto const lineEnd = lineEndOf(in);
    for (auto const& change : m_changes) {
        auto const& range = change.component->range();
        ReadRange(in, at, range.headBegin, m_buffer, sink);
        if (change.edit)
            WriteEdited(in, *change.edit, lineEnd, m_buffer, sink);
        else
            sink(replacement(in, change, lineEnd));
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

std::string OutputBuilder::replacement(eFabric::IStreamTransport& in, Change const& cut, std::string const& lineEnd) {
    auto const& component = *cut.component;
    std::string out;
    if (component.kind() == Component::Message) out = keptFields(in, component, lineEnd);
    auto const name = NewNameOf(component);
    out += "Content-Type: text/plain; charset=utf-8" + NameParameter("name", name, lineEnd) + lineEnd;
    out += "Content-Transfer-Encoding: quoted-printable" + lineEnd;
    out += "Content-Disposition: inline" + NameParameter("filename", name, lineEnd) + lineEnd;
    out += lineEnd + Quoted(alertText(cut), lineEnd);
    return EndsLine(in, component.range().bodyEnd, m_buffer) ? out : out + lineEnd;
}

// A message keeps the fields of its own; those that told of its content go.
std::string OutputBuilder::keptFields(eFabric::IStreamTransport& in, Component const& component,
                                      std::string const& lineEnd) {
    std::string block;
    auto const& range = component.range();
    ReadRange(in, range.headBegin, range.bodyBegin, m_buffer, [&](std::string_view b) { block += b; });
    auto const kept = KeepFields(block, lineEnd, [](std::string_view name) { return !IsContentField(name); });
    return HasField(kept, "MIME-Version") ? kept : kept + "MIME-Version: 1.0" + lineEnd;
}

std::string const& OutputBuilder::alertOf(EngineType type) const {
    if (type == EngineType::AntiVirus) return m_plan.antiVirusAlert;
    if (type == EngineType::MailFilter) return m_plan.mail.alert;
    return type == EngineType::Format ? m_plan.formatAlert : m_plan.contentAlert;
}

std::string OutputBuilder::alertText(Change const& cut) const {
    auto const value = [&](std::string const& name, std::string& text) {
        bool const known = HostsText(m_substitutions, name, text) || ownText(cut, name, text);
        text = OneLine(ToCleanUtf8(text));
        return known;
    };
    return ToCleanUtf8(FillMarks(alertOf(cut.result->type()), value));
}

bool OutputBuilder::ownText(Change const& cut, std::string const& name, std::string& text) const {
    wchar_t const* const file = cut.component->GetComponentName();
    if (name == "FILENAME")
        text = file ? KORtk::Utf8Array(file).str() : "-";
    else if (name == "INFECTIONS")
        text = JoinNames(cut.result->names());
    else if (name == "SCANNER")
        text = cut.result->GetScannerClassName();
    else
        return false;
    return true;
}

}  // namespace policyloader
