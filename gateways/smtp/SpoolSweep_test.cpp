#include "SpoolSweep.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace smtp {
namespace {

namespace fs = std::filesystem;
using std::chrono::minutes;

class Sweeping : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "velt-sweep-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
    }
    void TearDown() override { fs::remove_all(m_folder); }

    void File(std::string const& name, minutes age) {
        std::ofstream(m_folder / name) << "x";
        fs::last_write_time(m_folder / name, fs::file_time_type::clock::now() - age);
    }
    bool Exists(std::string const& name) const { return fs::exists(fs::symlink_status(m_folder / name)); }

    fs::path m_folder;
};

TEST_F(Sweeping, RemovesOldSpoolFilesAndNothingElse) {
    File("old.in", minutes(90));
    File("old.out", minutes(90));
    File(".in", minutes(90));
    File("young.in", minutes(30));
    File("old.txt", minutes(90));
    fs::create_directory(m_folder / "segv");
    fs::create_symlink(m_folder / "old.txt", m_folder / "link.in");
    SweepSpool(m_folder.string());
    EXPECT_FALSE(Exists("old.in"));
    EXPECT_FALSE(Exists("old.out"));
    EXPECT_FALSE(Exists(".in"));
    for (char const* kept : {"young.in", "old.txt", "segv", "link.in"}) EXPECT_TRUE(Exists(kept)) << kept;
}

TEST_F(Sweeping, TakesAMissingFolderForAnEmptyOne) { SweepSpool((m_folder / "none").string()); }

}  // namespace
}  // namespace smtp
