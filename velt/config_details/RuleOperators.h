// The operators of the identity rules: what "con FROM", "con TO", "efrom IS" and "eto IS" mean.
// The rule engine calls evaluate_rule for each atom of an expression: once while the rules are loaded, with `data`
// null, so that patterns are compiled; afterwards on the thread that reads a setting, with the slot under evaluation.
// Owner: the engine owns the private data that an operator leaves in evalData.
// Failure: an unknown subject or operator is false; a bad expression throws while the rules are loaded.
#pragma once

#include <QXid/Rules.h>

#include <cwchar>
#include <map>
#include <string>

#include <velt/Config.h>
#include <velt/config_details/pattern.h>

namespace VELT {

using ::EvalData;

// The compiled pattern of an IS.
class EmailAddressComparison : public EvalData {
public:
    explicit EmailAddressComparison(std::string const& text);
    bool matches(std::string const& address) const { return m_pattern.match(address); }

private:
    config_types::basic_pattern<char, true> m_pattern;
};

// The name of the group of an IN, all of it.
class GroupAddressComparison : public EvalData {
public:
    explicit GroupAddressComparison(wchar_t const* text) : m_group(text) {}
    bool isOneOf(std::vector<std::string> const& groups) const;

private:
    KORtk::Utf8Array m_group;
};

struct WideTextLess {
    bool operator()(wchar_t const* a, wchar_t const* b) const { return std::wcscmp(a, b) < 0; }
};
// Keys are literals.
using SubjectFunction = bool (*)(AtomicValue const& value, AtomicValue const& op, void* data, EvalData*& evalData);
using OperatorFunction = bool (*)(AtomicValue const& value, void* data, EvalData*& evalData);
using SubjectTable = std::map<wchar_t const*, SubjectFunction, WideTextLess>;
using OperatorTable = std::map<wchar_t const*, OperatorFunction, WideTextLess>;

// Filled by fill_operator_tables, which Config::initialise calls.
extern SubjectTable s_operators;
extern OperatorTable s_ConnectionOperators;
extern OperatorTable s_EmailFromOperators;
extern OperatorTable s_EmailToOperators;
void fill_operator_tables();

// A RuleEvaluator. data: the Config::PolicyInfo under evaluation, or null while rules are loaded.
bool evaluate_rule(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
                   EvalData*& evalData);
bool evaluate_connection(AtomicValue const& value, AtomicValue const& op, void* data, EvalData*& evalData);
bool evaluate_email_from(AtomicValue const& value, AtomicValue const& op, void* data, EvalData*& evalData);
bool evaluate_email_to(AtomicValue const& value, AtomicValue const& op, void* data, EvalData*& evalData);

// An end of the connection: by address when the value begins with a digit, by host name otherwise.
bool evaluate_from(AtomicValue const& value, void* data, EvalData*& evalData);
bool evaluate_to(AtomicValue const& value, void* data, EvalData*& evalData);

// An envelope address against a pattern.
bool evaluate_email_from_is(AtomicValue const& value, void* data, EvalData*& evalData);
bool evaluate_email_to_is(AtomicValue const& value, void* data, EvalData*& evalData);
bool evaluate_email_is(AtomicValue const& value, ConfigEmailAddress const* address, Config::PolicyInfo* info,
                       EvalData*& evalData);

// An envelope address among the members of a directory's group. Where its groups are not known yet the directory
// servers are asked, on this thread; where that fails the answer is no, and the next rule asks again.
bool evaluate_email_from_in(AtomicValue const& value, void* data, EvalData*& evalData);
bool evaluate_email_to_in(AtomicValue const& value, void* data, EvalData*& evalData);
bool evaluate_email_in(AtomicValue const& value, ConfigEmailAddress* address, Config::PolicyInfo* info,
                       EvalData*& evalData);

}  // namespace VELT
