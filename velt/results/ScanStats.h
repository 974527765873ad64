// SCAN_STATS: the counters of what the scanners found, in all and by the direction of the session.
// Owner: the process; they are made once and stay. Threads: any may count. Before Initialise nothing counts.
#pragma once

#include <QXStats/QXCounter.h>

namespace VELT {

struct SCAN_STATS {
    QXStats::QXCounter* virus_detected = nullptr;
    QXStats::QXCounter* spam_detected = nullptr;
    QXStats::QXCounter* spam_belowthreshold = nullptr;
    QXStats::QXCounter* content_filter_detected = nullptr;
    QXStats::QXCounter* mail_filtering_detected = nullptr;
    QXStats::QXCounter* file_filtering_detected = nullptr;

    void Initialise(char const* prefix);  // "prefix.name", or "name" for null; those that are so named stay
};

extern SCAN_STATS s_Totals;
extern SCAN_STATS s_PolicyStats[2];  // by Connection::IsInBound

// Adds one to a row, in all and for the direction.
void CountFinding(bool inBound, QXStats::QXCounter* SCAN_STATS::*row);

}  // namespace VELT
