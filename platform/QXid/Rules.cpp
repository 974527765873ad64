#include <QXid/Rules.h>

#include <algorithm>
#include <exception>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include <QXid/IdentityFile.h>
#include <eFabric/Report.h>
#include <eFabric/XmlFile.h>

AtomicValue::AtomicValue(std::wstring text) : m_s(std::move(text)) {}

EvalData::~EvalData() = default;

std::string RuleCondition::text() const {
    std::string quoted;
    for (char const c : value) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return subject + ' ' + op + " \"" + quoted + '"';
}

RuleExplanation Identity::explain(RuleEvaluator evaluator, void* data) const {
    return {static_cast<bool>(evaluate(evaluator, data)), {}};
}

std::vector<RuleCondition> Identity::conditions() const { return {}; }

RulePlace Identity::place() const { return {}; }

namespace {

constexpr std::size_t MaxReports = 100;  // of one kind, of one load

class RuleIdentity final : public Identity {
public:
    explicit RuleIdentity(InternedString name) : m_name(name) {}

    InternedString const& evaluate(RuleEvaluator evaluator, void* data) const override {
        static constexpr InternedString None;
        return m_expression && m_expression->holds(evaluator, data) ? m_name : None;
    }

    bool hasExpression() const override { return m_expression != nullptr; }

    RuleExplanation explain(RuleEvaluator evaluator, void* data) const override {
        std::vector<qxid::Asked> asked;
        RuleExplanation explanation;
        explanation.holds = m_expression && m_expression->explain(evaluator, data, false, asked);
        for (auto const& [atom, held, negated, decisive] : asked)
            explanation.asked.push_back({atom->condition(m_place.file), held, negated, decisive});
        return explanation;
    }

    std::vector<RuleCondition> conditions() const override {
        std::vector<RuleCondition> conditions;
        for (auto const* const atom : qxid::AtomsOf(m_expression)) conditions.push_back(atom->condition(m_place.file));
        return conditions;
    }

    RulePlace place() const override { return m_place; }

    void clear() { set({}); }
    void set(qxid::IdentityEntry entry) {
        m_expression = std::move(entry.expression);
        m_place = {std::move(entry.place.file), entry.place.line, entry.place.column};
    }

private:
    InternedString const m_name;
    qxid::ExpressionPtr m_expression;
    RulePlace m_place;
};

class Rules final : public QXidRules {
public:
    void addIdentities(eFabric::IIdentityList const& names) override {
        for (unsigned i = 0; i < names.size(); ++i)
            if (auto const name = names.at(i)) m_identities.try_emplace(name.c_str(), name);
    }

    bool load(char const* path, RuleEvaluator evaluator) override {
        auto bytes = eFabric::XmlFile::Read(path);
        auto [entries, errors] = bytes ? qxid::ParseIdentities(path, std::move(*bytes)) : qxid::IdentityList();
        refuse(errors);
        prepareAll(entries, evaluator);
        for (auto& [name, identity] : m_identities) identity.clear();
        for (auto& entry : entries) accept(entry);
        return bytes.has_value();
    }

    Identity const* find(char const* name) const override {
        auto const found = name ? m_identities.find(std::string_view(name)) : m_identities.end();
        return found == m_identities.end() ? nullptr : &found->second;
    }

private:
    // The first error leaves load(); syslog has those behind it.
    static void refuse(std::vector<eFabric::XmlError> const& errors) {
        if (errors.empty()) return;
        std::size_t const told = std::min(errors.size(), MaxReports);
        for (std::size_t i = 1; i < told; ++i) eFabric::Report(errors[i].text());
        throw errors.front();
    }

    // What the evaluator throws names no place, so syslog says where. The first of them leaves load().
    void prepareAll(std::vector<qxid::IdentityEntry> const& entries, RuleEvaluator evaluator) const {
        Failures failures;
        for (auto const& entry : entries) {
            if (!m_identities.count(entry.name)) continue;
            for (auto const* const atom : qxid::AtomsOf(entry.expression)) prepare(entry, *atom, evaluator, failures);
        }
        if (failures.first) std::rethrow_exception(failures.first);
    }

    struct Failures {
        std::exception_ptr first;
        std::size_t count = 0;
    };

    static void prepare(qxid::IdentityEntry const& entry, qxid::Atom const& atom, RuleEvaluator evaluator,
                        Failures& failures) {
        auto const fail = [&](char const* reason) {
            if (!failures.first) failures.first = std::current_exception();
            if (++failures.count > MaxReports) return;
            report({entry.place.file, atom.spot().line, atom.spot().column}, entry.name,
                   std::string("has a value that its operator does not take: ") + reason);
        };
        try {
            atom.prepare(evaluator);
        } catch (KORtk::Exception const& error) {
            fail(error.what());
        } catch (std::exception const& error) {
            fail(error.what());
        }
    }

    void accept(qxid::IdentityEntry& entry) {
        auto const known = m_identities.find(entry.name);
        if (known != m_identities.end()) return known->second.set(std::move(entry));
        report(entry.place, entry.name, "belongs to no policy and is passed over");
    }

    static void report(eFabric::XmlPlace const& place, std::string const& name, std::string const& what) {
        eFabric::Report(eFabric::XmlError(place, "identity '" + name + "' " + what).text());
    }

    std::map<std::string, RuleIdentity, std::less<>> m_identities;  // elements stay where they are
};

}  // namespace

std::unique_ptr<QXidRules> QXidRules::create() { return std::make_unique<Rules>(); }
