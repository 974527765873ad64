// Inspection: one look at one object by all engines of a scan thread: reading, unpacking, limits.
// Owner: the scan, on its stack.  Threads: the scan's.  Units: bytes.
// Failure: an engine that fails leaves an error result and is out; failures of the inspection itself leave run().
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include <eFabric/Transport.h>

#include <policyloader/engines/Engine.h>
#include <policyloader/engines/MimeWalker.h>
#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/TransportIO.h>

namespace policyloader {

class Salvage;
class UuSpotter;

class Inspection final : public EntitySink {
public:
    Inspection(ScanPlan const& plan, std::vector<Engine*> const& engines, ResultSet& results, ReadBuffer& buffer);
    ~Inspection();
    // Reads all of it, from its start, and adds the results.
    void run(eFabric::IStreamTransport& in);

private:
    enum class Limit { Size, Depth };
    struct Active {
        Engine* engine;
        bool failed = false;
    };
    struct Scan {
        Active* active;
        std::unique_ptr<ComponentScan> scan;
    };
    class Body;
    friend class Body;
    class RawScan;
    friend class RawScan;

    template <class Call>
    void guarded(Active& active, Call&& call);
    std::vector<Scan> openAll(EntityHead const& head, Component& component);
    void sendAll(std::vector<Scan>& scans, std::string_view piece);
    void endAll(std::vector<Scan>& scans);

    void begin();
    void firstBlock(std::string_view block);
    void block(std::string_view block);
    void finish();
    std::unique_ptr<Salvage> salvageOf(Component& component);
    std::unique_ptr<UuSpotter> spotterOf(Component& component);
    void salvage(eFabric::IStreamTransport& in);
    void report();
    bool overSize(eFabric::IStreamTransport& in) const;
    std::size_t readBlock(eFabric::IStreamTransport& in, bool first);
    template <class Take>
    void readAll(eFabric::IStreamTransport& in, Take&& take);
    void count(std::uint64_t decoded);

    Component* entity(EntityHead const& head, Component* parent, unsigned depth) override;
    std::unique_ptr<EntityBody> body(EntityHead const& head, Component& component, unsigned depth) override;
    void headTooLong() override { limit(Limit::Size, "a header block is too long"); }
    void limit(Limit kind, char const* text);

    ScanPlan const& m_plan;
    ResultSet& m_results;
    ReadBuffer& m_buffer;
    std::vector<Active> m_engines;
    Component* m_object = nullptr;
    std::vector<Scan> m_objectScans;
    std::unique_ptr<MimeWalker> m_walker;     // null: no message
    std::unique_ptr<EntityBody> m_plainBody;  // of an object that is no message
    std::optional<Limit> m_limit;
    std::string m_limitText;
    std::uint64_t m_read = 0;
    std::uint64_t m_decoded = 0;
    std::size_t m_parts = 0;
    bool m_doubtful = false;
};

}  // namespace policyloader
