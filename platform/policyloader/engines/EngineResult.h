// EngineResult: what one engine has to say about one object.
// Owner: the scan's ResultSet holds one reference; who wants it longer takes another.  Threads: the scan's.
// Units: counts are of components.  Failure: none; what is absent is null, false or 0.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <eFabric/Result.h>

#include <policyloader/engines/Component.h>
#include <policyloader/engines/Engine.h>
#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/SpamAnswer.h>

namespace policyloader {

class EngineResult final : public IKORScanResult {
public:
    EngineResult(char const* engine, EngineType type);  // the name is a literal

    // While the scan makes it.
    void addName(std::string const& name);      // of what was found, each once
    void addComponent(Component& component);    // where it was found, each once; the first is the context
    void addContext(Component& component);      // what it speaks of, though nothing is wrong with it
    void setAction(std::string const& action);  // asked for by the engine; the last one asked for counts
    void setDescription(std::string const& text);
    void setSpam(SpamJudgement const& judgement, std::optional<double> actionThreshold);
    void setLimit(wchar_t const* kind);  // a format result: "SIZE", "DEPTH"
    void setError(FailureId id, char const* text, char const* file, int line);
    void setCleaned() { m_cleaned = 2; }
    void forbidReplacing() { m_replaceable = false; }  // it was found where no part can be cut out

    // The engine asks for its parts to be replaced; and whether every one of them can be.
    static bool replaces(std::string const& action) { return action == "CLEAN" || action == "REPLACE"; }
    bool wantsReplacing() const { return replaces(m_action); }
    bool canReplace() const;

    bool isTriggered() const { return !m_action.empty(); }
    EngineType type() const { return m_type; }
    std::string const& action() const { return m_action; }
    std::vector<std::string> const& actions() const { return m_actions; }
    std::vector<std::string> const& names() const { return m_names; }
    std::vector<Component*> const& components() const { return m_components; }
    std::wstring const& description() const { return m_description; }

    long AddRef() override { return ++m_references; }
    long Release() override;
    void AddDescriptionProperty(IAlertHandler const& alerts) override;  // the alert named after the engine
    void Init() override {}
    void GetInfectionList(wchar_t* buffer, int size, wchar_t separator) const override;
    long GetInfectionList(wchar_t const* name) const override;  // 1: found
    wchar_t const* GetInfectionList(wchar_t separator) const override;
    int IsCleaned() const override { return m_cleaned; }
    int InfectedItems() const override { return m_infected; }
    char const* GetScannerClassName() const override { return m_engine; }
    bool GetScanErrorStatus() const override { return m_error; }
    void Finalise(IKORScanPolContextElement const*, IAlertHandler const&, IKORPropertyBag const* const, ...) override {}
    IKORScanPolContextElement const* GetScanPolContext() const override;
    IKORPropertyBag* GetPropertyBag() const override { return &m_bag; }

private:
    ~EngineResult() override = default;

    char const* m_engine;
    EngineType m_type;
    long m_references = 1;
    mutable KORPropertyBag m_bag;
    mutable std::wstring m_list;  // the last one asked for
    std::vector<std::string> m_names;
    std::vector<Component*> m_components;
    std::vector<std::string> m_actions;
    std::string m_action;
    std::wstring m_description;
    int m_infected = 0;
    int m_cleaned = 0;
    bool m_error = false;
    bool m_replaceable = true;
};

}  // namespace policyloader
