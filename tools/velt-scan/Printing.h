// Verdicts on the standard output: for people, or a line of JSON each. Thread: one.
#pragma once

#include <memory>

#include "tools/velt-scan/Verdict.h"

namespace velt_scan {

struct Totals {
    unsigned long files = 0, clean = 0, found = 0, error = 0;
    double milliseconds = 0;

    void add(Verdict const& verdict);
};

class Printer {
public:
    virtual ~Printer() = default;
    virtual void print(Verdict const& verdict) = 0;
    virtual void print(Totals const& totals) = 0;

    static std::unique_ptr<Printer> forPeople(bool quiet);  // quiet: neither clean files nor totals
    static std::unique_ptr<Printer> json(bool quiet);
};

char const* NameOf(Verdict::Kind kind);

}  // namespace velt_scan
