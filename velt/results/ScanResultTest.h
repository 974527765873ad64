// ScanResultTest: a scan result whose every answer a test writes down, and the session that it belongs to.
// Owner: the test. Thread: one. The fixture's verbs fill the result as engines do, and hold the counters to what is
// expected; events that were not announced fail the test.
#pragma once

#include <QXlog/Names.h>
#include <eFabric/Property.h>
#include <eFabric/Result.h>
#include <gtest/gtest.h>

#include <boost/optional/optional_io.hpp>

#include <cwchar>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <testing/EventCapture.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/results/ProcessScanResult.h>
#include <velt/results/ScanStats.h>

namespace velt_testing {

// A component with a name, or without one.
class FakeComponent final : public IKORScanPolContextElement {
public:
    bool IsChildOf(IKORScanPolContextElement const*) const override { return false; }
    long GetComponentIndex() const override { return 0; }
    int GetComponentType() const override { return 0; }
    wchar_t const* GetComponentName() const override { return name ? name->c_str() : nullptr; }
    wchar_t const* GetScanContextString(wchar_t* buffer, int size, wchar_t separator, wchar_t nameMark) const override {
        askedSeparators = {separator, nameMark};
        return place ? std::wcsncpy(buffer, place->c_str(), static_cast<std::size_t>(size)) : nullptr;
    }
    IKORScanPolContextElement const* GetParent() const override { return nullptr; }
    IKORScanPolContextElement const* GetFirstChild(long&) const override { return nullptr; }
    IKORScanPolContextElement const* GetNextChild(long&) const override { return nullptr; }
    bool CheckInContext(char const*, bool, bool) const override { return false; }
    int GetInfectedStatus() const override { return 0; }
    bool IsTopLevel() const override { return true; }
    bool StateReset() const override { return true; }

    std::optional<std::wstring> name;
    std::optional<std::wstring> place;  // one that fills the buffer gets no 0 behind it
    mutable std::wstring askedSeparators;
};

// A result whose every answer is a field.
class FakeResult final : public IKORScanResult {
public:
    long AddRef() override { return 1; }
    long Release() override { return 1; }
    void AddDescriptionProperty(IAlertHandler const&) override {}
    void Init() override {}
    void GetInfectionList(wchar_t*, int, wchar_t) const override {}
    long GetInfectionList(wchar_t const*) const override { return 0; }
    wchar_t const* GetInfectionList(wchar_t separator) const override {
        askedSeparator = separator;
        return infections ? infections->c_str() : nullptr;
    }
    int IsCleaned() const override { return cleaned; }
    int InfectedItems() const override { return infected; }
    char const* GetScannerClassName() const override { return className; }
    bool GetScanErrorStatus() const override { return error; }
    void Finalise(IKORScanPolContextElement const*, IAlertHandler const&, IKORPropertyBag const* const, ...) override {}
    IKORScanPolContextElement const* GetScanPolContext() const override { return component; }
    IKORPropertyBag* GetPropertyBag() const override { return hasBag ? &bag : nullptr; }

    mutable KORPropertyBag bag;
    mutable wchar_t askedSeparator = 0;
    std::optional<std::wstring> infections;
    int cleaned = 0;
    int infected = 0;
    char const* className = nullptr;
    bool error = false;
    bool hasBag = true;
    IKORScanPolContextElement const* component = nullptr;
};

class FakeVerdict final : public IScanResultHandler {
public:
    void ReportSpecificScanner(char const*) const override {}
    void ResetReportSpecificScanner() const override {}
    IKORScanResult const* FindFirstScanResult(long& position) const override { return At(position = 0); }
    IKORScanResult const* FindNextScanResult(long& position) const override { return At(++position); }
    bool IsModified() const override { return modified; }
    bool IsTriggered() const override { return triggered; }
    bool GetInfectionDescription(wchar_t*, int) const override { return false; }
    bool GetInfectionDescription(DynBuf<wchar_t>&, char const*) const override { return false; }
    bool GetInfectionNames(wchar_t*, int, wchar_t) const override { return false; }
    bool GetInfectedComponentNames(wchar_t*, int, wchar_t) const override { return false; }
    char const* GetMasterActionCode() const override { return action; }
    IKORScanResult const* GetMasterScanResult() const override { return master; }
    bool DidActionOccur(char const*) const override { return false; }
    bool GetActionList(char*, unsigned&, char, unsigned&) const override { return false; }
    IKORScanPolContextElement const* GetScanContextStart() const override { return nullptr; }
    void const* GetPolicyStatement() const override { return nullptr; }

