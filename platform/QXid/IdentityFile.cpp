#include <QXid/IdentityFile.h>

#include <string_view>
#include <unordered_set>
#include <utility>

#include <eFabric/XmlText.h>

namespace qxid {
namespace {

using eFabric::XmlError;
using eFabric::XmlFile;
using pugi::xml_node;

constexpr char const* Blanks = " \t\r\n";

Spot SpotOf(eFabric::XmlPlace const& place) { return {place.line, place.column}; }

class Reader {
public:
    explicit Reader(XmlFile const& file) : m_file(file) {}

    IdentityList all() {
        m_file.allowAttributes(m_file.root(), {"version"});
        m_file.requireVersion(m_file.root());
        m_file.forbidText(m_file.root());
        IdentityList list;
        for (auto const node : m_file.root().children()) add(node, list);
        return list;
    }

private:
    // An identity with an error does not hide the errors of those behind it.
    void add(xml_node node, IdentityList& list) try {
        list.entries.push_back(identity(node));
    } catch (XmlError const& error) {
        list.errors.push_back(error);
    }

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
        if (elements) return only(node, 0);
        auto const text = XmlFile::text(node);
        if (text.find_first_not_of(Blanks) == std::string::npos) return nullptr;
        try {
            eFabric::XmlTextPlaces places(m_file, node);
            return ParseExpression(text, [&](std::size_t at) { return SpotOf(places.at(at)); });
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
        std::string_view const name = node.name();
        bool const nests = name == "and" || name == "or" || name == "not";
        if (name == "is") return atom(node);
        if (!nests) m_file.fail(node, "<and>, <or>, <not> or <is> expected, not <" + std::string(name) + ">");
        if (depth == MaxExpressionDepth) m_file.fail(node, "the expression is nested deeper than 64");
        m_file.allowAttributes(node, {});
        if (name == "not") return std::make_unique<Negation>(only(node, depth + 1));
        return junction(node, depth);
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
                                      node.attribute("value").value(), SpotOf(m_file.place(node)));
    }

    XmlFile const& m_file;
    std::unordered_set<std::string> m_names;
};

}  // namespace

IdentityList ParseIdentities(std::string const& name, std::string bytes) {
    XmlFile const file(name, std::move(bytes), "identities", XmlFile::AnyDepth);
    return Reader(file).all();
}

}  // namespace qxid
