#include <policyloader/engines/Inspection.h>

#include <algorithm>
#include <cstring>

#include <strings.h>

#include <KORtk/Text.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/Salvage.h>
#include <policyloader/engines/TextCase.h>
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

bool HoldsMail(std::string_view begin, std::string_view name) {
    for (std::string_view const end : {".eml", ".mht", ".mhtml", ".mbox"})
        if (TextEnds(name, end)) return true;
    if (!LooksLikeHeader(begin.substr(0, begin.find('\n')))) return false;
    return MentionsContentField(std::string("\n").append(begin));
}

// What a reader takes a file for, by its first bytes and its name.
EntityHead HeadOfFile(std::string_view begin, std::string const& name) {
    auto head = EntityHead::ofPlainObject(name);
    head.message = HoldsMail(begin, name);
    bool const wide = begin.substr(0, 2) == "\xFF\xFE" || begin.substr(0, 2) == "\xFE\xFF";
    bool const binary = !wide && begin.find('\0') != std::string_view::npos;
    if (binary) head.type = "application", head.subtype = "octet-stream";
    if (!binary && (begin.substr(0, 1) == "<" || TextEnds(name, ".html") || TextEnds(name, ".htm")))
        head.subtype = "html";
    return head;
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
    // `again`: its bytes stand in the object as they are, so that the whole can be read a second time.
    Body(Inspection& inspection, EntityHead const& head, Component& component, unsigned depth, bool again = true)
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
            if (walks && (chain.encoded || !again)) chain.salvage = inspection.salvageOf(component, depth);
            if (!walks) chain.uuencoded = inspection.spotterOf(component, depth);
            auto const watch = walks ? Unpacker::Watch::AtStart : Unpacker::Watch::Everywhere;
            chain.archive = std::make_unique<Unpacker>(inspection, component, depth, watch);
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
            chain.archive->finish();
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
        std::unique_ptr<Unpacker> archive;
    };

    void take(Chain& chain, std::string_view content) {
        if (content.empty()) return;
        if (chain.encoded) m_inspection.count(content.size());
        m_inspection.sendAll(chain.scans, content);
        if (chain.nested && !m_inspection.m_limit) chain.nested->feed(content);
        if (chain.salvage && !m_inspection.m_limit) chain.salvage->feed(content);
        if (chain.uuencoded && !m_inspection.m_limit) chain.uuencoded->feed(content);
        if (!m_inspection.m_limit) chain.archive->feed(content);
    }

    Inspection& m_inspection;
    std::vector<Chain> m_chains;
};

// The content of an entry of an archive. Its first bytes tell what it is taken for.
class Inspection::EntryBody final : public EntityBody {
public:
    EntryBody(Inspection& inspection, Component& entry, unsigned depth)
        : m_inspection(inspection), m_entry(entry), m_depth(depth) {}
    void data(std::string_view piece) override {
        if (m_body) return m_body->data(piece);
        m_begin.append(piece);
        if (m_begin.size() >= kSniffBytes) start();
    }
    void end() override {
        if (!m_body) start();
        if (!m_inspection.isOver()) m_body->end();
    }

private:
    static constexpr std::size_t kSniffBytes = 4096;

    void start() {
        auto const* const wide = m_entry.GetComponentName();
        auto const head = HeadOfFile(m_begin, wide ? KORtk::Utf8Array(wide).str() : std::string());
        m_body = std::make_unique<Body>(m_inspection, head, m_entry, m_depth, false);
        m_body->data(m_begin);
        m_begin = std::string();
    }

    Inspection& m_inspection;
    Component& m_entry;
    unsigned m_depth;
    std::string m_begin;
    std::unique_ptr<Body> m_body;
};

