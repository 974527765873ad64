// Every setting of the library, read at and around both ends of its range, with the store that a proxy runs with.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <testing/TempRoot.h>
#include <velt/Config.h>
#include <velt/config_details/listing.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/debug_scan_agent.h>
#include <velt/config_details/settings/logretryer.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/quarantineretryer.h>
#include <velt/config_details/settings/scanning.h>
#include <velt/config_details/settings/smtpretryer.h>

using namespace VELT;
using config_attribute::Describe;
using config_attribute::setting_list;
using config_attribute::SettingRow;

namespace {

struct Range {
    long long low;
    long long high;
};

Range RangeOf(SettingRow const& row) {
    std::size_t const to = row.range.find(" to ");
    return {std::stoll(row.range.substr(0, to)), std::stoll(row.range.substr(to + 4))};
}

std::vector<std::string> ValuesFor(SettingRow const& row) {
    std::vector<std::string> values = {"", "many", "7.5", "0x10", "true", "off", "mail:25"};
    if (row.range.empty()) return values;
    auto const [low, high] = RangeOf(row);
    for (long long edge : {low, high, std::stoll(row.defaultValue), 0LL, 65535LL, 2147483647LL, 4294967295LL}) {
        for (long long near = edge - 1; near <= edge + 1; ++near) values.push_back(std::to_string(near));
    }
    values.push_back("-2147483648");
    values.push_back("99999999999999999999");
    return values;
}

// What the row promises for a stored text; nullopt: what is stored is no number of the row's type.
std::optional<long long> Number(SettingRow const& row, std::string const& stored) {
    if (stored.empty() || stored.size() > 11 || stored.find_first_not_of("-0123456789") != stored.npos) return {};
    long long const value = std::stoll(stored);
    bool const isInt = row.type == "int";
    long long const lowest = isInt ? std::numeric_limits<int>::min() : 0;
    long long const highest = isInt ? std::numeric_limits<int>::max() : std::numeric_limits<unsigned>::max();
    if (value < lowest || value > highest) return {};
    return value;
}

long long PromisedNumber(SettingRow const& row, std::string const& stored) {
    auto const value = Number(row, stored);
    auto const [low, high] = RangeOf(row);
    return value ? std::clamp(*value, low, high) : std::stoll(row.defaultValue);
}

bool PromisedFlag(SettingRow const& row, std::string const& stored) {
    if (stored == "true") return true;
    if (stored == "off") return false;
    return row.defaultValue == "true";
}

// Each value stands under an identity of its own, so that one store holds all that is stored for a setting.
std::string Rules(SettingRow const& row, std::vector<std::string> const& values) {
    std::string rules = "<rules version=\"1\"><policy name=\"content_in\">";
    for (std::size_t i = 0; i < values.size(); ++i) {
        rules += "<identity name=\"v" + std::to_string(i) + "\"><settings section=\"" + row.text.section +
                 "\"><set name=\"" + row.text.key + "\">" + values[i] + "</set></settings></identity>";
    }
    return rules + "</policy></rules>";
}

class SettingsSweep : public testing::Test {
protected:
    ~SettingsSweep() override { Config::initialise(nullptr); }

    void Load(std::string const& rules) {
        root.Write("/config/qxxmlconf/rules.xml", rules);
        eFabric::eConfig files;
        std::string const path = root / "/config/qxxmlconf/rules.xml";
        files.rules.assign(path.begin(), path.end());
        KORPropertyBag bag;
        store = CreatePolicyLoader(3, 1);
        ASSERT_TRUE(store->initialise(files, 0, &bag));
        Config::initialise(store);
        config.inbound = true;
    }

    template <class Descriptor>
    typename Descriptor::value_type Read(std::string const& identity) {
        config.policies[Config::POLICY_CONTENT].identity = store->internAttribute(identity.c_str());
        return ReadSetting<Descriptor>(config, Config::POLICY_CONTENT);
    }

    template <class Descriptor>
    void Expect(SettingRow const& row, std::string const& identity, std::string const& stored, bool present) {
        using T = typename Descriptor::value_type;
        T const value = Read<Descriptor>(identity);
        if constexpr (std::is_same_v<T, bool>) {
            EXPECT_EQ(value, PromisedFlag(row, present ? stored : "")) << row.text.key << " of " << stored;
        } else if constexpr (std::is_integral_v<T>) {
            EXPECT_EQ(value, PromisedNumber(row, present ? stored : "")) << row.text.key << " of " << stored;
        } else if constexpr (std::is_same_v<T, CharBuf>) {
            std::string const byDefault = row.defaultValue.substr(1, row.defaultValue.size() - 2);
            EXPECT_EQ(value.str(), present ? stored : byDefault) << row.text.key;
        } else {  // a text is a list of one, itself
            EXPECT_EQ(value.size(), present ? 1u : 0u) << row.text.key;
        }
        ++reads;
    }

    template <class Descriptor>
    void SweepOne() {
        SettingRow const row = Describe(setting_list<Descriptor>{}).front();
        std::vector<std::string> const values = ValuesFor(row);
        Load(Rules(row, values));
        for (std::size_t i = 0; i < values.size(); ++i)
            Expect<Descriptor>(row, "v" + std::to_string(i), values[i], true);
        Expect<Descriptor>(row, "nobody", "nothing", false);
    }

    template <class... Descriptor>
    void Sweep(setting_list<Descriptor...>) {
        (SweepOne<Descriptor>(), ...);
    }

    velt_testing::TempRoot root;
    eFabric::IPolicyLoader* store = nullptr;
    Config config;
    unsigned reads = 0;
};

}  // namespace

TEST_F(SettingsSweep, OfConnectionsIsClampedConvertedOrDefaulted) {
    Sweep(VELTCFG::connection::Settings{});
    EXPECT_GT(reads, 20u);
}

TEST_F(SettingsSweep, OfTheScanAgentOfTestsIsAList) { Sweep(VELTCFG::debug_scan_agent::Settings{}); }

TEST_F(SettingsSweep, OfTheNetworkIsClampedConvertedOrDefaulted) { Sweep(VELTCFG::network::Settings{}); }

TEST_F(SettingsSweep, OfTheProcessIsClampedConvertedOrDefaulted) { Sweep(VELTCFG::process::Settings{}); }

TEST_F(SettingsSweep, OfScanningIsClampedConvertedOrDefaulted) { Sweep(VELTCFG::scanning::Settings{}); }

TEST_F(SettingsSweep, OfTheRetryersIsClampedConvertedOrDefaulted) {
    Sweep(VELTCFG::logretryer::Settings{});
    Sweep(VELTCFG::quarantineretryer::Settings{});
    Sweep(VELTCFG::smtpretryer::Settings{});
    EXPECT_GT(reads, 300u);
}
