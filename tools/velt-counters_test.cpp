// Runs the tool itself, beside a table that this process counts in.
#include <QXStats/CounterTable.h>
#include <QXStats/QXCounter.h>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "testing/TempRoot.h"

namespace {

class CountersTool : public ::testing::Test {
protected:
    CountersTool() {
        QXStats::CounterTable& table = *QXStats::CounterTable::OpenShared("smtp");
        *table.Find("scanner.inline.scans") = 12;
        *table.Find("connections.ran") = 3;
        *table.Find("connections_ran") = 4;
    }
    int Run(std::string const& arguments) {
        m_out.clear();
        FILE* const pipe = ::popen((std::string(VELT_COUNTERS) + ' ' + arguments + " 2>&1").c_str(), "r");
        char block[4096];
        while (std::size_t const n = std::fread(block, 1, sizeof block, pipe)) m_out.append(block, n);
        return WEXITSTATUS(::pclose(pipe));
    }
    velt_testing::TempRoot m_root;
    std::string m_out;
};

TEST_F(CountersTool, PrintsTextByName) {
    EXPECT_EQ(Run("smtp"), 0);
    EXPECT_EQ(m_out, "connections.ran 3\nconnections_ran 4\nscanner.inline.scans 12\n");
}

TEST_F(CountersTool, PrintsJson) {
    EXPECT_EQ(Run("--json smtp"), 0);
    EXPECT_EQ(m_out,
              "{\"proxy\":\"smtp\",\"counters\":{\"connections.ran\":3,\"connections_ran\":4,"
              "\"scanner.inline.scans\":12}}\n");
}

TEST_F(CountersTool, PrintsPrometheusWithOneTypeForEachMetric) {
    EXPECT_EQ(Run("--prometheus smtp"), 0);
    EXPECT_EQ(m_out,
              "# TYPE velt_connections_ran_total counter\n"
              "velt_connections_ran_total{proxy=\"smtp\",counter=\"connections.ran\"} 3\n"
              "velt_connections_ran_total{proxy=\"smtp\",counter=\"connections_ran\"} 4\n"
              "# TYPE velt_scanner_inline_scans_total counter\n"
              "velt_scanner_inline_scans_total{proxy=\"smtp\",counter=\"scanner.inline.scans\"} 12\n");
}

TEST_F(CountersTool, ReadsAFileByItsPath) {
    EXPECT_EQ(Run("--file " + QXStats::CounterTable::FilePath("smtp")), 0);
    EXPECT_EQ(m_out.substr(0, 18), "connections.ran 3\n");
}

TEST_F(CountersTool, TellsWhenThereAreNone) {
    EXPECT_EQ(Run("nobody"), 1);
    EXPECT_NE(m_out.find("no counters of nobody"), std::string::npos);
    m_root.Write("/x", "text");
    EXPECT_EQ(Run("--file " + (m_root / "/x")), 1);
    EXPECT_NE(m_out.find("not a file of counters"), std::string::npos);
}

TEST_F(CountersTool, RefusesWhatItDoesNotKnow) {
    for (char const* bad : {"", "--xml smtp", "smtp pop3", "--file", "--file x smtp"}) {
        EXPECT_EQ(Run(bad), 2) << bad;
        EXPECT_EQ(m_out.substr(0, 6), "usage:");
    }
    EXPECT_EQ(Run("--help"), 0);
}

}  // namespace
