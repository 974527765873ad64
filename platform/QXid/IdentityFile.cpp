#include <QXid/IdentityFile.h>

#include <string_view>
#include <unordered_set>
#include <utility>

#include <eFabric/XmlFile.h>

namespace qxid {
namespace {

using eFabric::XmlError;
using eFabric::XmlFile;
using pugi::xml_node;

constexpr char const* Blanks = " \t\r\n";

class Reader {
public:
    explicit Reader(XmlFile const& file) : m_file(file) {}

    std::vector<IdentityEntry> all() {
        m_file.allowAttributes(m_file.root(), {"version"});
        m_file.requireVersion(m_file.root());
        m_file.forbidText(m_file.root());
        std::vector<IdentityEntry> entries;
        for (auto const node : m_file.root().children()) entries.push_back(identity(node));
        return entries;
    }

private:
    IdentityEntry identity(xml_node node) {
        if (node.name() != std::string_view("identity"))
            m_file.fail(node, std::string("<identity> expected, not <") + node.name() + ">");
        m_file.allowAttributes(node, {"name"});
        auto name = m_file.required(node, "name");
        if (!m_names.insert(name).second) m_file.fail(node, "identity '" + name + "' stands twice");
        return IdentityEntry{std::move(name), body(node), m_file.place(node)};
    }

    ExpressionPtr body(xml_node node) const {
        bool const elements = node.find_child([](xml_node child) { return child.type() == pugi::node_element; });
        if (elements) return only(node, 1);
        auto const text = XmlFile::text(node);
        if (text.find_first_not_of(Blanks) == std::string::npos) return nullptr;
        try {
            return ParseExpression(text);
        } catch (SyntaxError const& error) {
            throw XmlError(m_file.placeInText(node, error.at), error.reason);
        }
    }

    ExpressionPtr only(xml_node node, int depth) const {
        m_file.forbidText(node);
        auto const child = node.first_child();
        if (!child) m_file.fail(node, std::string("<") + node.name() + "> takes one condition, not none");
        if (child.next_sibling())
            m_file.fail(child.next_sibling(), std::string("<") + node.name() + "> takes one condition only");
        return element(child, depth);
    }

    ExpressionPtr element(xml_node node, int depth) const {
        if (depth > MaxExpressionDepth) m_file.fail(node, "the expression is nested deeper than 64");
        std::string_view const name = node.name();
        if (name == "is") return atom(node);
        m_file.allowAttributes(node, {});
        if (name == "and" || name == "or") return junction(node, depth);
        if (name == "not") return std::make_unique<Negation>(only(node, depth + 1));
        m_file.fail(node, "<and>, <or>, <not> or <is> expected, not <" + std::string(name) + ">");
    }

    ExpressionPtr junction(xml_node node, int depth) const {
        m_file.forbidText(node);
        std::vector<ExpressionPtr> operands;
        for (auto const child : node.children()) operands.push_back(element(child, depth + 1));
        if (operands.empty()) m_file.fail(node, std::string("<") + node.name() + "> takes at least one condition");
        return std::make_unique<Junction>(node.name() == std::string_view("and"), std::move(operands));
    }

    ExpressionPtr atom(xml_node node) const {
        m_file.allowAttributes(node, {"subject", "op", "value"});
        if (node.first_child()) m_file.fail(node.first_child(), "<is> takes nothing inside");
        if (!node.attribute("value")) m_file.fail(node, "<is> lacks its attribute 'value'");
        return std::make_unique<Atom>(m_file.required(node, "subject"), m_file.required(node, "op"),
                                      node.attribute("value").value());
    }

    XmlFile const& m_file;
    std::unordered_set<std::string> m_names;
};

}  // namespace

std::vector<IdentityEntry> ParseIdentities(std::string const& name, std::string bytes) {
    XmlFile const file(name, std::move(bytes), "identities");
    return Reader(file).all();
}

}  // namespace qxid
