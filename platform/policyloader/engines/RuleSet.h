// RuleSet: the rules of one engine under one policy, read and compiled. Each engine's set derives from it.
// Owner: shared, immutable; any thread.
// Failure: rules that cannot be used hold an `error`; the engine reports it with each object, for nothing was judged.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace policyloader {

template <class One>
class RuleSet {
public:
    std::string const& error() const { return m_error; }
    One const& rule(std::size_t id) const { return m_rules[id]; }
    std::size_t size() const { return m_rules.size(); }

protected:
    RuleSet() = default;
    ~RuleSet() = default;

    template <class Work>
    void reading(Work&& work) {
        try {
            work();
        } catch (std::invalid_argument const& problem) {
            m_error = problem.what();
        }
    }

    std::vector<One> m_rules;

private:
    std::string m_error;
};

}  // namespace policyloader
