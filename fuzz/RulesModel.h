// RulesModel: what docs/formats/rules-xml.md says of a store, looked up in the plain documents, slowly and with no
// tables: the reference for the store's own look-up. Files that the store refuses are not its affair.
// Owner: the target. Thread: one. Failure: none; what is not there is an empty node.
#pragma once

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pugixml.hpp>

namespace velt_fuzz {

constexpr unsigned DayMinutes = 24 * 60, WeekMinutes = 7 * DayMinutes;

inline std::vector<std::string> Cut(std::string const& text, char const* separators) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; (at = text.find_first_not_of(separators, at)) != std::string::npos;) {
        auto const end = std::min(text.find_first_of(separators, at), text.size());
        parts.push_back(text.substr(at, end - at));
        at = end;
    }
    return parts;
}

// The minutes of the week, from Monday, that are open. Of a window that the store takes.
inline std::bitset<WeekMinutes> OpenMinutes(std::string const& window) {
    auto const day = [](std::string const& name) {
        std::string lower = name;
        for (char& c : lower) c = static_cast<char>(c | 0x20);
        return static_cast<unsigned>(std::string("montuewedthufrisatsun").find(lower) / 3);
    };
    auto const minute = [](std::string const& time) {
        return static_cast<unsigned>(std::stoi(time.substr(0, 2)) * 60 + std::stoi(time.substr(3)));
    };
    std::vector<unsigned> days;
    std::vector<std::pair<unsigned, unsigned>> spans;
    for (auto const& word : Cut(window, " \t\r\n"))
        for (auto const& range : Cut(word, ",")) {
            auto const ends = Cut(range, "-");
            if (range[0] >= '0' && range[0] <= '9') {
                spans.emplace_back(minute(ends.front()), minute(ends.back()));
                continue;
            }
            unsigned const first = day(ends.front()), length = (day(ends.back()) + 7 - first) % 7;
            for (unsigned i = 0; i <= length; ++i) days.push_back((first + i) % 7);
        }
    if (days.empty()) days = {0, 1, 2, 3, 4, 5, 6};
    if (spans.empty()) spans.emplace_back(0, DayMinutes);
    std::bitset<WeekMinutes> open;
    for (unsigned const start : days)
        for (auto const& [first, end] : spans)
            for (unsigned m = first; m < (end > first ? end : end + DayMinutes); ++m)
                open.set((start * DayMinutes + m) % WeekMinutes);
    return open;
}

// In UTC; the first of January 1970 was a Thursday.
inline unsigned MinuteOfWeek(std::time_t when) {
    return static_cast<unsigned>((when / 60 + 3 * static_cast<std::time_t>(DayMinutes)) % WeekMinutes);
}

struct RulesModel {
    using Node = pugi::xml_node;
    using Names = std::vector<std::string>;

    struct Found {
        Node node;
        std::size_t file = 0;
    };
    // Elements of one policy, or of one of its identities, one of each file that has it.
    struct Block {
        std::string policy;
        std::string identity;  // empty: the policy's own
        std::vector<Found> parts;
    };

    explicit RulesModel(std::vector<std::string> const& files) {
        for (auto const& text : files) {
            documents.push_back(std::make_unique<pugi::xml_document>());
            documents.back()->load_buffer(text.data(), text.size(), pugi::parse_default, pugi::encoding_utf8);
        }
    }

    Block policy(std::string const& name) const {
        Block block{name, "", {}};
        for (std::size_t i = 0; i < documents.size(); ++i)
            if (auto const node = documents[i]->child("rules").find_child_by_attribute("policy", "name", name.c_str()))
                block.parts.push_back({node, i});
        return block;
    }

    Block identity(std::string const& policyName, std::string const& name) const {
        Block block{policyName, name, {}};
        for (auto const& [node, file] : policy(policyName).parts)
            if (auto const found = node.find_child_by_attribute("identity", "name", name.c_str()))
                block.parts.push_back({found, file});
        return block;
    }

    bool hasPolicy(std::string const& name) const {
        if (!policy(name).parts.empty() || name == "base") return true;
        for (std::string const kind :
             {"connection", "content", "transport", "protocol", "const", "machine", "network", "system"})
            if (name == kind || name == kind + "_in" || name == kind + "_out") return true;
        return false;
    }

    // The last that is said counts.
    static std::pair<bool, std::string> said(Block const& block, char const* attribute) {
        std::pair<bool, std::string> last{false, ""};
        for (auto const& part : block.parts)
            if (auto const found = part.node.attribute(attribute)) last = {true, found.value()};
        return last;
    }

    std::string baseOf(std::string const& name) const {
        if (auto const [written, base] = said(policy(name), "base"); written) return base;
        if (name == "base") return "";
        for (std::string const end : {"_in", "_out"}) {
            if (name.size() <= end.size() || name.substr(name.size() - end.size()) != end) continue;
            auto const stem = name.substr(0, name.size() - end.size());
            if (hasPolicy(stem)) return stem;
        }
        return "base";
    }

