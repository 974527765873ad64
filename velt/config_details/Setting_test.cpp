// How a stored value becomes the value that a reader sees.
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include <testing/FakePolicyStore.h>
#include <velt/config_details/cache.h>
#include <velt/config_details/helpers.h>
#include <velt/config_details/settings/connection.h>
#include <velt/config_details/settings/network.h>
#include <velt/config_details/settings/process.h>
#include <velt/config_details/settings/smtpretryer.h>

using velt_testing::FakePolicyStore;
using velt_testing::FakeValue;
using namespace VELT;
using config_attribute::bounded;
using config_attribute::integral_bounds;
using config_helper::GetValue;

namespace {

struct attrname_Days {
    [[maybe_unused]] static constexpr config_attribute::SettingText text{"test", "Days", "", ""};
};
using OneDay = bounded<attrname_Days, unsigned, integral_bounds<unsigned, 0, 0, 86400>>;
using Unlimited =
    bounded<attrname_Days, unsigned, integral_bounds<unsigned, 7, 0, std::numeric_limits<unsigned>::max()>>;
using Short = bounded<attrname_Days, unsigned short, integral_bounds<unsigned short, 10, 1, 65535>>;

template <class Descriptor>
typename Descriptor::value_type Read(FakeValue const& stored) {
    typename Descriptor::value_type out{};
    EXPECT_TRUE(GetValue<Descriptor>(&stored, out));
    return out;
}

template <class Descriptor>
bool IsReadable(FakeValue const& stored) {
    typename Descriptor::value_type out{};
    return GetValue<Descriptor>(&stored, out);
}

using Ports = VELTCFG::network::BindPorts::value_type;
using Addresses = VELTCFG::network::BindAddress::value_type;

}  // namespace

TEST(Setting, AboveItsLimitIsTheLimit) {
    EXPECT_EQ(Read<VELTCFG::network::Timeout>(FakeValue::Unsigned(5000)), 3600u);
    EXPECT_EQ(Read<VELTCFG::network::Timeout>(FakeValue::Unsigned(3600)), 3600u);
    EXPECT_EQ(Read<VELTCFG::network::Timeout>(FakeValue::Unsigned(3599)), 3599u);
    EXPECT_EQ(Read<VELTCFG::network::NetMem>(FakeValue::Unsigned(65536)), 65535u);
    EXPECT_EQ(Read<OneDay>(FakeValue::Unsigned(86401)), 86400u);
    EXPECT_EQ(Read<VELTCFG::process::IdleTimeout>(FakeValue::Int(65536)), 65535);
}

TEST(Setting, BelowItsLimitIsTheLimitAndNotTheDefault) {
    EXPECT_EQ(Read<VELTCFG::smtpretryer::ScanInterval>(FakeValue::Unsigned(0)), 1u);
    EXPECT_EQ(Read<VELTCFG::network::NetMem>(FakeValue::Unsigned(0)), 1u);
    EXPECT_EQ(Read<VELTCFG::network::Timeout>(FakeValue::Unsigned(0)), 0u);
}

TEST(Setting, NegativeIsTheLowerLimit) {
    EXPECT_EQ(Read<VELTCFG::process::IdleTimeout>(FakeValue::Int(-3)), 1);
    EXPECT_EQ(Read<VELTCFG::process::ShutDownTimeout>(FakeValue::Int(-1)), 0);
    EXPECT_EQ(Read<VELTCFG::process::Priority>(FakeValue::Int(std::numeric_limits<int>::min())), 1);
}

TEST(Setting, OfTheWholeRangeIsTakenAsItIs) {
    for (unsigned value : {0u, 1u, 65536u, std::numeric_limits<unsigned>::max()}) {
        EXPECT_EQ(Read<Unlimited>(FakeValue::Unsigned(value)), value);
    }
}

TEST(Setting, ThatIsShortIsCutBeforeItIsNarrowed) {
    EXPECT_EQ(Read<Short>(FakeValue::Unsigned(65535)), 65535);
    EXPECT_EQ(Read<Short>(FakeValue::Unsigned(65536)), 65535);
    EXPECT_EQ(Read<Short>(FakeValue::Unsigned(65537)), 65535);
    EXPECT_EQ(Read<Short>(FakeValue::Unsigned(0)), 1);
    EXPECT_EQ(Read<Short>(FakeValue::Unsigned(2)), 2);
}

