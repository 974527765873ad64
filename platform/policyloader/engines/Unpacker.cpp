#include <policyloader/engines/Unpacker.h>

#include <algorithm>

#include <KORtk/Text.h>

#include <policyloader/engines/MimeWalker.h>
#include <policyloader/engines/SevenZipHeader.h>
#include <policyloader/engines/TextCase.h>

namespace policyloader {
namespace {

constexpr std::size_t kMemoryBytes = 256u << 10;
constexpr std::string_view kDirectoryMark("PK\x01\x02", 4);

// A compressed file and what is in it, by their names' ends.
struct Ending {
    std::string_view packed;
    std::string_view plain;
};
constexpr Ending kEndings[] = {{".tgz", ".tar"},  {".tbz2", ".tar"}, {".tbz", ".tar"}, {".txz", ".tar"},
                               {".tzst", ".tar"}, {".gz", ""},       {".bz2", ""},     {".xz", ""},
                               {".lzma", ""},     {".lz", ""},       {".zst", ""},     {".lz4", ""},
                               {".svgz", ".svg"}, {".z", ""}};

// The readers' memory is that of the entries that a directory lists, before any is looked at.
std::uint64_t CountMarks(TempObject const& copy, std::string_view mark) {
    MarkCount count(mark);
    copy.readAll([&](std::string_view block) { count.feed(block); });
    return count.value();
}

// Archives within one another keep their dictionaries at once. Nobody packs so often by the methods whose are large.
class MemoryTurn {
public:
    explicit MemoryTurn(ArchiveKind kind) : m_counts(TakesMuchMemory(kind)) { s_open += m_counts; }
    ~MemoryTurn() { s_open -= m_counts; }
    MemoryTurn(MemoryTurn const&) = delete;
    MemoryTurn& operator=(MemoryTurn const&) = delete;
    bool tooMany() const { return s_open > kMostAtOnce; }

private:
    static constexpr unsigned kMostAtOnce = 3;
    static thread_local unsigned s_open;  // of the scan of this thread
    unsigned const m_counts;
};

thread_local unsigned MemoryTurn::s_open = 0;

}  // namespace

Unpacker::Unpacker(UnpackSink& sink, Component& component, unsigned depth, Watch watch)
    : m_sink(sink), m_component(component), m_depth(depth), m_watch(watch) {}

Unpacker::~Unpacker() = default;

void Unpacker::feed(std::string_view piece) {
    if (m_copy) return keep(piece);
    if (m_decided) return search(piece);
    std::size_t const lacking = kArchiveHeadBytes - m_head.size();
    m_head.append(piece.substr(0, lacking));
    if (m_head.size() < kArchiveHeadBytes) return;
    decide();
    feed(piece.substr(std::min(lacking, piece.size())));
}

void Unpacker::decide() {
    m_decided = true;
    m_sign = ArchiveAtStart(m_head);
    std::string head;
    head.swap(m_head);
    if (m_sign.kind != ArchiveKind::None) return keep(head);
    search(head);
}

// Looks for a mark in what comes by; what follows the first one is kept.
void Unpacker::search(std::string_view piece) {
    if (m_watch == Watch::AtStart || piece.empty()) return;
    std::size_t const held = m_head.size();
    std::string seam = m_head;  // a mark that two pieces share
    seam.append(piece.substr(0, kLongestMark - 1));
    std::size_t first = std::string_view::npos;
    for (auto const& mark : kArchiveMarks) {
        first = std::min(first, FindMark(mark, seam));
        std::size_t const at = FindMark(mark, piece);
        if (at != std::string_view::npos) first = std::min(first, held + at);
    }
    if (first == std::string_view::npos) {
        std::string tail = piece.size() < kLongestMark ? m_head + std::string(piece) : std::string(piece);
        m_head = tail.substr(tail.size() - std::min(tail.size(), kLongestMark - 1));
        return;
    }
    std::string const before = first < held ? m_head.substr(first) : std::string();
    m_head.clear();
    keep(before);
    keep(piece.substr(first < held ? 0 : first - held));
}

void Unpacker::keep(std::string_view piece) {
    if (!m_copy) m_copy = std::make_unique<TempObject>(kMemoryBytes);
    m_copy->append(piece);
}

void Unpacker::finish() {
    if (!m_decided) decide();
    if (!m_copy || m_sink.isOver()) return;
    if (m_sign.kind != ArchiveKind::None) takeStart();
    // Some readers go by the end of a file, whatever it begins with.
    if (!m_sink.isOver()) takeEmbedded(m_sign.kind == ArchiveKind::None ? Telling::IfAny : Telling::Never);
    m_copy.reset();
}

void Unpacker::takeStart() {
    if (m_sign.kind == ArchiveKind::Zip) return takeZip();
    MemoryTurn const turn(m_sign.kind);
    if (turn.tooMany()) return void(m_sink.expect(UINT64_MAX));
    ArchiveReader reader(*m_copy, 0, m_sign.kind, ArchiveReader::Order::Usual);
    walk(reader, m_sign.certain ? Telling::Always : Telling::IfAny);
}

// By its directory; and where that leaves something out, as it stands, which some readers fall back to. What one reader
// takes for a link or a folder is a file to others.
void Unpacker::takeZip() {
    if (tooManyEntries()) return;
    ArchiveReader listed(*m_copy, 0, ArchiveKind::Zip, ArchiveReader::Order::Usual);
    std::size_t const count = walk(listed, Telling::Always);
    auto const known = count + m_zipsWithin.value();
    if (m_sink.isOver() || (!m_doubtful && known >= CountMarks(*m_copy, kZipMark))) return;
    ArchiveReader standing(*m_copy, 0, ArchiveKind::Zip, ArchiveReader::Order::AsItStands);
    walk(standing, Telling::Never);
}

// The first mark of each kind is tried, of 7z the first that is followed by what follows it; what stands there may also
// be a mark that a program looks for itself.
void Unpacker::takeEmbedded(Telling telling) {
    findMarks();
    for (std::size_t i = 0; i < m_marks.size() && !m_sink.isOver(); ++i) {
        auto const kind = kArchiveMarks[i].kind;
        if (!m_marks[i] || kind == m_sign.kind) continue;
        if (kind == ArchiveKind::Zip && tooManyEntries()) return;
        MemoryTurn const turn(kind);
        if (turn.tooMany()) return void(m_sink.expect(UINT64_MAX));
        ArchiveReader reader(*m_copy, *m_marks[i], kind, ArchiveReader::Order::ByDirectory);
        walk(reader, telling);
    }
}

void Unpacker::findMarks() {
    std::uint64_t offset = 0;
    std::string seam;
    m_copy->readAll([&](std::string_view block) {
        seam.append(block.substr(0, kLongestMark - 1));
        std::size_t const held = seam.size() - std::min(block.size(), kLongestMark - 1);
        for (std::size_t i = 0; i < m_marks.size(); ++i) {
            if (m_marks[i]) continue;
            findMark(i, seam, offset - held);
            findMark(i, block, offset);
        }
        offset += block.size();
        seam.assign(block.substr(block.size() - std::min(block.size(), kLongestMark - 1)));
    });
}

void Unpacker::findMark(std::size_t mark, std::string_view text, std::uint64_t begin) {
    for (std::size_t from = 0; !m_marks[mark];) {
        std::size_t const at = FindMark(kArchiveMarks[mark], text.substr(from));
        if (at == std::string_view::npos) return;
        from += at;
        if (kArchiveMarks[mark].kind != ArchiveKind::SevenZip || isSevenZip(text.substr(from), begin + from))
            m_marks[mark] = begin + from;
        ++from;
    }
}

// What is read of the copy already is not read again for each mark.
bool Unpacker::isSevenZip(std::string_view text, std::uint64_t begin) const {
    if (text.size() >= kSevenZipStart) return IsSevenZip(text);
    std::array<char, kSevenZipStart> start;
    return IsSevenZip({start.data(), m_copy->readAt(begin, start.data(), start.size())});
}

bool Unpacker::tooManyEntries() { return !m_sink.expectEntries(CountMarks(*m_copy, kDirectoryMark)); }

// Answers how many entries there were.
std::size_t Unpacker::walk(ArchiveReader& reader, Telling telling) {
    if (!m_sink.expectEntries(reader.announced())) return 0;
    ArchiveReader::Entry entry;
    std::size_t count = 0;
    bool encrypted = false;
    while (!m_sink.isOver() && reader.next(entry)) {
        ++count;
        encrypted |= entry.encrypted;
        if (!takeEntry(reader, entry)) return count;
    }
    if (reader.state() == ArchiveReader::State::TooLarge) m_sink.expect(UINT64_MAX);
    if (telling == Telling::Never || m_sink.isOver()) return count;
    encrypted |= reader.state() == ArchiveReader::State::Encrypted;
    bool const broken = reader.state() == ArchiveReader::State::Broken;
    tell(reader, encrypted, broken && (count > 0 || telling == Telling::Always));
    return count;
}

void Unpacker::tell(ArchiveReader const& reader, bool encrypted, bool broken) {
    if (encrypted) m_sink.unreadable(m_component, Unreadable::Encrypted, reader.problem());
    if (broken && !encrypted) m_sink.unreadable(m_component, Unreadable::Broken, reader.problem());
}

bool Unpacker::takeEntry(ArchiveReader& reader, ArchiveReader::Entry const& entry) {
    bool const unnamed = IsCompressedFile(m_sign.kind) && (entry.name.empty() || entry.name == "data");
    auto* const component = m_sink.entry(unnamed ? stem() : entry.name, m_component, m_depth + 1);
    if (!component) return false;
    m_doubtful |= entry.doubtful;
    if (entry.encrypted) return true;
    if (entry.size && !m_sink.expect(*entry.size)) return false;
    auto const body = m_sink.entryBody(*component, m_depth + 1);
    if (!entry.target.empty()) {
        m_sink.unpacked(entry.target.size());
        if (!m_sink.isOver()) body->data(entry.target);
    }
    while (!m_sink.isOver()) {
        auto const piece = reader.read();
        if (piece.empty()) break;
        if (entry.stored) m_zipsWithin.feed(piece);
        m_sink.unpacked(piece.size());
        if (!m_sink.isOver()) body->data(piece);
    }
    if (m_sink.isOver()) return false;
    body->end();
    return true;
}

std::string Unpacker::stem() const {
    auto const* const wide = m_component.GetComponentName();
    std::string const name = wide ? KORtk::Utf8Array(wide).str() : std::string();
    for (auto const& ending : kEndings)
        if (name.size() > ending.packed.size() && TextEnds(name, ending.packed))
            return SafeEntryName(name.substr(0, name.size() - ending.packed.size()).append(ending.plain));
    return name;
}

}  // namespace policyloader
