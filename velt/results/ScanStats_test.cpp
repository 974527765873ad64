// The eighteen counters of what scanners found.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <velt/results/ProcessScanResult.h>
#include <velt/results/ScanStats.h>

using namespace VELT;

namespace {

using Row = QXStats::QXCounter* SCAN_STATS::*;

constexpr Row kRows[] = {&SCAN_STATS::virus_detected,          &SCAN_STATS::spam_detected,
                         &SCAN_STATS::spam_belowthreshold,     &SCAN_STATS::content_filter_detected,
                         &SCAN_STATS::mail_filtering_detected, &SCAN_STATS::file_filtering_detected};
constexpr char const* kNames[] = {"virus_detected",          "spam_detected",           "spam_belowthreshold",
                                  "content_filter_detected", "mail_filtering_detected", "file_filtering_detected"};
constexpr std::size_t kRowCount = std::size(kRows);

std::vector<std::string> NamesOf(SCAN_STATS const& stats) {
    std::vector<std::string> names;
    for (Row const row : kRows) names.push_back((stats.*row)->name());
    return names;
}

std::vector<std::string> NamesWith(std::string const& start) {
    std::vector<std::string> names;
    for (char const* name : kNames) names.push_back(start + name);
    return names;
}

TEST(ScanStats, AreSixCountersInThisOrder) {
    SCAN_STATS stats;
    for (std::size_t i = 0; i < kRowCount; ++i) {
        auto const* const place = reinterpret_cast<std::byte const*>(&(stats.*kRows[i]));
        EXPECT_EQ(place - reinterpret_cast<std::byte const*>(&stats), static_cast<long>(i * sizeof(void*)));
        EXPECT_EQ(stats.*kRows[i], nullptr);
    }
    EXPECT_EQ(sizeof stats, kRowCount * sizeof(void*));
}

TEST(ScanStats, AreNamedByPrefixAndFinding) {
    static SCAN_STATS plain, prefixed;  // counters are never destroyed
    plain.Initialise(nullptr);
    prefixed.Initialise("from_anywhere");
    EXPECT_EQ(NamesOf(plain), NamesWith(""));
    EXPECT_EQ(NamesOf(prefixed), NamesWith("from_anywhere."));
}

TEST(ScanStats, AreEighteenInAllAndByDirection) {
    ProcessScanResult::Initialise();
    EXPECT_EQ(NamesOf(s_Totals), NamesWith(""));
    EXPECT_EQ(NamesOf(s_PolicyStats[0]), NamesWith("from_inside."));
    EXPECT_EQ(NamesOf(s_PolicyStats[1]), NamesWith("from_outside."));
}

TEST(ScanStats, ThatAreThereAreKept) {
    ProcessScanResult::Initialise();
    QXStats::QXCounter const* const made = s_Totals.virus_detected;
    ProcessScanResult::Initialise();
    EXPECT_EQ(s_Totals.virus_detected, made);
}

TEST(ScanStats, AreMadeAnewUnderAnotherName) {
    static SCAN_STATS stats;
    stats.Initialise("");
    EXPECT_EQ(NamesOf(stats), NamesWith("."));
    stats.Initialise("from_elsewhere");
    EXPECT_EQ(NamesOf(stats), NamesWith("from_elsewhere."));
    stats.Initialise(nullptr);
    EXPECT_EQ(NamesOf(stats), NamesWith(""));
}

TEST(ScanStats, MoveByOneInAllAndForTheDirection) {
    ProcessScanResult::Initialise();
    for (Row const row : kRows) {
        for (bool const inBound : {false, true}) {
            unsigned long const all = (s_Totals.*row)->value();
            unsigned long const own = (s_PolicyStats[inBound].*row)->value();
            unsigned long const other = (s_PolicyStats[!inBound].*row)->value();
            CountFinding(inBound, row);
            EXPECT_EQ((s_Totals.*row)->value(), all + 1);
            EXPECT_EQ((s_PolicyStats[inBound].*row)->value(), own + 1);
            EXPECT_EQ((s_PolicyStats[!inBound].*row)->value(), other);
        }
    }
}

TEST(ScanStats, CountNothingBeforeTheyAreMade) {
    SCAN_STATS const all = std::exchange(s_Totals, {}), inbound = std::exchange(s_PolicyStats[1], {});
    for (Row const row : kRows) CountFinding(true, row);
    EXPECT_EQ(s_Totals.virus_detected, nullptr);
    EXPECT_EQ(s_PolicyStats[1].virus_detected, nullptr);
    s_Totals = all;
    s_PolicyStats[1] = inbound;
}

}  // namespace
