#include <velt/config_details/RuleOperators.h>

#include <velt/connection/Connection.h>
#include <velt/ldap/LDAPQuery.h>
#include <velt/lookup/HostCheck.h>
#include <velt/lookup/NetCheckIPV4.h>

#include <boost/container/small_vector.hpp>

#include <algorithm>
#include <cstring>
#include <memory>

namespace VELT {

SubjectTable s_operators;
OperatorTable s_ConnectionOperators;
OperatorTable s_EmailFromOperators;
OperatorTable s_EmailToOperators;

namespace {

// One wide character to one byte, as the texts of rules are ASCII. Closed by a zero; rules are evaluated often, so that
// memory is taken for long values only.
class Narrow {
public:
    explicit Narrow(AtomicValue const& value) {
        for (wchar_t const* wide = value.AsString(); *wide; ++wide) m_text.push_back(static_cast<char>(*wide));
        m_text.push_back('\0');
    }
    char const* c_str() const { return m_text.data(); }
    std::string str() const { return std::string(m_text.data(), m_text.size() - 1); }  // zeros within it included
    bool IsAddress() const { return m_text[0] >= '0' && m_text[0] <= '9'; }

private:
    boost::container::small_vector<char, 256> m_text;
};

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
    Narrow const text(value);
    if (text.IsAddress()) return NetCheckIPV4::matches(text.c_str(), info->get_client_address());
    return HostCheck::host_match(text.c_str(), info->get_client_host()) != 0;
}

bool evaluate_to(AtomicValue const& value, void* data, EvalData*&) {
    if (!data) return false;
    auto const* info = static_cast<Config::PolicyInfo const*>(data);
    Narrow const text(value);
    if (text.IsAddress()) return NetCheckIPV4::matches(text.c_str(), info->get_server_address());
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
        if (!evalData) evalData = std::make_unique<EmailAddressComparison>(Narrow(value).str()).release();
        return false;
    }
    if (!evalData || !address) return false;
    return static_cast<EmailAddressComparison const*>(evalData)->matches(address->address);
}

bool GroupAddressComparison::isOneOf(std::vector<std::string> const& groups) const {
    return std::any_of(groups.begin(), groups.end(),
                       [this](std::string const& one) { return std::strcmp(one.c_str(), m_group.c_str()) == 0; });
}

bool evaluate_email_from_in(AtomicValue const& value, void* data, EvalData*& evalData) {
    auto* const info = static_cast<Config::PolicyInfo*>(data);
    return evaluate_email_in(value, info ? info->get_source_mail() : nullptr, info, evalData);
}

bool evaluate_email_to_in(AtomicValue const& value, void* data, EvalData*& evalData) {
    auto* const info = static_cast<Config::PolicyInfo*>(data);
    return evaluate_email_in(value, info ? info->get_recipient_mail() : nullptr, info, evalData);
}

bool evaluate_email_in(AtomicValue const& value, ConfigEmailAddress* address, Config::PolicyInfo* info,
                       EvalData*& evalData) {
    if (!info) {  // the rules are being loaded
        if (!evalData) evalData = std::make_unique<GroupAddressComparison>(value.AsString()).release();
        return false;
    }
    if (!address || !evalData) return false;
    if (!address->groupsKnown) {
        if (LDAPQuery::groups(address->address, address->groups, info->get_connection()) != 0) return false;
        address->groupsKnown = true;
    }
    return static_cast<GroupAddressComparison const*>(evalData)->isOneOf(address->groups);
}

void fill_operator_tables() {
    s_ConnectionOperators = {{L"FROM", evaluate_from}, {L"TO", evaluate_to}};
    s_operators = {{L"con", evaluate_connection}, {L"efrom", evaluate_email_from}, {L"eto", evaluate_email_to}};
    s_EmailFromOperators = {{L"IS", evaluate_email_from_is}, {L"IN", evaluate_email_from_in}};
    s_EmailToOperators = {{L"IS", evaluate_email_to_is}, {L"IN", evaluate_email_to_in}};
}

}  // namespace VELT
