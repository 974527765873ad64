#include <QXid/Expression.h>

#include <utility>

#include <KORtk/Text.h>

namespace qxid {

Atom::Atom(std::string const& subject, std::string const& op, std::string const& value)
    : m_subject(KORtk::Utf8Array(subject).wstr()),
      m_op(KORtk::Utf8Array(op).wstr()),
      m_value(KORtk::Utf8Array(value).wstr()),
      m_private(std::make_unique<Holder>()) {}

bool Atom::holds(RuleEvaluator evaluator, void* data) const {
    return evaluator(m_subject, m_value, m_op, data, m_private->data);
}

void Atom::prepare(RuleEvaluator evaluator) const {
    static_cast<void>(evaluator(m_subject, m_value, m_op, nullptr, m_private->data));
}

Junction::Junction(bool all, std::vector<ExpressionPtr> operands) : m_all(all), m_operands(std::move(operands)) {}

bool Junction::holds(RuleEvaluator evaluator, void* data) const {
    for (auto const& operand : m_operands)
        if (operand->holds(evaluator, data) != m_all) return !m_all;
    return m_all;
}

void Junction::prepare(RuleEvaluator evaluator) const {
    for (auto const& operand : m_operands) operand->prepare(evaluator);
}

Negation::Negation(ExpressionPtr operand) : m_operand(std::move(operand)) {}

bool Negation::holds(RuleEvaluator evaluator, void* data) const { return !m_operand->holds(evaluator, data); }

void Negation::prepare(RuleEvaluator evaluator) const { m_operand->prepare(evaluator); }

}  // namespace qxid
