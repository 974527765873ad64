#include <policyloader/engines/ScanThread.h>

#include <cstring>
#include <new>

#include <policyloader/engines/ScanObject.h>

namespace policyloader {

ThreadState::ThreadState(SettingsSource const& source, std::shared_ptr<SignatureDatabase const> signatures,
                         std::shared_ptr<ContentCache> contentCache)
    : settings(source), cache(std::move(contentCache)), antiVirus(std::move(signatures), scratch), content(scratch) {}

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
    if (antiVirus) selection.antiVirus = enable;
    if (content) selection.content = enable;
    if (antiVirus || content) return true;
    m_state->error.Set(KORError_Warn, static_cast<unsigned long>(FailureId::Rules), "There is no engine of this name",
                       name);
    return false;
}

}  // namespace policyloader
