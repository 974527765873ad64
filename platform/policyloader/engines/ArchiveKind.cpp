#include <policyloader/engines/ArchiveKind.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace policyloader {
namespace {

struct Beginning {
    std::string_view bytes;
    ArchiveKind kind;
    bool certain;
};

constexpr Beginning kBeginnings[] = {
    {{"PK\x03\x04", 4}, ArchiveKind::Zip, true},
    {{"PK\x05\x06", 4}, ArchiveKind::Zip, true},
    {{"PK\x07\x08PK\x03\x04", 8}, ArchiveKind::Zip, true},
    {{"7z\xBC\xAF\x27\x1C", 6}, ArchiveKind::SevenZip, true},
    {{"Rar!\x1A\x07", 6}, ArchiveKind::Rar, true},
    {{"MSCF\0\0\0\0", 8}, ArchiveKind::Cab, true},
    {{"!<arch>\n", 8}, ArchiveKind::Ar, true},
    {{"\x1F\x8B\x08", 3}, ArchiveKind::Gzip, true},
    {{"\xFD"
      "7zXZ\0",
      6},
     ArchiveKind::Xz,
     true},
    {{"LZIP\x01", 5}, ArchiveKind::Lzip, true},
    {{"\x28\xB5\x2F\xFD", 4}, ArchiveKind::Zstd, true},
    {{"\x04\x22\x4D\x18", 4}, ArchiveKind::Lz4, true},
    {{"070701", 6}, ArchiveKind::Cpio, false},
    {{"070702", 6}, ArchiveKind::Cpio, false},
    {{"070707", 6}, ArchiveKind::Cpio, false},
    {{"\xC7\x71", 2}, ArchiveKind::Cpio, false},
    {{"\x71\xC7", 2}, ArchiveKind::Cpio, false},
    {{"\x5D\0\0", 3}, ArchiveKind::Lzma, false},
    {{"\x1F\x9D", 2}, ArchiveKind::Compress, false},
};

constexpr std::size_t kTarSumAt = 148, kTarSumBytes = 8, kTarMagicAt = 257;

bool IsBzip2(std::string_view head) {
    constexpr std::string_view block("\x31\x41\x59\x26\x53\x59", 6), end("\x17\x72\x45\x38\x50\x90", 6);
    if (head.size() < 10 || head.substr(0, 3) != "BZh" || head[3] < '1' || head[3] > '9') return false;
    return head.substr(4, 6) == block || head.substr(4, 6) == end;
}

// The sum over a header block, its own field taken as blanks; some old writers added signed bytes.
bool HasTarSum(std::string_view head) {
    unsigned stored = 0, digits = 0;
    for (std::size_t at = kTarSumAt; at < kTarSumAt + kTarSumBytes; ++at) {
        char const c = head[at];
        if (c >= '0' && c <= '7')
            stored = stored * 8 + static_cast<unsigned>(c - '0'), ++digits;
        else if (digits > 0)
            break;
        else if (c != ' ')
            return false;
    }
    long sum = 0, signedSum = 0;
    for (std::size_t at = 0; at < kArchiveHeadBytes; ++at) {
        char const c = at >= kTarSumAt && at < kTarSumAt + kTarSumBytes ? ' ' : head[at];
        sum += static_cast<unsigned char>(c);
        signedSum += static_cast<signed char>(c);
    }
    return digits > 0 && (sum == static_cast<long>(stored) || signedSum == static_cast<long>(stored));
}

bool IsTar(std::string_view head) {
    if (head.size() < kArchiveHeadBytes) return false;
    return head.substr(kTarMagicAt, 5) == "ustar" || HasTarSum(head);
}

}  // namespace

ArchiveSign ArchiveAtStart(std::string_view head) {
    for (auto const& one : kBeginnings)
        if (head.substr(0, one.bytes.size()) == one.bytes) return {one.kind, one.certain};
    if (IsBzip2(head)) return {ArchiveKind::Bzip2, true};
    if (IsTar(head)) return {ArchiveKind::Tar, true};
    return {};
}

bool IsCompressedFile(ArchiveKind kind) { return kind >= ArchiveKind::Gzip; }

bool TakesMuchMemory(ArchiveKind kind) {
    constexpr ArchiveKind kinds[] = {ArchiveKind::SevenZip, ArchiveKind::Rar,  ArchiveKind::Xz,
                                     ArchiveKind::Lzma,     ArchiveKind::Lzip, ArchiveKind::Zstd};
    return std::find(std::begin(kinds), std::end(kinds), kind) != std::end(kinds);
}

std::size_t FindMark(ArchiveMark const& mark, std::string_view text) {
    for (std::size_t at = mark.rare; at < text.size(); ++at) {
        auto const* const hit =
            static_cast<char const*>(std::memchr(text.data() + at, mark.bytes[mark.rare], text.size() - at));
        if (!hit) break;
        at = static_cast<std::size_t>(hit - text.data());
        if (text.substr(at - mark.rare, mark.bytes.size()) == mark.bytes) return at - mark.rare;
    }
    return std::string_view::npos;
}

void MarkCount::countIn(std::string_view text) {
    for (std::size_t at = text.find(m_mark); at != std::string_view::npos; at = text.find(m_mark, at + 1)) ++m_value;
}

void MarkCount::feed(std::string_view piece) {
    std::size_t const part = m_mark.size() - 1;
    m_seam.append(piece.substr(0, part));
    if (m_seam.size() > part) countIn(m_seam);
    countIn(piece);
    if (piece.size() >= part)
        m_seam.assign(piece.substr(piece.size() - part));
    else if (m_seam.size() > part)
        m_seam.erase(0, m_seam.size() - part);
}

}  // namespace policyloader
