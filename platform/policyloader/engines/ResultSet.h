// ResultSet: the verdict of one scan: its results, the master among them, and the components they speak of.
// Owner: the scan object; lives as long as it does.  Threads: the scan's.
// Failure: addFailure never throws; a scan that broke down always has an error result.
#pragma once

#include <memory>
#include <vector>

#include <eFabric/Result.h>

#include <policyloader/engines/EngineResult.h>

namespace policyloader {

class ResultSet final : public IScanResultHandler {
public:
    ResultSet();
    ~ResultSet() override;
    ResultSet(ResultSet const&) = delete;
    ResultSet& operator=(ResultSet const&) = delete;

    // While the scan makes it.
    void clear();
    ComponentTree& components() { return m_components; }
    EngineResult& add(char const* engine, EngineType type);
    void addFailure(char const* engine, EngineType type) noexcept;  // of the exception being handled
    void decide(ScanPlan const& plan);                              // picks the master
    void setModified(bool modified) { m_modified = modified; }
    std::vector<EngineResult*> triggered() const;
    bool hasError() const;

    void ReportSpecificScanner(char const* engine) const override;  // the walk gives this one's only
    void ResetReportSpecificScanner() const override;
    IKORScanResult const* FindFirstScanResult(long& pos) const override;
    IKORScanResult const* FindNextScanResult(long& pos) const override;
    bool IsModified() const override { return m_modified; }
    bool IsTriggered() const override { return m_master; }
    bool GetInfectionDescription(wchar_t* buffer, int size) const override;  // the master's; false: none, or no room
    bool GetInfectionDescription(DynBuf<wchar_t>& buffer, char const* engine) const override;
    bool GetInfectionNames(wchar_t* buffer, int size, wchar_t separator) const override;
    bool GetInfectedComponentNames(wchar_t* buffer, int size, wchar_t separator) const override;
    char const* GetMasterActionCode() const override { return m_master ? m_master->action().c_str() : nullptr; }
    IKORScanResult const* GetMasterScanResult() const override { return m_master; }
    bool DidActionOccur(char const* action) const override;
    bool GetActionList(char* buffer, unsigned& size, char separator, unsigned& count) const override;
    IKORScanPolContextElement const* GetScanContextStart() const override { return m_components.root(); }
    void const* GetPolicyStatement() const override { return nullptr; }

private:
    struct Releaser {
        void operator()(EngineResult* result) const { result->Release(); }
    };
    using Held = std::unique_ptr<EngineResult, Releaser>;
    bool isWanted(EngineResult const& result) const;
    void addFailure(char const* engine, EngineType type, FailureId id, char const* text, char const* file, int line);

    ComponentTree m_components;
    std::vector<Held> m_results;
    Held m_reserve;  // the error result for when there is no memory to make one
    EngineResult* m_master = nullptr;
    mutable char const* m_only = nullptr;
    mutable std::string m_onlyText;
    bool m_modified = false;
};

}  // namespace policyloader
