#include <policyloader/engines/Inspection.h>

#include <algorithm>
#include <cstring>

#include <strings.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/Salvage.h>
#include <policyloader/engines/UuSpotter.h>

namespace policyloader {
namespace {

bool LooksLikeMessage(std::string_view block) {
    auto const first = block.substr(0, block.find('\n'));
    bool const blank = first.empty() || first.front() == ' ' || first.front() == '\t' || first.front() == '\r';
    return blank || LooksLikeHeader(first);
}

bool MentionsContentField(std::string_view block) {
    constexpr std::string_view wanted = "\ncontent-t";
    for (std::size_t at = block.find('\n'); at != std::string_view::npos; at = block.find('\n', at + 1))
        if (block.size() - at >= wanted.size() && strncasecmp(block.data() + at, wanted.data(), wanted.size()) == 0)
            return true;
    return false;
}

Component::Kind KindOf(EntityHead const& head) {
    if (head.ofMessage) return Component::Message;
    return head.multipart ? Component::Multipart : Component::Part;
}

}  // namespace

// The content of one entity: undone from each encoding that it declares, shown to the engines, and walked again where
// it holds a message.
class Inspection::Body final : public EntityBody {
public:
    Body(Inspection& inspection, EntityHead const& head, Component& component, unsigned depth)
        : m_inspection(inspection) {
        auto encodings = head.encodings;
        // A reader that knows nothing of this encoding finds it in the text all the same, and each file of several.
        auto const has = [&](TransferEncoding one) {
            return std::find(encodings.begin(), encodings.end(), one) != encodings.end();
        };
        if (has(TransferEncoding::UUEncode) && !has(TransferEncoding::Identity))
            encodings.push_back(TransferEncoding::Identity);
        m_chains.reserve(encodings.size());
        for (auto const encoding : encodings) {
            auto& chain = m_chains.emplace_back(encoding, encoding != TransferEncoding::Identity);
            chain.scans = inspection.openAll(head, component);
            bool const walks = head.message || (head.multipart && chain.encoded);
            if (walks) chain.nested = std::make_unique<MimeWalker>(inspection, &component, depth + 1, false);
            if (walks && !head.message) chain.nested->feed(head.typeFields());
            if (walks && chain.encoded) chain.salvage = inspection.salvageOf(component);
            if (!walks) chain.uuencoded = inspection.spotterOf(component);
        }
    }

    void data(std::string_view piece) override {
        for (auto& chain : m_chains) {
            if (m_inspection.m_limit) return;
            take(chain, chain.decoder.decode(piece));
        }
    }

    void end() override {
        for (auto& chain : m_chains) {
            if (m_inspection.m_limit) return;
            take(chain, chain.decoder.finish());
            m_inspection.endAll(chain.scans);
            if (chain.nested) chain.nested->finish();
            if (chain.salvage) chain.salvage->finish();
            if (chain.uuencoded) chain.uuencoded->finish();
            m_inspection.m_doubtful |= chain.decoder.odd() || (chain.nested && chain.nested->doubtful());
        }
    }

private:
    struct Chain {
        Chain(TransferEncoding encoding, bool isEncoded) : decoder(encoding), encoded(isEncoded) {}
        TransferDecoder decoder;
        bool encoded;
        std::vector<Scan> scans;
        std::unique_ptr<MimeWalker> nested;
        std::unique_ptr<Salvage> salvage;  // of a message that cannot be read again, as it is encoded as a whole
        std::unique_ptr<UuSpotter> uuencoded;
    };

    void take(Chain& chain, std::string_view content) {
        if (content.empty()) return;
        if (chain.encoded) m_inspection.count(content.size());
        m_inspection.sendAll(chain.scans, content);
        if (chain.nested && !m_inspection.m_limit) chain.nested->feed(content);
        if (chain.salvage && !m_inspection.m_limit) chain.salvage->feed(content);
        if (chain.uuencoded && !m_inspection.m_limit) chain.uuencoded->feed(content);
    }

