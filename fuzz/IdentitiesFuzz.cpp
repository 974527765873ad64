// identities.xml through the whole of its load. What is refused names a place that the file has; what loads answers as
// a plain reading of the same document does, which keeps no tree, asks every condition and knows nothing of places.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <KORtk/Text.h>
#include <QXid/Rules.h>
#include <eFabric/Report.h>
#include <eFabric/XmlFile.h>
#include <pugixml.hpp>

#include "fuzz/Input.h"
#include "testing/FakePolicyStore.h"
#include "velt/Config.h"
#include "velt/config_details/RuleOperators.h"

using velt_fuzz::Require;

namespace {

using Conditions = std::vector<std::string>;

// A regular file without a name, to be loaded again and again.
class Document {
public:
    Document() : m_fd(::memfd_create("identities", MFD_CLOEXEC)), m_path("/proc/self/fd/" + std::to_string(m_fd)) {}
    void write(std::string const& bytes) const {
        Require(::ftruncate(m_fd, 0) == 0, "the file is emptied");
        Require(::pwrite(m_fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()), "and written");
    }
    char const* path() const { return m_path.c_str(); }

private:
    int m_fd;
    std::string m_path;
};

// ---- what a condition answers

std::string Written(std::string const& subject, std::string const& op, std::string const& value) {
    return subject + '\n' + op + '\n' + value;
}

// Some hold and some do not, and which ones depends on the seed.
bool Answer(std::string const& condition, std::size_t seed) {
    return (std::hash<std::string>()(condition) >> seed & 1) != 0;
}

struct World {
    std::size_t seed;
    Conditions asked;
};

struct Prepared : EvalData {
    explicit Prepared(std::string text) : condition(std::move(text)) {}
    std::string const condition;
};

std::string Narrow(AtomicValue const& value) { return KORtk::Utf8Array(value.AsString()).str(); }

bool Evaluate(AtomicValue const& subject, AtomicValue const& value, AtomicValue const& op, void* data,
              EvalData*& prepared) {
    if (!data) {
        Require(!prepared, "a condition is prepared once");
        prepared = new Prepared(Written(Narrow(subject), Narrow(op), Narrow(value)));
        return true;
    }
    Require(prepared != nullptr, "a condition is prepared before it is asked");
    auto& world = *static_cast<World*>(data);
    auto const& condition = static_cast<Prepared const*>(prepared)->condition;
    world.asked.push_back(condition);
    return Answer(condition, world.seed);
}

// ---- the plain reading, of what is known to be well-formed

class TextReading {
public:
    TextReading(std::string text, std::size_t seed, Conditions& found)
        : m_text(std::move(text)), m_seed(seed), m_found(found) {}

    bool value() {
        for (std::string token; next(token);) take(token);
        while (!m_operators.empty()) reduce();
        return m_values.back();
    }

private:
    bool next(std::string& token) {
        m_at = std::min(m_text.find_first_not_of(" \t\r\n", m_at), m_text.size());
        if (m_at == m_text.size()) return false;
        std::size_t end = m_at + 1;
        if (m_text[m_at] != '(' && m_text[m_at] != ')')
            end = std::min(m_text.find_first_of(" \t\r\n()\"", m_at), m_text.size());
        token = m_text.substr(m_at, end - m_at);
        m_at = end;
        return true;
    }

    std::string quoted() {
        m_at = m_text.find('"', m_at) + 1;
        std::string value;
        for (; m_text[m_at] != '"'; ++m_at) value += m_text[m_text[m_at] == '\\' ? ++m_at : m_at];
        ++m_at;
        return value;
    }

    static int Rank(char op) { return op == '!' ? 3 : op == '&' ? 2 : op == '|' ? 1 : 0; }

    static char Operator(std::string word) {
        for (auto& c : word) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
        return word == "and"   ? '&'
               : word == "or"  ? '|'
               : word == "not" ? '!'
               : word == "("   ? '('
               : word == ")"   ? ')'
                               : 0;
    }

    void take(std::string const& token) {
        char const op = Operator(token);
        if (op == 0) return condition(token);
        if (op == ')') {
            while (m_operators.back() != '(') reduce();
            m_operators.pop_back();
            return;
        }
        bool const prefix = op == '(' || op == '!';
        while (!prefix && !m_operators.empty() && Rank(m_operators.back()) >= Rank(op)) reduce();
        m_operators.push_back(op);
    }

    void condition(std::string const& subject) {
        std::string op;
        next(op);
        m_found.push_back(Written(subject, op, quoted()));
        m_values.push_back(Answer(m_found.back(), m_seed));
    }

    void reduce() {
        char const op = m_operators.back();
        m_operators.pop_back();
        bool const last = m_values.back();
        if (op == '!') {
            m_values.back() = !last;
            return;
        }
        m_values.pop_back();
        m_values.back() = op == '&' ? m_values.back() && last : m_values.back() || last;
    }

