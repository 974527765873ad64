// EngineHost: the scan engines of this process: their databases, their information and the maker of scan threads.
// Owner: the policy loader, one for the process, for ever.  Threads: initialise from one thread before any other call;
// after it every call from any thread.  Failure: initialise answers false and fills the ErrorState; createScanThread
// answers null.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <eFabric/Policy.h>

namespace policyloader {
class ErrorState;
class SettingsSource;

class SignatureDatabase;
struct ClamdServers;
struct RuleCaches;
class ServerRota;

class EngineHost {
public:
    EngineHost();
    ~EngineHost();
    EngineHost(EngineHost const&) = delete;
    EngineHost& operator=(EngineHost const&) = delete;

    // Reads "signatures.db" of the folder; without the file the built-in test signature alone is searched for.
    // A malformed line is an error with file, line and column, and the engines then stay without a database.
    bool initialise(std::string const& avDirectory, ErrorState& error);

    int countEngines() const;
    IKORPropertyBag const* engineInformation(int index) const;  // "EngineType", "Version", "Definitions"; null beyond

    // The settings outlive the scan thread; who gets the scan thread ends it with Release(). Null: no memory.
    IScanThread* createScanThread(SettingsSource const& settings, InternedString policy);

private:
    // Set by initialise, then read without lock.
    std::shared_ptr<SignatureDatabase const> m_signatures;
    std::vector<std::unique_ptr<KORPropertyBag>> m_information;
    // Guard themselves.
    std::shared_ptr<RuleCaches> m_ruleCaches;
    std::shared_ptr<ClamdServers> m_virusServers;
    std::shared_ptr<ServerRota> m_spamServers;
};

}  // namespace policyloader
