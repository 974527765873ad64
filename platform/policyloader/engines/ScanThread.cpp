#include <policyloader/engines/ScanThread.h>

#include <cstring>
#include <new>

#include <policyloader/engines/ScanObject.h>

namespace policyloader {

ThreadState::ThreadState(SettingsSource const& source, std::shared_ptr<SignatureDatabase const> signatures,
                         std::shared_ptr<RuleCaches> ruleCaches, std::shared_ptr<ClamdServers> virusServers,
                         std::shared_ptr<ServerRota> spamServers)
    : settings(source),
      caches(std::move(ruleCaches)),
      antiVirus(std::move(signatures), scratch, std::move(virusServers)),
      content(scratch),
      format(scratch, fileTypes),
      mail(scratch, fileTypes),
      spam(scratch, std::move(spamServers)) {}

ScanThread::ScanThread(std::shared_ptr<ThreadState> state, InternedString policy) : m_state(std::move(state)) {
    m_state->policy = policy;
}

IScanObject* ScanThread::NewScanObject(eFabric::IStreamTransport& in, InternedString identity) {
    try {
        return new ScanObject(m_state, in, identity);
    } catch (std::bad_alloc const&) {
        m_state->error.Set(KORError_Error, static_cast<unsigned long>(FailureId::Memory), "Out of memory");
        return nullptr;
    }
}

bool ScanThread::SetPolicy(InternedString policy) {
    if (!policy) {
        m_state->error.Set(KORError_Error, static_cast<unsigned long>(FailureId::Rules), "No policy was named");
        return false;
    }
    m_state->policy = policy;
    return true;
}

bool ScanThread::SelectEngines(bool enable, char const* name) {
    auto& selection = m_state->selection;
    bool const antiVirus = !name || std::strcmp(name, kAntiVirusName) == 0;
    bool const content = !name || std::strcmp(name, kContentName) == 0;
    bool const format = !name || std::strcmp(name, kFormatName) == 0;
    bool const mail = !name || std::strcmp(name, kMailFilterName) == 0;
    bool const spam = !name || std::strcmp(name, kSpamName) == 0;
    bool const info = !name || std::strcmp(name, kInfoName) == 0;
    if (antiVirus) selection.antiVirus = enable;
    if (content) selection.content = enable;
    if (format) selection.format = enable;
    if (mail) selection.mail = enable;
    if (spam) selection.spam = enable;
    if (info) selection.info = enable;
    if (antiVirus || content || format || mail || spam || info) return true;
    m_state->error.Set(KORError_Warn, static_cast<unsigned long>(FailureId::Rules), "There is no engine of this name",
                       name);
    return false;
}

}  // namespace policyloader
