// StoreReader: reads one file of the form of rules.xml into a StoreModel. Lives for one read.
// Failure: eFabric::XmlError at the offending element or attribute; the model is then of no use.
#pragma once

#include <string>

#include <eFabric/XmlFile.h>
#include <policyloader/store/StoreModel.h>

namespace policyloader {

class StoreReader {
public:
    StoreReader(StoreModel& model, eFabric::XmlFile const& file);
    void read();

private:
    using Node = pugi::xml_node;

    void policy(Node node);
    void actions(Node node, PolicyNode& policy);
    void identity(Node node, PolicyNode& policy);
    void settings(Node node, Scope& scope);
    void setting(Node node, char const* section, Scope& scope);
    void set(Node node, char const* section, Scope& scope);
    void list(Node node, char const* section, Scope& scope);
    void alert(Node node, char const* section, Scope& scope);
    void rule(Node node, char const* section, Scope& scope);

    void store(Node node, char const* section, Scope& scope, Value value, std::vector<unsigned> itemLines = {});
    void storePlain(Setting& setting, SaidValue said) const;
    void storeWindowed(Setting& setting, SaidValue said) const;
    Window const* window(Node node);
    InternedString name(Node node, char const* attribute) const;  // one word
    std::string leafText(Node node) const;
    wchar_t const* alertText(Node node, char const* part) const;
    Place place(Node node) const;
    Place place(Node node, char const* attribute) const;
    [[noreturn]] void unexpected(Node node) const;

    StoreModel& m_model;
    eFabric::XmlFile const& m_file;
    unsigned const m_index;        // of the file
    char const* const m_fileName;  // interned
};

}  // namespace policyloader
