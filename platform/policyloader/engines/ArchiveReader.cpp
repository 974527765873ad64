#include <policyloader/engines/ArchiveReader.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include <archive.h>
#include <archive_entry.h>
#include <locale.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/SevenZipHeader.h>
#include <policyloader/engines/TempObject.h>
#include <policyloader/engines/TextDecoder.h>
#include <policyloader/engines/TransportIO.h>

namespace policyloader {
namespace {

constexpr std::size_t kMaxName = 255;
constexpr std::size_t kMostMemory = 72u << 20;  // of one unpacking: what the best level of xz takes, and little more

using Order = ArchiveReader::Order;
using Support = int (*)(archive*);
struct Reading {
    ArchiveKind kind;
    Support first;
    Support second;
};

// One kind at a time: no other one, and no filter in front of it, has a say.
constexpr Reading kReadings[] = {
    {ArchiveKind::Zip, &archive_read_support_format_zip, nullptr},
    {ArchiveKind::SevenZip, &archive_read_support_format_7zip, nullptr},
    {ArchiveKind::Rar, &archive_read_support_format_rar, &archive_read_support_format_rar5},
    {ArchiveKind::Tar, &archive_read_support_format_tar, nullptr},
    {ArchiveKind::Cpio, &archive_read_support_format_cpio, nullptr},
    {ArchiveKind::Cab, &archive_read_support_format_cab, nullptr},
    {ArchiveKind::Ar, &archive_read_support_format_ar, nullptr},
    {ArchiveKind::Gzip, &archive_read_support_filter_gzip, nullptr},
    {ArchiveKind::Bzip2, &archive_read_support_filter_bzip2, nullptr},
    {ArchiveKind::Zstd, &archive_read_support_filter_zstd, nullptr},
    {ArchiveKind::Lz4, &archive_read_support_filter_lz4, nullptr},
    {ArchiveKind::Compress, &archive_read_support_filter_compress, nullptr},
};

// Anything but success is a library that would start a program to unpack this kind: it must not.
void Enable(archive* opened, Support support) {
    if (support && support(opened) != ARCHIVE_OK)
        throw EngineFailure(FailureId::Internal, "the archive library lacks a kind of archive");
}

void EnableKind(archive* opened, ArchiveKind kind, ArchiveReader::Order order) {
    bool const zip = kind == ArchiveKind::Zip;
    if (zip && order == Order::ByDirectory) return Enable(opened, &archive_read_support_format_zip_seekable);
    if (zip && order == Order::AsItStands) return Enable(opened, &archive_read_support_format_zip_streamable);
    for (auto const& reading : kReadings) {
        if (reading.kind != kind) continue;
        Enable(opened, reading.first);
        Enable(opened, reading.second);
    }
    if (!IsCompressedFile(kind)) return;
    Enable(opened, &archive_read_support_format_raw);
    Enable(opened, &archive_read_support_format_empty);
}

std::string NameOf(archive_entry* entry) {
    char const* name = archive_entry_pathname_utf8(entry);
    if (!name) name = archive_entry_pathname(entry);
    return name ? SafeEntryName(name) : std::string();
}

std::string TargetOf(archive_entry* entry) {
    char const* target = archive_entry_symlink_utf8(entry);
    if (!target) target = archive_entry_symlink(entry);
    return target ? target : std::string();
}

// The library makes names of what an archive holds in the way of the thread's locale, and the plain one has no letters
// beyond ASCII.
class NamesInUtf8 {
public:
    NamesInUtf8() : m_before(s_locale() ? uselocale(s_locale()) : locale_t()) {}
    ~NamesInUtf8() {
        if (m_before) uselocale(m_before);
    }
    NamesInUtf8(NamesInUtf8 const&) = delete;
    NamesInUtf8& operator=(NamesInUtf8 const&) = delete;

private:
    static locale_t s_locale() {
        static locale_t const utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t());
        return utf8;  // null: this system has none, and the names stay as they are
    }
    locale_t m_before;
};

// Characters that turn the direction of writing show a name as another one.
bool TurnsWriting(std::string_view at) {
    if (at.size() < 3 || at[0] != '\xE2') return false;
    bool const embeds = at[1] == '\x80' && at[2] >= '\xAA' && at[2] <= '\xAE';
    bool const isolates = at[1] == '\x81' && at[2] >= '\xA6' && at[2] <= '\xA9';
    return embeds || isolates;
}

std::string CleanName(std::string_view name) {
    std::string out;
    for (std::size_t at = 0; at < name.size(); ++at) {
        auto const c = static_cast<unsigned char>(name[at]);
        bool const turns = TurnsWriting(name.substr(at));
        bool const control = c < ' ' || c == 0x7F;
        out.push_back(turns || control ? '_' : name[at] == '\\' ? '/' : name[at]);
        if (turns) at += 2;
    }
    return out;
}

// A path that stays below where it begins.
std::string SafeSteps(std::string_view path) {
    std::string out;
    while (!path.empty()) {
        std::size_t const slash = path.find('/');
        auto const step = path.substr(0, slash);
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
        if (step.empty() || step == "." || step == "..") continue;
        if (!out.empty()) out.push_back('/');
        out.append(step);
    }
    return out;
}

}  // namespace

