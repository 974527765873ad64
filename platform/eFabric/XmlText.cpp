#include <eFabric/XmlText.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace eFabric {
namespace {

constexpr std::uint32_t LastCharacter = 0x10FFFF;

// How many bytes of UTF-8 a character takes.
std::size_t EncodedLength(std::uint32_t code) { return code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4; }

bool IsCharacter(std::uint32_t code) {
    bool const half = code >= 0xD800 && code <= 0xDFFF;
    return code != 0 && !half && code <= LastCharacter;
}

// One step through source text as the parser decodes it: bytes of source taken and bytes of text given.
struct Step {
    std::size_t source;
    std::size_t text;
};

// A reference by number. length 0: there is none. A value beyond all characters stays the one after the last.
struct Reference {
    std::size_t length = 0;
    std::uint32_t code = 0;
};

int DigitOf(char c, unsigned base) {
    if (c >= '0' && c <= '9') return c - '0';
    if (base == 16 && c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (base == 16 && c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

Reference ReferenceAt(std::string_view rest) {
    if (rest.substr(0, 2) != "&#") return {};
    bool const hex = rest.substr(2, 1) == "x";
    unsigned const base = hex ? 16 : 10;
    std::size_t const first = hex ? 3 : 2;
    std::size_t at = first;
    std::uint32_t code = 0;
    for (int digit; at < rest.size() && (digit = DigitOf(rest[at], base)) >= 0; ++at)
        code = std::min(code * base + static_cast<unsigned>(digit), LastCharacter + 1);
    if (at == first || at == rest.size() || rest[at] != ';') return {};
    return {at + 1, code};
}

Step EntityStep(std::string_view rest) {
    static constexpr std::string_view Named[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"};
    for (auto const entity : Named)
        if (rest.substr(0, entity.size()) == entity) return {entity.size(), 1};
    auto const reference = ReferenceAt(rest);
    if (reference.length == 0) return {1, 1};
    return {reference.length, EncodedLength(reference.code)};
}

Step NextStep(std::string_view rest, bool entities) {
    if (rest.substr(0, 2) == "\r\n") return {2, 1};
    if (entities && rest.substr(0, 1) == "&") return EntityStep(rest);
    return {1, 1};
}

// Behind the comment, CDATA or instruction that begins at `at`; `at` itself when none does.
std::size_t BehindMarkup(std::string_view file, std::size_t at) {
    struct Markup {
        std::string_view begin, end;
    };
    static constexpr Markup Markups[] = {{"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}};
    for (auto const& [begin, end] : Markups) {
        if (file.substr(at, begin.size()) != begin) continue;
        auto const close = file.find(end, at + begin.size());
        return close == std::string_view::npos ? file.size() : close + end.size();
    }
    return at;
}

}  // namespace

std::optional<std::size_t> FindBadReference(std::string_view file) {
    for (std::size_t at = 0; (at = file.find_first_of("<&", at)) != std::string_view::npos;) {
        auto const behind = BehindMarkup(file, at);
        auto const reference = ReferenceAt(file.substr(at));
        if (reference.length != 0 && !IsCharacter(reference.code)) return at;
        at = behind == at ? at + 1 : behind;
    }
    return std::nullopt;
}

XmlTextPlaces::XmlTextPlaces(XmlFile const& file, pugi::xml_node element) : m_file(file), m_none(file.place(element)) {
    enter(element.first_child());
}

// To the first text among the node and those behind it. False, and we stay where we are, when there is none.
bool XmlTextPlaces::enter(pugi::xml_node node) {
    while (node && !IsText(node)) node = node.next_sibling();
    if (!node) return false;
    m_node = node;
    m_left = std::strlen(node.value());
    m_bytes = m_file.offsetOf(node);
    return true;
}

void XmlTextPlaces::advance(std::size_t index) {
    auto const source = std::string_view(m_file.m_bytes);
    bool const entities = m_node.type() == pugi::node_pcdata;
    while (m_text < index && m_left > 0 && m_bytes < source.size()) {
        Step const step = NextStep(source.substr(m_bytes), entities);
        m_bytes += step.source;
        m_text += step.text;
        m_left -= std::min(step.text, m_left);
    }
}

XmlPlace XmlTextPlaces::at(std::size_t index) {
    if (!m_node) return m_none;
    advance(index);
    while (m_left == 0 && enter(m_node.next_sibling())) advance(index);
    return m_file.placeOfOffset(m_bytes);
}

}  // namespace eFabric
