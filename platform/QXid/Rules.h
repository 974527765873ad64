// The rule engine behind identities.xml: which identity an expression over subjects, operators and values selects.
// The engine knows and, or, not and brackets; what an atom `subject operator value` means is the evaluator's affair.
// Owner: who called create(); it owns the identities, which live as long. Threads: addIdentities and load from one
// thread before any evaluation; after that evaluate() from any thread, as far as the evaluator allows.
// Failure: load throws KORtk::Exception, its text naming file, line, column and reason, when the file is malformed.
#pragma once

#include <memory>
#include <string>

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

class VELTPLATFORM_API Identity {
public:
    // The identity's own interned name when its expression holds, a null name otherwise, or when it has none.
    // Atoms are asked from left to right and no further than needed.
    virtual InternedString const& evaluate(RuleEvaluator evaluator, void* data) const = 0;
    virtual bool hasExpression() const = 0;  // false before load(), and for a name that the file does not have

protected:
    ~Identity() = default;
};

class VELTPLATFORM_API QXidRules {
public:
    static std::unique_ptr<QXidRules> create();

    // Makes known the names that may have rules; may be called several times, also with names known already.
    virtual void addIdentities(eFabric::IIdentityList const& names) = 0;

    // Reads the expressions and asks the evaluator once per atom with null data. A name that was not added is reported
    // to syslog and passed over. False: the file does not exist, and no identity has an expression. When it throws,
    // every identity keeps the expression that it had.
    virtual bool load(char const* path, RuleEvaluator evaluator) = 0;

    virtual Identity const* find(char const* name) const = 0;  // null: not added
    virtual ~QXidRules() = default;
};
