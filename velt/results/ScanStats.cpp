#include <velt/results/ScanStats.h>

#include <string>
#include <utility>

namespace VELT {

SCAN_STATS s_Totals;
SCAN_STATS s_PolicyStats[2];

namespace {

struct Row {
    QXStats::QXCounter* SCAN_STATS::*counter;
    char const* name;
};

constexpr Row kRows[] = {
    {&SCAN_STATS::virus_detected, "virus_detected"},
    {&SCAN_STATS::spam_detected, "spam_detected"},
    {&SCAN_STATS::spam_belowthreshold, "spam_belowthreshold"},
    {&SCAN_STATS::content_filter_detected, "content_filter_detected"},
    {&SCAN_STATS::mail_filtering_detected, "mail_filtering_detected"},
    {&SCAN_STATS::file_filtering_detected, "file_filtering_detected"},
};

void Count(QXStats::QXCounter* counter) {
    if (counter) (*counter)++;
}

}  // namespace

void SCAN_STATS::Initialise(char const* prefix) {
    std::string const start = prefix ? std::string(prefix) + "." : std::string();
    for (Row const& row : kRows) {
        QXStats::QXCounter*& counter = this->*row.counter;
        if (counter && counter->name() == start + row.name) continue;
        delete std::exchange(counter, new QXStats::QXCounter(start + row.name));
    }
}

void CountFinding(bool inBound, QXStats::QXCounter* SCAN_STATS::*row) {
    Count(s_Totals.*row);
    Count(s_PolicyStats[inBound].*row);
}

}  // namespace VELT
