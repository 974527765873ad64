#include "SpoolGate.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "testing/Fd.h"
#include "testing/TempRoot.h"

using scannerd::SpoolGate;
using velt_testing::Fd;

namespace {

class SpoolGateTest : public testing::Test {
protected:
    SpoolGateTest() {
        std::filesystem::create_directories(m_root / "spool/mail");
        std::filesystem::create_directories(m_root / "elsewhere");
        m_root.Write("spool/mail/a.in", "content");
        m_root.Write("elsewhere/secret", "content");
        ::chmod(Path("spool/mail/a.in").c_str(), 0600);
    }

    std::string Path(std::string const& name) const { return m_root / name; }

    // What the gate says to a path; "" where it opens the file and that holds "content".
    std::string Ask(std::string const& path, std::uint64_t size = 7) {
        char const* why = nullptr;
        Fd const file(SpoolGate({Path("spool")}).Open(path, size, why));
        if (file.get() < 0) return why;
        char text[16] = "";
        return ::read(file.get(), text, sizeof text) == 7 && std::string(text) == "content" ? "" : "another file";
    }

    velt_testing::TempRoot m_root;
};

constexpr char kNotPlain[] = "not a plain absolute path";
constexpr char kOutside[] = "below none of the spool roots";
constexpr char kNotOpened[] = "cannot be opened, or is reached through a link";

TEST_F(SpoolGateTest, OpensAFileBelowItsRoot) { EXPECT_EQ(Ask(Path("spool/mail/a.in")), ""); }

TEST_F(SpoolGateTest, RefusesPathsThatAreNotPlain) {
    for (std::string const& path :
         {std::string(), std::string("a.in"), Path("spool/mail/../mail/a.in"), Path("spool/../elsewhere/secret"),
          Path("spool/./mail/a.in"), Path("spool//mail/a.in"), Path("spool/mail/a.in/"), Path("spool/mail/.."),
          Path("spool/mail/a.in") + std::string(1, '\0'), Path("spool/") + std::string(5000, 'a')})
        EXPECT_EQ(Ask(path), kNotPlain) << path.substr(0, 80);
}

TEST_F(SpoolGateTest, RefusesWhatLiesElsewhere) {
    EXPECT_EQ(Ask(Path("elsewhere/secret")), kOutside);
    EXPECT_EQ(Ask(Path("spool")), kOutside);
    EXPECT_EQ(Ask("/etc/passwd"), kOutside);
    std::filesystem::create_directories(m_root / "spool2");
    m_root.Write("spool2/b", "content");
    EXPECT_EQ(Ask(Path("spool2/b")), kOutside) << "a name that only begins as the root does";
}

TEST_F(SpoolGateTest, FollowsNoLink) {
    std::filesystem::create_symlink(Path("elsewhere/secret"), Path("spool/mail/link"));
    std::filesystem::create_directory_symlink(Path("elsewhere"), Path("spool/folder"));
    EXPECT_EQ(Ask(Path("spool/mail/link")), kNotOpened);
    EXPECT_EQ(Ask(Path("spool/folder/secret")), kNotOpened);
    std::filesystem::create_hard_link(Path("elsewhere/secret"), Path("spool/mail/hard"));
    EXPECT_EQ(Ask(Path("spool/mail/hard")), "a file with more than one name, or with none");
}

// The folder that the operator named may be reached as the operator likes.
TEST_F(SpoolGateTest, TakesARootThatIsALinkItself) {
    std::filesystem::create_directory_symlink(Path("spool"), Path("alias"));
    char const* why = nullptr;
    Fd const file(SpoolGate({Path("alias")}).Open(Path("alias/mail/a.in"), 7, why));
    EXPECT_GE(file.get(), 0) << why;
}

TEST_F(SpoolGateTest, OpensRegularFilesOnly) {
    ASSERT_EQ(::mkfifo(Path("spool/mail/pipe").c_str(), 0600), 0);
    EXPECT_EQ(Ask(Path("spool/mail/pipe"), 0), "not a regular file") << "and does not wait for the pipe's other end";
    EXPECT_EQ(Ask(Path("spool/mail"), 0), "not a regular file");
    EXPECT_EQ(Ask(Path("spool/mail/none")), kNotOpened);
}

TEST_F(SpoolGateTest, RefusesAFileOfAnotherSize) {
    EXPECT_EQ(Ask(Path("spool/mail/a.in"), 6), "not of the size that the client says");
    EXPECT_EQ(Ask(Path("spool/mail/a.in"), std::uint64_t{1} << 40), "not of the size that the client says");
}

TEST_F(SpoolGateTest, RefusesAFileThatAnyoneMayWriteTo) {
    ::chmod(Path("spool/mail/a.in").c_str(), 0602);
    EXPECT_EQ(Ask(Path("spool/mail/a.in")), "a file that anyone may write to");
}

TEST_F(SpoolGateTest, RefusesAnotherUsersFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs the right to give files away";
    ASSERT_EQ(::chown(Path("spool/mail/a.in").c_str(), 12345, 12345), 0);
    EXPECT_EQ(Ask(Path("spool/mail/a.in")), "another user's file");
    ASSERT_EQ(::chown(Path("spool").c_str(), 12345, 12345), 0);
    EXPECT_EQ(Ask(Path("spool/mail/a.in")), "") << "the root's owner may have files in it";
}

TEST_F(SpoolGateTest, HasNoRootWithoutAPath) {
    char const* why = nullptr;
    EXPECT_EQ(SpoolGate({"", "/", "spool"}).Open("/etc/passwd", 1, why), -1);
    EXPECT_STREQ(why, kOutside);
}

}  // namespace
