// The framework behind libpolicyloader.so: the store of settings, scan threads and scan objects.
#pragma once

#include <ctime>
#include <string>

#include <Export.h>
#include <eFabric/Interned.h>
#include <eFabric/Property.h>
#include <eFabric/Result.h>

namespace eFabric {
enum RecommendedBaseType { Base_Byte = 0, Base_Wide = 1, Base_Text = 2, Base_None = 3 };
class IStreamTransport {
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
    virtual unsigned long CopyData(IStreamTransport& to, unsigned long limit);  // the platform's own, 64 KiB blocks
    virtual IKORPropertyBag* GetPropertyBag() = 0;
};
struct eConfig {
    std::wstring plugin_dir, product_config, rules, av_dat, av_lib, scan_dir;
};
struct ProductAlertValue {
    wchar_t const* body;
    wchar_t const* header;
    wchar_t const* footer;
};
class IProductValue {
public:
    virtual unsigned size() const = 0;
    virtual IProductValue const* at(unsigned) const = 0;
    virtual bool getInt(int*) const = 0;
    virtual bool getBool(bool*) const = 0;
    virtual bool getUnsigned(unsigned*) const = 0;
    virtual bool getString(char const**) const = 0;
    virtual bool getAlert(ProductAlertValue*) const = 0;

protected:
    ~IProductValue() = default;
};
class IIdentityList {
public:
    virtual unsigned size() const = 0;
    virtual InternedString at(unsigned) const = 0;

protected:
    ~IIdentityList() = default;
};
}  // namespace eFabric
class IScanObject {
public:
    virtual void Release() = 0;
    virtual IScanResultHandler const* Scan(eFabric::IStreamTransport* out, ScanTime*) = 0;
    virtual bool IsSettingOn(char const* setting, ScanTime*) = 0;

protected:
    ~IScanObject() = default;
};
class IScanThread {
public:
    virtual void Release() = 0;
    virtual IScanObject* NewScanObject(eFabric::IStreamTransport&, InternedString identity) = 0;
    virtual bool SetPolicy(InternedString) = 0;
    virtual IKORError const& LastError() const = 0;
    virtual bool SelectEngines(bool enable, char const* name_or_null) = 0;
    virtual void SetTimeSource(std::time_t (*)()) = 0;

protected:
    ~IScanThread() = default;
};
namespace eFabric {
class IPolicyLoader {
public:
    virtual bool initialise(eConfig&, int, KORPropertyBag*) = 0;
    virtual IScanThread* createScanThread(InternedString policy) = 0;
    virtual int countEngines() const = 0;
    virtual IKORPropertyBag const* engineInformation(int) const = 0;
    virtual IIdentityList const* identities(InternedString const& policyId, int* status) const = 0;
    virtual InternedString internAttribute(char const*) const = 0;
    virtual InternedString internSettings(char const*) const = 0;
    virtual IProductValue const* productValue(InternedString const& policyId, InternedString const& identity,
                                              InternedString const& settings, InternedString const& attribute,
                                              std::time_t when, int* status) const = 0;
    virtual int compareActions(InternedString const& policyId, char const* first, char const* second) const = 0;
    virtual IKORError const& lastError() const = 0;

protected:
    ~IPolicyLoader() = default;
};
}  // namespace eFabric
extern "C" eFabric::IPolicyLoader* CreatePolicyLoader(int, int);
extern "C" void ShutdownPolicyLoader();
