#include <policyloader/engines/SevenZipHeader.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <lzma.h>

#include <policyloader/engines/TempObject.h>

namespace policyloader {
namespace {

using State = SevenZipHeader::State;

constexpr std::size_t kSumAt = 8, kSummedAt = 12, kSummedBytes = 20;
constexpr std::uint64_t kMostBytes = 16u << 20;  // of a directory
constexpr std::uint64_t kMostThings = kMostBytes;
constexpr std::uint64_t kMostFolders = 1u << 17;
constexpr std::uint64_t kMostCoderStreams = 32;
constexpr std::uint64_t kMostPerFolder = 4;  // streams, with any method in use

constexpr unsigned kEnd = 0, kHeader = 1, kProperties = 2, kMainStreams = 4, kFiles = 5, kPacked = 6, kFolders = 7,
                   kSubStreams = 8, kSizes = 9, kSums = 10, kFolder = 11, kUnpackedSizes = 12, kStreamCounts = 13,
                   kEncodedHeader = 23;
constexpr std::uint64_t kCopy = 0, kLzma2 = 0x21, kLzma = 0x030101, kPpmd = 0x030401, kAes = 0x06F10701;

// What is not as it should be.
struct Damage {
    State state = State::Broken;
};
struct TooMuch {};

std::uint64_t LittleEndian(std::string_view bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

struct Coder {
    std::uint64_t id = 0;
    std::string_view properties;
    std::uint64_t ins = 1, outs = 1;
};

struct Folder {
    std::vector<Coder> coders;
    std::uint64_t outs = 0;
    std::uint64_t size = 0;  // unpacked, the largest of its streams
    std::uint64_t streams = 1;
    bool summed = false;
};

std::uint64_t MemoryOf(Coder const& coder, std::uint64_t size) {
    auto const& properties = coder.properties;
    if (coder.id == kLzma && properties.size() == 5) return std::min(LittleEndian(properties.substr(1)), size);
    if (coder.id == kPpmd && properties.size() == 5) return std::min(LittleEndian(properties.substr(1)), size * 16);
    if (coder.id != kLzma2 || properties.size() != 1) return 0;
    unsigned const bits = static_cast<unsigned char>(properties[0]);
    if (bits >= 40) return size;
    return std::min<std::uint64_t>(std::uint64_t(2 | (bits & 1)) << (bits / 2 + 11), size);
}

// Reads a directory, or what is said about a packed one.
class Directory {
public:
    explicit Directory(std::string_view bytes) : m_rest(bytes) {}

    unsigned id() { return byte(); }
    void readHeader() {
        unsigned next = id();
        if (next == kProperties) {
            while (id() != kEnd) take(number());
            next = id();
        }
        if (next == kMainStreams) {
            readStreams();
            next = id();
        }
        if (next == kEnd) return;
        require(next == kFiles);
        counted();
    }
    void readStreams() {
        for (unsigned next = id(); next != kEnd; next = id()) {
            require(next == kPacked || next == kFolders || next == kSubStreams);
            next == kPacked ? readPacked() : next == kFolders ? readFolders() : readSubStreams();
        }
    }

    std::vector<Folder> folders;
    std::vector<std::uint64_t> packedSizes;
    std::uint64_t packedAt = 0;
    std::uint64_t most = 0;

private:
    static void require(bool right) {
        if (!right) throw Damage();
    }
    std::string_view take(std::uint64_t count) {
        require(count <= m_rest.size());
        auto const taken = m_rest.substr(0, static_cast<std::size_t>(count));
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    unsigned byte() { return static_cast<unsigned char>(take(1)[0]); }

    // The first byte tells by its leading ones how many follow, and holds the highest bits.
    std::uint64_t number() {
        unsigned const first = byte();
        unsigned mask = 0x80, shift = 0;
        std::uint64_t value = 0;
        for (; mask != 0 && (first & mask); mask >>= 1, shift += 8) value |= std::uint64_t(byte()) << shift;
        return mask == 0 ? value : value | std::uint64_t(first & (mask - 1)) << shift;
    }
    std::uint64_t counted(std::uint64_t perThing = 1) {
        std::uint64_t const count = number();
        if (count > kMostThings) throw TooMuch();
        most = std::max(most, count / perThing);
        return count;
    }
    std::vector<bool> flags(std::uint64_t count) {
        std::vector<bool> set(static_cast<std::size_t>(count), true);
        if (byte() != 0) return set;
        auto const bits = take((count + 7) / 8);
        for (std::size_t i = 0; i < set.size(); ++i) set[i] = static_cast<unsigned char>(bits[i / 8]) & 0x80u >> i % 8;
        return set;
    }
    std::vector<bool> sums(std::uint64_t count) {
        auto set = flags(count);
        take(4 * static_cast<std::uint64_t>(std::count(set.begin(), set.end(), true)));
        return set;
    }

    void readPacked() {
        packedAt = number();
        std::uint64_t const count = counted(kMostPerFolder);
        for (unsigned next = id(); next != kEnd; next = id()) {
            require(next == kSizes || next == kSums);
            if (next == kSums)
                sums(count);
            else
                for (std::uint64_t i = 0; i < count; ++i) packedSizes.push_back(number());
        }
    }

    void readFolders() {
        require(id() == kFolder);
        std::uint64_t const count = counted();
        if (count > kMostFolders) throw TooMuch();
        require(byte() == 0);  // nobody keeps them elsewhere
        for (std::uint64_t i = 0; i < count; ++i) folders.push_back(readFolder());
        require(id() == kUnpackedSizes);
        for (auto& folder : folders)
            for (std::uint64_t i = 0; i < folder.outs; ++i) folder.size = std::max(folder.size, number());
        unsigned next = id();
        if (next == kSums) {
            auto const set = sums(folders.size());
            for (std::size_t i = 0; i < set.size(); ++i) folders[i].summed = set[i];
            next = id();
        }
        require(next == kEnd);
    }

    Folder readFolder() {
        Folder folder;
        std::uint64_t const count = number();
        require(count > 0 && count <= kMostCoderStreams);
        std::uint64_t ins = 0;
        for (std::uint64_t i = 0; i < count; ++i) {
            folder.coders.push_back(readCoder());
            ins += folder.coders.back().ins;
            folder.outs += folder.coders.back().outs;
        }
        std::uint64_t const pairs = folder.outs - 1;
        for (std::uint64_t i = 0; i < 2 * pairs; ++i) number();
        require(ins >= pairs);
        for (std::uint64_t i = 0; ins - pairs > 1 && i < ins - pairs; ++i) number();
        return folder;
    }

    Coder readCoder() {
        Coder coder;
        unsigned const form = byte();
        require((form & 0xC0) == 0 && (form & 0x0F) <= 8);
        for (unsigned i = 0; i < (form & 0x0F); ++i) coder.id = coder.id << 8 | byte();
        if (form & 0x10) {
            coder.ins = number();
            coder.outs = number();
            require(coder.ins <= kMostCoderStreams && coder.outs > 0 && coder.outs <= kMostCoderStreams);
        }
        if (form & 0x20) coder.properties = take(number());
        return coder;
    }

    void readSubStreams() {
        unsigned next = id();
        if (next == kStreamCounts) {
            for (auto& folder : folders) folder.streams = counted();
            next = id();
        }
        std::uint64_t all = 0, notSummed = 0;
        for (auto const& folder : folders) {
            all += folder.streams;
            notSummed += folder.streams == 1 && folder.summed ? 0 : folder.streams;
        }
        if (all > kMostThings) throw TooMuch();
        most = std::max(most, all);
        if (next == kSizes) {
            for (auto const& folder : folders)
                for (std::uint64_t i = 1; i < folder.streams; ++i) number();
            next = id();
        }
        if (next == kSums) {
            sums(notSummed);
            next = id();
        }
        require(next == kEnd);
    }

    std::string_view m_rest;
};

std::string ReadBytes(TempObject const& from, std::uint64_t at, std::uint64_t count) {
    if (count > kMostBytes) throw TooMuch();
    if (at > from.size() || count > from.size() - at) throw Damage();
    std::string bytes(static_cast<std::size_t>(count), '\0');
    std::size_t done = 0;
    while (done < bytes.size()) {
        std::size_t const got = from.readAt(at + done, bytes.data() + done, bytes.size() - done);
        if (got == 0) throw Damage();
        done += got;
    }
    return bytes;
}

// Frees what it has.
struct Unlzma {
    lzma_filter filters[2] = {{LZMA_VLI_UNKNOWN, nullptr}, {LZMA_VLI_UNKNOWN, nullptr}};
    lzma_stream stream = LZMA_STREAM_INIT;
    Unlzma() = default;
    ~Unlzma() {
        lzma_end(&stream);
        lzma_filters_free(filters, nullptr);
    }
    Unlzma(Unlzma const&) = delete;
    Unlzma& operator=(Unlzma const&) = delete;
};

std::uint8_t const* Bytes(std::string_view text) { return reinterpret_cast<std::uint8_t const*>(text.data()); }

std::string Unpack(Coder const& coder, std::string const& packed, std::uint64_t size) {
    if (size > kMostBytes) throw TooMuch();
    Unlzma one;
    one.filters[0].id = coder.id == kLzma ? LZMA_FILTER_LZMA1 : LZMA_FILTER_LZMA2;
    if (lzma_properties_decode(one.filters, nullptr, Bytes(coder.properties), coder.properties.size()) != LZMA_OK)
        throw Damage();
    auto& options = *static_cast<lzma_options_lzma*>(one.filters[0].options);
    options.dict_size = std::clamp<std::uint32_t>(options.dict_size, LZMA_DICT_SIZE_MIN, kMostBytes);
    lzma_ret const status = lzma_raw_decoder(&one.stream, one.filters);
    if (status == LZMA_MEM_ERROR) throw std::bad_alloc();
    if (status != LZMA_OK) throw Damage();
    std::string unpacked(static_cast<std::size_t>(size), '\0');
    one.stream.next_in = Bytes(packed);
    one.stream.avail_in = packed.size();
    one.stream.next_out = reinterpret_cast<std::uint8_t*>(unpacked.data());
    one.stream.avail_out = unpacked.size();
    while (one.stream.avail_out > 0)
        if (lzma_code(&one.stream, LZMA_RUN) != LZMA_OK) break;
    if (one.stream.avail_out > 0) throw Damage();
    return unpacked;
}

// Of the three ways in which directories are packed in practice.
std::string UnpackDirectory(TempObject const& from, std::uint64_t begin, Directory const& about) {
    if (about.folders.size() != 1 || about.packedSizes.empty()) throw Damage();
    auto const& folder = about.folders.front();
    for (auto const& coder : folder.coders)
        if (coder.id == kAes) throw Damage{State::Encrypted};
    auto const& coder = folder.coders.front();
    bool const known = coder.id == kCopy || coder.id == kLzma || coder.id == kLzma2;
    if (folder.coders.size() != 1 || !known) throw Damage();
    if (about.packedAt > from.size()) throw Damage();
    auto packed = ReadBytes(from, begin + kSevenZipStart + about.packedAt, about.packedSizes.front());
    return coder.id == kCopy ? packed : Unpack(coder, packed, folder.size);
}

void CountThings(Directory const& directory, SevenZipHeader& header) {
    header.things = directory.most;
    for (auto const& folder : directory.folders) {
        std::uint64_t memory = 0;
        for (auto const& coder : folder.coders) memory += MemoryOf(coder, std::min(folder.size, UINT64_MAX >> 8));
        header.memory = std::max(header.memory, memory);
    }
}

void ReadDirectory(TempObject const& from, std::uint64_t begin, SevenZipHeader& header) {
    auto const start = ReadBytes(from, begin, kSevenZipStart);
    std::uint64_t const at = LittleEndian(start.substr(kSummedAt, 8)), size = LittleEndian(start.substr(20, 8));
    if (size == 0) return;
    if (at > from.size()) throw Damage();
    std::string bytes = ReadBytes(from, begin + kSevenZipStart + at, size);
    for (int packed = 0;; ++packed) {
        Directory directory(bytes);
        unsigned const kind = directory.id();
        if (kind == kHeader) {
            directory.readHeader();
            return CountThings(directory, header);
        }
        if (kind != kEncodedHeader || packed > 0) throw Damage();
        directory.readStreams();
        bytes = UnpackDirectory(from, begin, directory);
    }
}

}  // namespace

bool IsSevenZip(std::string_view start) {
    if (start.size() < kSevenZipStart) return false;
    return lzma_crc32(Bytes(start) + kSummedAt, kSummedBytes, 0) == LittleEndian(start.substr(kSumAt, 4));
}

SevenZipHeader ReadSevenZipHeader(TempObject const& from, std::uint64_t begin) {
    SevenZipHeader header;
    try {
        ReadDirectory(from, begin, header);
    } catch (TooMuch const&) {
        header.things = UINT64_MAX;
    } catch (Damage const& damage) {
        header.state = damage.state;
    }
    return header;
}

}  // namespace policyloader
