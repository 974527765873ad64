// Archives of every kind: what is in them is found, wherever they stand, and they end by the limits.
#include <ctime>
#include <fstream>

#include <locale.h>

#include <policyloader/engines/ArchiveReader.h>
#include <policyloader/engines/ArchiveWriter.h>
#include <policyloader/engines/ScanFixture.h>
#include <policyloader/engines/TempObject.h>

using namespace policyloader;

namespace {

class Archives : public ScanFixture {
protected:
    static constexpr char const* kAv = "KORAVScanner";
    static constexpr char const* kFormat = "KORFormatScanner";
    static Files Infected() { return {{"readme.txt", "hello"}, {"inner/eicar.com", TestVirus()}}; }
    static std::string Zip(std::string const& name, std::string const& content) {
        return MakeArchive("zip", {{name, content}});
    }
    void ExpectFound(std::string const& archive, std::string const& in = "inner/eicar.com") {
        for (auto const& object : {archive, WithAttachment("a.bin", archive)}) {
            auto const verdict = Scan(object);
            EXPECT_EQ(verdict.found(kAv), "EICAR-Test-File");
            EXPECT_EQ(verdict.where(kAv), in);
            EXPECT_EQ(verdict.action(), "DENY");
            EXPECT_FALSE(verdict.hasError());
        }
    }
    void ExpectLimit(std::string const& object, std::string const& kind) {
        auto const verdict = Scan(object);
        EXPECT_EQ(verdict.text(kFormat, "E_SR_DOS_TYPE"), kind) << verdict.text(kFormat, "E_SR_DESCRIPTION_P");
        EXPECT_EQ(verdict.action(), "DENY");
        EXPECT_FALSE(verdict.hasError());
    }
};

// Kilobytes that this process has had in memory at most, since the last call.
long PeakMemory() {
    std::ifstream status("/proc/self/status");
    long peak = 0;
    for (std::string word; status >> word;)
        if (word == "VmHWM:") status >> peak;
    std::ofstream("/proc/self/clear_refs") << "5";
    return peak;
}

double ProcessorTime() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

#ifdef VELT_SANITIZED
constexpr double kMostSeconds = 60;
constexpr long kMostKilobytes = 1024 * 1024;
#else
constexpr double kMostSeconds = 2;
constexpr long kMostKilobytes = 256 * 1024;
#endif

}  // namespace

TEST_F(Archives, OfEachKindAreLookedInto) {
    // Long enough to be compressed, where the kind does that.
    for (auto const* const format : {"zip", "7zip", "gnutar", "ustar", "pax", "v7tar", "newc", "odc", "argnu"}) {
        SCOPED_TRACE(format);
        bool const flat = std::string(format) == "argnu";
        ExpectFound(MakeArchive(format, {{"readme.txt", std::string(5000, 'x')},
                                         {flat ? "eicar.com" : "inner/eicar.com", TestVirus()}}),
                    flat ? "eicar.com" : "inner/eicar.com");
    }
}

TEST_F(Archives, OfEachMethodAreLookedInto) {
    for (auto const* const options : {"compression=store", "compression=deflate"})
        ExpectFound(MakeArchive("zip", Infected(), "none", options));
    for (auto const* const options : {"compression=store", "compression=deflate", "compression=bzip2",
                                      "compression=lzma1", "compression=lzma2", "compression=ppmd"})
        ExpectFound(MakeArchive("7zip", Infected(), "none", options));
}

TEST_F(Archives, CompressedFilesAreLookedInto) {
    for (auto const* const filter : {"gzip", "bzip2", "xz", "lzma", "lzip", "zstd", "lz4", "compress"}) {
        SCOPED_TRACE(filter);
        ExpectFound(MakeArchive("gnutar", Infected(), filter));
        auto const verdict = Scan(WithAttachment("eicar.com.GZ", Compressed(filter, TestVirus())));
        EXPECT_EQ(verdict.found(kAv), "EICAR-Test-File");
        EXPECT_EQ(verdict.where(kAv), "eicar.com");
    }
}

