#include <QXid/Expression.h>

#include <utility>

#include <KORtk/Text.h>

namespace qxid {
namespace {

std::string Utf8(AtomicValue const& value) { return KORtk::Utf8Array(value.AsString()).str(); }

}  // namespace

Atom::Atom(std::string const& subject, std::string const& op, std::string const& value, Spot spot)
    : m_subject(KORtk::Utf8Array(subject).wstr()),
      m_op(KORtk::Utf8Array(op).wstr()),
      m_value(KORtk::Utf8Array(value).wstr()),
      m_spot(spot),
      m_private(std::make_unique<Holder>()) {}

bool Atom::holds(RuleEvaluator evaluator, void* data) const {
    return evaluator(m_subject, m_value, m_op, data, m_private->data);
}

bool Atom::explain(RuleEvaluator evaluator, void* data, bool negated, std::vector<Asked>& asked) const {
    bool const held = holds(evaluator, data);
    asked.push_back({this, held, negated, true});
    return held;
}

void Atom::prepare(RuleEvaluator evaluator) const {
    static_cast<void>(evaluator(m_subject, m_value, m_op, nullptr, m_private->data));
}

RuleCondition Atom::condition(std::string const& file) const {
    return {Utf8(m_subject), Utf8(m_op), Utf8(m_value), {file, m_spot.line, m_spot.column}};
}

Junction::Junction(bool all, std::vector<ExpressionPtr> operands) : m_all(all), m_operands(std::move(operands)) {}

bool Junction::holds(RuleEvaluator evaluator, void* data) const {
    for (auto const& operand : m_operands)
        if (operand->holds(evaluator, data) != m_all) return !m_all;
    return m_all;
}

// The operand that ends the asking decides alone; where none does, they all decide together.
bool Junction::explain(RuleEvaluator evaluator, void* data, bool negated, std::vector<Asked>& asked) const {
    std::size_t const first = asked.size();
    for (auto const& operand : m_operands) {
        std::size_t const before = asked.size();
        if (operand->explain(evaluator, data, negated, asked) == m_all) continue;
        for (std::size_t i = first; i < before; ++i) asked[i].decisive = false;
        return !m_all;
    }
    return m_all;
}

void Junction::collect(std::vector<Atom const*>& atoms) const {
    for (auto const& operand : m_operands) operand->collect(atoms);
}

Negation::Negation(ExpressionPtr operand) : m_operand(std::move(operand)) {}

bool Negation::holds(RuleEvaluator evaluator, void* data) const { return !m_operand->holds(evaluator, data); }

bool Negation::explain(RuleEvaluator evaluator, void* data, bool negated, std::vector<Asked>& asked) const {
    return !m_operand->explain(evaluator, data, !negated, asked);
}

std::vector<Atom const*> AtomsOf(ExpressionPtr const& expression) {
    std::vector<Atom const*> atoms;
    if (expression) expression->collect(atoms);
    return atoms;
}

}  // namespace qxid
