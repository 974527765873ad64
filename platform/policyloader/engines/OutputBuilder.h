// OutputBuilder: writes what goes on in place of the scanned object: every part to be replaced gives way to a text that
// says so, texts that are added to are written anew; all else stays byte for byte.
// Owner: one scan, its thread.  Units: bytes.  Failure: EngineFailure of Read or Write.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <eFabric/Transport.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/TextEdit.h>
#include <policyloader/engines/TransportIO.h>

namespace policyloader {

class OutputBuilder {
public:
    // `substitutions` may be null: the host's texts for the marks, by name.
    OutputBuilder(ScanPlan const& plan, IKORPropertyBag const* substitutions, ReadBuffer& buffer)
        : m_plan(plan), m_substitutions(substitutions), m_buffer(buffer) {}

    void replace(ResultSet const& results);        // what the results want replaced
    void add(std::vector<TextEdit> const& edits);  // outlive the builder; those within what is replaced are not written
    bool changes() const { return !m_changes.empty(); }
    std::size_t edited() const;  // parts that are added to
    // To `out`, or in place of the object itself when that is null.
    void build(eFabric::IStreamTransport& in, eFabric::IStreamTransport* out);

private:
    struct Change {
        Component const* component;
        EngineResult const* result;  // null: it is
        TextEdit const* edit;
    };

    void arrange();
    void write(eFabric::IStreamTransport& in, ByteSink const& sink);
    std::string replacement(eFabric::IStreamTransport& in, Change const& cut, std::string const& lineEnd);
    std::string keptFields(eFabric::IStreamTransport& in, Component const& component, std::string const& lineEnd);
    std::string const& alertOf(EngineType type) const;
    std::string alertText(Change const& cut) const;
    bool ownText(Change const& cut, std::string const& name, std::string& text) const;
    std::string lineEndOf(eFabric::IStreamTransport& in);

    ScanPlan const& m_plan;
    IKORPropertyBag const* m_substitutions;
    ReadBuffer& m_buffer;
    std::vector<Change> m_changes;  // by place, none within another
};

}  // namespace policyloader
