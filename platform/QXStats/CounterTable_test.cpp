#include <QXStats/CounterTable.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>

#include "testing/DocExample.h"
#include "testing/TempRoot.h"

namespace {

using QXStats::CounterTable;

class CounterFile : public ::testing::Test {
protected:
    std::string const m_path = "/run/velt/smtp.counters";
    velt_testing::TempRoot m_root;
};

TEST_F(CounterFile, HasTheLayoutThatIsDocumented) {
    CounterTable& table = *CounterTable::OpenShared("smtp");
    *table.Find("first.counter") = 7;
    *table.Find("second") = 0x0102030405060708;
    std::string const bytes = m_root.Read(m_path);
    ASSERT_EQ(bytes.size(), 131072u);
    EXPECT_EQ(bytes.substr(0, 8), "VELTCNTR");
    std::uint32_t word;
    std::memcpy(&word, bytes.data() + 8, 4);
    EXPECT_EQ(word, 1u);
    std::memcpy(&word, bytes.data() + 12, 4);
    EXPECT_EQ(word, 1023u);
    EXPECT_STREQ(bytes.data() + 16, "smtp");
    std::memcpy(&word, bytes.data() + 128, 4);
    EXPECT_EQ(word, 2u);
    EXPECT_STREQ(bytes.data() + 128 + 16, "first.counter");
    std::uint64_t value;
    std::memcpy(&value, bytes.data() + 256 + 8, 8);
    EXPECT_EQ(value, 0x0102030405060708u);
    EXPECT_STREQ(bytes.data() + 256 + 16, "second");
}

TEST_F(CounterFile, OfTheManualHasTheBytesThatTheManualShows) {
    CounterTable& table = *CounterTable::OpenShared("smtp");
    *table.Find("recycle.con") = 3;
    *table.Find("forks") = 259;
    std::string shown(131072, '\0');
    std::istringstream lines(velt_testing::DocExample(DOCS "/formats/counters.md", "hex"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::size_t offset;
        words >> std::hex >> offset;
        for (unsigned byte; words >> byte;) shown.at(offset++) = static_cast<char>(byte);
    }
    EXPECT_EQ(m_root.Read(m_path), shown);
}

TEST_F(CounterFile, IsReadableByAllAndWritableByItsOwner) {
    CounterTable::OpenShared("smtp");
    struct stat info;
    ASSERT_EQ(::stat((m_root / m_path).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST_F(CounterFile, IsMadeAnewWhenItIsNone) {
    for (std::string const& content : {std::string(), std::string("short"), std::string(131072, 'x')}) {
        m_root.Write(m_path, content);
        *CounterTable::OpenShared("smtp")->Find("a") = 3;
        CounterTable const* const table = CounterTable::Open(m_root / m_path);
        ASSERT_NE(table, nullptr);
        EXPECT_EQ(table->Read().size(), 1u);
        EXPECT_EQ(table->Read()[0].value, 3u);
    }
}

TEST_F(CounterFile, IsNotFollowedThroughALink) {
    m_root.Write("/elsewhere", std::string(131072, 'x'));
    std::filesystem::create_directories(m_root / "/run/velt");
    std::filesystem::create_symlink(m_root / "/elsewhere", m_root / m_path);
    CounterTable::OpenShared("smtp");
    EXPECT_EQ(m_root.Read("/elsewhere"), std::string(131072, 'x'));
    EXPECT_FALSE(std::filesystem::is_symlink(m_root / m_path));
}

TEST_F(CounterFile, NamesOfProxiesLeadNowhereElse) {
    EXPECT_EQ(CounterTable::FilePath("../../etc/x"), m_root / "/run/velt/_.._.._etc_x.counters");
    EXPECT_EQ(CounterTable::FilePath(""), m_root / "/run/velt/_.counters");
    EXPECT_EQ(CounterTable::MemoryPath("a/b"), "/dev/shm/velt-a_b");
}

TEST_F(CounterFile, OfAnotherKindIsNotRead) {
    m_root.Write("/x", "text");
    EXPECT_EQ(CounterTable::Open(m_root / "/x"), nullptr);
    m_root.Write("/x", std::string(131072, '\0'));
    EXPECT_EQ(CounterTable::Open(m_root / "/x"), nullptr);
    EXPECT_EQ(CounterTable::Open(m_root / "/none"), nullptr);
}

TEST_F(CounterFile, GivesASlotThatNobodyFinishesUp) {
    CounterTable& table = *CounterTable::OpenShared("smtp");
    std::uint32_t const claimed = 1;  // by a process that died
    std::memcpy(reinterpret_cast<char*>(&table) + 128, &claimed, sizeof claimed);
    ASSERT_NE(table.Find("next"), nullptr);
    *table.Find("next") = 5;
    ASSERT_EQ(table.Read().size(), 1u);
    EXPECT_EQ(table.Read()[0].name, "next");
}

}  // namespace
