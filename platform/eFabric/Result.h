// What a scan leaves behind: the read interfaces of a verdict, its single results and the component tree.
#pragma once

#include <atomic>
#include <ctime>
#include <string>
#include <vector>

#include <Export.h>
#include <eFabric/Property.h>

class IAlertHandler {
public:
    virtual bool GetAlertText(char const* name, std::wstring& out) const = 0;
    virtual ~IAlertHandler() = default;
};
template <class T>
class DynBuf {
public:
    T* data();
    std::size_t size() const;
    void resize(std::size_t);
    void append(T const*, std::size_t);

private:
    std::vector<T> m_v;
};
class IKORScanPolContextElement {
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
class IFactoredObject {
public:
    virtual long AddRef() = 0;
    virtual long Release() = 0;
    virtual ~IFactoredObject() = default;
};
class IKORScanResult : public IFactoredObject {
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
class IScanResultHandler {
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
class IKORError {
public:
    virtual bool IsSet() const = 0;
    virtual unsigned long GetCode() const = 0;
    virtual int GetLevel() const = 0;
    virtual wchar_t const* GetText() const = 0;
    virtual wchar_t const* GetDetail() const = 0;
    virtual char const* GetAttribute(char const* name) const = 0;
    virtual char const* FirstAttribute(long& pos) const = 0;
    virtual char const* NextAttribute(long& pos) const = 0;

protected:
    ~IKORError() = default;
};
enum st_mode_t { ST_UTC = 0, ST_LOCAL = 1 };
class ScanTime {
public:
    ScanTime() : m_t(0) {}
    void Set();
    void Set(long t, st_mode_t);
    std::time_t Get() const;

private:
    std::atomic<std::time_t> m_t;
};
