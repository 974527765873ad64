// OutputBuilder: writes what goes on in place of the scanned object: every part to be replaced gives way to a text that
// says so; all else stays byte for byte.
// Owner: one scan, its thread.  Units: bytes.  Failure: EngineFailure of Read or Write.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <eFabric/Transport.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/TransportIO.h>

namespace policyloader {

class OutputBuilder {
public:
    // `substitutions` may be null: the host's texts for the marks, by name.
    OutputBuilder(ScanPlan const& plan, ResultSet const& results, IKORPropertyBag const* substitutions,
                  ReadBuffer& buffer);
    // To `out`, or in place of the object itself when that is null.
    void build(eFabric::IStreamTransport& in, eFabric::IStreamTransport* out);

private:
    using Sink = std::function<void(std::string_view)>;
    struct Cut {
        Component const* component;
        EngineResult const* result;
    };

    void collect();
    void write(eFabric::IStreamTransport& in, Sink const& sink);
    std::string replacement(eFabric::IStreamTransport& in, Cut const& cut, std::string const& lineEnd);
    std::string keptFields(eFabric::IStreamTransport& in, Component const& component, std::string const& lineEnd);
    std::string alertText(Cut const& cut) const;
    std::string lineEndOf(eFabric::IStreamTransport& in);

    ScanPlan const& m_plan;
    ResultSet const& m_results;
    IKORPropertyBag const* m_substitutions;
    ReadBuffer& m_buffer;
    std::vector<Cut> m_cuts;  // by place, none within another
};

// Puts a text for each "%NAME%" for which `value` knows one; other marks stay. What is put in is not looked at again.
std::string FillMarks(std::string_view text, std::function<bool(std::string const&, std::string&)> const& value);

}  // namespace policyloader
