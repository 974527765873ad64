#include <eFabric/XmlFile.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <system/Descriptor.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <eFabric/XmlText.h>

namespace eFabric {
namespace {

std::string PlaceText(XmlPlace const& place) {
    if (place.line == 0) return place.file;
    return place.file + ':' + std::to_string(place.line) + ':' + std::to_string(place.column);
}

[[noreturn]] void FailWhole(std::string const& name, std::string const& reason) {
    throw XmlError(XmlPlace{name, 0, 0}, reason);
}

void CheckRegular(int fd, std::string const& path) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) FailWhole(path, std::strerror(errno));
    if (!S_ISREG(status.st_mode)) FailWhole(path, "is not a regular file");
}

std::string ReadAll(int fd, std::string const& path) {
    std::string bytes;
    std::string block(64 * 1024, '\0');  // not on the stack: sessions run on small ones
    while (bytes.size() <= XmlFile::MaxBytes) {
        ssize_t const got = ::read(fd, block.data(), block.size());
        if (got == 0) return bytes;
        if (got < 0 && errno != EINTR) FailWhole(path, std::strerror(errno));
        if (got > 0) bytes.append(block, 0, static_cast<std::size_t>(got));
    }
    return bytes;  // longer than allowed, as the parser will say
}

// The length of the UTF-8 sequence at `at`; 0 when there is none.
std::size_t SequenceLength(std::string_view rest) {
    auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(rest[i]); };
    unsigned const first = byte(0);
    std::size_t const length = first < 0x80   ? 1
                               : first < 0xC2 ? 0
                               : first < 0xE0 ? 2
                               : first < 0xF0 ? 3
                               : first < 0xF5 ? 4
                                              : 0;
    if (length > rest.size()) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80) return 0;
    bool const overlong = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xF0 && byte(1) < 0x90);
    bool const outside = (first == 0xED && byte(1) > 0x9F) || (first == 0xF4 && byte(1) > 0x8F);
    return overlong || outside ? 0 : length;
}

bool IsNameByte(char c) { return !std::strchr(" \t\r\n=/>\"'", c) || c == '\0'; }

// Where the attribute's name stands in the tag that begins `tag`; 0 when it is not found.
std::size_t AttributeOffset(std::string_view tag, std::string_view name) {
    char quote = 0;
    for (std::size_t i = 1; i < tag.size() && (quote || tag[i] != '>'); ++i) {
        bool const starts = !quote && !IsNameByte(tag[i - 1]) && tag.substr(i, name.size()) == name;
        if (starts && i + name.size() < tag.size() && !IsNameByte(tag[i + name.size()])) return i;
        if (quote)
            quote = tag[i] == quote ? 0 : quote;
        else if (tag[i] == '"' || tag[i] == '\'')
            quote = tag[i];
    }
    return 0;
}

}  // namespace

XmlError::XmlError(XmlPlace place, std::string reason)
    : KORtk::Exception(KORtk::Location{__FILE__, __LINE__, __func__}, PlaceText(place) + ": " + reason),
      m_place(std::move(place)),
      m_reason(std::move(reason)) {}

XmlError::~XmlError() = default;

std::optional<std::string> XmlFile::Read(std::string const& path) {
    // Not blocking, so that a pipe in the file's place cannot hold the process up.
    Descriptor const fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd.get() < 0 && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
    if (fd.get() < 0) FailWhole(path, std::strerror(errno));
    CheckRegular(fd.get(), path);
    return ReadAll(fd.get(), path);
}

XmlFile::XmlFile(std::string name, std::string bytes, char const* root, int maxDepth)
    : m_name(std::move(name)), m_bytes(std::move(bytes)) {
    indexLines();
    checkBytes();
    if (auto const at = FindBadReference(m_bytes)) failAt(*at, "a reference to a character that does not exist");
    parse(root);
    checkTree(maxDepth);
}

void XmlFile::checkBytes() const {
    if (m_bytes.size() > MaxBytes) FailWhole(m_name, "is longer than 16 MiB");
    for (std::size_t at = 0; at < m_bytes.size();) {
        std::size_t const length = SequenceLength(std::string_view(m_bytes).substr(at));
        if (length == 0) failAt(at, "is not UTF-8");
        if (m_bytes[at] == '\0') failAt(at, "a NUL byte");
        at += length;
    }
}

void XmlFile::parse(char const* root) {
    // As a fragment, since text outside the root element would be dropped in silence otherwise.
    auto const flags = pugi::parse_default | pugi::parse_doctype | pugi::parse_fragment;
    auto const result = m_document.load_buffer(m_bytes.data(), m_bytes.size(), flags, pugi::encoding_utf8);
    // Where the file ends too early the parser's offset may lie behind it.
    auto const offset = std::clamp<std::ptrdiff_t>(result.offset, 0, static_cast<std::ptrdiff_t>(m_bytes.size()));
    if (!result) failAt(static_cast<std::size_t>(offset), result.description());
    for (auto const node : m_document.children()) {
        if (node.type() == pugi::node_doctype) fail(node, "a document type is not allowed");
        if (IsText(node)) fail(node, "text outside the root element");
    }
    auto const element = m_document.document_element();
    if (element.name() != std::string_view(root)) fail(element, std::string("the root element is not <") + root + ">");
    if (element.next_sibling()) fail(element.next_sibling(), "more than one root element");
}

