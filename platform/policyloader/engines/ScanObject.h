// ScanObject: one object on its way through the engines, and then the holder of its verdict.
// Owner: the host, which ends it with Release(); results and components die with it.  Threads: one at a time.
// Failure: Scan always answers a verdict; whatever went wrong is an error result in it.
#pragma once

#include <memory>
#include <vector>

#include <eFabric/Policy.h>

#include <policyloader/engines/ResultSet.h>
#include <policyloader/engines/ScanThread.h>
#include <policyloader/engines/TextEdit.h>

namespace policyloader {

class ScanObject final : public IScanObject {
public:
    // The transport outlives the last Scan.
    ScanObject(std::shared_ptr<ThreadState> state, eFabric::IStreamTransport& in, InternedString identity);

    void Release() override { delete this; }
    // `out` null: what changes is rewritten in the input itself; else it gets the object. Where the input's properties
    // have ES_CHANGED_OUTPUT_ONLY it gets none that stays as it is, and they have ES_OUTPUT_LEFT_OUT then.
    // `time` null or 0: the thread's time.
    IScanResultHandler const* Scan(eFabric::IStreamTransport* out, ScanTime* time) override;
    // "Settings:<section>:<any text>": whether the section's engine is enabled.
    bool IsSettingOn(char const* setting, ScanTime* time) override;

private:
    ~ScanObject() = default;

    SettingsView view(ScanTime const* time) const;
    void scan(eFabric::IStreamTransport* out, ScanTime const* time);
    void escalate(bool all);
    void produce(ScanPlan const& plan, eFabric::IStreamTransport* out);
    bool isClean(ScanPlan const& plan, eFabric::IStreamTransport& made);
    std::vector<TextEdit> additions();
    bool isMail() const;
    bool isSet(char const* name) const;  // of the object's properties
    bool isFallback() const;
    IKORPropertyBag const* substitutions() const;
    std::vector<Engine*> judges() const;  // all but the one that adds

    std::shared_ptr<ThreadState> const m_state;
    eFabric::IStreamTransport& m_in;
    InternedString const m_policy;
    InternedString const m_identity;
    ResultSet m_results;
};

}  // namespace policyloader
