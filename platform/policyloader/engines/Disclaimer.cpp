#include <policyloader/engines/Disclaimer.h>

#include <algorithm>
#include <cctype>
#include <utility>

#include <policyloader/engines/EngineSettings.h>
#include <policyloader/engines/HtmlText.h>
#include <policyloader/engines/TextDecoder.h>

namespace policyloader {
namespace {

namespace keys = engine_settings;

constexpr std::size_t kFlowColumns = 72;
constexpr std::size_t kFixedColumns = 78;
constexpr char kNoBreakSpace[] = "\xC2\xA0";

std::string TextOf(SettingsView const& view, EngineSetting const& key) {
    auto const text = view.text(key.section, key.key);
    return text ? ToCleanUtf8(*text) : std::string();
}

std::string Trimmed(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
    while (!text.empty() && text.front() == '\n') text.remove_prefix(1);
    return std::string(text);
}

std::string HtmlOf(std::string const& text) {
    std::string out = "<p>";
    for (char const c : EscapedHtml(text)) c == '\n' ? out += "<br>\n" : out += c;
    return out + "</p>";
}

std::string VisibleText(std::string const& html) {
    HtmlText reader;
    std::string out(reader.decode(html));
    return out.append(reader.finish());
}

// Marks of quotation come and go with replies.
bool IsPassedOver(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '>' || c == '|'; }

std::string Squeezed(std::string_view utf8) {
    std::string out;
    for (std::size_t at = 0; at < utf8.size(); ++at) {
        if (utf8.substr(at, 2) == kNoBreakSpace)
            ++at;
        else if (!IsPassedOver(utf8[at]))
            out += utf8[at];
    }
    return out;
}

// The longest piece without a mark: the others are different each time.
Phrase LongestPhrase(std::string const& text) {
    auto const split = [](std::string const& name, std::string& put) {
        put = std::string(1, '\0');
        return std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) || c == '_'; });
    };
    std::string const pieces = FillMarks(text, split);
    Phrase longest;
    for (std::size_t at = 0; at <= pieces.size();) {
        std::size_t const end = std::min(pieces.find('\0', at), pieces.size());
        Phrase phrase(std::string_view(pieces).substr(at, end - at));
        if (phrase.text.size() > longest.text.size()) longest = std::move(phrase);
        at = end + 1;
    }
    return longest;
}

void AppendFixed(std::string& out, std::string_view line, std::string_view end) {
    bool const stuffed = line.substr(0, 1) == " " || line.substr(0, 1) == ">" || line.substr(0, 5) == "From ";
    out.append(stuffed ? " " : "").append(line).append(end);
}

}  // namespace

Disclaimer Disclaimer::read(SettingsView const& view, bool selected) {
    Disclaimer made;
    auto const flag = [&](EngineSetting const& key, bool standard) {
        return view.flag(key.section, key.key, standard);
    };
    made.enabled = selected && flag(keys::InfoEnabled, true);
    if (!made.enabled) return made;
    made.text = Trimmed(TextOf(view, keys::InfoText));
    made.html = Trimmed(TextOf(view, keys::InfoHtml));
    made.position = TextOf(view, keys::InfoPosition);
    made.parts = TextOf(view, keys::InfoParts);
    made.once = flag(keys::InfoOnce, true);
    made.leaveDkim = flag(keys::InfoLeaveDkim, false);
    if (!made.active()) return made;
    if (made.html.empty()) made.html = HtmlOf(made.text);
    if (made.text.empty()) made.text = Trimmed(VisibleText(made.html));
    made.textPhrase = LongestPhrase(made.text);
    made.htmlPhrase = LongestPhrase(VisibleText(made.html));
    return made;
}

void Disclaimer::fill(MarkValue const& value) {
    if (!active()) return;
    auto const clean = [&](std::string const& name, std::string& put) {
        bool const known = value(name, put);
        put = OneLine(ToCleanUtf8(put));
        return known;
    };
    auto const escaped = [&](std::string const& name, std::string& put) {
        bool const known = clean(name, put);
        put = EscapedHtml(put);
        return known;
    };
    text = FillMarks(text, clean);
    html = FillMarks(html, escaped);
}

std::string EscapedHtml(std::string_view text) {
    std::string out;
    for (char const c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string Flowed(std::string const& text, bool deletesSpaces) {
    std::string out;
    std::string_view rest = text;
    for (bool more = true; more;) {
        std::size_t const end = rest.find('\n');
        auto line = rest.substr(0, end);
        more = end != std::string_view::npos;
        if (more) rest.remove_prefix(end + 1);
        while (line != "-- " && !line.empty() && line.back() == ' ') line.remove_suffix(1);
        while (line.size() > kFixedColumns) {
            std::size_t const cut = line.rfind(' ', kFlowColumns);
            if (cut == std::string_view::npos || cut == 0) break;
            AppendFixed(out, line.substr(0, cut + 1), deletesSpaces ? " \n" : "\n");
            line.remove_prefix(cut + 1);
        }
        AppendFixed(out, line, more ? "\n" : "");
    }
    return out;
}

Phrase::Phrase(std::string_view utf8) : text(Squeezed(utf8)), shorter(text.size() + 1) {
    for (std::size_t length = 2, k = 0; length <= text.size(); ++length) {
        while (k > 0 && text[k] != text[length - 1]) k = shorter[k];
        if (text[k] == text[length - 1]) ++k;
        shorter[length] = k;
    }
}

void PhraseFinder::feed(std::string_view utf8) {
    if (m_found || m_phrase.text.empty()) return;
    for (char const c : utf8) {
        if (m_held && c == kNoBreakSpace[1]) {
            m_held = 0;
            continue;
        }
        if (m_held) step(std::exchange(m_held, 0));
        if (c == kNoBreakSpace[0])
            m_held = c;
        else if (!IsPassedOver(c))
            step(c);
        if (m_found) return;
    }
}

void PhraseFinder::step(char c) {
    while (m_matched > 0 && m_phrase.text[m_matched] != c) m_matched = m_phrase.shorter[m_matched];
    if (m_phrase.text[m_matched] == c) ++m_matched;
    m_found = m_matched == m_phrase.text.size();
}

}  // namespace policyloader
