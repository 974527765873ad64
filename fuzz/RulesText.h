// RulesText: writes files of the form of rules.xml as the fuzzer's bytes decide: few names, so that they meet; most
// files are right, some are wrong in each of the ways that concern more than one element.
#pragma once

#include <string>

#include "fuzz/Input.h"

namespace velt_fuzz {

constexpr char const* Policies[] = {"base", "content", "content_in", "content_out", "p", "q", "q_in", "ghost"};
constexpr char const* IdentityNames[] = {"i", "j", "k", "l", "ghost"};
constexpr char const* Sections[] = {"s", "t"};
constexpr char const* Settings[] = {"a", "b", "c"};
constexpr char const* ActionNames[] = {"LOG", "CLEAN", "DENY"};
constexpr char const* Windows[] = {
    "mon",     "sat-sun",     "fri 22:00-06:00", "08:00-18:00",         " mon-fri  08:00-12:00,13:00-18:00",
    "Fri-MON", "00:00-24:00", "sun 23:00-00:30", "tue,thu 12:00-11:59", "never"};

class RulesText {
public:
    explicit RulesText(Input& input) : m_input(input) {}

    std::string file() {
        std::string text = "<rules>";
        for (unsigned i = 0; i + 1 < std::size(Policies); ++i)
            if (m_input.Byte() % 2) text += policy(i);
        return text + "</rules>";
    }

private:
    template <std::size_t N>
    std::string pick(char const* const (&names)[N]) {
        return names[m_input.Byte() % N];
    }

    // One time in 32, when what follows is to be wrong.
    bool rarely() { return m_input.Byte() % 32 == 31; }

    // One of those before it as its base, so that no circle comes of it.
    std::string base(unsigned index) {
        unsigned const choice = m_input.Byte();
        if (rarely()) return " base='" + pick(Policies) + "'";
        if (choice % 4 == 1) return " base=''";
        return choice % 4 == 2 && index > 0 ? std::string(" base='") + Policies[choice / 4 % index % 4] + "'" : "";
    }

    std::string policy(unsigned index) {
        unsigned const choice = m_input.Byte();
        std::string text = "<policy name='" + std::string(Policies[index]) + "'" + base(index) + ">\n";
        if (choice & 1) text += actions();
        if (choice & 2) text += settings(choice / 16);
        unsigned const present = choice & 4 ? m_input.Byte() : 0;
        for (unsigned i = 0; i + 1 < std::size(IdentityNames); ++i)
            if (present >> i & 1) text += identity(i, present);
        return text + "</policy>\n";
    }

    std::string actions() {
        std::string text = "<actions>";
        unsigned const first = m_input.Byte();
        for (unsigned i = 0; i < first % 4; ++i)
            text += std::string("<action>") + ActionNames[(first / 4 + i) % std::size(ActionNames)] + "</action>";
        return text + "</actions>";
    }

    // It inherits those behind it that are there as well.
    std::string identity(unsigned index, unsigned present) {
        unsigned const choice = m_input.Byte();
        std::string heirs;
        for (unsigned i = index + 1; i + 1 < std::size(IdentityNames); ++i)
            if (present >> i & choice >> i & 1)
                heirs = i % 2 ? heirs + " , " + IdentityNames[i] : IdentityNames[i] + (' ' + heirs);
        if (rarely()) heirs += pick(IdentityNames);
        std::string text = std::string("<identity name='") + IdentityNames[index] + "'";
        if (choice & 32) text += " inherits='" + heirs + "'";
        text += ">";
        if (choice & 64) text += settings(choice % 8);
        return text + "</identity>\n";
    }

    // One element for each section, so that the same plain value stands twice seldom.
    std::string settings(unsigned count) {
        std::string text;
        for (auto const* const section : Sections) {
            text += std::string("<settings section='") + section + "'>";
            m_plain = 0;
            for (unsigned left = count % 6; left > 0; --left) text += value() + "\n";
            text += "</settings>\n";
        }
        return text;
    }

    std::string named(unsigned choice) {
        unsigned const name = m_input.Byte() % std::size(Settings);
        bool const again = m_plain >> name & 1 && !rarely();
        if (!(choice & 16)) m_plain |= 1U << name;
        return std::string(" name='") + Settings[name] + "'" + when(again ? 16 : choice);
    }

    std::string when(unsigned choice) { return choice & 16 ? " when='" + pick(Windows) + "'" : ""; }

    std::string value() {
        unsigned const choice = m_input.Byte();
        auto const number = std::to_string(++m_values);
        if (choice % 8 == 2) return "<rule x='" + number + "'" + when(choice) + "/>";
        auto const attributes = named(choice);
        switch (choice % 8) {
            case 0:
                return "<list" + attributes + "><item>" + number + "</item><item> y" + number + " </item></list>";
            case 1:
                return "<alert" + attributes + "><body>b" + number + "</body><footer>&lt;f</footer></alert>";
            case 2:
                return "<rule x='" + number + "'" + when(choice) + "/>";
            case 3:
                return "<set" + attributes + "><![CDATA[ " + number + "]]> </set>";
            case 4:
                return "<list" + attributes + "/>";
            default:
                return "<set" + attributes + "> " + number + " </set>";
        }
    }

    Input& m_input;
    unsigned m_values = 0;
    unsigned m_plain = 0;  // one bit for each name that has a plain value here
};

}  // namespace velt_fuzz