    Inspection& m_inspection;
    std::vector<Chain> m_chains;
};

Inspection::Inspection(ScanPlan const& plan, std::vector<Engine*> const& engines, ResultSet& results,
                       ReadBuffer& buffer)
    : m_plan(plan), m_results(results), m_buffer(buffer) {
    for (auto* const engine : engines) m_engines.push_back({engine});
}

Inspection::~Inspection() = default;

template <class Call>
void Inspection::guarded(Active& active, Call&& call) {
    if (active.failed) return;
    try {
        call(*active.engine);
    } catch (...) {
        active.failed = true;
        m_results.addFailure(active.engine->name(), active.engine->type());
    }
}

std::vector<Inspection::Scan> Inspection::openAll(EntityHead const& head, Component& component) {
    std::vector<Scan> scans;
    for (auto& active : m_engines) {
        guarded(active, [&](Engine& engine) {
            if (auto scan = engine.open(head, component)) scans.push_back({&active, std::move(scan)});
        });
    }
    return scans;
}

void Inspection::sendAll(std::vector<Scan>& scans, std::string_view piece) {
    for (auto& one : scans) guarded(*one.active, [&](Engine&) { one.scan->data(piece); });
}

void Inspection::endAll(std::vector<Scan>& scans) {
    for (auto& one : scans) guarded(*one.active, [&](Engine&) { one.scan->end(); });
}

void Inspection::limit(Limit kind, char const* text) {
    if (m_limit) return;
    m_limit = kind;
    m_limitText = text;
}

void Inspection::count(std::uint64_t decoded) {
    m_decoded += decoded;
    bool const over =
        m_decoded > kExpansionFloor && m_decoded / std::max<std::uint64_t>(m_read, 1) >= m_plan.limits.expansion;
    if (over) limit(Limit::Size, "unpacks to too much");
}

Component* Inspection::entity(EntityHead const& head, Component* parent, unsigned depth) {
    if (depth > m_plan.limits.depth) limit(Limit::Depth, "nested too deep");
    if (++m_parts > m_plan.limits.parts) limit(Limit::Depth, "too many parts");
    if (head.fragment) limit(Limit::Depth, "a fragment of a message, which nobody can judge without the others");
    if (m_limit) return nullptr;
    auto& component = m_results.components().add(parent, KindOf(head), head.fileName);
    for (auto& active : m_engines) guarded(active, [&](Engine& engine) { engine.head(head, component); });
    return &component;
}

std::unique_ptr<EntityBody> Inspection::body(EntityHead const& head, Component& component, unsigned depth) {
    return std::make_unique<Body>(*this, head, component, depth);
}

// A scan of raw bytes by one engine, whose failures put it out as anywhere.
class Inspection::RawScan final : public ComponentScan {
public:
    RawScan(Inspection& inspection, Scan scan) : m_inspection(inspection), m_scan(std::move(scan)) {}
    void data(std::string_view piece) override {
        m_inspection.guarded(*m_scan.active, [&](Engine&) { m_scan.scan->data(piece); });
    }
    void end() override {
        m_inspection.guarded(*m_scan.active, [&](Engine&) { m_scan.scan->end(); });
    }

private:
    Inspection& m_inspection;
    Scan m_scan;
};

std::unique_ptr<Salvage> Inspection::salvageOf(Component& component) {
    return std::make_unique<Salvage>([this, &component] {
        Salvage::Scans scans;
        for (auto& active : m_engines) {
            guarded(active, [&](Engine& engine) {
                if (auto scan = engine.object(component))
                    scans.push_back(std::make_unique<RawScan>(*this, Scan{&active, std::move(scan)}));
            });
        }
        return scans;
    });
}

std::unique_ptr<UuSpotter> Inspection::spotterOf(Component& component) {
    auto const scans = std::make_shared<std::vector<Scan>>();
    return std::make_unique<UuSpotter>(UuSpotter::Sink{
        [this, scans, head = EntityHead::ofPlainObject(), &component] { *scans = openAll(head, component); },
        [this, scans](std::string_view bytes) {
            count(bytes.size());
            sendAll(*scans, bytes);
        },
        [this, scans] {
            endAll(*scans);
            scans->clear();
        }});
}

void Inspection::begin() {
    m_object = &m_results.components().add(nullptr, Component::Object, "");
    for (auto& active : m_engines) {
        bool works = false;
        guarded(active, [&](Engine& engine) { works = engine.begin(m_plan); });
        active.failed |= !works;
    }
    for (auto& active : m_engines) {
        guarded(active, [&](Engine& engine) {
            if (auto scan = engine.object(*m_object)) m_objectScans.push_back({&active, std::move(scan)});
        });
    }
}

void Inspection::firstBlock(std::string_view block) {
    if (!m_plan.unpack) return;
    if (LooksLikeMessage(block)) {
        m_walker = std::make_unique<MimeWalker>(*this, m_object, 0, true);
        return;
    }
    m_doubtful = MentionsContentField(block);
    m_plainBody = std::make_unique<Body>(*this, EntityHead::ofPlainObject(), *m_object, 0);
}

void Inspection::block(std::string_view block) {
    if (m_read == 0) firstBlock(block);
    m_read += block.size();
    sendAll(m_objectScans, block);
    if (m_walker && !m_limit) m_walker->feed(block);
    if (m_plainBody) m_plainBody->data(block);
}

void Inspection::finish() {
    endAll(m_objectScans);
    if (m_walker && !m_limit) m_walker->finish();
    if (m_plainBody) m_plainBody->end();
    m_doubtful |= m_walker && m_walker->doubtful();
}

bool Inspection::overSize(eFabric::IStreamTransport& in) const {
    auto const most = m_plan.limits.scanBytes;
    return most > 0 && m_plan.unpack && (in.CanReportLength() ? in.size() > most : m_read > most);
}

// The first block holds a whole line at least, where the object has one: its kind is told by that.
std::size_t Inspection::readBlock(eFabric::IStreamTransport& in, bool first) {
    auto* const room = reinterpret_cast<unsigned char*>(m_buffer.bytes.data());
    std::size_t filled = 0;
    do {
        std::size_t const got = in.read(room + filled, kBlockBytes - filled);
        if (got == 0 || got > kBlockBytes - filled) break;
        filled += got;
    } while (first && filled < kBlockBytes && !std::memchr(room, '\n', filled));
    return filled;
}

template <class Take>
void Inspection::readAll(eFabric::IStreamTransport& in, Take&& take) {
    m_buffer.bytes.resize(kBlockBytes);
    if (in.CanSeekTell() && !in.seek(0)) throw EngineFailure(FailureId::Read, "the object cannot be read again");
    std::uint64_t total = 0;
    while (std::size_t const got = readBlock(in, total == 0)) {
        total += got;
        take(std::string_view(m_buffer.bytes.data(), got));
        if (overSize(in)) return;
    }
    if (in.CanReportLength() && total != in.size())
        throw EngineFailure(FailureId::Read, "the object ends early: " + std::to_string(total) + " of " +
                                                 std::to_string(in.size()) + " bytes");
}

// The second look ends where the first one did: its scans belong to the object itself.
void Inspection::salvage(eFabric::IStreamTransport& in) {
    if (!in.CanSeekTell()) throw EngineFailure(FailureId::Read, "the object cannot be read again");
    auto const look = salvageOf(*m_object);
    readAll(in, [&](std::string_view block) { look->feed(block); });
    look->finish();
}

void Inspection::report() {
    if (m_limit) {
        auto& result = m_results.add(kFormatName, EngineType::Format);
        result.setDescription(m_limitText);
        result.setLimit(*m_limit == Limit::Size ? L"SIZE" : L"DEPTH");
        result.setAction(m_plan.limits.action);
    }
    for (auto& active : m_engines) guarded(active, [&](Engine& engine) { engine.report(m_results); });
}

void Inspection::run(eFabric::IStreamTransport& in) {
    in.SetRecommendedBase(eFabric::Base_Byte);
    begin();
    bool const tooLong = in.CanReportLength() && overSize(in);
    if (!tooLong) readAll(in, [&](std::string_view bytes) { block(bytes); });
    if (overSize(in)) limit(Limit::Size, "larger than is scanned");
    finish();
    if (m_doubtful && m_plan.unpack && !m_limit && !m_objectScans.empty()) salvage(in);
    report();
}

}  // namespace policyloader
