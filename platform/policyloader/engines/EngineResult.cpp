#include <policyloader/engines/EngineResult.h>

#include <algorithm>
#include <cstring>
#include <cwchar>

#include <KORtk/Text.h>

namespace policyloader {
namespace {

constexpr unsigned long kErrorLevel = 2;

std::wstring Join(std::vector<std::string> const& names, wchar_t separator) {
    std::wstring out;
    for (auto const& name : names) {
        if (!out.empty()) out.push_back(separator);
        out += KORtk::Utf8Array(name).wstr();
    }
    return out;
}

template <class T>
bool AddOnce(std::vector<T>& list, T const& value) {
    if (std::find(list.begin(), list.end(), value) != list.end()) return false;
    list.push_back(value);
    return true;
}

char const* BaseName(char const* path) {
    char const* const slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

}  // namespace

EngineResult::EngineResult(char const* engine, EngineType type) : m_engine(engine), m_type(type) {
    m_bag.NewProperty("E_SR_TYPE")->SetULong(static_cast<unsigned long>(type));
}

void EngineResult::addName(std::string const& name) { AddOnce(m_names, name); }

void EngineResult::addComponent(Component& component) {
    if (!AddOnce(m_components, &component)) return;
    component.markInfected();
    ++m_infected;
}

void EngineResult::addContext(Component& component) { AddOnce(m_components, &component); }

void EngineResult::setAction(std::string const& action) {
    m_action = action;
    if (!AddOnce(m_actions, action)) return;
    auto* property = m_bag.GetProperty("E_SR_ACTION");
    if (!property) property = m_bag.NewProperty("E_SR_ACTION");
    property->AddNarrow(action.c_str());
}

void EngineResult::setDescription(std::string const& text) {
    m_description = KORtk::Utf8Array(text).wstr();
    m_bag.NewProperty("E_SR_DESCRIPTION_P")->SetWide(m_description.c_str());
}

void EngineResult::setLimit(wchar_t const* kind) { m_bag.NewProperty("E_SR_DOS_TYPE")->SetWide(kind); }

void EngineResult::setSpam(SpamJudgement const& judgement, std::optional<double> actionThreshold) {
    m_bag.NewProperty("E_SR_AS_SCORE")->SetDouble(judgement.score);
    m_bag.NewProperty("E_SR_AS_THRESHOLD")->SetDouble(judgement.threshold);
    if (actionThreshold) m_bag.NewProperty("E_SR_AS_ACTION_THRESHOLD")->SetDouble(*actionThreshold);
    if (judgement.tests.empty()) return;
    auto* const names = m_bag.NewProperty("E_SR_INFECTIONNAME");
    auto* const scores = m_bag.NewProperty("E_SR_AS_INFECTION_SCORE");
    for (auto const& [test, score] : judgement.tests) {
        addName(test);
        names->AddWide(KORtk::Utf8Array(test).wstr().c_str());
        scores->AddDouble(score);
    }
}

void EngineResult::setError(FailureId id, char const* text, char const* file, int line) {
    m_error = true;
    m_bag.NewProperty("E_SR_SCANERROR_LVL")->SetULong(kErrorLevel);
    m_bag.NewProperty("E_SR_SCANERROR_ID")->SetULong(static_cast<unsigned long>(id));
    m_bag.NewProperty("E_SR_ERROR_ATTR_SRC_FILE")->SetNarrow(BaseName(file));
    m_bag.NewProperty("E_SR_ERROR_ATTR_SRC_LINE")->SetULong(static_cast<unsigned long>(line));
    setDescription(text);
}

bool EngineResult::canReplace() const {
    return m_replaceable && !m_components.empty() &&
           std::all_of(m_components.begin(), m_components.end(), [](auto* c) { return c->replaceable() != nullptr; });
}

long EngineResult::Release() {
    long const left = --m_references;
    if (left == 0) delete this;
    return left;
}

void EngineResult::AddDescriptionProperty(IAlertHandler const& alerts) {
    std::wstring text;
    if (alerts.GetAlertText(m_engine, text)) setDescription(KORtk::Utf8Array(text).str());
}

void EngineResult::GetInfectionList(wchar_t* buffer, int size, wchar_t separator) const {
    if (!buffer || size < 1) return;
    auto const text = Join(m_names, separator);
    std::size_t const length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::wmemcpy(buffer, text.data(), length);
    buffer[length] = L'\0';
}

long EngineResult::GetInfectionList(wchar_t const* name) const {
    if (!name) return 0;
    std::string const wanted = KORtk::Utf8Array(name).str();
    return std::find(m_names.begin(), m_names.end(), wanted) != m_names.end();
}

wchar_t const* EngineResult::GetInfectionList(wchar_t separator) const {
    if (m_names.empty()) return nullptr;
    m_list = Join(m_names, separator);
    return m_list.c_str();
}

IKORScanPolContextElement const* EngineResult::GetScanPolContext() const {
    return m_components.empty() ? nullptr : m_components.front();
}

}  // namespace policyloader