TEST(Setting, FlagIsTrueForEveryByteButZero) {
    using Flag = VELTCFG::process::MonitorHealth;
    EXPECT_FALSE(Read<Flag>(FakeValue::Flag(0)));
    for (unsigned byte = 1; byte < 256; ++byte) {
        bool const flag = Read<Flag>(FakeValue::Flag(static_cast<unsigned char>(byte)));
        EXPECT_TRUE(flag);
        EXPECT_EQ(flag + 0, 1) << byte;  // one, and not the byte that was stored
    }
}

TEST(Setting, TextBorrowsFromTheStore) {
    FakeValue const stored = FakeValue::Text("mail");
    char const* text = nullptr;
    ASSERT_TRUE(stored.getString(&text));
    EXPECT_EQ(Read<VELTCFG::process::UserId>(stored).data(), text);
    EXPECT_EQ(Read<VELTCFG::process::UserId>(stored).size(), 4u);
    EXPECT_TRUE(Read<VELTCFG::process::UserId>(FakeValue::Text("")).empty());
    EXPECT_TRUE(Read<VELTCFG::process::UserId>(FakeValue::NullText()).empty());
}

TEST(Setting, ThatIsAbsentOrOfAnotherFormIsRefused) {
    unsigned number = 17;
    EXPECT_FALSE(GetValue<VELTCFG::network::Timeout>(nullptr, number));
    EXPECT_EQ(number, 17u);
    Ports ports;
    EXPECT_FALSE(GetValue<VELTCFG::network::BindPorts>(nullptr, ports));
    FakeValue const unreadable = FakeValue::Unreadable();
    EXPECT_FALSE(IsReadable<VELTCFG::network::Timeout>(unreadable));
    EXPECT_FALSE(IsReadable<VELTCFG::process::IdleTimeout>(unreadable));
    EXPECT_FALSE(IsReadable<VELTCFG::process::ForkedModel>(unreadable));
    EXPECT_FALSE(IsReadable<VELTCFG::process::UserId>(unreadable));
    EXPECT_FALSE(IsReadable<Short>(unreadable));
    EXPECT_FALSE(IsReadable<VELTCFG::network::Timeout>(FakeValue::Text("60")));
    EXPECT_TRUE(IsReadable<VELTCFG::network::BindPorts>(unreadable));  // a list is never refused
}

TEST(Setting, NameTagsTakeNoRoom) {
    EXPECT_TRUE(std::is_empty_v<VELTCFG::network::attrname_Timeout>);
    EXPECT_TRUE(std::is_empty_v<VELTCFG::network::listname_BindPorts>);
    EXPECT_TRUE(std::is_empty_v<VELTCFG::process::defaults_UserId>);
    EXPECT_TRUE(std::is_empty_v<VELTCFG::network::Timeout>);
}

TEST(ListSetting, ElementAboveThePortRangeIsTheHighestPort) {
    FakeValue const stored = FakeValue::List(
        {FakeValue::Unsigned(25), FakeValue::Unsigned(70000), FakeValue::Unsigned(65535), FakeValue::Unsigned(65536)});
    Ports const ports = Read<VELTCFG::network::BindPorts>(stored);
    ASSERT_EQ(ports.size(), 4u);
    EXPECT_EQ(ports.at(0), 25);
    EXPECT_EQ(ports.at(1), 65535);
    EXPECT_EQ(ports.at(2), 65535);
    EXPECT_EQ(ports.at(3), 65535);
}

TEST(ListSetting, ElementOfZeroStaysZero) {
    FakeValue const stored = FakeValue::List({FakeValue::Unsigned(0)});
    EXPECT_EQ(Read<VELTCFG::network::BindPorts>(stored).at(0), 0);
}

TEST(ListSetting, ElementThatCannotBeConvertedReadsAsNothing) {
    FakeValue const stored = FakeValue::List({FakeValue::Unreadable(), FakeValue::Missing(), FakeValue::Text("::1")});
    Ports const ports = Read<VELTCFG::network::BindPorts>(stored);
    Addresses const addresses = Read<VELTCFG::network::BindAddress>(stored);
    EXPECT_EQ(ports.at(0), 0);
    EXPECT_EQ(ports.at(1), 0);
    EXPECT_TRUE(addresses.at(0).empty());
    EXPECT_TRUE(addresses.at(1).empty());
    EXPECT_EQ(addresses.at(2).str(), "::1");
}

