// FileStream: a ScannerStream that stands for a file: the name that code gives to a stream with memory of its own.
// Owner, threads, units and failure: as ScannerStream.
#pragma once

#include <velt/Export.h>
#include <velt/streams/ScannerStream.h>

namespace VELT {

class VELT_API FileStream : public ScannerStream {
public:
    using ScannerStream::ScannerStream;
    ~FileStream() override;
};

}  // namespace VELT