// What the library reads from. Its own code cannot pass exceptions on: they wait here.
struct ArchiveReader::Source {
    TempObject const& from;
    std::uint64_t begin;
    std::uint64_t at = 0;  // from `begin`
    std::vector<char> block = std::vector<char>(kBlockBytes);
    std::exception_ptr failure = {};

    std::uint64_t size() const { return from.size() - begin; }
    std::string_view more() {
        std::size_t const got = from.readAt(begin + at, block.data(), kBlockBytes);
        at += got;
        return {block.data(), got};
    }
    static la_ssize_t read(archive*, void* self, void const** to) noexcept {
        auto& source = *static_cast<Source*>(self);
        try {
            auto const bytes = source.more();
            *to = bytes.data();
            return static_cast<la_ssize_t>(bytes.size());
        } catch (...) {
            source.failure = std::current_exception();
            return ARCHIVE_FATAL;
        }
    }
    static la_int64_t skip(archive*, void* self, la_int64_t count) noexcept {
        auto& source = *static_cast<Source*>(self);
        auto const skipped = std::min(static_cast<std::uint64_t>(count), source.size() - source.at);
        source.at += skipped;
        return static_cast<la_int64_t>(skipped);
    }
    static la_int64_t seek(archive*, void* self, la_int64_t offset, int whence) noexcept {
        auto& source = *static_cast<Source*>(self);
        auto const size = static_cast<la_int64_t>(source.size());
        la_int64_t const from = whence == SEEK_SET ? 0 : whence == SEEK_END ? size : static_cast<la_int64_t>(source.at);
        la_int64_t const to = std::clamp<la_int64_t>(from + offset, 0, size);
        source.at = static_cast<std::uint64_t>(to);
        return to;
    }
};

void ArchiveReader::Closer::operator()(archive* opened) const { archive_read_free(opened); }

ArchiveReader::ArchiveReader(TempObject const& from, std::uint64_t begin, ArchiveKind kind, Order order)
    : m_source(new Source{from, begin}), m_piece(kBlockBytes) {
    if (kind == ArchiveKind::SevenZip) checkList();
    if (LzmaReader::reads(kind))
        m_lzma = std::make_unique<LzmaReader>(kind, kMostMemory, [this] { return m_source->more(); });
    else if (!m_over)
        open(kind, order);
}

void ArchiveReader::open(ArchiveKind kind, Order order) {
    m_archive.reset(archive_read_new());
    if (!m_archive) throw std::bad_alloc();
    EnableKind(m_archive.get(), kind, order);
    archive_read_set_read_callback(m_archive.get(), &Source::read);
    archive_read_set_skip_callback(m_archive.get(), &Source::skip);
    archive_read_set_seek_callback(m_archive.get(), &Source::seek);
    archive_read_set_callback_data(m_archive.get(), m_source.get());
    m_isOpen = check(archive_read_open1(m_archive.get()));
    m_over = !m_isOpen;
    if (!m_over && IsCompressedFile(kind)) checkLayers();
}

