#include <velt/scanning/ScanRun.h>

#include <velt/scanning/ScannerWatch.h>

namespace VELT {

void ScanRun::Append(Row& row, ScannerWatch* watch) {
    watch->link() = {nullptr, row.last, &row};
    (row.last ? row.last->link().next : row.first) = watch;
    row.last = watch;
    ++row.size;
}

void ScanRun::add(ScannerWatch* watch) { Append(m_rows[1 - current], watch); }

ScannerWatch* ScanRun::get() {
    ScannerWatch* const watch = m_rows[current].first;
    if (!watch) {
        current = 1 - current;
        return nullptr;
    }
    remove(watch);
    add(watch);
    return watch;
}

// One that is in neither row stays as it is.
void ScanRun::remove(ScannerWatch* watch) {
    ScanLink& link = watch->link();
    for (Row& row : m_rows) {
        if (link.row != &row) continue;
        (link.previous ? link.previous->link().next : row.first) = link.next;
        (link.next ? link.next->link().previous : row.last) = link.previous;
        link = {};
        --row.size;
        return;
    }
}

}  // namespace VELT
