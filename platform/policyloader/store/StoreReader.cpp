#include <policyloader/store/StoreReader.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include <KORtk/Text.h>
#include <policyloader/store/InternPool.h>

namespace policyloader {
namespace {

using eFabric::XmlError;
using eFabric::XmlFile;

constexpr char const* Blanks = " \t\r\n";

InternedString Intern(std::string_view text) { return InternPool::process().intern(text); }

std::string_view Trimmed(std::string_view text) {
    auto const first = text.find_first_not_of(Blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(Blanks) - first + 1);
}

std::vector<InternedString> Names(std::string_view list) {
    std::vector<InternedString> names;
    for (auto at = list.find_first_not_of(" \t\r\n,"); at != std::string_view::npos;) {
        auto const end = std::min(list.find_first_of(" \t\r\n,", at), list.size());
        names.push_back(Intern(list.substr(at, end - at)));
        at = list.find_first_not_of(" \t\r\n,", end);
    }
    return names;
}

std::string Quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

}  // namespace

StoreReader::StoreReader(StoreModel& model, XmlFile const& file)
    : m_model(model), m_file(file), m_index(model.m_files), m_fileName(Intern(file.name()).c_str()) {}

void StoreReader::read() {
    auto const root = m_file.root();
    m_file.allowAttributes(root, {"version"});
    m_file.requireVersion(root);
    m_file.forbidText(root);
    for (auto const node : root.children()) policy(node);
}

void StoreReader::policy(Node node) {
    if (node.name() != std::string_view("policy")) unexpected(node);
    m_file.allowAttributes(node, {"name", "base"});
    m_file.forbidText(node);
    auto& policy = m_model.get(name(node, "name"));
    if (policy.file == m_index) m_file.fail(node, "policy " + Quoted(policy.name.c_str()) + " stands twice");
    policy.file = m_index;
    policy.places.push_back(place(node));
    if (auto const base = node.attribute("base")) {
        policy.base = *base.value() ? name(node, "base") : InternedString();
        policy.basePlace = place(node, "base");
    }
    bool acted = false;
    for (auto const child : node.children()) {
        std::string_view const kind = child.name();
        if (kind == "settings")
            settings(child, policy.scope);
        else if (kind == "identity")
            identity(child, policy);
        else if (kind == "actions" && !std::exchange(acted, true))
            actions(child, policy);
        else
            unexpected(child);
    }
}

void StoreReader::actions(Node node, PolicyNode& policy) {
    m_file.allowAttributes(node, {});
    m_file.forbidText(node);
    policy.actions.emplace();
    policy.actionsPlace = place(node);
    for (auto const child : node.children()) {
        if (child.name() != std::string_view("action")) unexpected(child);
        m_file.allowAttributes(child, {});
        auto const action = Intern(leafText(child));
        if (!*action.c_str()) m_file.fail(child, "an action has no name");
        if (std::count(policy.actions->begin(), policy.actions->end(), action))
            m_file.fail(child, "action " + Quoted(action.c_str()) + " stands twice");
        policy.actions->push_back(action);
    }
}

void StoreReader::identity(Node node, PolicyNode& policy) {
    m_file.allowAttributes(node, {"name", "inherits"});
    m_file.forbidText(node);
    auto const called = name(node, "name");
    auto& identity = GetIdentity(policy, called);
    if (identity.file == m_index)
        m_file.fail(node, "identity " + Quoted(called.c_str()) + " stands twice in its policy");
    identity.file = m_index;
    identity.places.push_back(place(node));
    if (auto const inherits = node.attribute("inherits")) {
        identity.inherits = Names(inherits.value());
        identity.inheritsPlace = place(node, "inherits");
    }
    for (auto const child : node.children()) {
        if (child.name() != std::string_view("settings")) unexpected(child);
        settings(child, identity.scope);
    }
}

void StoreReader::settings(Node node, Scope& scope) {
    m_file.allowAttributes(node, {"section"});
    m_file.forbidText(node);
    auto const* const section = Intern(m_file.required(node, "section")).c_str();
    for (auto const child : node.children()) setting(child, section, scope);
}

void StoreReader::setting(Node node, char const* section, Scope& scope) {
    static constexpr std::pair<std::string_view, void (StoreReader::*)(Node, char const*, Scope&)> Kinds[] = {
        {"set", &StoreReader::set},
        {"list", &StoreReader::list},
        {"alert", &StoreReader::alert},
        {"rule", &StoreReader::rule},
    };
    for (auto const& [kind, handler] : Kinds)
        if (node.name() == kind) return (this->*handler)(node, section, scope);
    unexpected(node);
}

void StoreReader::set(Node node, char const* section, Scope& scope) {
    m_file.allowAttributes(node, {"name", "when"});
    store(node, section, scope, Value::Scalar(leafText(node)));
}

void StoreReader::list(Node node, char const* section, Scope& scope) {
    m_file.allowAttributes(node, {"name", "when"});
    m_file.forbidText(node);
    std::vector<Value> items;
    std::vector<unsigned> lines;
    for (auto const child : node.children()) {
        if (child.name() != std::string_view("item")) unexpected(child);
        m_file.allowAttributes(child, {});
        items.push_back(Value::Scalar(leafText(child)));
        lines.push_back(place(child).line);
    }
    store(node, section, scope, Value::List(std::move(items)), std::move(lines));
}

void StoreReader::alert(Node node, char const* section, Scope& scope) {
    m_file.allowAttributes(node, {"name", "when"});
    m_file.forbidText(node);
    for (auto const child : node.children()) {
        std::string_view const part = child.name();
        if (part != "header" && part != "body" && part != "footer") unexpected(child);
        m_file.allowAttributes(child, {});
        if (node.child(child.name()) != child) m_file.fail(child, "<" + std::string(part) + "> stands twice");
    }
    store(node, section, scope,
          Value::Alert({alertText(node, "body"), alertText(node, "header"), alertText(node, "footer")}));
}

void StoreReader::rule(Node node, char const* section, Scope& scope) {
    if (node.first_child()) m_file.fail(node.first_child(), "<rule> takes nothing inside");
    m_file.uniqueAttributes(node);
    std::vector<Rule::Attribute> attributes;
    for (auto const attribute : node.attributes()) {
        if (attribute.name() == std::string_view("when")) continue;
        attributes.emplace_back(Intern(attribute.name()).c_str(), Intern(attribute.value()).c_str());
    }
    auto const* const kept = m_model.pool().rules.keep(Rule(place(node), std::move(attributes), window(node)));
    auto& rules = scope.rules[section];
    auto const earlier =
        std::find_if(rules.begin(), rules.end(), [&](auto const& rule) { return rule.file != m_index; });
    rules.insert(earlier, FileRule{m_index, kept});
}

void StoreReader::store(Node node, char const* section, Scope& scope, Value value, std::vector<unsigned> itemLines) {
    auto const* const called = Intern(m_file.required(node, "name")).c_str();
    auto& setting = scope.settings[SettingKey{section, called}];
    auto const* const when = window(node);
    if (!when && setting.plain.file == m_index)
        m_file.fail(node,
                    Quoted(called) + " is set twice here, first in line " + std::to_string(setting.plain.place.line));
    SaidValue said{
        m_model.pool().values.keep(std::move(value)), when, nullptr, m_index, place(node), std::move(itemLines)};
    if (!when) return storePlain(setting, std::move(said));
    said.when = Intern(node.attribute("when").value()).c_str();
    storeWindowed(setting, std::move(said));
}

void StoreReader::storePlain(Setting& setting, SaidValue said) const {
    if (setting.plain.value) setting.replaced.push_back({std::move(setting.plain), said.place});
    auto& windowed = setting.windowed;
    auto const older =
        std::find_if(windowed.begin(), windowed.end(), [&](SaidValue const& known) { return known.file != m_index; });
    for (auto it = older; it != windowed.end(); ++it) setting.replaced.push_back({std::move(*it), said.place});
    windowed.erase(older, windowed.end());
    setting.plain = std::move(said);
}

// Those of this file stand in front.
void StoreReader::storeWindowed(Setting& setting, SaidValue said) const {
    auto const older = std::find_if(setting.windowed.begin(), setting.windowed.end(),
                                    [&](SaidValue const& known) { return known.file != m_index; });
    setting.windowed.insert(older, std::move(said));
}

Window const* StoreReader::window(Node node) {
    auto const attribute = node.attribute("when");
    if (!attribute) return nullptr;
    try {
        return m_model.pool().window(attribute.value());
    } catch (WindowError const& error) {
        throw XmlError(m_file.place(node, attribute), error.reason);
    }
}

InternedString StoreReader::name(Node node, char const* attribute) const {
    auto const text = m_file.required(node, attribute);
    if (text.find_first_of(" \t\r\n,") != std::string::npos)
        throw XmlError(m_file.place(node, node.attribute(attribute)), "a name has no blanks and no commas");
    return Intern(text);
}

// White space around a text belongs to the layout of the file, unless the text is CDATA.
std::string StoreReader::leafText(Node node) const {
    bool verbatim = false;
    for (auto const child : node.children()) {
        if (child.type() == pugi::node_element) unexpected(child);
        verbatim = verbatim || child.type() == pugi::node_cdata;
    }
    auto const text = XmlFile::text(node);
    return verbatim ? text : std::string(Trimmed(text));
}

wchar_t const* StoreReader::alertText(Node node, char const* part) const {
    auto const child = node.child(part);
    if (!child) return nullptr;
    return InternPool::process().internWide(KORtk::Utf8Array(leafText(child)).wstr());
}

Place StoreReader::place(Node node) const {
    auto const at = m_file.place(node);
    return Place{m_fileName, at.line, at.column};
}

Place StoreReader::place(Node node, char const* attribute) const {
    auto const at = m_file.place(node, node.attribute(attribute));
    return Place{m_fileName, at.line, at.column};
}

void StoreReader::unexpected(Node node) const {
    bool const element = node.type() == pugi::node_element;
    if (!element) m_file.fail(node, std::string("<") + node.parent().name() + "> takes no text");
    m_file.fail(node, std::string("<") + node.name() + "> is not expected here, in <" + node.parent().name() + ">");
}

}  // namespace policyloader
