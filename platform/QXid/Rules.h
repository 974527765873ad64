// The rule engine behind identities.xml: which identity an expression over subjects, operators and values selects.
// The engine knows and, or, not and brackets; what an atom `subject operator value` means is the evaluator's affair.
// Owner: who called create(); it owns the identities, which live as long. Threads: addIdentities and load from one
// thread before any evaluation; after that evaluate() from any thread, as far as the evaluator allows.
// Failure: load throws KORtk::Exception, its text naming file, line, column and reason, when the file is malformed, and
// what the evaluator throws; the first error it is, and syslog has those behind it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Export.h>
#include <eFabric/Policy.h>

// A word of an atom, as wide text.
class VELTPLATFORM_API AtomicValue {
public:
    explicit AtomicValue(std::wstring text);
    wchar_t const* AsString() const { return m_s.c_str(); }

private:
    std::wstring m_s;
};

// What an evaluator keeps with an atom, such as a compiled pattern. Made by the evaluator, deleted by the rule engine.
class VELTPLATFORM_API EvalData {
public:
    virtual ~EvalData();
};

// Answers one atom. `data` is the evaluate() caller's; null while loading, when the evaluator only prepares `evalData`,
// which is null before that. Its exceptions leave load() and evaluate() unchanged.
using RuleEvaluator = bool (*)(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
                               EvalData*& evalData);

// Where a rule stands. Lines and columns count from 1, columns in bytes; line 0: in no file.
struct RulePlace {
    std::string file;
    unsigned line = 0;
    unsigned column = 0;
};

// An atom as the file has it.
struct VELTPLATFORM_API RuleCondition {
    std::string subject;
    std::string op;
    std::string value;
    RulePlace place;           // of its subject, or of its element
    std::string text() const;  // in the text form, such as: eto IS "*@example.test"
};

// An atom that was asked, and what it answered.
struct RuleAnswer {
    RuleCondition condition;
    bool held = false;
    bool negated = false;   // an odd number of negations stands around it
    bool decisive = false;  // the outcome rests on it: with another answer from it there might be another outcome
};

// One evaluation: its outcome, and what was asked, in order.
struct RuleExplanation {
    bool holds = false;
    std::vector<RuleAnswer> asked;
};

class VELTPLATFORM_API Identity {
public:
    // The identity's own interned name when its expression holds, a null name otherwise, or when it has none.
    // Atoms are asked from left to right and no further than needed.
    virtual InternedString const& evaluate(RuleEvaluator evaluator, void* data) const = 0;
    virtual bool hasExpression() const = 0;  // false before load(), and for a name that the file does not have

    // For tools that say why, at no cost to evaluate().
    virtual RuleExplanation explain(RuleEvaluator evaluator, void* data) const;  // asks exactly what evaluate() asks
    virtual std::vector<RuleCondition> conditions() const;                       // all atoms, in the file's order
    virtual RulePlace place() const;  // of the identity's element; line 0 while the file has none

protected:
    ~Identity() = default;
};

class VELTPLATFORM_API QXidRules {
public:
    static std::unique_ptr<QXidRules> create();

    // Makes known the names that may have rules; may be called several times, also with names known already.
    virtual void addIdentities(eFabric::IIdentityList const& names) = 0;

    // Reads the expressions and asks the evaluator once per atom with null data; where that throws syslog says which. A
    // name that was not added is reported to syslog and passed over. False: the file does not exist, and no identity
    // has an expression. When it throws, every identity keeps the expression that it had.
    virtual bool load(char const* path, RuleEvaluator evaluator) = 0;

    virtual Identity const* find(char const* name) const = 0;  // null: not added
    virtual ~QXidRules() = default;
};