    void addHeirs(std::string const& policyName, std::string const& name, Names& seen) const {
        if (std::count(seen.begin(), seen.end(), name)) return;
        seen.push_back(name);
        for (auto const& next : Cut(said(identity(policyName, name), "inherits").second, " \t\r\n,"))
            addHeirs(policyName, next, seen);
    }

    // What a look-up asks, one after the other.
    std::vector<Block> blocks(std::string const& policyName, std::string const& identityName) const {
        std::vector<Block> all;
        if (!hasPolicy(policyName)) return all;
        if (!identityName.empty() && !identity(policyName, identityName).parts.empty()) {
            Names heirs;
            addHeirs(policyName, identityName, heirs);
            for (auto const& name : heirs) all.push_back(identity(policyName, name));
        }
        for (auto name = policyName; !name.empty(); name = baseOf(name)) all.push_back(policy(name));
        return all;
    }

    static bool isOpen(Node node, std::time_t when) {
        auto const window = node.attribute("when");
        if (!window) return true;
        static std::map<std::string, std::bitset<WeekMinutes>> known;
        if (known.size() > 100) known.clear();
        auto const found = known.find(window.value());
        auto const& open = found != known.end()
                               ? found->second
                               : known.emplace(window.value(), OpenMinutes(window.value())).first->second;
        return open.test(MinuteOfWeek(when));
    }

    // Values of this name in one element, in the order of the file.
    static std::vector<Node> valuesIn(Node part, std::string const& section, std::string const& name) {
        std::vector<Node> values;
        for (auto const settings : part.children("settings"))
            for (auto const value : settings.children())
                if (settings.attribute("section").value() == section && value.name() != std::string("rule") &&
                    value.attribute("name").value() == name)
                    values.push_back(value);
        return values;
    }

    // Those with windows first, in the order in which they count; then the one without, which hides all earlier ones.
    static Found valueOf(Block const& block, std::string const& section, std::string const& name, std::time_t when) {
        for (auto part = block.parts.rbegin(); part != block.parts.rend(); ++part) {
            auto const values = valuesIn(part->node, section, name);
            for (auto const value : values)
                if (value.attribute("when") && isOpen(value, when)) return {value, part->file};
            for (auto const value : values)
                if (!value.attribute("when")) return {value, part->file};
        }
        return {};
    }

    Found value(std::string const& policyName, std::string const& identityName, std::string const& section,
                std::string const& name, std::time_t when, Block* from = nullptr) const {
        for (auto const& block : blocks(policyName, identityName)) {
            auto const found = valueOf(block, section, name, when);
            if (found.node && from) *from = block;
            if (found.node) return found;
        }
        return {};
    }

    std::vector<Node> rules(std::string const& policyName, std::string const& identityName, std::string const& section,
                            std::time_t when) const {
        std::vector<Node> all;
        for (auto const& block : blocks(policyName, identityName))
            for (auto part = block.parts.rbegin(); part != block.parts.rend(); ++part)
                for (auto const settings : part->node.children("settings"))
                    for (auto const rule : settings.children("rule"))
                        if (settings.attribute("section").value() == section && isOpen(rule, when)) all.push_back(rule);
        return all;
    }

    Names identities(std::string const& policyName) const {
        Names names;
        for (auto const& part : policy(policyName).parts)
            for (auto const node : part.node.children("identity")) {
                std::string const name = node.attribute("name").value();
                if (!std::count(names.begin(), names.end(), name)) names.push_back(name);
            }
        return names;
    }

    // The first of the policy and its bases that has a list; of several files the last.
    Names actions(std::string const& policyName) const {
        for (auto const& block : blocks(policyName, ""))
            for (auto part = block.parts.rbegin(); part != block.parts.rend(); ++part) {
                auto const list = part->node.child("actions");
                Names names;
                for (auto const action : list.children("action")) names.push_back(text(action));
                if (list) return names;
            }
        return {};
    }

    int compareActions(std::string const& policyName, std::string const& a, std::string const& b) const {
        auto const names = actions(policyName);
        auto const first = std::find(names.begin(), names.end(), a), second = std::find(names.begin(), names.end(), b);
        if (first == names.end() || second == names.end()) return -1;
        return first == second ? 0 : first < second ? 1 : 2;
    }

    // Without the blanks around it, unless some of it is CDATA.
    static std::string text(Node element) {
        std::string whole;
        bool verbatim = false;
        for (auto const child : element.children()) {
            if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) whole += child.value();
            verbatim = verbatim || child.type() == pugi::node_cdata;
        }
        if (verbatim) return whole;
        auto const first = whole.find_first_not_of(" \t\r\n");
        return first == std::string::npos ? "" : whole.substr(first, whole.find_last_not_of(" \t\r\n") - first + 1);
    }

    std::vector<std::unique_ptr<pugi::xml_document>> documents;
};

}  // namespace velt_fuzz
