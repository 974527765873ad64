// The policy store over any three files: what it takes, it answers as the manual says, and names the place of; what it
// refuses has a file, a line and a reason.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <KORtk/Text.h>
#include <eFabric/XmlFile.h>
#include <policyloader/store/InternPool.h>
#include <policyloader/store/StoreModel.h>
#include <policyloader/store/StoreSnapshot.h>

#include "fuzz/Input.h"
#include "fuzz/RulesModel.h"
#include "fuzz/RulesText.h"

using policyloader::InternPool;
using velt_fuzz::Require;
using velt_fuzz::RulesModel;

namespace {

constexpr char const* FileNames[] = {"one.xml", "two.xml", "three.xml"};

using Files = std::vector<std::string>;

InternedString In(std::string const& text) {
    return text.empty() ? InternedString() : InternPool::process().intern(text);
}

long LinesOf(std::string const& text, std::size_t end) {
    return 1 + std::count(text.begin(), text.begin() + static_cast<long>(std::min(end, text.size())), '\n');
}

void CheckError(eFabric::XmlError const& error, Files const& files) {
    Require(!error.reason().empty(), "an error has a reason");
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (error.place().file != FileNames[i]) continue;
        Require(error.place().line > 0 && error.place().column > 0, "an error has a line and a column");
        Require(error.place().line <= LinesOf(files[i], files[i].size()), "an error's line is one of the file");
        return;
    }
    Require(false, "an error names its file");
}

std::unique_ptr<policyloader::StoreSnapshot const> Load(Files const& files) {
    try {
        auto model = std::make_unique<policyloader::StoreModel>();
        for (std::size_t i = 0; i < files.size(); ++i) model->add(eFabric::XmlFile(FileNames[i], files[i], "rules"));
        return std::make_unique<policyloader::StoreSnapshot const>(std::move(model));
    } catch (eFabric::XmlError const& error) {
        CheckError(error, files);
        return nullptr;
    }
}

std::wstring Wide(std::string const& text) { return KORtk::Utf8Array(text.c_str()).wstr(); }

bool SameText(eFabric::IProductValue const& value, std::string const& expected) {
    char const* text = nullptr;
    return value.getString(&text) && text == expected && value.size() == 1;
}

bool SameList(eFabric::IProductValue const& value, pugi::xml_node list) {
    unsigned index = 0;
    for (auto const item : list.children("item"))
        if (index >= value.size() || !SameText(*value.at(index++), RulesModel::text(item))) return false;
    char const* text = nullptr;
    return index == value.size() && !value.getString(&text);
}

bool SameAlert(eFabric::IProductValue const& value, pugi::xml_node alert) {
    auto const same = [&](wchar_t const* part, char const* name) {
        auto const node = alert.child(name);
        return node ? part && Wide(RulesModel::text(node)) == part : !part;
    };
    eFabric::ProductAlertValue parts{};
    return value.getAlert(&parts) && same(parts.body, "body") && same(parts.header, "header") &&
           same(parts.footer, "footer");
}

bool Same(eFabric::IProductValue const& value, pugi::xml_node node) {
    std::string const kind = node.name();
    return kind == "set"    ? SameText(value, RulesModel::text(node))
           : kind == "list" ? SameList(value, node)
                            : SameAlert(value, node);
}

// One question in all the ways that it can be asked.
class Question {
public:
    Question(Files const& files, policyloader::StoreSnapshot const& store, RulesModel const& model, std::string policy,
             std::string identity, std::time_t when)
        : m_files(files),
          m_store(store),
          m_model(model),
          m_policy(std::move(policy)),
          m_identity(std::move(identity)),
          m_when(when) {}

    void askValue(std::string const& section, std::string const& name) const {
        RulesModel::Block block;
        auto const expected = m_model.value(m_policy, m_identity, section, name, m_when, &block);
        auto const* const value = m_store.productValue(In(m_policy), In(m_identity), In(section), In(name), m_when);
        auto const source = m_store.sources().find(In(m_policy), In(m_identity), In(section), In(name), m_when);
        Require(!value == !expected.node && !value == !source, "the store has what the manual says it has");
        Require(m_store.view(In(m_policy), In(m_identity), m_when).has(section, name) == !!value, "a view agrees");
        if (!value) return;
        Require(Same(*value, expected.node), "the store gives the value that the manual says");
        Require(source->value == value, "a source is that of the value");
        Require(source->place.file == std::string(FileNames[expected.file]), "a source names the file");
        Require(source->place.line ==
                    LinesOf(m_files[expected.file], static_cast<std::size_t>(expected.node.offset_debug())),
                "a source names the line");
        Require(source->policy == In(block.policy) && source->identity == In(block.identity), "and the block");
    }

    void askRules(std::string const& section) const {
        auto const expected = m_model.rules(m_policy, m_identity, section, m_when);
        auto const rules = m_store.view(In(m_policy), In(m_identity), m_when).rules(section);
        Require(rules.size() == expected.size(), "as many rules as the manual says");
        for (std::size_t i = 0; i < rules.size(); ++i)
            Require(rules[i]->get("x").value_or("") == expected[i].attribute("x").value(), "in the manual's order");
    }

private:
    Files const& m_files;
    policyloader::StoreSnapshot const& m_store;
    RulesModel const& m_model;
    std::string const m_policy;
    std::string const m_identity;
    std::time_t const m_when;
};

void AskPolicy(policyloader::StoreSnapshot const& store, RulesModel const& model, std::string const& policy) {
    auto const& list = store.identities(In(policy));
    auto const expected = model.identities(policy);
    Require(list.size() == expected.size(), "as many identities as the manual says");
    for (unsigned i = 0; i < list.size(); ++i) Require(list.at(i) == In(expected[i]), "in the order of their rank");
    for (auto const* const a : velt_fuzz::ActionNames)
        for (auto const* const b : velt_fuzz::ActionNames)
            Require(store.compareActions(In(policy), a, b) == model.compareActions(policy, a, b), "actions compare");
}

void AskAll(Files const& files, std::time_t when) {
    auto const store = Load(files);
    if (!store) return;
    RulesModel const model(files);
    constexpr char const* Identities[] = {"", "i", "j", "k", "l", "ghost"};
    auto turn = static_cast<std::size_t>(when / 60);  // each policy with another of the identities
    for (auto const* const policy : velt_fuzz::Policies) {
        AskPolicy(*store, model, policy);
        Question const question(files, *store, model, policy, Identities[turn++ % std::size(Identities)], when);
        for (auto const* const section : velt_fuzz::Sections) {
            question.askRules(section);
            for (auto const* const name : velt_fuzz::Settings) question.askValue(section, name);
        }
    }
}

}  // namespace

// The first byte: 'x' for files as they come, with an 0x1E between them; else they are written by what follows. The
// next two: the time.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static bool const utc = (::setenv("TZ", "UTC", 1), ::tzset(), true);
    Require(utc, "times are in UTC");
    velt_fuzz::Input input(data, size);
    bool const plain = input.Byte() == 'x';
    unsigned const high = input.Byte(), low = input.Byte();
    std::time_t const when = 1609718400 + static_cast<std::time_t>(high * 256 + low) * 60;  // from a Monday on
    Files files;
    while (!input.empty() && files.size() < std::size(FileNames)) {
        if (plain) {
            std::string text;
            for (unsigned c; !input.empty() && (c = input.Byte()) != 0x1E;) text += static_cast<char>(c);
            files.push_back(text);
        } else {
            files.push_back(velt_fuzz::RulesText(input).file());
        }
    }
    AskAll(files, when);
    return 0;
}
