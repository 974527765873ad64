// StreamTransport: a ScannerStream as the scanning framework reads and writes it.
// Owner: the scan that makes it, for its own duration; the stream and an external bag are borrowed. Thread: the scan's.
// Units: counts are in elements of the recommended base, 1 or 4 bytes. Failure: false, or a short count.
#pragma once

#include <cstdint>

#include <eFabric/Policy.h>
#include <velt/streams/ScannerStream.h>

namespace VELT {

class StreamTransport : public eFabric::IStreamTransport {
public:
    explicit StreamTransport(ScannerStream& scannerStream);

    bool get(unsigned char& byte) override;
    bool put(unsigned char byte) override;
    unsigned long read(unsigned char* buffer, unsigned long count) override;
    unsigned long write(unsigned char const* data, unsigned long count) override;  // 0 when read-only
    bool close() override;
    bool CanSeekTell() override;
    bool CanReportLength() override;
    bool seek(unsigned long position) override;  // false past the end
    unsigned long tell() override;
    unsigned long size() override;
    bool seteof() override;
    bool setsize(unsigned long size) override;
    void SetRecommendedBase(eFabric::RecommendedBaseType wanted) override;  // Base_None changes nothing
    eFabric::RecommendedBaseType GetRecommendedBase() override;
    bool IsReadOnly() override;
    bool IsModified() override;
    void SetReadOnly(bool on) override;
    IKORPropertyBag* GetPropertyBag() override;  // the external bag, if one was set

    void setExternalBag(IKORPropertyBag* bag) { external_bag = bag; }

private:
    KORPropertyBag bag;
    IKORPropertyBag* external_bag = nullptr;
    ScannerStream* stream;

protected:
    void setBaseSize();  // from the base; Base_None has elements of no size, and none are read or written then

    eFabric::RecommendedBaseType base = eFabric::Base_Byte;

private:
    std::uint16_t base_size = 1;
    bool read_only = false;
    bool modified = false;
};

}  // namespace VELT
