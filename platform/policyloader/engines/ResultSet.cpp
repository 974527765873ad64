#include <policyloader/engines/ResultSet.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <exception>
#include <new>

#include <KORtk/Text.h>

namespace policyloader {
namespace {

constexpr std::size_t kRoomForResults = 16;

// Each name with a separator behind it, while it fits; the end is marked in any case.
bool CopyNames(std::vector<std::wstring> const& names, wchar_t* buffer, int size, wchar_t separator) {
    if (!buffer || size < 1) return true;
    std::size_t left = static_cast<std::size_t>(size) - 1;
    for (auto const& name : names) {
        if (name.size() + 1 > left) break;
        std::wmemcpy(buffer, name.data(), name.size());
        buffer += name.size();
        *buffer++ = separator;
        left -= name.size() + 1;
    }
    *buffer = L'\0';
    return true;
}

// Of equally strong results a finding says more than a limit, as the fallback scan of a limit sees less than we did.
int Weight(EngineType type) { return type == EngineType::AntiVirus ? 2 : type == EngineType::Format ? 0 : 1; }

}  // namespace

ResultSet::ResultSet() { clear(); }
ResultSet::~ResultSet() = default;

void ResultSet::clear() {
    m_master = nullptr;
    m_results.clear();
    m_results.reserve(kRoomForResults);
    m_components.clear();
    m_modified = false;
    if (m_reserve) return;
    m_reserve.reset(new EngineResult(kFormatName, EngineType::Format));
    m_reserve->setError(FailureId::Memory, "out of memory", __FILE__, __LINE__);
}

EngineResult& ResultSet::add(char const* engine, EngineType type) {
    m_results.emplace_back(new EngineResult(engine, type));
    return *m_results.back();
}

void ResultSet::addFailure(char const* engine, EngineType type) noexcept {
    try {
        try {
            throw;
        } catch (EngineFailure const& failure) {
            addFailure(engine, type, failure.id(), failure.what(), failure.file(), failure.line());
        } catch (std::bad_alloc const&) {
            addFailure(engine, type, FailureId::Memory, "out of memory", __FILE__, __LINE__);
        } catch (std::exception const& failure) {
            addFailure(engine, type, FailureId::Internal, failure.what(), __FILE__, __LINE__);
        } catch (...) {
            addFailure(engine, type, FailureId::Internal, "unknown failure", __FILE__, __LINE__);
        }
    } catch (...) {
        // The vector has room: a scan has fewer results than were reserved.
        if (m_reserve) m_results.push_back(std::move(m_reserve));
    }
}

void ResultSet::addFailure(char const* engine, EngineType type, FailureId id, char const* text, char const* file,
                           int line) {
    Held result(new EngineResult(engine, type));
    result->setError(id, text, file, line);
    m_results.push_back(std::move(result));
}

void ResultSet::decide(ScanPlan const& plan) {
    m_master = nullptr;
    for (auto* const result : triggered()) {
        bool const stronger = m_master && plan.isStronger(result->action(), m_master->action());
        bool const weaker = m_master && plan.isStronger(m_master->action(), result->action());
        bool const saysMore = m_master && Weight(result->type()) > Weight(m_master->type());
        if (!m_master || stronger || (!weaker && saysMore)) m_master = result;
    }
}

std::vector<EngineResult*> ResultSet::triggered() const {
    std::vector<EngineResult*> list;
    for (auto const& result : m_results)
        if (result->isTriggered()) list.push_back(result.get());
    return list;
}

bool ResultSet::hasError() const {
    return std::any_of(m_results.begin(), m_results.end(), [](Held const& r) { return r->GetScanErrorStatus(); });
}

void ResultSet::ReportSpecificScanner(char const* engine) const {
    m_onlyText = engine ? engine : "";
    m_only = engine ? m_onlyText.c_str() : nullptr;
}

void ResultSet::ResetReportSpecificScanner() const { m_only = nullptr; }

bool ResultSet::isWanted(EngineResult const& result) const {
    return !m_only || std::strcmp(m_only, result.GetScannerClassName()) == 0;
}

IKORScanResult const* ResultSet::FindFirstScanResult(long& pos) const {
    pos = -1;
    return FindNextScanResult(pos);
}

IKORScanResult const* ResultSet::FindNextScanResult(long& pos) const {
    for (++pos; pos >= 0 && static_cast<std::size_t>(pos) < m_results.size(); ++pos)
        if (isWanted(*m_results[static_cast<std::size_t>(pos)])) return m_results[static_cast<std::size_t>(pos)].get();
    return nullptr;
}

bool ResultSet::GetInfectionDescription(wchar_t* buffer, int size) const {
    if (!buffer || size < 1) return false;
    *buffer = L'\0';
    if (!m_master) return false;
    auto const& text = m_master->description();
    if (text.empty() || text.size() >= static_cast<std::size_t>(size)) return false;
    std::wmemcpy(buffer, text.c_str(), text.size() + 1);
    return true;
}

bool ResultSet::GetInfectionDescription(DynBuf<wchar_t>& buffer, char const* engine) const {
    for (auto const& result : m_results) {
        bool const wanted = engine ? std::strcmp(engine, result->GetScannerClassName()) == 0 : result.get() == m_master;
        if (!wanted || result->description().empty()) continue;
        buffer.append(result->description().c_str(), result->description().size() + 1);
        return true;
    }
    return false;
}

bool ResultSet::GetInfectionNames(wchar_t* buffer, int size, wchar_t separator) const {
    std::vector<std::wstring> names;
    for (auto* const result : triggered())
        for (auto const& name : result->names()) names.push_back(KORtk::Utf8Array(name).wstr());
    return CopyNames(names, buffer, size, separator);
}

bool ResultSet::GetInfectedComponentNames(wchar_t* buffer, int size, wchar_t separator) const {
    std::vector<std::wstring> names;
    for (auto* const result : triggered())
        for (auto* const component : result->components())
            if (component->hasName()) names.emplace_back(component->GetComponentName());
    return CopyNames(names, buffer, size, separator);
}

bool ResultSet::DidActionOccur(char const* action) const {
    auto const list = triggered();
    return action && std::any_of(list.begin(), list.end(), [&](auto* result) {
               auto const& actions = result->actions();
               return std::find(actions.begin(), actions.end(), action) != actions.end();
           });
}

bool ResultSet::GetActionList(char* buffer, unsigned& size, char separator, unsigned& count) const {
    count = 0;
    unsigned used = 0;
    if (!buffer || size == 0) {
        size = 0;
        return true;
    }
    for (auto* const result : triggered()) {
        for (auto const& action : result->actions()) {
            if (used + action.size() + 1 >= size) break;
            std::memcpy(buffer + used, action.data(), action.size());
            used += static_cast<unsigned>(action.size());
            buffer[used++] = separator;
            ++count;
        }
    }
    buffer[used] = '\0';
    size = used;
    return true;
}

}  // namespace policyloader
