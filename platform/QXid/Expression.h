// The expressions of identities.xml as a tree. Private to this folder.
// Owner: the identity. Threads: built by one; evaluated by any, as far as the evaluator allows.
// Failure: what the evaluator throws.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <QXid/Rules.h>

namespace qxid {

// How many brackets, negations and junctions may stand around a condition.
constexpr int MaxExpressionDepth = 64;

// A place in the file that the expression stands in; from 1.
struct Spot {
    unsigned line = 0;
    unsigned column = 0;
};

class Atom;

// What was asked while an expression was explained.
struct Asked {
    Atom const* atom;
    bool held;
    bool negated;   // an odd number of negations stands around it
    bool decisive;  // the outcome rests on it
};

class Expression {
public:
    virtual ~Expression() = default;
    virtual bool holds(RuleEvaluator evaluator, void* data) const = 0;
    // As holds, and appends what it asked. `negated`: what stands around this expression turns it round.
    virtual bool explain(RuleEvaluator evaluator, void* data, bool negated, std::vector<Asked>& asked) const = 0;
    virtual void collect(std::vector<Atom const*>& atoms) const = 0;  // in the order of the file
};
using ExpressionPtr = std::unique_ptr<Expression const>;

class Atom final : public Expression {
public:
    Atom(std::string const& subject, std::string const& op, std::string const& value, Spot spot);
    bool holds(RuleEvaluator evaluator, void* data) const override;
    bool explain(RuleEvaluator evaluator, void* data, bool negated, std::vector<Asked>& asked) const override;
    void collect(std::vector<Atom const*>& atoms) const override { atoms.push_back(this); }

    void prepare(RuleEvaluator evaluator) const;  // asks with null data
    Spot spot() const { return m_spot; }
    RuleCondition condition(std::string const& file) const;

private:
    AtomicValue const m_subject;
    AtomicValue const m_op;
    AtomicValue const m_value;
    Spot const m_spot;
    // The evaluator's own; taken over whatever it leaves here.
    struct Holder {
        EvalData* data = nullptr;
        ~Holder() { delete data; }
    };
    std::unique_ptr<Holder> const m_private;
};

// All, or one at least, of the operands hold; asked from left to right until that is decided.
class Junction final : public Expression {
public:
    Junction(bool all, std::vector<ExpressionPtr> operands);
    bool holds(RuleEvaluator evaluator, void* data) const override;
    bool explain(RuleEvaluator evaluator, void* data, bool negated, std::vector<Asked>& asked) const override;
    void collect(std::vector<Atom const*>& atoms) const override;

private:
    bool const m_all;
    std::vector<ExpressionPtr> const m_operands;
};

class Negation final : public Expression {
public:
    explicit Negation(ExpressionPtr operand);
    bool holds(RuleEvaluator evaluator, void* data) const override;
    bool explain(RuleEvaluator evaluator, void* data, bool negated, std::vector<Asked>& asked) const override;
    void collect(std::vector<Atom const*>& atoms) const override { m_operand->collect(atoms); }

private:
    ExpressionPtr const m_operand;
};

std::vector<Atom const*> AtomsOf(ExpressionPtr const& expression);  // none of null

// Why a text is no expression, and at which byte of it.
struct SyntaxError {
    std::size_t at;
    std::string reason;
};

// Where a byte of the text stands in the file. Asked in rising order.
using SpotOfByte = std::function<Spot(std::size_t at)>;

// expr := term {or term}; term := factor {and factor}; factor := not factor | ( expr ) | subject operator "value".
// Throws SyntaxError.
ExpressionPtr ParseExpression(std::string_view text, SpotOfByte spotOf);

}  // namespace qxid