// Archives in a content that engines see raw.
class Inspection::UnpackScan final : public ComponentScan {
public:
    UnpackScan(Inspection& inspection, Component& component, unsigned depth)
        : m_unpacker(inspection, component, depth, Unpacker::Watch::Everywhere) {}
    void data(std::string_view piece) override { m_unpacker.feed(piece); }
    void end() override { m_unpacker.finish(); }

private:
    Unpacker m_unpacker;
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

bool Inspection::isTooMuch(std::uint64_t decoded) const {
    auto const whole = std::max<std::uint64_t>({m_read, m_size, 1});
    return decoded > kExpansionFloor && decoded / whole >= m_plan.limits.expansion;
}

void Inspection::count(std::uint64_t decoded) {
    m_decoded += decoded;
    if (isTooMuch(m_decoded)) limit(Limit::Size, "unpacks to too much");
}

// What is declared is believed: nobody unpacks more than that, and who declares too much has hidden something.
bool Inspection::expect(std::uint64_t bytes) {
    if (bytes > ~m_decoded || isTooMuch(m_decoded + bytes)) limit(Limit::Size, "would unpack to too much");
    return !isOver();
}

bool Inspection::expectEntries(std::uint64_t entries) {
    if (entries > m_plan.limits.parts) limit(Limit::Depth, "too many entries in an archive");
    return !isOver();
}

void Inspection::unreadable(Component& archive, Unreadable why, std::string const& text) {
    for (auto& active : m_engines) guarded(active, [&](Engine& engine) { engine.unreadable(archive, why, text); });
}

Component* Inspection::entity(EntityHead const& head, Component* parent, unsigned depth) {
    if (head.fragment) limit(Limit::Depth, "a fragment of a message, which nobody can judge without the others");
    return addPart(head, parent, KindOf(head), depth);
}

Component* Inspection::entry(std::string const& name, Component& archive, unsigned depth) {
    return addPart(EntityHead::ofPlainObject(name), &archive, Component::Entry, depth);
}

std::unique_ptr<EntityBody> Inspection::entryBody(Component& entry, unsigned depth) {
    return std::make_unique<EntryBody>(*this, entry, depth);
}

Component* Inspection::addPart(EntityHead const& head, Component* parent, Component::Kind kind, unsigned depth) {
    if (depth > m_plan.limits.depth) limit(Limit::Depth, "nested too deep");
    if (++m_parts > m_plan.limits.parts) limit(Limit::Depth, "too many parts");
    if (m_limit) return nullptr;
    auto& component = m_results.components().add(parent, kind, head.fileName);
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

std::unique_ptr<Salvage> Inspection::salvageOf(Component& component, unsigned depth) {
    return std::make_unique<Salvage>([this, &component, depth] {
        Salvage::Scans scans;
        for (auto& active : m_engines) {
            guarded(active, [&](Engine& engine) {
                if (auto scan = engine.object(component))
                    scans.push_back(std::make_unique<RawScan>(*this, Scan{&active, std::move(scan)}));
            });
        }
        scans.push_back(std::make_unique<UnpackScan>(*this, component, depth));
        return scans;
    });
}

std::unique_ptr<UuSpotter> Inspection::spotterOf(Component& component, unsigned depth) {
    auto const scans = std::make_shared<std::vector<Scan>>();
    auto const archive = std::make_shared<std::optional<Unpacker>>();
    return std::make_unique<UuSpotter>(
        UuSpotter::Sink{[this, scans, archive, &component, depth](std::string_view name) {
                            *scans = openAll(EntityHead::ofPlainObject(std::string(name)), component);
                            archive->emplace(*this, component, depth, Unpacker::Watch::Everywhere);
                        },
                        [this, scans, archive](std::string_view bytes) {
                            count(bytes.size());
                            sendAll(*scans, bytes);
                            if (!isOver()) (*archive)->feed(bytes);
                        },
                        [this, scans, archive] {
                            endAll(*scans);
                            scans->clear();
                            (*archive)->finish();
                            archive->reset();
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
        m_archive = std::make_unique<Unpacker>(*this, *m_object, 0, Unpacker::Watch::AtStart);
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
    if (m_archive && !m_limit) m_archive->feed(block);
    if (m_plainBody) m_plainBody->data(block);
}

void Inspection::finish() {
    endAll(m_objectScans);
    if (m_walker && !m_limit) m_walker->finish();
    if (m_archive) m_archive->finish();
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
    auto const look = salvageOf(*m_object, 0);
    readAll(in, [&](std::string_view block) { look->feed(block); });
    look->finish();
}

void Inspection::report() {
    // A limit comes last: of equal strength a finding says more.
    for (auto& active : m_engines) guarded(active, [&](Engine& engine) { engine.report(m_results); });
    if (!m_limit) return;
    auto& result = m_results.add(kFormatName, EngineType::Format);
    result.setDescription(m_limitText);
    result.setLimit(*m_limit == Limit::Size ? L"SIZE" : L"DEPTH");
    result.setAction(m_plan.limits.action);
}

void Inspection::run(eFabric::IStreamTransport& in) {
    in.SetRecommendedBase(eFabric::Base_Byte);
    begin();
    if (in.CanReportLength()) m_size = in.size();
    bool const tooLong = in.CanReportLength() && overSize(in);
    if (!tooLong) readAll(in, [&](std::string_view bytes) { block(bytes); });
    if (overSize(in)) limit(Limit::Size, "larger than is scanned");
    finish();
    if (m_doubtful && m_plan.unpack && !m_limit && !m_objectScans.empty()) salvage(in);
    report();
}

}  // namespace policyloader