// The library undoes all layers of one method at once, and what stands between them is counted by nobody.
void ArchiveReader::checkLayers() {
    int const layers = archive_filter_count(m_archive.get()) - 1;
    if (layers == 1) return;
    m_over = true;
    give(State::Broken, layers == 0 ? "damaged at its beginning" : "compressed twice by the same method");
}

// A list of a few bytes can speak of a hundred million entries.
void ArchiveReader::checkList() {
    auto const header = ReadSevenZipHeader(m_source->from, m_source->begin);
    m_announced = header.things;
    if (header.state == SevenZipHeader::State::Encrypted) give(State::Encrypted, "its list of files is encrypted");
    if (header.state == SevenZipHeader::State::Broken) give(State::Broken, "its list of files cannot be read");
    if (header.memory > kMostMemory) give(State::TooLarge, "takes too much memory to unpack");
    m_over = m_state != State::Good;
}

void ArchiveReader::give(State state, char const* problem) {
    m_state = state;
    m_problem = problem;
}

ArchiveReader::~ArchiveReader() = default;

void ArchiveReader::fail() {
    if (m_source->failure) std::rethrow_exception(m_source->failure);
    if (m_state != State::Good) return;  // the first problem says most
    bool const encrypted = m_isOpen && archive_read_has_encrypted_entries(m_archive.get()) > 0;
    m_state = encrypted ? State::Encrypted : State::Broken;
    char const* const text = archive_error_string(m_archive.get());
    m_problem = text ? ToCleanUtf8(text) : "unknown";
}

// Whether the walk can go on.
bool ArchiveReader::check(int status) {
    if (status == ARCHIVE_OK || status == ARCHIVE_WARN) return true;
    if (status != ARCHIVE_EOF) fail();
    return false;
}

bool ArchiveReader::nextOfLzma(Entry& entry) {
    m_over = true;  // there is one alone
    entry = Entry();
    m_ready = readLzma().size();
    return m_ready > 0 || m_state == State::Good;
}

std::string_view ArchiveReader::readLzma() {
    std::size_t const got = m_lzma->read(m_piece.data(), m_piece.size());
    if (m_lzma->state() == LzmaReader::State::Broken) give(State::Broken, "damaged, or cut off");
    if (m_lzma->state() == LzmaReader::State::TooLarge) give(State::TooLarge, "takes too much memory to unpack");
    return {m_piece.data(), got};
}

bool ArchiveReader::next(Entry& entry) {
    if (m_over) return false;
    if (m_lzma) return nextOfLzma(entry);
    NamesInUtf8 const names;
    archive_entry* header = nullptr;
    m_over = !check(archive_read_next_header(m_archive.get(), &header));
    if (m_over) return false;
    entry.name = NameOf(header);
    entry.encrypted = archive_entry_is_encrypted(header) != 0;
    auto const type = archive_entry_filetype(header);
    entry.target = type == AE_IFLNK ? TargetOf(header) : std::string();
    char const* const method = archive_format_name(m_archive.get());
    entry.stored = method && std::strstr(method, "(uncompressed)");
    entry.size.reset();
    if (archive_entry_size_is_set(header) && archive_entry_size(header) >= 0)
        entry.size = static_cast<std::uint64_t>(archive_entry_size(header));
    entry.doubtful = type == AE_IFLNK || (type != AE_IFREG && type != 0 && entry.size.value_or(0) > 0);
    return true;
}

std::string_view ArchiveReader::read() {
    if (m_ready > 0) return {m_piece.data(), std::exchange(m_ready, 0)};
    if (m_lzma) return readLzma();
    la_ssize_t const got = archive_read_data(m_archive.get(), m_piece.data(), m_piece.size());
    if (got > 0) return {m_piece.data(), static_cast<std::size_t>(got)};
    if (got < 0) fail();
    m_over = got == ARCHIVE_FATAL;
    return {};
}

std::string SafeEntryName(std::string_view name) {
    std::string const safe = SafeSteps(CleanName(ToCleanUtf8(name)));
    if (safe.size() <= kMaxName) return safe;
    std::size_t cut = safe.size() - kMaxName;
    while (cut < safe.size() && (safe[cut] & 0xC0) == 0x80) ++cut;  // not within a character
    return SafeSteps(std::string_view(safe).substr(cut));           // of "a..", what is left may lead upwards
}

}  // namespace policyloader