    bool modified = false;
    bool triggered = false;
    char const* action = nullptr;
    IKORScanResult const* master = nullptr;
    std::vector<IKORScanResult const*> results;

private:
    IKORScanResult const* At(long position) const {
        auto const index = static_cast<std::size_t>(position);
        return index < results.size() ? results[index] : nullptr;
    }
};

class ScannedSession final : public VELT::Connection {
public:
    explicit ScannedSession(bool inbound) { SetInBound(inbound); }
    void SetInBound(bool inbound) { m_config.inbound = inbound; }
    void LogConnectionAttributes(KORlog::InfoBag& bag) const override {
        ++asked;
        if (onReport) onReport();
        bag |= QXlog::names::QXPROP_AUDIT_ID("A1");
    }
    mutable unsigned asked = 0;
    std::function<void()> onReport;  // called while a report is made
};

class ScanResultTest : public testing::Test {
protected:
    ScanResultTest() {
        VELT::ProcessScanResult::Initialise();
        m_before = Counts();
    }

    // The bag of a result, as engines fill it.
    void SetType(unsigned long type) { result.bag.NewProperty("E_SR_TYPE")->SetULong(type); }
    void SetULong(char const* name, unsigned long value) { result.bag.NewProperty(name)->SetULong(value); }
    void SetDouble(char const* name, double value) { result.bag.NewProperty(name)->SetDouble(value); }
    void SetWide(char const* name, wchar_t const* value) { result.bag.NewProperty(name)->SetWide(value); }
    void SetDescription(wchar_t const* text) { SetWide("E_SR_DESCRIPTION_P", text); }
    void SetEngine() {
        auto* const facts = new KORPropertyBag;
        facts->NewProperty("QX_SYSTEM_NAME")->SetNarrow("scan1");
        facts->NewProperty("QX_ENGINE")->SetNarrow("5.2");
        facts->NewProperty("QX_DATS")->SetNarrow("20261121");
        result.bag.NewProperty("QX_PROPERTIES")->SetBag(facts);
    }
    void SetComponent(std::optional<std::wstring> name) {
        component.name = name;
        result.component = &component;
    }
    void AddRule(char const* name, double score) {
        IKORProperty const* names = std::as_const(result.bag).GetProperty("E_SR_INFECTIONNAME");
        if (!names) {
            result.bag.NewProperty("E_SR_INFECTIONNAME");
            result.bag.NewProperty("E_SR_AS_INFECTION_SCORE");
        }
        result.bag.GetProperty("E_SR_INFECTIONNAME")->AddNarrow(name);
        result.bag.GetProperty("E_SR_AS_INFECTION_SCORE")->AddDouble(score);
    }

    bool Process(bool fatal15004 = false) {
        return process.ProcessScannerTypes(session, "staff", &result, data, fatal15004);
    }
    bool Spam() { return process.ProcessAntiSpamResult(session, "staff", &result.bag, data); }
    bool Info() { return process.ProcessInfoResult(session, "staff", &result.bag, data); }
    std::string Reported(QXlog::Event const& event) { return Describe(events.Bag(event)); }
    std::string Reason() const { return data.reason ? data.reason->str() : "(unset)"; }
    std::string FileName() const { return data.fileName ? data.fileName->str() : "(unset)"; }

    static std::vector<unsigned long> Counts() {
        std::vector<unsigned long> counts;
        for (VELT::SCAN_STATS const* stats : {&VELT::s_Totals, &VELT::s_PolicyStats[0], &VELT::s_PolicyStats[1]}) {
            for (QXStats::QXCounter const* counter :
                 {stats->virus_detected, stats->spam_detected, stats->spam_belowthreshold,
                  stats->content_filter_detected, stats->mail_filtering_detected, stats->file_filtering_detected}) {
                counts.push_back(counter->value());
            }
        }
        return counts;
    }
    // Exactly these counters moved, each by one.
    void ExpectCounted(std::vector<std::string> const& names) {
        std::vector<std::string> moved;
        std::vector<unsigned long> const now = Counts();
        char const* const rows[] = {"virus_detected",          "spam_detected",           "spam_belowthreshold",
                                    "content_filter_detected", "mail_filtering_detected", "file_filtering_detected"};
        char const* const prefixes[] = {"", "from_inside.", "from_outside."};
        for (std::size_t i = 0; i < now.size(); ++i) {
            for (unsigned long n = m_before[i]; n < now[i]; ++n) {
                moved.push_back(std::string(prefixes[i / 6]) + rows[i % 6]);
            }
        }
        EXPECT_EQ(moved, names);
    }

    EventCapture events;
    ScannedSession session{true};
    FakeComponent component;
    FakeResult result;
    VELT::ScannerData data;
    VELT::ProcessScanResult process;

private:
    std::vector<unsigned long> m_before;
};

}  // namespace velt_testing
