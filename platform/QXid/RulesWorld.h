// IdentityRules: a fixture around the rule engine, with an evaluator whose world is a handful of letters.
// Owner: the test. Threads: one. Failure: a test that expects otherwise.
#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <KORtk/Exception.h>
#include <KORtk/Text.h>
#include <QXid/Rules.h>
#include <eFabric/Report.h>

#include "testing/TempRoot.h"

namespace rules_world {

inline std::string Narrow(AtomicValue const& value) { return KORtk::Utf8Array(value.AsString()).str(); }

inline int s_alive = 0;  // private data not deleted yet

struct Note : EvalData {
    explicit Note(std::string text) : text(std::move(text)) { ++s_alive; }
    ~Note() override { --s_alive; }
    std::string text;
};

// What the world is: subjects that hold, and what was asked, in order.
struct Facts {
    std::string holding;
    std::vector<std::string> asked;
};

inline std::vector<std::string> s_prepared;
inline std::vector<std::string> s_reports;

// An atom holds when its subject's letter is in `holding` and the private data of loading is there.
inline bool Evaluate(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
                     EvalData*& note) {
    if (Narrow(value) == "throw") throw std::runtime_error("bad value");
    if (!data) {
        s_prepared.push_back(Narrow(subject) + ' ' + Narrow(op) + ' ' + Narrow(value));
        note = new Note(Narrow(value));
        return true;
    }
    auto& facts = *static_cast<Facts*>(data);
    facts.asked.push_back(Narrow(subject));
    return note && static_cast<Note*>(note)->text == Narrow(value) &&
           facts.holding.find(Narrow(subject)) != std::string::npos;
}

class Names final : public eFabric::IIdentityList {
public:
    explicit Names(std::vector<char const*> names) : m_names(std::move(names)) {}
    unsigned size() const override { return static_cast<unsigned>(m_names.size()); }
    InternedString at(unsigned i) const override { return InternedString(m_names[i]); }

private:
    std::vector<char const*> m_names;
};

inline constexpr char StaffName[] = "staff";  // an interned name: its address is what evaluate gives

class IdentityRules : public ::testing::Test {
protected:
    IdentityRules() {
        s_prepared.clear();
        s_reports.clear();
        eFabric::ExchangeReportSink([](std::string const& line) { s_reports.push_back(line); });
        rules->addIdentities(Names({StaffName}));
    }
    ~IdentityRules() override { eFabric::ExchangeReportSink(nullptr); }

    bool Load(std::string const& content) {
        root.Write("identities.xml", content);
        return rules->load((root / "identities.xml").c_str(), &Evaluate);
    }
    bool LoadStaff(std::string const& body) {
        return Load("<identities version=\"1\">\n<identity name=\"staff\">" + body + "</identity>\n</identities>");
    }
    std::string ErrorOf(std::string const& content) {
        try {
            Load(content);
            return "(none)";
        } catch (KORtk::Exception const& error) {
            std::string const path = root / "identities.xml";
            EXPECT_EQ(error.text().substr(0, path.size()), path);
            return error.text().substr(std::min(path.size(), error.text().size()));
        }
    }
    std::string ErrorOfStaff(std::string const& body) {
        return ErrorOf("<identities>\n<identity name=\"staff\">" + body + "</identity></identities>");
    }
    Identity const& Staff() { return *rules->find("staff"); }
    bool Holds(std::string const& holding) {
        facts = Facts{holding, {}};
        return Staff().evaluate(&Evaluate, &facts).c_str() == StaffName;
    }
    // What a text means, as the truth of its value for every subset of a, b, c.
    std::string Truth(std::string const& body) {
        EXPECT_TRUE(LoadStaff(body)) << body;
        std::string row;
        for (auto const* const holding : {"", "a", "b", "ab", "c", "ac", "bc", "abc"})
            row += Holds(holding) ? '1' : '0';
        return row;
    }

    velt_testing::TempRoot root;
    std::unique_ptr<QXidRules> rules = QXidRules::create();
    Facts facts;
};

inline std::string Repeated(std::string const& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

}  // namespace rules_world
