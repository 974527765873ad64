// ScanRun: one bucket of running scans. A run of get until null visits each watch once; one that is added meanwhile
// waits for the next run. The watches themselves are the links, so that nothing is allocated and a signal handler may
// walk a bucket.
// Owner: the watch of the process. Threads: one at a time; the caller holds the watch's lock, or has the alarm blocked.
// Failure: none.
#pragma once

#include <cstddef>

#include <velt/Export.h>

namespace VELT {

class ScannerWatch;

class VELT_API ScanRun {
public:
    void add(ScannerWatch* watch);
    ScannerWatch* get();  // null: all have been visited, and the next call begins anew
    void remove(ScannerWatch* watch);
    std::size_t size() const { return m_rows[0].size + m_rows[1].size; }

private:
    struct Row {
        ScannerWatch* first = nullptr;
        ScannerWatch* last = nullptr;
        std::size_t size = 0;
    };

    void Append(Row& row, ScannerWatch* watch);

    Row m_rows[2];
    int current = 0;  // the row being walked; the other one takes what was visited, and what is new
};

// The variant with a thread: puts the watch into the first empty bucket, or else into the lowest of
// the smallest. The number of that bucket.
VELT_API unsigned start_scan(ScannerWatch* watch);

VELT_API void run_callback(unsigned bucket);  // visits each watch of a bucket

// The variant without one: on SIGALRM, each second of a scan.
VELT_API void alarm_handler(int signal);

}  // namespace VELT
