#include <QXid/Rules.h>

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

namespace {

class RuleIdentity final : public Identity {
public:
    explicit RuleIdentity(InternedString name) : m_name(name) {}

    InternedString const& evaluate(RuleEvaluator evaluator, void* data) const override {
        static constexpr InternedString None;
        return m_expression && m_expression->holds(evaluator, data) ? m_name : None;
    }

    bool hasExpression() const override { return m_expression != nullptr; }

    void set(qxid::ExpressionPtr expression) { m_expression = std::move(expression); }

private:
    InternedString const m_name;
    qxid::ExpressionPtr m_expression;
};

class Rules final : public QXidRules {
public:
    void addIdentities(eFabric::IIdentityList const& names) override {
        for (unsigned i = 0; i < names.size(); ++i)
            if (auto const name = names.at(i)) m_identities.try_emplace(name.c_str(), name);
    }

    bool load(char const* path, RuleEvaluator evaluator) override {
        auto bytes = eFabric::XmlFile::Read(path);
        auto entries = bytes ? qxid::ParseIdentities(path, std::move(*bytes)) : std::vector<qxid::IdentityEntry>();
        for (auto const& entry : entries)
            if (entry.expression && m_identities.count(entry.name)) prepare(entry, evaluator);
        for (auto& [name, identity] : m_identities) identity.set(nullptr);
        for (auto& entry : entries) accept(entry);
        return bytes.has_value();
    }

    Identity const* find(char const* name) const override {
        auto const found = name ? m_identities.find(std::string_view(name)) : m_identities.end();
        return found == m_identities.end() ? nullptr : &found->second;
    }

private:
    // What the evaluator throws names no place, so syslog says where.
    static void prepare(qxid::IdentityEntry const& entry, RuleEvaluator evaluator) {
        std::string const failure = "has a value that its operator does not take: ";
        try {
            entry.expression->prepare(evaluator);
        } catch (KORtk::Exception const& error) {
            report(entry, failure + error.what());
            throw;
        } catch (std::exception const& error) {
            report(entry, failure + error.what());
            throw;
        }
    }

    void accept(qxid::IdentityEntry& entry) {
        auto const known = m_identities.find(entry.name);
        if (known != m_identities.end()) return known->second.set(std::move(entry.expression));
        report(entry, "belongs to no policy and is passed over");
    }

    static void report(qxid::IdentityEntry const& entry, std::string const& what) {
        eFabric::Report(eFabric::XmlError(entry.place, "identity '" + entry.name + "' " + what).text());
    }

    std::map<std::string, RuleIdentity, std::less<>> m_identities;  // elements stay where they are
};

}  // namespace

std::unique_ptr<QXidRules> QXidRules::create() { return std::make_unique<Rules>(); }
