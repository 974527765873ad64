#include <velt/config_details/RuleOperators.h>

#include <velt/connection/Connection.h>
#include <velt/lookup/HostCheck.h>
#include <velt/lookup/NetCheckIPV4.h>

#include <memory>

namespace VELT {

SubjectTable s_operators;
OperatorTable s_ConnectionOperators;
OperatorTable s_EmailFromOperators;
OperatorTable s_EmailToOperators;

namespace {

// One wide character to one byte, as the texts of rules are ASCII.
std::string Narrow(AtomicValue const& value) {
    std::string text;
    for (wchar_t const* wide = value.AsString(); *wide; ++wide) text.push_back(static_cast<char>(*wide));
    return text;
}

bool IsAddressText(std::string const& text) { return !text.empty() && text[0] >= '0' && text[0] <= '9'; }

template <class Table>
typename Table::mapped_type Find(Table const& table, AtomicValue const& name) {
    auto const row = table.find(name.AsString());
    return row == table.end() ? nullptr : row->second;
}

bool EvaluateOperator(OperatorTable const& table, AtomicValue const& value, AtomicValue const& op, void* data,
                      EvalData*& evalData) {
    OperatorFunction const function = Find(table, op);
    return function && function(value, data, evalData);
}

}  // namespace

EmailAddressComparison::EmailAddressComparison(std::string const& text) {
    m_pattern.set_regex(text.data(), text.data() + text.size());
}

bool evaluate_rule(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
                   EvalData*& evalData) {
    SubjectFunction const function = Find(s_operators, subject);
    return function && function(value, op, data, evalData);
}

bool evaluate_connection(AtomicValue const& value, AtomicValue const& op, void* data, EvalData*& evalData) {
    return EvaluateOperator(s_ConnectionOperators, value, op, data, evalData);
}

bool evaluate_email_from(AtomicValue const& value, AtomicValue const& op, void* data, EvalData*& evalData) {
    return EvaluateOperator(s_EmailFromOperators, value, op, data, evalData);
}

bool evaluate_email_to(AtomicValue const& value, AtomicValue const& op, void* data, EvalData*& evalData) {
    return EvaluateOperator(s_EmailToOperators, value, op, data, evalData);
}

bool evaluate_from(AtomicValue const& value, void* data, EvalData*&) {
    if (!data) return false;
    auto const* info = static_cast<Config::PolicyInfo const*>(data);
    std::string const text = Narrow(value);
    if (IsAddressText(text)) return NetCheckIPV4::matches(text.c_str(), info->get_client_address());
    return HostCheck::host_match(text.c_str(), info->get_client_host()) != 0;
}

bool evaluate_to(AtomicValue const& value, void* data, EvalData*&) {
    if (!data) return false;
    auto const* info = static_cast<Config::PolicyInfo const*>(data);
    std::string const text = Narrow(value);
    if (IsAddressText(text)) return NetCheckIPV4::matches(text.c_str(), info->get_server_address());
    return HostCheck::host_match(text.c_str(), info->get_server_host()) != 0;
}

bool evaluate_email_from_is(AtomicValue const& value, void* data, EvalData*& evalData) {
    auto* const info = static_cast<Config::PolicyInfo*>(data);
    return evaluate_email_is(value, info ? info->get_source_mail() : nullptr, info, evalData);
}

bool evaluate_email_to_is(AtomicValue const& value, void* data, EvalData*& evalData) {
    auto* const info = static_cast<Config::PolicyInfo*>(data);
    return evaluate_email_is(value, info ? info->get_recipient_mail() : nullptr, info, evalData);
}

bool evaluate_email_is(AtomicValue const& value, ConfigEmailAddress const* address, Config::PolicyInfo* info,
                       EvalData*& evalData) {
    if (!info) {  // the rules are being loaded
        if (!evalData) evalData = std::make_unique<EmailAddressComparison>(Narrow(value)).release();
        return false;
    }
    if (!evalData || !address) return false;
    return static_cast<EmailAddressComparison const*>(evalData)->matches(address->address);
}

void fill_operator_tables() {
    s_ConnectionOperators = {{L"FROM", evaluate_from}, {L"TO", evaluate_to}};
    s_operators = {{L"con", evaluate_connection}, {L"efrom", evaluate_email_from}, {L"eto", evaluate_email_to}};
    s_EmailFromOperators = {{L"IS", evaluate_email_from_is}};
    s_EmailToOperators = {{L"IS", evaluate_email_to_is}};
}

}  // namespace VELT