TEST_F(Archives, AreFoundWhateverTheBlocksThatTheyComeIn) {
    auto const message = WithAttachment("a.zip", MakeArchive("zip", Infected()));
    for (std::size_t const size : {1u, 2u, 3u, 7u, 511u, 512u, 513u}) {
        auto in = std::make_unique<MemoryTransport>(message);
        in->mostInOneRead = size;
        EXPECT_EQ(Scan(std::move(in)).where(kAv), "inner/eicar.com") << size;
    }
}

TEST_F(Archives, WithinArchivesAreLookedInto) {
    std::string archive = MakeArchive("zip", Infected());
    for (auto const* const format : {"7zip", "gnutar", "newc", "zip"})
        archive = MakeArchive(format, {{"next", archive}});
    ExpectFound(Compressed("gzip", archive));
}

TEST_F(Archives, BehindSomethingElseAreFound) {
    std::string const program = "MZ" + std::string(70000, '\x90');
    auto const zip = MakeArchive("zip", Infected(), "none", "compression=deflate");
    auto const seven = MakeArchive("7zip", Infected());
    for (std::size_t const cut : {70000u, 69999u, 65534u, 510u, 3u, 1u}) {
        ExpectFound(program.substr(0, cut) + zip);
        ExpectFound(program.substr(0, cut) + seven);
    }
    // A mark that a program only looks for itself is no archive.
    EXPECT_TRUE(Scan(program + std::string("PK\x03\x04", 4) + program).isClean());
    ExpectFound(program + std::string("PK\x03\x04", 4) + program + seven);
}

