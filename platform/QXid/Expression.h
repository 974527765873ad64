// The expressions of identities.xml as a tree. Private to this folder.
// Owner: the identity. Threads: built by one; evaluated by any, as far as the evaluator allows.
// Failure: what the evaluator throws.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <QXid/Rules.h>

namespace qxid {

constexpr int MaxExpressionDepth = 64;

class Expression {
public:
    virtual ~Expression() = default;
    virtual bool holds(RuleEvaluator evaluator, void* data) const = 0;
    virtual void prepare(RuleEvaluator evaluator) const = 0;  // asks every atom with null data, in order of the file
};
using ExpressionPtr = std::unique_ptr<Expression const>;

class Atom final : public Expression {
public:
    Atom(std::string const& subject, std::string const& op, std::string const& value);
    bool holds(RuleEvaluator evaluator, void* data) const override;
    void prepare(RuleEvaluator evaluator) const override;

private:
    AtomicValue const m_subject;
    AtomicValue const m_op;
    AtomicValue const m_value;
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
    void prepare(RuleEvaluator evaluator) const override;

private:
    bool const m_all;
    std::vector<ExpressionPtr> const m_operands;
};

class Negation final : public Expression {
public:
    explicit Negation(ExpressionPtr operand);
    bool holds(RuleEvaluator evaluator, void* data) const override;
    void prepare(RuleEvaluator evaluator) const override;

private:
    ExpressionPtr const m_operand;
};

// Why a text is no expression, and at which byte of it.
struct SyntaxError {
    std::size_t at;
    std::string reason;
};

// expr := term {or term}; term := factor {and factor}; factor := not factor | ( expr ) | subject operator "value".
// Throws SyntaxError.
ExpressionPtr ParseExpression(std::string_view text);

}  // namespace qxid
