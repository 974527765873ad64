// The dump of one scan result: a text file for whoever looks into what a scan gave.
// Owner: none, free functions. Thread: any; each file has a name of its own. Failure: what cannot be written is not
// written, and nobody is told: a dump is a debugging aid, and never in the way of a message.
#pragma once

#include <eFabric/Result.h>

#include <string>

#include <velt/results/ProcessScanResult.h>

namespace VELT::results {

// Ends in "/".
char const* DumpFolder(ProcessScanResult::protocol protocol);

// A line for each thing that is known; empty when nothing is.
std::string DumpText(IScanResultHandler const* handler, IKORScanResult const* result, ScannerData const& data,
                     std::string const& auditId);

// Makes the folder if it is not there, and in it a new file of the owner's alone. Other users may have been there
// first: through a link nothing is written. In a folder of theirs they can neither read the file nor lay one in its
// place, as its name is new.
void WriteDump(std::string const& folder, std::string const& text);

}  // namespace VELT::results
