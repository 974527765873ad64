// What a scan leaves behind: the read interfaces of a verdict, of its single results and of the component tree.
// Owner: the scan object that made them; texts and elements live until it is released. Threads: the scanning one, and
// later whoever holds the scan object. Failure: null, false or 0; nothing throws.
#pragma once

#include <string>

#include <Export.h>
#include <eFabric/DynBuf.h>
#include <eFabric/Error.h>
#include <eFabric/Property.h>
#include <eFabric/ScanTime.h>

// Gives the text of a named alert of the host; false when it has none.
class VELTPLATFORM_API IAlertHandler {
public:
    virtual bool GetAlertText(char const* name, std::wstring& out) const = 0;
    virtual ~IAlertHandler() = default;
};

// One component of the scanned item: the item itself, a MIME part, a member of an archive.
class VELTPLATFORM_API IKORScanPolContextElement {
public:
    virtual ~IKORScanPolContextElement() = default;
    virtual bool IsChildOf(IKORScanPolContextElement const*) const = 0;
    virtual long GetComponentIndex() const = 0;
    virtual int GetComponentType() const = 0;
    virtual wchar_t const* GetComponentName() const = 0;
    virtual wchar_t const* GetScanContextString(wchar_t* buffer, int size, wchar_t sep, wchar_t namesep) const = 0;
    virtual IKORScanPolContextElement const* GetParent() const = 0;
    virtual IKORScanPolContextElement const* GetFirstChild(long&) const = 0;
    virtual IKORScanPolContextElement const* GetNextChild(long&) const = 0;
    virtual bool CheckInContext(char const*, bool, bool) const = 0;
    virtual int GetInfectedStatus() const = 0;
    virtual bool IsTopLevel() const = 0;
    virtual bool StateReset() const = 0;
};

// Counted: born with one reference; Release of the last one destroys it. Both give the new count.
class VELTPLATFORM_API IFactoredObject {
public:
    virtual long AddRef() = 0;
    virtual long Release() = 0;
    virtual ~IFactoredObject() = default;
};

// What one engine has to say about one component; the details are in its property bag.
class VELTPLATFORM_API IKORScanResult : public IFactoredObject {
public:
    virtual void AddDescriptionProperty(IAlertHandler const&) = 0;
    virtual void Init() = 0;
    virtual void GetInfectionList(wchar_t*, int, wchar_t) const = 0;
    virtual long GetInfectionList(wchar_t const*) const = 0;
    virtual wchar_t const* GetInfectionList(wchar_t separator) const = 0;
    virtual int IsCleaned() const = 0;
    virtual int InfectedItems() const = 0;
    virtual char const* GetScannerClassName() const = 0;
    virtual bool GetScanErrorStatus() const = 0;
    virtual void Finalise(IKORScanPolContextElement const*, IAlertHandler const&, IKORPropertyBag const* const,
                          ...) = 0;
    virtual IKORScanPolContextElement const* GetScanPolContext() const = 0;
    virtual IKORPropertyBag* GetPropertyBag() const = 0;
};

// The verdict of one scan. FindFirst/FindNext walk the results with a place of the caller's; null after the last.
// GetMasterActionCode and GetMasterScanResult are null when nothing was triggered.
class VELTPLATFORM_API IScanResultHandler {
public:
    virtual void ReportSpecificScanner(char const*) const = 0;
    virtual void ResetReportSpecificScanner() const = 0;
    virtual IKORScanResult const* FindFirstScanResult(long&) const = 0;
    virtual IKORScanResult const* FindNextScanResult(long&) const = 0;
    virtual bool IsModified() const = 0;
    virtual bool IsTriggered() const = 0;
    virtual bool GetInfectionDescription(wchar_t*, int) const = 0;
    virtual bool GetInfectionDescription(DynBuf<wchar_t>&, char const*) const = 0;
    virtual bool GetInfectionNames(wchar_t*, int, wchar_t) const = 0;
    virtual bool GetInfectedComponentNames(wchar_t*, int, wchar_t) const = 0;
    virtual char const* GetMasterActionCode() const = 0;
    virtual IKORScanResult const* GetMasterScanResult() const = 0;
    virtual bool DidActionOccur(char const*) const = 0;
    virtual bool GetActionList(char*, unsigned&, char, unsigned&) const = 0;
    virtual IKORScanPolContextElement const* GetScanContextStart() const = 0;
    virtual void const* GetPolicyStatement() const = 0;
    virtual ~IScanResultHandler() = default;
};
