#include "Prober.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <system_error>
#include <thread>
#include <utility>

#include "Now.h"

namespace rmgrd {

Prober::Prober(Probing probe, int interval, std::function<void()> wake)
    : m_probe(std::move(probe)), m_interval(interval), m_wake(std::move(wake)) {}

Prober::~Prober() {
    while (!End(24 * 60 * 60)) continue;
}

void Prober::Start(int resource, ServerFacts const& facts) {
    std::lock_guard const hold(m_lock);
    try {
        std::thread([this, resource, facts] { LookForEver(resource, facts); }).detach();
        m_looking.insert(resource);
        ++m_threads;
    } catch (std::system_error const&) {
        m_unstarted[resource] = {facts, Now() + m_interval};
        m_findings.push_back({resource, "cannot be probed, as no thread can be started"});
        m_wake();
    }
}

void Prober::Stop(int resource) {
    m_unstarted.erase(resource);
    std::lock_guard const hold(m_lock);
    m_looking.erase(resource);
    m_changed.notify_all();
}

std::vector<Finding> Prober::TakeFindings() {
    std::lock_guard const hold(m_lock);
    return std::exchange(m_findings, {});
}

void Prober::Retry(double now) {
    if (NextRetry() > now) return;
    for (auto const& [resource, unstarted] : std::exchange(m_unstarted, {}))
        if (unstarted.retry > now)
            m_unstarted[resource] = unstarted;
        else
            Start(resource, unstarted.facts);
}

double Prober::NextRetry() const {
    double next = std::numeric_limits<double>::max();
    for (auto const& [resource, unstarted] : m_unstarted) next = std::min(next, unstarted.retry);
    return next;
}

void Prober::LookForEver(int resource, ServerFacts const& facts) {
    std::unique_lock hold(m_lock);
    auto const isOver = [&] { return m_ending || !m_looking.contains(resource); };
    while (!isOver()) {
        hold.unlock();
        std::string problem = m_probe(facts);
        hold.lock();
        m_findings.push_back({resource, std::move(problem)});
        m_wake();
        m_changed.wait_for(hold, std::chrono::seconds(m_interval), isOver);
    }
    --m_threads;
    m_changed.notify_all();
}

void Prober::BeginToEnd() {
    std::lock_guard const hold(m_lock);
    m_ending = true;
    m_changed.notify_all();
}

bool Prober::End(int seconds) {
    BeginToEnd();
    std::unique_lock hold(m_lock);
    return m_changed.wait_for(hold, std::chrono::seconds(seconds), [this] { return m_threads == 0; });
}

}  // namespace rmgrd
