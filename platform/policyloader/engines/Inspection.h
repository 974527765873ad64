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
#include <policyloader/engines/Unpacker.h>

namespace policyloader {

class Salvage;
class UuSpotter;

class Inspection final : public EntitySink, public UnpackSink {
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
    class EntryBody;
    class UnpackScan;
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
    std::unique_ptr<Salvage> salvageOf(Component& component, unsigned depth);
    std::unique_ptr<UuSpotter> spotterOf(Component& component, unsigned depth);
    void salvage(eFabric::IStreamTransport& in);
    void report();
    bool overSize(eFabric::IStreamTransport& in) const;
    std::size_t readBlock(eFabric::IStreamTransport& in, bool first);
    template <class Take>
    void readAll(eFabric::IStreamTransport& in, Take&& take);
    bool isTooMuch(std::uint64_t decoded) const;
    void count(std::uint64_t decoded);
    Component* addPart(EntityHead const& head, Component* parent, Component::Kind kind, unsigned depth);

    Component* entity(EntityHead const& head, Component* parent, unsigned depth) override;
    std::unique_ptr<EntityBody> body(EntityHead const& head, Component& component, unsigned depth) override;
    void headTooLong() override { limit(Limit::Size, "a header block is too long"); }
    Component* entry(std::string const& name, Component& archive, unsigned depth) override;
    std::unique_ptr<EntityBody> entryBody(Component& entry, unsigned depth) override;
    bool expect(std::uint64_t bytes) override;
    bool expectEntries(std::uint64_t entries) override;
    void unpacked(std::uint64_t bytes) override { count(bytes); }
    void unreadable(Component& archive, Unreadable why, std::string const& text) override;
    bool isOver() const override { return m_limit.has_value(); }
    void limit(Limit kind, char const* text);

    ScanPlan const& m_plan;
    ResultSet& m_results;
    ReadBuffer& m_buffer;
    std::vector<Active> m_engines;
    Component* m_object = nullptr;
    std::vector<Scan> m_objectScans;
    std::unique_ptr<MimeWalker> m_walker;     // null: no message
    std::unique_ptr<EntityBody> m_plainBody;  // of an object that is no message
    std::unique_ptr<Unpacker> m_archive;      // of one that may be both
    std::uint64_t m_size = 0;                 // of the object, where it is known before the end
    std::optional<Limit> m_limit;
    std::string m_limitText;
    std::uint64_t m_read = 0;
    std::uint64_t m_decoded = 0;
    std::size_t m_parts = 0;
    bool m_doubtful = false;
};

}  // namespace policyloader
