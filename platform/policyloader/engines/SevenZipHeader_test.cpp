// What the lists of 7z archives speak of is told, and refused, before anything is allocated for it.
#include <lzma.h>

#include <policyloader/engines/ArchiveWriter.h>
#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/SevenZipHeader.h>
#include <policyloader/engines/TempObject.h>

using namespace policyloader;

namespace {

using HeaderState = SevenZipHeader::State;

std::string LowFirst(std::uint64_t value, std::size_t bytes) {
    std::string out;
    for (std::size_t i = 0; i < bytes; ++i) out += static_cast<char>(value >> 8 * i);
    return out;
}
std::string Sum(std::string const& bytes) {
    return LowFirst(lzma_crc32(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size(), 0), 4);
}
std::string Counted(std::uint64_t value) { return "\xFF" + LowFirst(value, 8); }
std::string Raw(std::initializer_list<unsigned> bytes) {
    std::string out;
    for (unsigned const byte : bytes) out += static_cast<char>(byte);
    return out;
}

std::string SevenZip(std::string const& list, std::string const& packed = "") {
    std::string const about = LowFirst(packed.size(), 8) + LowFirst(list.size(), 8) + Sum(list);
    return Raw({'7', 'z', 0xBC, 0xAF, 0x27, 0x1C, 0, 4}) + Sum(about) + about + packed + list;
}
std::string FilesList(std::uint64_t files) { return Raw({1, 5}) + Counted(files); }
std::string Folders(std::string const& coder, std::uint64_t packed, std::uint64_t unpacked) {
    return Raw({6}) + Counted(0) + Counted(1) + Raw({9}) + Counted(packed) + Raw({0, 7, 11}) + Counted(1) + Raw({0}) +
           Counted(1) + coder + Raw({12}) + Counted(unpacked) + Raw({0, 0});
}
std::string LzmaCoder(std::uint32_t dictionary) { return Raw({0x23, 3, 1, 1, 5, 0x5D}) + LowFirst(dictionary, 4); }

// A list that is itself packed, as most are.
std::string PackedSevenZip(std::string const& list) {
    lzma_options_lzma options;
    EXPECT_FALSE(lzma_lzma_preset(&options, 0));
    options.dict_size = 1u << 16;
    lzma_filter const filters[] = {{LZMA_FILTER_LZMA1, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    std::string packed(list.size() + 1000, '\0');
    std::size_t size = 0;
    EXPECT_EQ(lzma_raw_buffer_encode(filters, nullptr, reinterpret_cast<std::uint8_t const*>(list.data()), list.size(),
                                     reinterpret_cast<std::uint8_t*>(packed.data()), &size, packed.size()),
              LZMA_OK);
    packed.resize(size);
    return SevenZip(Raw({0x17}) + Folders(LzmaCoder(options.dict_size), size, list.size()), packed);
}

SevenZipHeader Read(std::string const& archive, std::string const& before = "") {
    TempObject object;
    object.append(before + archive);
    return ReadSevenZipHeader(object, before.size());
}

class SevenZips : public ScanFixture {
protected:
    std::string Limit(std::string const& archive) {
        auto const verdict = Scan(WithAttachment("a.7z", archive));
        EXPECT_FALSE(verdict.hasError());
        return verdict.text("KORFormatScanner", "E_SR_DOS_TYPE");
    }
};

}  // namespace

TEST(SevenZipHeaders, TellHowManyThingsTheyListPlainOrPacked) {
    for (std::uint64_t const files : {0u, 1u, 127u, 128u, 16383u, 16384u, 1000000u}) {
        EXPECT_EQ(Read(SevenZip(FilesList(files))).things, files);
        EXPECT_EQ(Read(PackedSevenZip(FilesList(files)), "before").things, files);
    }
    EXPECT_EQ(Read(SevenZip(FilesList(100000000))).things, UINT64_MAX);
    EXPECT_EQ(Read(PackedSevenZip(FilesList(5) + std::string(3000000, '\0'))).things, 5u);
    EXPECT_EQ(Read(SevenZip(Raw({0x17}) + Folders(LzmaCoder(65536), 10, 100u << 20), std::string(10, 'x'))).things,
              UINT64_MAX);
    for (auto const files : {1u, 2u, 300u}) {
        auto const header = Read(MakeArchive("7zip", Files(files, {"name", "content"})));
        EXPECT_EQ(header.state, HeaderState::Good);
        EXPECT_EQ(header.things, files);
    }
}

TEST(SevenZipHeaders, TellWhatUnpackingTakes) {
    auto const memory = [](std::string const& coder, std::uint64_t size) {
        return Read(SevenZip(Raw({1, 4}) + Folders(coder, 10, size) + Raw({0}))).memory;
    };
    EXPECT_EQ(memory(LzmaCoder(1u << 30), 200u << 20), 200u << 20);
    EXPECT_EQ(memory(LzmaCoder(1u << 20), 200u << 20), 1u << 20);
    EXPECT_EQ(memory(Raw({0x21, 0x21, 1, 24}), 200u << 20), 16u << 20);
    EXPECT_EQ(memory(Raw({0x21, 0x21, 1, 40}), 200u << 20), 200u << 20);
    EXPECT_EQ(memory(Raw({0x23, 3, 4, 1, 5, 6}) + LowFirst(16u << 20, 4), 200u << 20), 16u << 20);
    EXPECT_EQ(memory(Raw({1, 0}), 200u << 20), 0u);
}

TEST(SevenZipHeaders, ThatAreCutOrChangedAreBrokenAndNeverMore) {
    auto const list = Raw({1, 4}) + Folders(LzmaCoder(1u << 20), 10, 100) + Raw({5}) + Counted(3);
    ASSERT_EQ(Read(SevenZip(list)).state, HeaderState::Good);
    for (std::size_t size = 1; size < list.size(); ++size)
        EXPECT_EQ(Read(SevenZip(list.substr(0, size))).state, HeaderState::Broken) << size;
    for (std::size_t at = 0; at < list.size(); ++at) {
        auto changed = list;
        changed[at] = static_cast<char>(changed[at] ^ 0xFF);
        Read(SevenZip(changed));
    }
    auto const packed = PackedSevenZip(list);
    for (std::size_t size = 8; size < packed.size(); ++size)
        EXPECT_EQ(Read(packed.substr(0, size)).state, HeaderState::Broken) << size;
    // A list in a list in a list.
    EXPECT_EQ(Read(PackedSevenZip(Raw({0x17}) + Folders(LzmaCoder(65536), 10, 100))).state, HeaderState::Broken);
}

TEST_F(SevenZips, OfTooManyThingsEndByTheLimitBeforeAnyIsLookedAt) {
    EXPECT_EQ(Limit(SevenZip(FilesList(100000000))), "DEPTH");
    EXPECT_EQ(Limit(PackedSevenZip(FilesList(10001))), "DEPTH");
    EXPECT_EQ(Limit(SevenZip(FilesList(10000))), "");
    EXPECT_EQ(Limit(SevenZip(Raw({1, 4}) + Folders(LzmaCoder(1u << 30), 10, 200u << 20) + Raw({0}))), "SIZE");
}

TEST_F(SevenZips, WithAnEncryptedListAreEncryptedAndWithADamagedOneBroken) {
    auto const found = [&](std::string const& archive) { return Scan(archive).found("KORFormatScanner"); };
    auto const locked = Raw({0x24, 6, 0xF1, 7, 1, 0});
    EXPECT_EQ(found(SevenZip(Raw({0x17}) + Folders(locked, 10, 100), std::string(10, 'x'))), "encrypted archive");
    EXPECT_EQ(found(SevenZip(Raw({0x17}) + Folders(LzmaCoder(65536), 10, 100), std::string(10, 'x'))),
              "broken archive");
    EXPECT_EQ(found(SevenZip(Raw({9, 9, 9}))), "broken archive");
}

TEST_F(SevenZips, AreFoundBehindMarksThatAreNone) {
    std::string const mark = Raw({'7', 'z', 0xBC, 0xAF, 0x27, 0x1C});
    auto const archive = MakeArchive("7zip", {{"eicar.com", TestVirus()}});
    for (std::size_t const gap : {0u, 1u, 26u, 65530u, 70000u}) {
        auto const object = "MZ" + mark + std::string(gap, 'x') + mark + archive;
        EXPECT_EQ(Scan(WithAttachment("a.exe", object)).where("KORAVScanner"), "eicar.com") << gap;
    }
}