    std::string const m_text;
    std::size_t const m_seed;
    Conditions& m_found;
    std::size_t m_at = 0;
    std::vector<bool> m_values;
    std::string m_operators;
};

bool ReadElement(pugi::xml_node node, std::size_t seed, Conditions& found) {
    std::string const name = node.name();
    if (name == "is") {
        found.push_back(
            Written(node.attribute("subject").value(), node.attribute("op").value(), node.attribute("value").value()));
        return Answer(found.back(), seed);
    }
    bool all = true, any = false;
    for (auto const child : node.children()) {
        bool const held = ReadElement(child, seed, found);
        all = all && held;
        any = any || held;
    }
    return name == "not" ? !all : name == "and" ? all : any;
}

bool ReadIdentity(pugi::xml_node node, std::size_t seed, Conditions& found) {
    std::string text;
    for (auto const child : node.children()) {
        if (child.type() == pugi::node_element) return ReadElement(child, seed, found);
        text += child.value();
    }
    bool const blank = text.find_first_not_of(" \t\r\n") == std::string::npos;
    return !blank && TextReading(text, seed, found).value();
}

// ---- the checks

std::vector<std::string_view> Lines(std::string_view bytes) {
    std::vector<std::string_view> lines;
    for (std::size_t end; (end = bytes.find('\n')) != bytes.npos; bytes.remove_prefix(end + 1))
        lines.push_back(bytes.substr(0, end));
    lines.push_back(bytes);
    return lines;
}

// What stands at the place; the end of a line, and of the file, are places too.
std::string_view At(std::string_view bytes, unsigned line, unsigned column) {
    auto const lines = Lines(bytes);
    Require(line >= 1 && line <= lines.size(), "a place has a line of the file");
    Require(column >= 1 && column <= lines[line - 1].size() + 1, "and a column of the line");
    return lines[line - 1].substr(column - 1);
}

void CheckError(eFabric::XmlError const& error, std::string const& bytes) {
    Require(!error.reason().empty(), "an error has a reason");
    At(bytes, error.place().line, error.place().column);
    auto const place = ':' + std::to_string(error.place().line) + ':' + std::to_string(error.place().column) + ": ";
    Require(error.text() == error.place().file + place + error.reason(), "an error's text has all of it");
}

void CheckIdentity(Identity const& identity, pugi::xml_node node, std::string const& bytes) {
    Conditions all;
    for (std::size_t seed = 0; seed < 4; ++seed) {
        all.clear();
        bool const expected = ReadIdentity(node, seed, all);
        World world{seed, {}};
        bool const holds = static_cast<bool>(identity.evaluate(&Evaluate, &world));
        Require(holds == expected, "the tree answers as a plain reading does");
        World again{seed, {}};
        auto const explanation = identity.explain(&Evaluate, &again);
        Require(explanation.holds == holds && again.asked == world.asked, "an explanation asks what is asked without");
        Require(explanation.asked.size() == world.asked.size(), "and tells all of it");
        for (auto const& [condition, held, negated, decisive] : explanation.asked)
            Require(held == Answer(Written(condition.subject, condition.op, condition.value), seed), "as answered");
    }
    auto const conditions = identity.conditions();
    Require(conditions.size() == all.size() && identity.hasExpression() == !all.empty(), "no condition is lost");
    for (std::size_t i = 0; i < all.size(); ++i) {
        auto const& [subject, op, value, place] = conditions[i];
        Require(Written(subject, op, value) == all[i], "conditions stand in the order of the file");
        char const first = At(bytes, place.line, place.column).substr(0, 1).front();
        Require(first == '<' || first == '&' || first == subject.front(), "at their places");
    }
}

struct Names {
    Names() {
        for (auto const* const name : {"a", "b", "c"}) list.names.push_back(InternedString(name));
    }
    velt_testing::FakeIdentityList list;
};

void CheckLoad(std::string const& bytes, Document const& document) {
    static Names const names;
    auto const rules = QXidRules::create();
    rules->addIdentities(names.list);
    try {
        rules->load(document.path(), &Evaluate);
    } catch (eFabric::XmlError const& error) {
        CheckError(error, bytes);
        for (auto const name : names.list.names)
            Require(!rules->find(name.c_str())->hasExpression(), "a file with an error gives no expression");
        return;
    }
    pugi::xml_document reading;
    Require(reading.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_utf8), "well-formed");
    for (auto const node : reading.document_element().children())
        if (auto const* const identity = rules->find(node.attribute("name").value()))
            CheckIdentity(*identity, node, bytes);
}

// With the operators that a gateway has: patterns compile or do not, and what compiled is matched.
void CheckOperators(Document const& document, std::string const& address) {
    static Names const names;
    VELT::Config config;
    config.source.address = config.recipient.address = address;
    config.policies[2].config = &config;
    auto const rules = QXidRules::create();
    rules->addIdentities(names.list);
    try {
        rules->load(document.path(), &VELT::evaluate_rule);
    } catch (KORtk::Exception const&) {
    } catch (std::runtime_error const&) {
    }
    for (auto const name : names.list.names) {
        auto const* const identity = rules->find(name.c_str());
        bool const holds = static_cast<bool>(identity->evaluate(&VELT::evaluate_rule, &config.policies[2]));
        Require(identity->explain(&VELT::evaluate_rule, &config.policies[2]).holds == holds, "a rule is stable");
    }
}

std::string Around(unsigned kind, std::string const& text) {
    if (kind == 't') return "<identities>\n<identity name='a'>" + text + "</identity></identities>";
    if (kind == 'c') return "<identities><identity name='a'>\n<![CDATA[" + text + "]]></identity></identities>";
    return text;
}

}  // namespace

// The first line is an address, the first byte behind it chooses: "t" a condition, "c" one in CDATA, else a whole file.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static Document const document;
    static bool const ready = [] {
        eFabric::ExchangeReportSink([](std::string const&) {});
        VELT::fill_operator_tables();
        return true;
    }();
    Require(ready, "set up");
    velt_fuzz::Input input(data, size);
    std::string const address = input.Line().substr(0, 32);
    unsigned const kind = input.Byte();
    std::string const bytes = Around(kind, input.Rest());
    document.write(bytes);
    CheckLoad(bytes, document);
    CheckOperators(document, address);
    return 0;
}