// Walks without recursion: the depth is the document's to choose until it is checked.
void XmlFile::checkTree(int maxDepth) const {
    int depth = 1;
    for (auto node = root(); node;) {
        if (depth > maxDepth) fail(node, "elements are nested deeper than " + std::to_string(maxDepth));
        if (auto const child = node.first_child()) {
            node = child;
            ++depth;
            continue;
        }
        while (node != root() && !node.next_sibling()) {
            node = node.parent();
            --depth;
        }
        if (node == root()) return;
        node = node.next_sibling();
    }
}

std::size_t XmlFile::offsetOf(pugi::xml_node node) const {
    std::ptrdiff_t const offset = node.offset_debug();
    return std::min(static_cast<std::size_t>(std::max<std::ptrdiff_t>(offset, 0)), m_bytes.size());
}

void XmlFile::indexLines() {
    m_lineStarts.push_back(0);
    for (std::size_t at = 0; (at = m_bytes.find('\n', at)) != std::string::npos;) m_lineStarts.push_back(++at);
}

XmlPlace XmlFile::placeOfOffset(std::size_t offset) const {
    auto const after = std::upper_bound(m_lineStarts.begin(), m_lineStarts.end(), offset);
    auto const line = static_cast<unsigned>(after - m_lineStarts.begin());
    return XmlPlace{m_name, line, static_cast<unsigned>(offset - *(after - 1)) + 1};
}

// The offset that the parser keeps is that of an element's name, of a document type's text, and of the white space
// before a text.
XmlPlace XmlFile::place(pugi::xml_node node) const {
    std::size_t const offset = offsetOf(node);
    if (IsText(node)) return placeOfOffset(std::min(m_bytes.find_first_not_of(" \t\r\n", offset), m_bytes.size()));
    auto const bracket = node ? m_bytes.rfind('<', offset) : std::string::npos;
    return placeOfOffset(bracket == std::string::npos ? offset : bracket);
}

XmlPlace XmlFile::place(pugi::xml_node element, pugi::xml_attribute attribute) const {
    std::size_t const offset = offsetOf(element);
    return placeOfOffset(offset + AttributeOffset(std::string_view(m_bytes).substr(offset), attribute.name()));
}

XmlPlace XmlFile::placeInText(pugi::xml_node element, std::size_t index) const {
    return XmlTextPlaces(*this, element).at(index);
}

void XmlFile::failAt(std::size_t offset, std::string const& reason) const {
    throw XmlError(placeOfOffset(offset), reason);
}

void XmlFile::fail(pugi::xml_node node, std::string const& reason) const { throw XmlError(place(node), reason); }

std::string XmlFile::text(pugi::xml_node element) {
    std::string text;
    for (auto const node : element.children())
        if (IsText(node)) text += node.value();
    return text;
}

void XmlFile::allowAttributes(pugi::xml_node element, std::initializer_list<std::string_view> names) const {
    for (auto const attribute : element.attributes()) {
        std::string_view const name = attribute.name();
        if (std::find(names.begin(), names.end(), name) == names.end())
            throw XmlError(place(element, attribute),
                           "<" + std::string(element.name()) + "> has no attribute '" + std::string(name) + "'");
    }
    uniqueAttributes(element);
}

void XmlFile::uniqueAttributes(pugi::xml_node element) const {
    for (auto const attribute : element.attributes())
        if (element.attribute(attribute.name()) != attribute)
            fail(element, std::string("attribute '") + attribute.name() + "' stands twice");
}

void XmlFile::forbidText(pugi::xml_node element) const {
    for (auto const node : element.children())
        if (IsText(node)) fail(node, "<" + std::string(element.name()) + "> takes no text");
}

std::string XmlFile::required(pugi::xml_node element, char const* attribute) const {
    auto const found = element.attribute(attribute);
    if (!found) fail(element, "<" + std::string(element.name()) + "> lacks its attribute '" + attribute + "'");
    if (!*found.value()) throw XmlError(place(element, found), std::string("attribute '") + attribute + "' is empty");
    return found.value();
}

void XmlFile::requireVersion(pugi::xml_node root) const {
    auto const version = root.attribute("version");
    if (version && version.value() != std::string_view("1"))
        throw XmlError(place(root, version), std::string("version '") + version.value() + "' is not known, only '1'");
}

}  // namespace eFabric
