// CapturePrinter: writes the records of a capture for people or for programs, as they are read.
// Bytes that no terminal should see are escaped, and each form has all bytes: \xNN in text, \u00NN in JSON.
// Threads: one. Failure: what cannot be written is left to the file's error flag.
#pragma once

#include <cstdio>

#include "tools/velt-qxd/CaptureReader.h"

namespace velt_qxd {

struct Form {
    bool json = false;
    bool hex = false;
};

void Print(CaptureReader& reader, Form const& form, std::FILE* out);

}  // namespace velt_qxd
