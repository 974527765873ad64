// ArchiveKind: tells by its first bytes, and by marks within it, what may be an archive and of which kind.
// Free functions over constants; any thread.  Units: bytes.  Failure: none; what is unknown is no archive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace policyloader {

enum class ArchiveKind {
    None,
    Zip,
    SevenZip,
    Rar,
    Tar,
    Cpio,
    Cab,
    Ar,
    // One file each, compressed.
    Gzip,
    Bzip2,
    Xz,
    Lzma,
    Lzip,
    Zstd,
    Lz4,
    Compress
};

struct ArchiveSign {
    ArchiveKind kind = ArchiveKind::None;
    bool certain = false;  // nothing else begins so: what cannot be read is a broken archive
};

inline constexpr std::size_t kArchiveHeadBytes = 512;  // that many tell the kind

ArchiveSign ArchiveAtStart(std::string_view head);
bool IsCompressedFile(ArchiveKind kind);
bool TakesMuchMemory(ArchiveKind kind);  // reading it: tens of MiB, for as long as it takes

// An archive behind something else, as in a program that unpacks itself.
struct ArchiveMark {
    ArchiveKind kind;
    std::string_view bytes;
    std::size_t rare;  // the place of the byte that other contents have least
};
inline constexpr std::string_view kZipMark("PK\x03\x04", 4);  // at each entry
inline constexpr ArchiveMark kArchiveMarks[] = {
    {ArchiveKind::Zip, kZipMark, 2},
    {ArchiveKind::SevenZip, {"7z\xBC\xAF\x27\x1C", 6}, 2},
    {ArchiveKind::Rar, {"Rar!\x1A\x07", 6}, 4},
};
inline constexpr std::size_t kLongestMark = 6;

// The place of a mark in the text; npos: it does not hold a whole one.
std::size_t FindMark(ArchiveMark const& mark, std::string_view text);

// How often a text holds some bytes, in pieces.
class MarkCount {
public:
    explicit MarkCount(std::string_view mark) : m_mark(mark) {}
    void feed(std::string_view piece);
    std::uint64_t value() const { return m_value; }

private:
    void countIn(std::string_view text);

    std::string_view m_mark;
    std::string m_seam;  // the end of what came, shorter than a mark
    std::uint64_t m_value = 0;
};

}  // namespace policyloader
