// IStreamTransport: how the framework reads and writes the item under scan.
// Owner: who makes it; it lives longer than the scan. Thread: the scanning one.
// Units: counts of read, write and CopyData are in units of the recommended base (bytes, or wide characters of 4
// bytes); positions and sizes are in bytes. Failure: false, or fewer units than asked for.
#pragma once

#include <Export.h>
#include <eFabric/Property.h>

namespace eFabric {

enum RecommendedBaseType : int { Base_Byte = 0, Base_Wide = 1, Base_Text = 2, Base_None = 3 };

class VELTPLATFORM_API IStreamTransport {
public:
    virtual ~IStreamTransport() = default;
    virtual bool get(unsigned char&) = 0;
    virtual bool put(unsigned char) = 0;
    virtual unsigned long read(unsigned char*, unsigned long) = 0;
    virtual unsigned long write(unsigned char const*, unsigned long) = 0;
    virtual bool close() = 0;
    virtual bool CanSeekTell() = 0;
    virtual bool CanReportLength() = 0;
    virtual bool seek(unsigned long) = 0;
    virtual unsigned long tell() = 0;
    virtual unsigned long size() = 0;
    virtual bool seteof() = 0;
    virtual bool setsize(unsigned long) = 0;
    virtual bool reserve(unsigned long) { return true; }
    virtual void SetRecommendedBase(RecommendedBaseType) = 0;
    virtual RecommendedBaseType GetRecommendedBase() = 0;
    virtual bool IsReadOnly() = 0;
    virtual bool IsModified() = 0;
    virtual void SetReadOnly(bool) = 0;
    // Reads from here and writes to `to`, in blocks of 64 KiB, until the end, a failing side or `limit` units.
    // Gives the units that arrived there.
    virtual unsigned long CopyData(IStreamTransport& to, unsigned long limit);
    virtual IKORPropertyBag* GetPropertyBag() = 0;
};

}  // namespace eFabric
