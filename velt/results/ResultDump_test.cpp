// Dumps of results: what they say, and where they are written and where not.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include <testing/TempRoot.h>
#include <velt/results/ResultDump.h>
#include <velt/results/ScanResultTest.h>

using namespace VELT;
using namespace velt_testing;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kNameLength = 36;

std::string ContentOf(fs::path const& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::set<fs::path> FilesIn(fs::path const& folder) {
    std::set<fs::path> files;
    if (!fs::is_directory(folder)) return files;
    for (auto const& entry : fs::directory_iterator(folder)) {
        if (entry.is_regular_file() && entry.path().filename().native().size() == kNameLength) {
            files.insert(entry.path());
        }
    }
    return files;
}

class ResultDump : public ScanResultTest {
protected:
    ResultDump() { verdict.action = "DENY"; }

    std::string Text(std::string const& auditId = {}) { return results::DumpText(&verdict, &result, data, auditId); }
    void FillAll() {
        IKORProperty* const actions = result.bag.NewProperty("E_SR_ACTION");
        actions->AddNarrow("LOG");
        actions->AddNarrow("REPLACE");
        data.type = 4;
        data.kind = std::string("FF");
        data.reason = KORtk::Utf8Array(L"gr\u00fc\u00df");
        data.fileName = KORtk::Utf8Array("setup.exe");
    }

    FakeVerdict verdict;
};

TEST_F(ResultDump, SaysAllInThisOrder) {
    FillAll();
    EXPECT_EQ(Text("A-17"),
              "Master Action is DENY\nSecondary Action is LOG\nSecondary Action is REPLACE\nAudit ID is A-17\n"
              "Scanner Type is 4\nScanner Name is FF\nScanner Reason is gr\xc3\xbc\xc3\x9f\n"
              "Scanner File Name is setup.exe\n");
}

TEST_F(ResultDump, IsEmptyWhereNothingIsKnown) {
    verdict.action = nullptr;
    EXPECT_EQ(Text(), "");
    result.hasBag = false;
    EXPECT_EQ(Text(), "");
    EXPECT_EQ(results::DumpText(nullptr, nullptr, data, ""), "");
}

TEST_F(ResultDump, LeavesOutWhatIsNotThere) {
    data.type = 0;
    EXPECT_EQ(Text(), "Master Action is DENY\nScanner Type is 0\n");
    verdict.action = nullptr;
    data = ScannerData();
    data.kind = std::string("AV");
    EXPECT_EQ(Text("7"), "Audit ID is 7\nScanner Name is AV\n");
    data = ScannerData();
    data.reason = KORtk::Utf8Array("");  // there, and empty
    EXPECT_EQ(Text(), "Scanner Reason is \n");
}

TEST_F(ResultDump, IsOneNewFileOfItsOwnForEachCall) {
    TempRoot root;
    std::string const folder = root / "dumps/";
    results::WriteDump(folder, "first\n");
    results::WriteDump(folder, "second\n");
    std::set<std::string> texts;
    for (auto const& file : FilesIn(folder)) {
        texts.insert(ContentOf(file));
        EXPECT_FALSE(file.has_extension()) << file;
        EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write) << file;
    }
    EXPECT_EQ(texts, (std::set<std::string>{"first\n", "second\n"}));
}