TEST(ListSetting, IsEmptyWithoutAValue) {
    EXPECT_EQ(Ports().size(), 0u);
    EXPECT_TRUE(Addresses().empty());
    EXPECT_EQ(VELTCFG::network::BindPorts::default_value().size(), 0u);
    EXPECT_EQ(Ports::s_null, 0);
    EXPECT_TRUE(Addresses::s_null.empty());
}

TEST(ListSetting, ThrowsBeyondItsEndWithIndexAndSize) {
    auto const messageOf = [](auto const& list, std::size_t index) {
        try {
            list.at(index);
        } catch (std::out_of_range const& error) {
            return std::string(error.what());
        }
        return std::string("nothing thrown");
    };
    EXPECT_EQ(messageOf(Ports(), 0), "0 >= 0");
    EXPECT_EQ(messageOf(Addresses(), 7), "7 >= 0");
    FakeValue const two = FakeValue::List({FakeValue::Unsigned(1), FakeValue::Unsigned(2)});
    EXPECT_EQ(messageOf(Ports(&two), 2), "2 >= 2");
}

TEST(ListSetting, ThrowsWithAPlaceThatDoesNotMove) {
    try {
        Ports().at(0);
        FAIL();
    } catch (config_types::out_of_range_error const& error) {
        EXPECT_STREQ(error.where().file, "../../../comp/lib/velt/config_details/vector.cc");
        EXPECT_EQ(error.where().line, 157);
        EXPECT_NE(std::string(error.where().function).find("::at("), std::string::npos) << error.where().function;
    }
    EXPECT_THROW(Ports().at(0), KORtk::Exception);
}

TEST(ListSetting, IsWalkedInItsOrder) {
    FakeValue const stored = FakeValue::List({FakeValue::Unsigned(25), FakeValue::Unsigned(587)});
    std::vector<unsigned short> seen;
    for (unsigned short port : Ports(&stored)) seen.push_back(port);
    EXPECT_EQ(seen, (std::vector<unsigned short>{25, 587}));
}

TEST(NameCache, InternsEachNameOnce) {
    FakePolicyStore store;
    config_helper::detail::CfgNameCacheEntry entry("network", "Timeout");
    eFabric::InternedString const& attribute = entry.attribute(&store);
    eFabric::InternedString const& settings = entry.settings(&store);
    EXPECT_STREQ(attribute.c_str(), "Timeout");
    EXPECT_STREQ(settings.c_str(), "network");
    EXPECT_EQ(&entry.attribute(&store), &attribute);
    config_helper::detail::CfgNameCacheEntry::updateCache(entry, &store);
    entry.check_init(&store);
    EXPECT_EQ(store.interned, 2u);
}

TEST(NameCache, KeepsTheStringsOfTheFirstLoader) {
    FakePolicyStore first;
    FakePolicyStore second;
    config_helper::detail::CfgNameCacheEntry entry("network", "Timeout");
    eFabric::InternedString const kept = entry.attribute(&first);
    EXPECT_EQ(entry.attribute(&second), kept);
    EXPECT_EQ(second.interned, 0u);
}

TEST(NameCache, RemembersNothingWhileThereIsNoLoader) {
    FakePolicyStore store;
    config_helper::detail::CfgNameCacheEntry entry("network", "Timeout");
    EXPECT_FALSE(entry.settings(nullptr));
    EXPECT_FALSE(entry.attribute(nullptr));
    EXPECT_STREQ(entry.attribute(&store).c_str(), "Timeout");
}

TEST(NameCache, ConcurrentFirstReadersShareOneInitialisation) {
    for (int round = 0; round < 50; ++round) {
        FakePolicyStore store;
        config_helper::detail::CfgNameCacheEntry entry("network", "Timeout");
        std::vector<std::thread> readers;
        for (int i = 0; i < 4; ++i) {
            readers.emplace_back([&] {
                EXPECT_STREQ(entry.attribute(&store).c_str(), "Timeout");
                EXPECT_STREQ(entry.settings(&store).c_str(), "network");
            });
        }
        for (std::thread& reader : readers) reader.join();
        EXPECT_EQ(store.interned, 2u);
    }
}

TEST(NameCache, IsOneObjectPerDescriptor) {
    auto const* const timeout = &config_helper::CfgNameCache<VELTCFG::network::Timeout>::value;
    auto const* const netMem = &config_helper::CfgNameCache<VELTCFG::network::NetMem>::value;
    EXPECT_NE(timeout, netMem);
}
