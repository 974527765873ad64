// Mails: whatever they hold, the walk is the same in whatever pieces they come, each content that begins ends, and its
// limits hold; and the test virus in a well-formed part is found, or the mail is not clean for another reason, whatever
// stands before it and behind it.
#include <algorithm>
#include <memory>
#include <string>

#include <policyloader/engines/EngineHost.h>
#include <policyloader/engines/MemoryTransport.h>
#include <policyloader/engines/MimeWalker.h>
#include <policyloader/engines/TransferDecoder.h>
#include <policyloader/store/ErrorState.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreSnapshot.h>

#include "fuzz/Input.h"

using namespace policyloader;
using velt_fuzz::Input;
using velt_fuzz::Require;

namespace {

constexpr std::size_t kMostParts = 200;
constexpr unsigned kDeepest = 6;

// --- the walk alone ---

class Walk final : public EntitySink {
public:
    void Take(std::string const& mail, std::size_t piece) {
        MimeWalker walker(*this, &m_tree.add(nullptr, Component::Object, ""), 0, true);
        for (std::size_t at = 0; at < mail.size(); at += piece) walker.feed(std::string_view(mail).substr(at, piece));
        walker.finish();
        m_told += walker.doubtful() ? "doubtful\n" : "";
        Require(m_open == 0, "each content ends");
        CheckRanges(*m_tree.root(), mail.size());
    }
    std::string const& told() const { return m_told; }

private:
    // A message within is walked again.
    class Body final : public EntityBody {
    public:
        Body(Walk& walk, EntityHead const& head, Component& component, unsigned depth)
            : m_walk(walk), m_decoder(head.encodings.front()) {
            ++m_walk.m_open;
            if (head.message) m_nested = std::make_unique<MimeWalker>(walk, &component, depth + 1, false);
        }
        ~Body() override { --m_walk.m_open; }
        void data(std::string_view piece) override {
            Require(!m_ended, "nothing comes behind the end");
            Take(m_decoder.decode(piece));
        }
        void end() override {
            Require(!m_ended, "a content ends once");
            m_ended = true;
            Take(m_decoder.finish());
            if (m_nested) m_nested->finish();
            // Blank lines in front of the first part count only where text follows them in the same piece.
            m_walk.m_told +=
                m_content.substr(std::min(m_content.find_first_not_of(" \t\r\n\f\v"), m_content.size())) + "\n--\n";
        }

    private:
        void Take(std::string_view content) {
            m_content += content;
            if (m_nested) m_nested->feed(content);
        }

        Walk& m_walk;
        TransferDecoder m_decoder;
        std::unique_ptr<MimeWalker> m_nested;
        std::string m_content;
        bool m_ended = false;
    };

    Component* entity(EntityHead const& head, Component* parent, unsigned depth) override {
        Require(!m_over, "nothing follows a limit");
        Require(!head.encodings.empty(), "a head has an encoding");
        m_told += head.type + "/" + head.subtype + " " + head.fileName + " " + std::to_string(depth) + "\n";
        m_over = depth > kDeepest || m_tree.size() > kMostParts;
        auto const kind = head.multipart ? Component::Multipart : Component::Part;
        return m_over ? nullptr : &m_tree.add(parent, kind, head.fileName);
    }
    std::unique_ptr<EntityBody> body(EntityHead const& head, Component& component, unsigned depth) override {
        return std::make_unique<Body>(*this, head, component, depth);
    }
    void headTooLong() override { m_over = true; }

    void CheckRanges(Component const& component, std::size_t size) {
        auto const& range = component.range();
        Require(!range.known ||
                    (range.headBegin <= range.bodyBegin && range.bodyBegin <= range.bodyEnd && range.bodyEnd <= size),
                "a range is within the mail");
        long position = 0;
        for (auto const* child = component.GetFirstChild(position); child; child = component.GetNextChild(position))
            CheckRanges(static_cast<Component const&>(*child), size);
    }

    ComponentTree m_tree;
    std::string m_told;
    unsigned m_open = 0;
    bool m_over = false;
};

void WalkAlike(std::string const& mail, std::size_t piece) {
    Walk whole, cut;
    whole.Take(mail, mail.size() + 1);
    cut.Take(mail, piece);
    Require(whole.told() == cut.told(), "pieces do not change what is found");
}

// --- the whole scan ---

class Engines {
public:
    Engines() : m_store(ParseStore("fuzz", kRules)) {
        ErrorState error;
        Require(m_host.initialise("/nonexistent", error), "the engines start");
        m_thread.reset(m_host.createScanThread(*m_store, InternPool::process().intern("content_in")));
    }
    bool FindsSomething(std::string const& mail, std::size_t piece) {
        MemoryTransport in(mail);
        in.mostInOneRead = piece;
        ObjectHandle const object(m_thread->NewScanObject(in, InternedString()));
        return object->Scan(nullptr, nullptr)->IsTriggered();
    }

private:
    static constexpr char kRules[] =
        "<rules><policy name=\"content_in\"><settings section=\"KORFormatScanner\"><set name=\"MaxParts\">200</set>"
        "<set name=\"MaxExpansion\">1</set></settings></policy></rules>";

    std::unique_ptr<StoreSnapshot const> m_store;
    EngineHost m_host;
    ThreadHandle m_thread;
};

// The test file of the trade in base64, which no scanner takes for it.
constexpr char kVirus[] =
    "WDVPIVAlQEFQWzRcUFpYNTQoUF4pN0NDKTd9JEVJQ0FSLVNUQU5EQVJELUFOVElWSVJVUy1URVNU\r\nLUZJTEUhJEgrSCo=\r\n";

void FindWhatIsPlanted(Engines& engines, std::string const& before, std::string const& behind, std::size_t piece) {
    if (before.find("planted") != std::string::npos) return;  // it may end the outer multipart
    std::string const mail =
        "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=planted\r\n\r\n--planted\r\n" + before +
        "\r\n--planted\r\nContent-Type: application/octet-stream\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
        kVirus + "--planted--\r\n" + behind;
    Require(engines.FindsSomething(mail, piece), "the virus in a part is found");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size > 65536) return 0;
    static auto& engines = *new Engines;  // with it the MIME library is ready
    Input input(data, size);
    std::size_t const piece = input.Byte() + 1;
    if (input.Byte() % 2 == 0) {
        WalkAlike(input.Rest(), piece);
    } else {
        std::size_t const half = size / 2;
        std::string const before = input.Text(half);
        FindWhatIsPlanted(engines, before, input.Rest(), piece);
    }
    return 0;
}
