#include "tools/velt-policy/StoreErrors.h"

#include <eFabric/XmlFile.h>
#include <policyloader/store/StoreModel.h>
#include <policyloader/store/StoreSnapshot.h>

#include <memory>
#include <utility>

namespace velt_policy {
namespace {

using eFabric::XmlError;
using eFabric::XmlFile;
using eFabric::XmlPlace;
using Files = std::vector<std::unique_ptr<XmlFile>>;

constexpr int kMostErrors = 100;  // of one kind

auto Position(XmlPlace const& place) { return std::pair(place.line, place.column); }

pugi::xml_node NextInDocument(pugi::xml_node node, pugi::xml_node root) {
    if (auto const child = node.first_child()) return child;
    while (node && node != root && !node.next_sibling()) node = node.parent();
    return node == root ? pugi::xml_node() : node.next_sibling();
}

// What stands at the place: the node that begins there, else the element in whose tag it is.
pugi::xml_node NodeAt(XmlFile const& file, XmlPlace const& place) {
    pugi::xml_node last;
    for (auto node = file.root(); node; node = NextInDocument(node, file.root())) {
        auto const at = Position(file.place(node));
        if (at == Position(place)) return node;
        if (at < Position(place) && node.type() == pugi::node_element) last = node;
    }
    return last;
}

bool CutNode(XmlFile const& file, XmlPlace const& place) {
    auto const node = NodeAt(file, place);
    return node && node != file.root() && node.parent().remove_child(node);
}

bool CutAttribute(XmlFile const& file, XmlPlace const& place) {
    auto element = NodeAt(file, place);
    for (auto const attribute : element.attributes())
        if (Position(file.place(element, attribute)) == Position(place)) return element.remove_attribute(attribute);
    return false;
}

// Calls `read` until it takes what is left, or nothing can be cut.
template <class Read, class Cut>
bool TellEach(Read read, Cut cut, Findings& findings) {
    for (int told = 0;; ++told) {
        try {
            read();
            return told > 0;
        } catch (XmlError const& error) {
            findings.report(Level::error, error.text());
            if (told == kMostErrors || !cut(error.place())) return true;
        }
    }
}

bool Open(std::string const& path, Files& files, Findings& findings) try {
    if (auto bytes = XmlFile::Read(path)) files.push_back(std::make_unique<XmlFile>(path, std::move(*bytes), "rules"));
    return true;
} catch (XmlError const& error) {
    findings.report(Level::error, error.text());
    return false;
}

bool TellFile(XmlFile const& file, Findings& findings) {
    return TellEach([&] { policyloader::StoreModel().add(file); },
                    [&](XmlPlace const& place) { return CutNode(file, place); }, findings);
}

// What the files say of each other: bases and inherited identities.
bool TellTogether(Files const& files, Findings& findings) {
    auto const read = [&] {
        auto model = std::make_unique<policyloader::StoreModel>();
        for (auto const& file : files) model->add(*file);
        static_cast<void>(policyloader::StoreSnapshot(std::move(model)));
    };
    auto const cut = [&](XmlPlace const& place) {
        for (auto const& file : files)
            if (file->name() == place.file) return CutAttribute(*file, place);
        return false;
    };
    return TellEach(read, cut, findings);
}

}  // namespace

bool TellStoreErrors(std::vector<std::string> const& paths, Findings& findings) {
    Files files;
    bool told = false;
    for (auto const& path : paths) told = !Open(path, files, findings) || told;
    for (auto const& file : files) told = TellFile(*file, findings) || told;
    return told || TellTogether(files, findings);
}

}  // namespace velt_policy
