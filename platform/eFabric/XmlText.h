// The text inside an element as its source stands in the file: entities, line ends, comments and CDATA included.
// Failure: none; what the parser takes as it stands counts as it stands.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include <eFabric/XmlFile.h>

namespace eFabric {

inline bool IsText(pugi::xml_node node) { return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata; }

// Where a file refers by number to a character that XML does not have, such as NUL or half of a pair: the text would
// end there, or be no UTF-8. Nothing when there is no such place.
std::optional<std::size_t> FindBadReference(std::string_view file);

// The places of the bytes of XmlFile::text(element). Asked in rising order, which walks the text once.
// Owner: a reader; shorter-lived than the file. Thread: one.
class VELTPLATFORM_API XmlTextPlaces {
public:
    XmlTextPlaces(XmlFile const& file, pugi::xml_node element);
    XmlPlace at(std::size_t index);  // of a byte not before the last one asked for, or of the text's end

private:
    bool enter(pugi::xml_node node);
    void advance(std::size_t index);

    XmlFile const& m_file;
    XmlPlace const m_none;    // of an element without text
    pugi::xml_node m_node;    // the piece of text that we are in
    std::size_t m_left = 0;   // bytes of its text before us still
    std::size_t m_text = 0;   // where we are, in the text
    std::size_t m_bytes = 0;  // and in the file
};

}  // namespace eFabric
