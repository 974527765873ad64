#include <velt/streams/SpoolSweep.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "testing/TempRoot.h"

namespace VELT {
namespace {

namespace fs = std::filesystem;
using std::chrono::minutes;

class StaleSpool : public ::testing::Test {
protected:
    void File(std::string const& name, minutes age) {
        m_root.Write("spool/" + name, "x");
        fs::last_write_time(m_root / ("spool/" + name), fs::file_time_type::clock::now() - age);
    }
    bool Exists(std::string const& name) const { return fs::exists(fs::symlink_status(m_root / ("spool/" + name))); }

    velt_testing::TempRoot m_root;
};

TEST_F(StaleSpool, IsOldSpoolFilesAndNothingElse) {
    for (char const* const old : {"old.in", "old.out", ".in", "old.txt", "segv/old.in"}) File(old, minutes(90));
    File("young.in", minutes(30));
    fs::create_symlink(m_root / "spool/old.txt", m_root / "spool/link.in");
    EXPECT_EQ(RemoveStaleSpool(m_root / "spool"), 3u);
    for (char const* const gone : {"old.in", "old.out", ".in"}) EXPECT_FALSE(Exists(gone)) << gone;
    for (char const* const kept : {"young.in", "old.txt", "segv/old.in", "link.in"}) EXPECT_TRUE(Exists(kept)) << kept;
}

TEST_F(StaleSpool, IsNoneInAFolderThatIsMissing) { EXPECT_EQ(RemoveStaleSpool(m_root / "none"), 0u); }

}  // namespace
}  // namespace VELT
