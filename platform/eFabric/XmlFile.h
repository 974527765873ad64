// XmlFile: a configuration file as a tree of elements, each with its place in the file, and the error that names a
// place. Limits: 16 MiB, elements 64 deep; UTF-8 only, no document type, so neither external entities nor entities that
// grow. Owner: the reader of the file. The tree is read by one thread at a time; nodes live as long as the XmlFile.
// Failure: XmlError, a KORtk::Exception whose text is "file:line:column: reason"; line 0: the file as a whole.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <pugixml.hpp>

#include <Export.h>
#include <KORtk/Exception.h>

namespace eFabric {

// Lines and columns count from 1; a column counts bytes.
struct XmlPlace {
    std::string file;
    unsigned line = 0;
    unsigned column = 0;
};

class VELTPLATFORM_API XmlError : public KORtk::Exception {
public:
    XmlError(XmlPlace place, std::string reason);
    ~XmlError() override;
    XmlPlace const& place() const { return m_place; }
    std::string const& reason() const { return m_reason; }

private:
    XmlPlace m_place;
    std::string m_reason;
};

class VELTPLATFORM_API XmlFile {
public:
    static constexpr std::size_t MaxBytes = 16 * 1024 * 1024;
    static constexpr int MaxDepth = 64;
    static constexpr int AnyDepth = std::numeric_limits<int>::max();

    // The file's bytes; nothing when it does not exist.
    static std::optional<std::string> Read(std::string const& path);

    // `name` stands for the file in places. The root element has to be called `root`. A reader that bounds what it
    // descends into itself may ask for AnyDepth.
    XmlFile(std::string name, std::string bytes, char const* root, int maxDepth = MaxDepth);
    XmlFile(XmlFile const&) = delete;
    XmlFile& operator=(XmlFile const&) = delete;

    pugi::xml_node root() const { return m_document.document_element(); }
    std::string const& name() const { return m_name; }

    XmlPlace place(pugi::xml_node node) const;
    XmlPlace place(pugi::xml_node element, pugi::xml_attribute attribute) const;
    // The place of byte `index` of text(element).
    XmlPlace placeInText(pugi::xml_node element, std::size_t index) const;

    [[noreturn]] void fail(pugi::xml_node node, std::string const& reason) const;

    // The text directly inside an element, entities resolved, CDATA included.
    static std::string text(pugi::xml_node element);

    // Checks of an element; each fails at the offending place.
    void allowAttributes(pugi::xml_node element, std::initializer_list<std::string_view> names) const;
    void uniqueAttributes(pugi::xml_node element) const;
    void forbidText(pugi::xml_node element) const;
    std::string required(pugi::xml_node element, char const* attribute) const;  // there, and not empty
    void requireVersion(pugi::xml_node root) const;                             // "1", or no version at all

private:
    friend class XmlTextPlaces;

    XmlPlace placeOfOffset(std::size_t offset) const;
    [[noreturn]] void failAt(std::size_t offset, std::string const& reason) const;
    void indexLines();
    void checkBytes() const;
    void parse(char const* root);
    void checkTree(int maxDepth) const;
    std::size_t offsetOf(pugi::xml_node node) const;

    std::string const m_name;
    std::string const m_bytes;
    std::vector<std::size_t> m_lineStarts;  // offsets, rising
    pugi::xml_document m_document;
};

}  // namespace eFabric
