// The rule engine behind identities.xml: expressions over subjects, operators and values, answered by a callback.
#pragma once

#include <memory>
#include <string>

#include <Export.h>
#include <eFabric/Policy.h>

class AtomicValue {
public:
    explicit AtomicValue(std::wstring);
    wchar_t const* AsString() const;

private:
    std::wstring m_s;
};
class EvalData {
public:
    virtual ~EvalData() = default;
};  // owned, deleted by the rule engine; VELT imports the name
using RuleEvaluator = bool (*)(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
                               EvalData*& evalData);
class Identity {
public:
    virtual InternedString const& evaluate(RuleEvaluator, void* data) const = 0;
    virtual bool hasExpression() const = 0;

protected:
    ~Identity() = default;
};
class QXidRules {
public:
    static std::unique_ptr<QXidRules> create();
    virtual void addIdentities(eFabric::IIdentityList const&) = 0;
    virtual bool load(char const* path, RuleEvaluator) = 0;
    virtual Identity const* find(char const* name) const = 0;
    virtual ~QXidRules() = default;
};
