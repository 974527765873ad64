// Files in and out of the streams that are scanned. Thread: one. Failure: the reason, or false.
#pragma once

#include <string>

namespace VELT {
class ScannerStream;
}

namespace velt_scan {

// A file on disk is used where it is; what is none (a pipe, "-" for the standard input) is read to its end first.
// Empty: it was read.
std::string ReadFile(std::string const& path, VELT::ScannerStream& content);

// Whole or not at all: what stands at the path stays until the new file is complete.
bool WriteWhole(VELT::ScannerStream& content, std::string const& path);

}  // namespace velt_scan