TEST_F(Archives, InMailsInArchivesAreLookedInto) {
    auto const mail = WithAttachment("inner.zip", MakeArchive("zip", Infected()));
    ExpectFound(Zip("mail.eml", mail));
    ExpectFound(Zip("mail", mail));
    // As do parts of such a mail that no archive holds.
    ExpectFound(Zip("mail.eml", WithAttachment("eicar.com", TestVirus())), "eicar.com");
    auto const verdict = Scan("A: b\r\nContent-Type: message/rfc822\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                              Base64(WithAttachment("a.zip", MakeArchive("zip", Infected()))));
    EXPECT_EQ(verdict.where(kAv), "inner/eicar.com");
}

TEST_F(Archives, InUuencodedTextAndInDoubtfulMailsAreLookedInto) {
    auto const zip = MakeArchive("zip", Infected());
    std::string coded;
    for (std::size_t at = 0; at < zip.size(); at += 45) {
        auto const line = zip.substr(at, 45);
        coded += static_cast<char>(32 + line.size());
        for (std::size_t i = 0; i < line.size(); i += 3) {
            unsigned bits = 0;
            for (std::size_t k = 0; k < 3; ++k)
                bits = bits << 8 | (i + k < line.size() ? static_cast<unsigned char>(line[i + k]) : 0);
            for (int shift = 18; shift >= 0; shift -= 6) coded += static_cast<char>(32 + (bits >> shift & 63));
        }
        coded += "\r\n";
    }
    EXPECT_EQ(Scan("A: b\r\n\r\nhello\r\nbegin 644 a.zip\r\n" + coded + "`\r\nend\r\n").where(kAv), "inner/eicar.com");
    // No field says that this is base64.
    EXPECT_EQ(Scan("hello\r\nContent-Type: x\r\n\r\n" + Base64(zip)).where(kAv), "inner/eicar.com");
}

TEST_F(Archives, ThatAreReplacedGoAsAWhole) {
    Policy("<settings section=\"KORAVScanner\"><set name=\"Action\">REPLACE</set></settings>");
    auto const verdict = Scan(WithAttachment("a.zip", MakeArchive("zip", Infected()), "keep me"));
    EXPECT_EQ(verdict.action(), "REPLACE");
    EXPECT_NE(verdict.out->bytes.find("keep me"), std::string::npos);
    EXPECT_EQ(verdict.out->bytes.find("UEsDB"), std::string::npos);
    EXPECT_TRUE(Scan(verdict.out->bytes).isClean());
}

TEST_F(Archives, AreNotLookedIntoInTheFallback) {
    auto in = std::make_unique<MemoryTransport>(MakeArchive("zip", Infected(), "none", "compression=deflate"));
    in->bytes += "not compressed: " + TestVirus();
    in->bag.NewProperty("ES_FORCEDHOST")->SetNarrow("DefaultFormatPlugin");
    Thread().SelectEngines(false, nullptr);
    Thread().SelectEngines(true, "KORAVScanner");
    auto const verdict = Scan(std::move(in));
    EXPECT_EQ(verdict.found(kAv), "EICAR-Test-File");
    EXPECT_EQ(verdict.where(kAv), "");
    EXPECT_EQ(verdict.resultOf(kFormat), nullptr);
}

TEST_F(Archives, EndByTheLimitOfDepthExactly) {
    std::string archive = "x";
    for (int i = 0; i < 16; ++i) archive = Zip("next", archive);
    EXPECT_TRUE(Scan(archive).isClean());
    ExpectLimit(Zip("next", archive), "DEPTH");
    Policy("<settings section=\"KORFormatScanner\"><set name=\"MaxDepth\">2</set></settings>");
    EXPECT_TRUE(Scan(MakeArchive("gnutar", {{"a", "x"}}, "gzip")).isClean());
    ExpectLimit(Zip("next", MakeArchive("gnutar", {{"a", "x"}}, "gzip")), "DEPTH");
}

TEST_F(Archives, EndByTheLimitOfPartsExactly) {
    Policy("<settings section=\"KORFormatScanner\"><set name=\"MaxParts\">100</set></settings>");
    for (auto const* const format : {"zip", "gnutar", "7zip"}) {
        Files files(100, {"a", "x"});
        EXPECT_TRUE(Scan(MakeArchive(format, files)).isClean()) << format;
        files.emplace_back("a", "x");
        ExpectLimit(MakeArchive(format, files), "DEPTH");
    }
}

TEST_F(Archives, EndByTheLimitOfExpansion) {
    std::string const zeros(1u << 20, '\0');
    struct Kind {
        char const* format;
        char const* filter;
        char const* quickly;
    };
    for (auto const& kind :
         {Kind{"zip", "none", "compression-level=1"}, Kind{"7zip", "none", "compression=deflate,compression-level=1"},
          Kind{"gnutar", "gzip", "compression-level=1"}}) {
        SCOPED_TRACE(kind.format);
        ArchiveWriter fits(kind.format, kind.filter, kind.quickly);
        fits.add("zeros", zeros, 15);
        EXPECT_TRUE(Scan(fits.finish()).isClean());
        ArchiveWriter bomb(kind.format, kind.filter, kind.quickly);
        bomb.add("zeros", zeros, 65);
        ExpectLimit(bomb.finish(), "SIZE");
    }
    Policy("<settings section=\"KORFormatScanner\"><set name=\"MaxExpansion\">10000</set></settings>");
    ArchiveWriter allowed("zip", "none", "compression-level=1");
    allowed.add("zeros", zeros, 65);
    EXPECT_TRUE(Scan(allowed.finish()).isClean());
}

TEST_F(Archives, ThatAreBombsEndSoonAndInLittleMemory) {
    std::string const zeros(1u << 20, '\0');
    std::vector<std::string> bombs;
    for (auto const* const filter : {"gzip", "bzip2", "xz", "zstd"}) {
        ArchiveWriter flat("raw", filter, "compression-level=1");
        flat.add("data", zeros, 70);
        bombs.push_back(flat.finish());
        bombs.push_back(MakeArchive("gnutar", {{"flat", bombs.back()}}, "xz"));
    }
    // Sixteen of sixteen of sixteen, each level small.
    ArchiveWriter core("zip");
    core.add("0.dll", zeros, 40);
    std::string nested = core.finish();
    for (int level = 0; level < 4; ++level) {
        Files files;
        for (int i = 0; i < 16; ++i) files.emplace_back("lib " + std::to_string(i) + ".zip", nested);
        nested = MakeArchive("zip", files);
    }
    bombs.push_back(nested);
    // A directory of many entries, packed again.
    std::string directory = MakeArchive("zip", {{"a", "x"}});
    auto const central = directory.find(std::string("PK\x01\x02", 4));
    auto const end = directory.find(std::string("PK\x05\x06", 4));
    std::string many;
    for (int i = 0; i < 400000; ++i) many += directory.substr(central, end - central);
    directory.insert(central, many);
    bombs.push_back(Zip("a.zip", directory));

    for (auto const& bomb : bombs) {
        PeakMemory();
        auto const before = PeakMemory();
        double const begun = ProcessorTime();
        auto const verdict = Scan(WithAttachment("a.bin", bomb));
        double const took = ProcessorTime() - begun;
        EXPECT_NE(verdict.text(kFormat, "E_SR_DOS_TYPE"), "") << &bomb - bombs.data();
        EXPECT_EQ(verdict.action(), "DENY");
        auto const grown = PeakMemory() - before;
        EXPECT_LT(grown, kMostKilobytes) << &bomb - bombs.data();
        EXPECT_LT(took, kMostSeconds) << &bomb - bombs.data();
        std::printf("bomb %zd: %zu bytes, %.3f s, +%ld KiB\n", &bomb - bombs.data(), bomb.size(), took, grown);
    }
}

TEST(EntryNames, AreMadeSafe) {
    EXPECT_EQ(SafeEntryName("a/b.txt"), "a/b.txt");
    EXPECT_EQ(SafeEntryName("../../etc/passwd"), "etc/passwd");
    EXPECT_EQ(SafeEntryName("/etc//./passwd/.."), "etc/passwd");
    EXPECT_EQ(SafeEntryName("..\\..\\windows\\x.exe"), "windows/x.exe");
    EXPECT_EQ(SafeEntryName(std::string("a\0b\r\nc\x7F", 7)), "a_b_c_");
    EXPECT_EQ(SafeEntryName("gpj\xE2\x80\xAE.exe"), "gpj_.exe");
    EXPECT_EQ(SafeEntryName("\xC3\xA4.txt"), "\xC3\xA4.txt");
    EXPECT_EQ(SafeEntryName("\xFF.txt"), "\xEF\xBF\xBD.txt");
    auto const cut = SafeEntryName(std::string(1000, 'a') + "\xC3\xA4" + std::string(250, 'b') + ".exe");
    EXPECT_EQ(cut, std::string(250, 'b') + ".exe");
    EXPECT_EQ(SafeEntryName(""), "");
    EXPECT_EQ(SafeEntryName("..//"), "");
    EXPECT_EQ(SafeEntryName("a../" + std::string(252, 'b')), std::string(252, 'b'));
    EXPECT_EQ(SafeEntryName("a/" + std::string(254, 'b')), std::string(254, 'b'));
}

TEST_F(Archives, NameWhatIsCompressedSafelyByTheFileItIsIn) {
    for (auto const& [packed, plain] : {std::pair("...gz", ""), std::pair("a/.gz", "a"), std::pair("a.gz", "a")}) {
        auto const virus = Compressed("gzip", TestVirus());
        ExpectFound(MakeArchive("zip", {{packed, virus}}), plain);
    }
}

TEST_F(Archives, ShowFilesThatTheyCallLinks) {
    for (auto const* const kind : {"zip", "7zip"}) {
        ArchiveWriter writer(kind);
        writer.link("eicar.com", TestVirus());
        ExpectFound(writer.finish(), "eicar.com");
    }
    // To a reader that knows no links this is a file.
    auto zip = MakeArchive("zip", {{"a.exe", std::string("MZ\0\0", 4) + TestVirus()}}, "none", "compression=deflate");
    auto const central = zip.find(std::string("PK\x01\x02", 4));
    zip[central + 5] = 3;
    zip.replace(central + 38, 4, std::string("\0\0\xFF\xA1", 4));
    ExpectFound(zip, "a.exe");
    // Or a folder.
    zip.replace(central + 38, 4, std::string("\x10\0\xED\x41", 4));
    ExpectFound(zip, "a.exe");
}

TEST_F(Archives, HaveTheNamesThatAreInThem) {
    locale_t const utf8 = newlocale(LC_ALL_MASK, "C.UTF-8", locale_t());
    ASSERT_TRUE(utf8);
    for (auto const* const kind : {"zip", "7zip", "pax", "gnutar"}) {
        locale_t const before = uselocale(utf8);
        auto const archive = MakeArchive(kind, {{"\xC3\x84\xE2\x82\xAC.com", TestVirus()}}, "none",
                                         kind == std::string("zip") ? "zip:hdrcharset=UTF-8" : nullptr);
        uselocale(before);
        ExpectFound(archive, "\xC3\x84\xE2\x82\xAC.com");
    }
    freelocale(utf8);
}

TEST_F(Archives, ThatTakeTooMuchMemoryToUnpackEndByTheLimit) {
    auto lzma = Compressed("lzma", "content");
    auto const dictionary = [&](unsigned megabytes) {
        for (unsigned i = 0; i < 4; ++i) lzma[1 + i] = static_cast<char>(megabytes << 20 >> 8 * i);
        return lzma;
    };
    EXPECT_TRUE(Scan(WithAttachment("a.lzma", dictionary(64))).isClean());
    ExpectLimit(dictionary(128), "SIZE");
    ExpectLimit(dictionary(2048), "SIZE");
}

// Each of them keeps a dictionary while those within it are read.
TEST_F(Archives, WithinOneAnotherKeepThreeLargeDictionariesAtMost) {
    auto const within = [](char const* filter, int times, std::string object) {
        for (; times > 0; --times) object = Compressed(filter, object);
        return object;
    };
    for (char const* const filter : {"xz", "lzma", "lzip", "zstd"}) {
        EXPECT_EQ(Scan(within(filter, 1, within("xz", 2, TestVirus()))).found(kAv), "EICAR-Test-File") << filter;
        auto const deeper = Scan(within(filter, 1, within("xz", 3, TestVirus())));
        EXPECT_EQ(deeper.text("KORFormatScanner", "E_SR_DOS_TYPE"), "SIZE") << filter;
    }
    auto const light = within("gzip", 1, within("bzip2", 1, within("lz4", 1, within("xz", 3, TestVirus()))));
    EXPECT_EQ(Scan(light).found(kAv), "EICAR-Test-File") << "others do not count";
    auto const beside = MakeArchive("zip", {{"a.xz", within("xz", 3, "a")}, {"b.xz", within("xz", 3, TestVirus())}});
    EXPECT_EQ(Scan(beside).found(kAv), "EICAR-Test-File") << "nor do those that are over";
}

TEST_F(Archives, ShowWhatTheirDirectoriesLeaveOut) {
    auto zip = MakeArchive("zip", Infected(), "none", "zip:compression=store");
    auto const end = zip.find(std::string("PK\x05\x06", 4));
    auto const central = zip.find(std::string("PK\x01\x02", 4));
    // A directory without entries: readers that go by it see an empty archive, others do not.
    auto empty = zip.substr(0, central) + zip.substr(end);
    for (std::size_t at = 8; at < 16; ++at) empty[central + at] = '\0';
    EXPECT_EQ(Scan(empty).found(kAv), "EICAR-Test-File");
    EXPECT_EQ(Scan(empty).where(kAv), "inner/eicar.com");
    // The readers of one kind see one archive, those of another kind the other.
    ExpectFound(MakeArchive("zip", {{"a", "x"}}) + zip);
    ExpectFound(MakeArchive("gnutar", {{"a", "x"}}) + zip);
    ExpectFound(Compressed("gzip", "x") + zip);
}
