#include <policyloader/engines/ContentEngine.h>

#include <policyloader/engines/EngineFailure.h>
#include <policyloader/engines/ResultSet.h>

namespace policyloader {

bool ContentEngine::begin(ScanPlan const& plan) {
    m_plan = &plan;
    if (!plan.content) return false;
    if (!plan.rules->error().empty()) throw EngineFailure(FailureId::Rules, plan.rules->error());
    m_search.begin(plan.rules);
    return true;
}

std::string const& ContentEngine::actionOf(std::size_t rule) const {
    auto const& action = m_plan->rules->rule(rule).action;
    return action.empty() ? m_plan->contentAction : action;
}

void ContentEngine::report(ResultSet& results) {
    double sum = 0;
    bool any = false;
    for (std::size_t rule = 0; rule < m_plan->rules->size(); ++rule) {
        if (!m_search.match(rule).component) continue;
        any = true;
        sum += m_plan->rules->rule(rule).weight;
    }
    if (!any || sum < m_plan->threshold) return;

    auto& result = results.add(name(), type());
    std::string action, description;
    for (std::size_t rule = 0; rule < m_plan->rules->size(); ++rule) {
        if (!m_search.match(rule).component) continue;
        result.addComponent(*m_search.match(rule).component);
        result.addName(m_plan->rules->rule(rule).name);
        if (m_search.match(rule).inHead) result.forbidReplacing();
        if (action.empty() || m_plan->isStronger(actionOf(rule), action)) action = actionOf(rule);
    }
    for (auto const& found : result.names()) description.append(description.empty() ? "" : ", ").append(found);
    result.setDescription(description);
    result.setAction(action);
}

}  // namespace policyloader
