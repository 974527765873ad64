// ScriptedFramework: a libpolicyloader.so whose answers a test writes down, and which records what is asked of it.
// A test program that links it has it in place of the real one: the library's dlopen finds it by its name.
// Owner: static. Threads: Calls may come from several; the script is set before others start.
#pragma once

#include <Export.h>
#include <eFabric/Policy.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace velt_testing {

// A verdict of results that are property bags alone.
class VELTPLATFORM_API ScriptedVerdict : public IScanResultHandler {
public:
    class Result : public IKORScanResult {
    public:
        long AddRef() override { return 1; }
        long Release() override { return 0; }
        void AddDescriptionProperty(IAlertHandler const&) override {}
        void Init() override {}
        void GetInfectionList(wchar_t*, int, wchar_t) const override {}
        long GetInfectionList(wchar_t const*) const override { return 0; }
        wchar_t const* GetInfectionList(wchar_t) const override { return nullptr; }
        int IsCleaned() const override { return 0; }
        int InfectedItems() const override { return 0; }
        char const* GetScannerClassName() const override { return ""; }
        bool GetScanErrorStatus() const override { return false; }
        void Finalise(IKORScanPolContextElement const*, IAlertHandler const&, IKORPropertyBag const* const,
                      ...) override {}
        IKORScanPolContextElement const* GetScanPolContext() const override { return nullptr; }
        IKORPropertyBag* GetPropertyBag() const override { return &bag; }

        mutable KORPropertyBag bag;
    };

    Result& Add() {
        results.push_back(std::make_unique<Result>());
        return *results.back();
    }

    void ReportSpecificScanner(char const*) const override {}
    void ResetReportSpecificScanner() const override {}
    IKORScanResult const* FindFirstScanResult(long& pos) const override { return At(pos = 0); }
    IKORScanResult const* FindNextScanResult(long& pos) const override { return At(++pos); }
    bool IsModified() const override { return false; }
    bool IsTriggered() const override { return !results.empty(); }
    bool GetInfectionDescription(wchar_t*, int) const override { return false; }
    bool GetInfectionDescription(DynBuf<wchar_t>&, char const*) const override { return false; }
    bool GetInfectionNames(wchar_t*, int, wchar_t) const override { return false; }
    bool GetInfectedComponentNames(wchar_t*, int, wchar_t) const override { return false; }
    char const* GetMasterActionCode() const override { return nullptr; }
    IKORScanResult const* GetMasterScanResult() const override { return nullptr; }
    bool DidActionOccur(char const*) const override { return false; }
    bool GetActionList(char*, unsigned&, char, unsigned&) const override { return false; }
    IKORScanPolContextElement const* GetScanContextStart() const override { return nullptr; }
    void const* GetPolicyStatement() const override { return nullptr; }

    std::vector<std::unique_ptr<Result>> results;

private:
    IKORScanResult const* At(long pos) const {
        return static_cast<std::size_t>(pos) < results.size() ? results[static_cast<std::size_t>(pos)].get() : nullptr;
    }
};

struct VELTPLATFORM_API ScriptedFramework {
    static ScriptedFramework& get();

    // The script.
    bool giveLoader = true;
    bool initialises = true;
    bool giveThread = true;
    bool giveObject = true;
    bool takesPolicy = true;
    bool settingOn = false;
    std::vector<std::vector<std::string>> engines;  // EngineType, Version, Definitions of each
    std::function<IScanResultHandler const*(eFabric::IStreamTransport& in, eFabric::IStreamTransport* out)> scan;
    std::function<void()> makingThread;  // may throw
    std::function<void()> shutdown;
    std::function<void()> onPolicy;  // called when a thread object is given a policy, which is before its scans

    // The record.
    std::vector<std::string> Calls() const;  // "thread content_in", "policy x", "select 0", "object id", "scan" ...
    void Forget();
    void Note(std::string call);
    std::atomic<std::time_t> when{0};  // the last scan, or question for a setting
    eFabric::eConfig config;
    std::vector<std::pair<std::string, std::string>> bag;  // what initialise was given

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

}  // namespace velt_testing
