// ScanThread: the engines of one thread, with all that they keep from scan to scan.
// Owner: the host, which ends it with Release(); its scan objects may outlive it.  Threads: one.
// Failure: null or false, and the last error says why.
#pragma once

#include <ctime>
#include <memory>
#include <string>

#include <eFabric/Policy.h>

#include <policyloader/engines/AntiVirusEngine.h>
#include <policyloader/engines/ContentEngine.h>
#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/FileTypes.h>
#include <policyloader/engines/FormatEngine.h>
#include <policyloader/engines/InfoEngine.h>
#include <policyloader/engines/MailFilterEngine.h>
#include <policyloader/engines/SpamEngine.h>
#include <policyloader/engines/TransportIO.h>
#include <policyloader/store/ErrorState.h>

namespace policyloader {

// Shared by a scan thread and its scan objects.
struct ThreadState {
    ThreadState(SettingsSource const& source, std::shared_ptr<SignatureDatabase const> signatures,
                std::shared_ptr<RuleCaches> ruleCaches, std::shared_ptr<ClamdServers> virusServers,
                std::shared_ptr<ServerRota> spamServers);

    SettingsSource const& settings;
    std::shared_ptr<RuleCaches> const caches;
    PatternScratch scratch;
    ReadBuffer buffer;
    AntiVirusEngine antiVirus;
    ContentEngine content;
    FileTypes fileTypes;
    FormatEngine format;
    MailFilterEngine mail;
    SpamEngine spam;
    InfoEngine info;
    EngineSelection selection;
    InternedString policy;
    std::time_t (*timeSource)() = nullptr;  // null: the store's own
    ErrorState error;
};

class ScanThread final : public IScanThread {
public:
    ScanThread(std::shared_ptr<ThreadState> state, InternedString policy);

    void Release() override { delete this; }
    IScanObject* NewScanObject(eFabric::IStreamTransport& in, InternedString identity) override;
    bool SetPolicy(InternedString policy) override;
    IKORError const& LastError() const override { return m_state->error; }
    bool SelectEngines(bool enable, char const* name) override;  // false: no engine of that name
    void SetTimeSource(std::time_t (*source)()) override { m_state->timeSource = source; }

private:
    ~ScanThread() = default;

    std::shared_ptr<ThreadState> m_state;
};

}  // namespace policyloader
