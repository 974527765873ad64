#include <policyloader/engines/TextPart.h>

#include <algorithm>

#include <gmime/gmime.h>
#include <strings.h>

#include <policyloader/engines/CharsetNames.h>
#include <policyloader/engines/HeadFields.h>
#include <policyloader/engines/TextCase.h>

namespace policyloader {
namespace {

constexpr std::size_t kMostInLine = 998;
constexpr std::size_t kLineStart = 40;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

struct UnrefType {
    void operator()(GMimeContentType* type) const { g_object_unref(type); }
};
using ContentType = std::unique_ptr<GMimeContentType, UnrefType>;

ContentType Parse(std::string const& value) {
    return ContentType(g_mime_content_type_parse(nullptr, WithKnownCharsets(value).c_str()));
}

bool Is(GMimeContentType* type, char const* parameter, char const* wanted) {
    char const* const value = type ? g_mime_content_type_get_parameter(type, parameter) : nullptr;
    return value && strcasecmp(value, wanted) == 0;
}

bool BeginsPgp(std::string_view line) {
    for (std::string_view const mark : {"-----BEGIN PGP SIGNED MESSAGE-----", "-----BEGIN PGP MESSAGE-----"})
        if (line.substr(0, mark.size()) == mark) return true;
    return false;
}

std::string Entity(char32_t c) { return "&#" + std::to_string(static_cast<std::uint32_t>(c)) + ";"; }
std::string QuestionMark(char32_t) { return "?"; }

// A multipart that names no boundary takes any.
bool LooksLikeBoundary(std::string_view line, std::vector<std::string> const& boundaries) {
    if (line.substr(0, 2) != "--") return false;
    return std::any_of(boundaries.begin(), boundaries.end(), [&](std::string const& boundary) {
        return SameText(line.substr(2, boundary.size()), boundary);
    });
}

}  // namespace

struct TextPart::Look {
    Look(std::string const& charset, Disclaimer const& disclaimer)
        : decoder(charset), textPhrase(disclaimer.textPhrase), htmlPhrase(disclaimer.htmlPhrase) {}

