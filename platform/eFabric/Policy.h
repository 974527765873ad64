// The framework behind libpolicyloader.so: the store of settings, scan threads and scan objects.
// Owner: the process has one loader, which lives until the process ends; so does every value and text it gives.
// Threads: the loader serves any thread and reads take no lock. A scan thread object and its scan objects belong to one
// thread. Failure: null or false, with the reason in the object's last error.
#pragma once

#include <ctime>
#include <string>

#include <Export.h>
#include <eFabric/Error.h>
#include <eFabric/Interned.h>
#include <eFabric/Property.h>
#include <eFabric/Result.h>
#include <eFabric/ScanTime.h>
#include <eFabric/Transport.h>

namespace eFabric {

// Where the framework finds its files: paths as the process is to open them.
struct eConfig {
    std::wstring plugin_dir, product_config, rules, av_dat, av_lib, scan_dir;
};

struct ProductAlertValue {
    wchar_t const* body;
    wchar_t const* header;
    wchar_t const* footer;
};

// A setting's value. The getters answer false, and leave the target alone, when the value has no such form.
// A scalar asked as a list is a list of one element, itself; a list has no scalar form.
class VELTPLATFORM_API IProductValue {
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

class VELTPLATFORM_API IIdentityList {
public:
    virtual unsigned size() const = 0;
    virtual InternedString at(unsigned) const = 0;

protected:
    ~IIdentityList() = default;
};

}  // namespace eFabric

class VELTPLATFORM_API IScanObject {
public:
    virtual void Release() = 0;
    virtual IScanResultHandler const* Scan(eFabric::IStreamTransport* out, ScanTime*) = 0;
    virtual bool IsSettingOn(char const* setting, ScanTime*) = 0;

protected:
    ~IScanObject() = default;
};

class VELTPLATFORM_API IScanThread {
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

// `status` may be null; it is set to 0 when there is an answer and to 1 when there is none.
// compareActions: 0 equal, 1 the first is weaker, 2 the first is stronger, -1 one of them is unknown to the policy.
// `when` is the time for which the value is asked, in seconds since the epoch; 0 is now.
class VELTPLATFORM_API IPolicyLoader {
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

// The process's single loader, made at the first call. The numbers are the interface's version and flavour, 3 and 1.
extern "C" VELTPLATFORM_API eFabric::IPolicyLoader* CreatePolicyLoader(int api, int flavour);
// Stops the engines; safe without a loader and when called twice.
extern "C" VELTPLATFORM_API void ShutdownPolicyLoader();
