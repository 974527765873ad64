// The line that carries direction and identities to another process: any text restores as its fields read one by one,
// and what was restored saves to a line that restores to the same.
#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include <eFabric/Report.h>

#include "fuzz/Input.h"
#include "testing/FakePolicyStore.h"
#include "testing/TempRoot.h"
#include "velt/Config.h"

using velt_fuzz::Require;

namespace {

using VELT::Config;
using Slots = std::array<InternedString, Config::s_policyCount>;

// Each row and slot has names of its own, and some that others have too.
struct World {
    World() {
        std::string file;
        for (auto const* const policy :
             {"connection_out", "content_out", "content_in", "protocol_in", "machine_out", "system_in", "system_out"})
            store.PutIdentities(policy, {"staff", "s", std::string(policy) + "-own"});
        for (auto const* const name : {"staff", "s", "content_in-own", "content_out-own", "system_in-own"})
            file += "<identity name='" + std::string(name) + "'>eto IS \"*\"</identity>";
        root.Write("/config/qxxmlconf/identities.xml", "<identities>" + file + "</identities>");
        eFabric::ExchangeReportSink([](std::string const&) {});
        Config::initialise(&store);
    }
    velt_testing::TempRoot root;
    velt_testing::FakePolicyStore store;
};

// The fields of a line: what stands between its blanks, and as many empty ones behind it as it takes.
std::vector<std::string> Fields(std::string const& line) {
    std::vector<std::string> fields(1);
    for (char const c : line) {
        if (c == ' ')
            fields.emplace_back();
        else
            fields.back() += c;
    }
    fields.resize(std::max<std::size_t>(fields.size(), Config::s_policyCount + 1));
    return fields;
}

InternedString Named(bool inbound, unsigned slot, std::string const& text) {
    for (auto const name : Config::s_Identities[inbound][slot])
        if (text == name.c_str()) return name;
    return {};
}

Slots SlotsOf(Config const& config) {
    Slots slots;
    for (unsigned i = 0; i < Config::s_policyCount; ++i) slots[i] = config.policies[i].identity;
    return slots;
}

void CheckRestored(Config& config, Slots const& before, std::string const& line) {
    auto const fields = Fields(line);
    Require(config.restored, "restored for good");
    Require(config.inbound == (std::strtol(fields[0].c_str(), nullptr, 10) != 0), "the direction is a number's");
    for (unsigned i = 0; i < Config::s_policyCount; ++i) {
        auto const& field = fields[i + 1];
        auto const expected = field.empty() ? before[i] : Named(config.inbound, i, field);
        Require(config.policies[i].identity == expected, "an identity is the one of that name in its slot");
        Require(config.policies[i].config == &config, "a slot belongs to its owner");
    }
}

void CheckSaved(Config& config) {
    std::string const line = config.save_state();
    Require(Fields(line).size() == Config::s_policyCount + 1, "a line has a field for each slot");
    Config other;
    other.restore_state(line);
    Require(other.save_state() == line && other.inbound == config.inbound, "a line is stable");
    Slots const slots = SlotsOf(config);
    config.allchange();
    for (auto& slot : config.policies) slot.policy(&config);
    Require(SlotsOf(config) == slots, "nothing is worked out anew");
}

}  // namespace

// The first byte says which slots have an identity before the line comes.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static World const world;
    velt_fuzz::Input input(data, size);
    Config config;
    unsigned const given = input.Byte();
    for (unsigned i = 1; i < Config::s_policyCount; ++i)
        if (auto const& names = Config::s_Identities[i & 1][i]; (given >> (i - 1) & 1) != 0 && !names.empty())
            config.policies[i].identity = names.front();
    Slots const before = SlotsOf(config);
    std::string const text = input.Rest();
    config.restore_state(text);
    CheckRestored(config, before, text.c_str());
    bool const ofOneRow = std::all_of(config.policies.begin(), config.policies.end(), [&](auto const& slot) {
        return !slot.identity || Named(config.inbound, slot.index, slot.identity.c_str());
    });
    if (ofOneRow) CheckSaved(config);
    return 0;
}
