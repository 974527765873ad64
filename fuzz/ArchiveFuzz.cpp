// Objects that may be archives: whatever they hold, the walk ends, within its limits, and names that it gives are safe.
#include <string>

#include <policyloader/engines/ArchiveReader.h>
#include <policyloader/engines/MimeWalker.h>
#include <policyloader/engines/TempObject.h>
#include <policyloader/engines/Unpacker.h>

#include "fuzz/Input.h"

using namespace policyloader;
using velt_fuzz::Require;

namespace {

constexpr std::uint64_t kMostBytes = 4u << 20;
constexpr std::size_t kMostEntries = 200;
constexpr unsigned kDeepest = 6;

bool IsSafe(std::string const& name) {
    if (name.size() > 255 || (!name.empty() && (name.front() == '/' || name.back() == '/'))) return false;
    std::string const steps = "/" + name + "/";
    if (!name.empty() && steps.find("//") != std::string::npos) return false;
    return steps.find("/../") == std::string::npos && steps.find('\\') == std::string::npos &&
           steps.find('\0') == std::string::npos && steps.find('\n') == std::string::npos;
}

// Takes archives in archives to pieces, and holds the walk to what it may do.
class Walk final : public UnpackSink {
public:
    void Take(std::string const& object, std::size_t piece, Unpacker::Watch watch) {
        auto& root = m_tree.add(nullptr, Component::Object, "");
        Unpacker unpacker(*this, root, 0, watch);
        for (std::size_t at = 0; at < object.size(); at += piece)
            unpacker.feed(std::string_view(object).substr(at, piece));
        unpacker.finish();
    }
    std::string const& told() const { return m_told; }

private:
    class Body final : public EntityBody {
    public:
        Body(Walk& walk, Component& entry, unsigned depth)
            : m_walk(walk), m_unpacker(walk, entry, depth, Unpacker::Watch::Everywhere) {}
        void data(std::string_view piece) override {
            Require(!m_walk.m_over && !piece.empty(), "an entry gives bytes while the walk goes on");
            m_unpacker.feed(piece);
        }
        void end() override { m_unpacker.finish(); }

    private:
        Walk& m_walk;
        Unpacker m_unpacker;
    };

    Component* entry(std::string const& name, Component& archive, unsigned depth) override {
        Require(!m_over, "nothing follows a limit");
        Require(IsSafe(name), "a name is safe");
        Require(depth == archive.depth() + 1, "an entry is one level below its archive");
        m_over |= depth > kDeepest || ++m_entries > kMostEntries;
        m_told += name + '\n';
        return m_over ? nullptr : &m_tree.add(&archive, Component::Entry, name);
    }
    std::unique_ptr<EntityBody> entryBody(Component& entry, unsigned depth) override {
        return std::make_unique<Body>(*this, entry, depth);
    }
    bool expect(std::uint64_t bytes) override { return !(m_over |= bytes > kMostBytes); }
    bool expectEntries(std::uint64_t entries) override { return !(m_over |= entries > kMostEntries); }
    void unpacked(std::uint64_t bytes) override { m_over |= (m_bytes += bytes) > kMostBytes; }
    void unreadable(Component&, Unreadable why, std::string const&) override {
        m_told += why == Unreadable::Encrypted ? "encrypted\n" : "broken\n";
    }
    bool isOver() const override { return m_over; }

    ComponentTree m_tree;
    std::uint64_t m_bytes = 0;
    std::size_t m_entries = 0;
    std::string m_told;
    bool m_over = false;
};

}  // namespace

// One byte tells the pieces that the rest comes in: the walk must not depend on them.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    std::size_t const piece = input.Byte() + 1;
    std::string const object = input.Rest();
    Walk whole, cut;
    whole.Take(object, object.size() + 1, Unpacker::Watch::Everywhere);
    cut.Take(object, piece, Unpacker::Watch::Everywhere);
    Require(whole.told() == cut.told(), "pieces do not change what is found");
    return 0;
}