TEST_F(ResultDump, FolderIsMadeOpenToAll) {
    TempRoot root;
    mode_t const before = ::umask(0);
    results::WriteDump(root / "dumps/", "");
    ::umask(before);
    EXPECT_EQ(fs::status(root / "dumps").permissions(), fs::perms::all);
    std::set<fs::path> const files = FilesIn(root / "dumps");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(fs::status(*files.begin()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(ContentOf(*files.begin()), "");
}

// Whoever was first in a folder for everybody may have put a link there.
TEST_F(ResultDump, IsNotWrittenThroughALink) {
    TempRoot root;
    fs::create_directory(root / "elsewhere");
    fs::create_directory_symlink(root / "elsewhere", root / "dumps");
    results::WriteDump(root / "dumps/", "text");
    results::WriteDump(root / "dumps", "text");
    EXPECT_TRUE(fs::is_empty(root / "elsewhere"));
}

// Daemons under several users share the folders.
TEST_F(ResultDump, IsWrittenIntoAFolderOfSomeoneElseForItsWriterAlone) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
    TempRoot root;
    fs::create_directory(root / "dumps");
    ASSERT_EQ(::chown((root / "dumps").c_str(), 12345, 12345), 0);
    results::WriteDump(root / "dumps/", "text");
    ASSERT_EQ(FilesIn(root / "dumps").size(), 1u);
    fs::path const file = *FilesIn(root / "dumps").begin();
    EXPECT_EQ(ContentOf(file), "text");
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ::geteuid());
    EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST_F(ResultDump, ThatCannotBeWrittenIsNoMatter) {
    TempRoot root;
    root.Write("file", "kept");
    results::WriteDump(root / "file/", "text");  // no folder
    results::WriteDump(root / "no/such/", "text");
    EXPECT_EQ(root.Read("file"), "kept");
    EXPECT_FALSE(root.Exists("no"));
}

TEST_F(ResultDump, ThatFindsNoRoomEndsShort) {
    TempRoot root;
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ::getrlimit(RLIMIT_FSIZE, &old);
    rlimit const small{4, old.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
    results::WriteDump(root / "dumps/", "twelve bytes");
    ::setrlimit(RLIMIT_FSIZE, &old);
    ASSERT_EQ(FilesIn(root / "dumps").size(), 1u);
    EXPECT_EQ(ContentOf(*FilesIn(root / "dumps").begin()), "twel");
}

TEST_F(ResultDump, LeavesNoDescriptorOpen) {
    TempRoot root;
    results::WriteDump(root / "dumps/", "text");
    int const before = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(before);
    results::WriteDump(root / "dumps/", "text");
    results::WriteDump(root / "no/such/", "text");
    int const after = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(after);
    EXPECT_EQ(after, before);
}

TEST_F(ResultDump, EachProtocolHasItsFolderAndOthersTheTemporaryOne) {
    char const* const folders[] = {"/tmp/smtp_result/", "/tmp/http_result/", "/tmp/pop3_result/", "/tmp/ftp_result/"};
    for (int value = 0; value < 4; ++value) {
        EXPECT_STREQ(results::DumpFolder(static_cast<ProcessScanResult::protocol>(value)), folders[value]);
    }
    for (int const other : {4, 5, 1000, -1}) {
        EXPECT_STREQ(results::DumpFolder(static_cast<ProcessScanResult::protocol>(other)), "/tmp/") << other;
    }
}

// In the folders of this machine, which other users may have made: there is nothing to see then.
class DumpOfAResult : public ResultDump {
protected:
    std::set<fs::path> Dump(int protocol, std::string const& auditId) {
        auto const where = static_cast<ProcessScanResult::protocol>(protocol);
        std::set<fs::path> const before = FilesIn(results::DumpFolder(where));
        process.DumpResult(&verdict, &result, data, where, auditId);
        std::set<fs::path> made;
        for (fs::path const& file : FilesIn(results::DumpFolder(where))) {
            if (before.count(file) || ContentOf(file) != Text(auditId)) continue;
            made.insert(file);
            m_made.insert(file);
        }
        return made;
    }
    static bool Usable(int protocol) {
        std::string const folder = results::DumpFolder(static_cast<ProcessScanResult::protocol>(protocol));
        return ::access(folder.c_str(), F_OK) != 0 || ::access(folder.c_str(), R_OK | W_OK | X_OK) == 0;
    }
    std::string OwnId() const { return "test-" + std::to_string(::getpid()); }
    ~DumpOfAResult() override {
        for (fs::path const& file : m_made) fs::remove(file);
    }

private:
    std::set<fs::path> m_made;
};

TEST_F(DumpOfAResult, IsOneFileInTheFolderOfItsProtocol) {
    FillAll();
    for (int const protocol : {0, 1, 3, 4}) {  // the last case has the other folder for itself
        if (!Usable(protocol)) continue;
        EXPECT_EQ(Dump(protocol, OwnId()).size(), 1u) << protocol;
    }
}

TEST_F(DumpOfAResult, IsAnotherFileAtTheSecondCall) {
    if (!Usable(ProcessScanResult::FTP)) GTEST_SKIP() << "the folder is another user's";
    std::set<fs::path> const first = Dump(ProcessScanResult::FTP, OwnId());
    std::set<fs::path> const second = Dump(ProcessScanResult::FTP, OwnId());
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_NE(first, second);
}

TEST_F(DumpOfAResult, ThatSaysNothingIsAnEmptyFile) {
    if (!Usable(ProcessScanResult::POP3)) GTEST_SKIP() << "the folder is another user's";
    verdict.action = nullptr;
    std::set<fs::path> const made = Dump(ProcessScanResult::POP3, "");
    ASSERT_GE(made.size(), 1u);
    EXPECT_EQ(fs::file_size(*made.begin()), 0u);
}

}  // namespace