    TextDecoder decoder;
    HtmlText visible;
    PhraseFinder textPhrase;
    PhraseFinder htmlPhrase;
    std::unique_ptr<CharsetConverter> converter;  // of a text that may become UTF-8
    std::string line;                             // the beginning of the line at hand
};

TextPart::TextPart(EntityHead const& head, Component& component, Disclaimer const& disclaimer)
    : m_disclaimer(disclaimer),
      m_component(component),
      m_html(head.subtype == "html"),
      m_charset(head.charset),
      m_kind(KindOfCharset(head.charset)),
      m_encoding(head.encodings.front()),
      m_look(std::make_unique<Look>(head.charset, disclaimer)) {
    std::size_t types = 0, encodings = 0;
    for (auto const& [name, value] : head.fields) {
        if (SameText(name, "Content-Type") && ++types == 1) m_type = value;
        if (!SameText(name, "Content-Transfer-Encoding")) continue;
        ++encodings;
        m_ambiguous |= !ParseTransferEncoding(value);
        m_eightBit = strcasecmp(value.c_str(), "8bit") == 0 || strcasecmp(value.c_str(), "binary") == 0;
    }
    m_ambiguous |= types > 1 || encodings > 1 || head.encodings.size() > 1;
    auto const type = Parse(m_type);
    m_flowed = !m_html && Is(type.get(), "format", "flowed");
    m_deletesSpaces = Is(type.get(), "delsp", "yes");
    bool const becomesUtf8 = !m_html && !FromUtf8(disclaimer.text, m_charset);
    if (m_kind == CharsetKind::Whole || becomesUtf8)
        m_look->converter =
            std::make_unique<CharsetConverter>(m_kind == CharsetKind::Ascii ? "utf-8" : m_charset, "utf-8");
}

TextPart::~TextPart() = default;

void TextPart::feed(std::string_view decoded) {
    auto const utf8 = m_look->converter ? m_look->converter->convert(decoded) : decoded;
    measure(m_kind == CharsetKind::Whole ? utf8 : decoded);
    seen(m_look->decoder.decode(decoded));
}

void TextPart::finish() {
    auto const rest = m_look->converter ? m_look->converter->finish() : std::string_view();
    if (m_kind == CharsetKind::Whole) measure(rest);
    seen(m_look->decoder.finish());
    if (m_html) look(m_look->visible.finish());
    m_pgp |= BeginsPgp(m_look->line);
    m_carries = m_look->textPhrase.found() || m_look->htmlPhrase.found();
    m_lossy = !m_look->converter || m_look->converter->lossy();
    m_look.reset();
}

void TextPart::measure(std::string_view text) {
    if (text.empty()) return;
    if (m_html) m_places.feed(text);
    if (m_begin.size() < kByteOrderMark.size()) m_begin += text.substr(0, kByteOrderMark.size() - m_begin.size());
    std::size_t const end = m_lineEnd.empty() ? text.find('\n') : std::string_view::npos;
    if (end != std::string_view::npos) m_lineEnd = (end > 0 ? text[end - 1] : m_last) == '\r' ? "\r\n" : "\n";
    m_size += text.size();
    m_last = text.back();
}

void TextPart::seen(std::string_view utf8) { look(m_html ? m_look->visible.decode(utf8) : utf8); }

void TextPart::look(std::string_view utf8) {
    m_look->textPhrase.feed(utf8);
    m_look->htmlPhrase.feed(utf8);
    auto& line = m_look->line;
    while (!m_html && !utf8.empty()) {
        std::size_t const end = std::min(utf8.find('\n'), utf8.size());
        if (line.size() < kLineStart) line += utf8.substr(0, std::min(end, kLineStart - line.size()));
        if (end == utf8.size()) return;
        m_pgp |= BeginsPgp(line);
        line.clear();
        utf8.remove_prefix(end + 1);
    }
}

bool TextPart::isWritable() const {
    if (m_look || m_ambiguous || !m_component.range().known || m_encoding == TransferEncoding::UUEncode) return false;
    return m_kind != CharsetKind::Foreign && !(m_kind == CharsetKind::Whole && m_lossy);
}

std::optional<TextEdit> TextPart::edit(std::vector<std::string> const& boundaries) const {
    if (!isWritable()) return std::nullopt;
    TextEdit made;
    made.component = &m_component;
    made.from = made.to = m_encoding;
    made.textLineEnd = m_lineEnd;
    std::uint64_t const start = m_begin == kByteOrderMark ? kByteOrderMark.size() : 0;
    std::uint64_t const top = m_html ? std::max(m_places.top(), start) : start;
    made.at = m_disclaimer.atTop() ? top : m_html ? m_places.bottom() : TextEdit::kEnd;
    std::string const text = around(m_html ? m_disclaimer.html : plainText());
    m_kind == CharsetKind::Whole ? setWhole(made, text) : setBytes(made, text);
    if (made.from != TransferEncoding::Identity) return made;
    if (!made.back.empty())
        made.to = TransferEncoding::Base64;
    else if (!fitsAsItStands(made, boundaries))
        made.to = TransferEncoding::QuotedPrintable;
    return made;
}

// A text that has to be converted as a whole goes back to its own character set where that has all characters.
void TextPart::setWhole(TextEdit& made, std::string const& text) const {
    bool const fits = FromUtf8(text, m_charset).has_value();
    made.charset = m_charset;
    made.insertion = fits || !m_html ? text : FromUtf8(text, "us-ascii", Entity);
    if (fits || m_html)
        made.back = m_charset;
    else
        made.contentType = typeWithUtf8();
}

// In the text's own character set; where that has no place for it, the text becomes UTF-8. A page has a way to write
// every character. A text that is not what it declares cannot become anything else: it gets what its set can show.
void TextPart::setBytes(TextEdit& made, std::string const& text) const {
    auto const fits = FromUtf8(text, m_charset);
    if (fits || m_html || m_lossy) {
        made.insertion = fits ? *fits : FromUtf8(text, m_charset, m_html ? Entity : QuestionMark);
        return;
    }
    made.insertion = text;
    made.charset = m_kind == CharsetKind::Ascii ? "utf-8" : m_charset;
    made.contentType = typeWithUtf8();
}

std::string TextPart::plainText() const {
    return m_flowed ? Flowed(m_disclaimer.text, m_deletesSpaces) : m_disclaimer.text;
}

// With what keeps it apart from the text; what ended in a line end does so afterwards.
std::string TextPart::around(std::string const& text) const {
    bool const ends = m_last == '\n';
    if (m_html) {
        bool const atEnd = !m_disclaimer.atTop() && m_places.bottom() == m_size;
        return (ends && atEnd ? "" : "\n") + text + (!atEnd ? "\n " : ends ? "\n" : "");
    }
    if (m_size == 0) return text;
    if (m_disclaimer.atTop()) return text + "\n\n";
    return (ends ? "\n" : "\n\n") + text + (ends ? "\n" : "");
}

std::string TextPart::typeWithUtf8() const {
    auto const type = Parse(m_type);
    if (!type || m_type.find('/') == std::string::npos) return "text/plain; charset=utf-8";
    g_mime_content_type_set_parameter(type.get(), "charset", "utf-8");
    char* const encoded = g_mime_content_type_encode(type.get(), nullptr);
    std::string const value(g_strstrip(encoded));
    g_free(encoded);
    return value;
}

bool TextPart::fitsAsItStands(TextEdit const& made, std::vector<std::string> const& boundaries) const {
    if (!made.contentType.empty() || (!m_eightBit && !IsAscii(made.insertion))) return false;
    for (std::string_view rest = made.insertion; !rest.empty();) {
        auto const line = rest.substr(0, rest.find('\n'));
        if (line.size() > kMostInLine || LooksLikeBoundary(line, boundaries)) return false;
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    }
    return true;
}

}  // namespace policyloader
