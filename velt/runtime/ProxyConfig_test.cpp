// The standard settings: each with its default, its bounds and its place, and the order in which they are read.
#include <velt/runtime/Proxy.h>

#include <malloc.h>

#include <filesystem>
#include <functional>
#include <utility>

#include <QXlog/QXlog.h>
#include <testing/FakePolicyStore.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>
#include <velt/streams/ScannerStream.h>

namespace {

using VELT::Proxy;
using Value = velt_testing::FakeValue;

class RecordingStore : public velt_testing::FakePolicyStore {
public:
    eFabric::IProductValue const* productValue(InternedString const& policy, InternedString const& identity,
                                               InternedString const& settings, InternedString const& attribute,
                                               std::time_t when, int* status) const override {
        asked.push_back(std::string(settings.c_str()) + "." + attribute.c_str());
        return FakePolicyStore::productValue(policy, identity, settings, attribute, when, status);
    }
    mutable std::vector<std::string> asked;
};

unsigned NetBufferSize() {
    auto const [client, server] = velt_testing::ConnectedPair();
    ::close(client);
    VELT::TCPStream stream(server);
    return stream.get_pool()->size();
}

struct NumberSetting {
    char const* section;
    char const* key;
    bool isSigned;
    unsigned standard, least, most;
    std::function<unsigned(Proxy const&)> taken;
};

std::vector<NumberSetting> const& Numbers() {
    constexpr unsigned k = 65535;
    static auto const& all = *new std::vector<NumberSetting>{
        {"network", "MaxConnections", false, 1, 1, k, [](Proxy const& p) { return p.m_maxConnections; }},
        {"network", "ConnectTimeout", false, 30, 0, k, [](Proxy const& p) { return p.m_connectTimeoutMs / 1000; }},
        {"network", "Timeout", false, 60, 0, 3600, [](Proxy const& p) { return p.m_timeoutMs / 1000; }},
        {"network", "QueueRatio", false, 1, 0, k, [](Proxy const& p) { return p.m_queueRatio; }},
        {"network", "MaxQueuedConnections", false, 0, 0, k, [](Proxy const& p) { return p.m_maxQueuedConnections; }},
        {"network", "NetMem", false, 4, 1, k, [](Proxy const&) { return NetBufferSize() / 1024; }},
        {"process", "IdleTimeout", true, 1, 1, k, [](Proxy const& p) { return p.m_idleTimeout; }},
        {"process", "ProxyIdleTimeout", true, 900, 0, k, [](Proxy const& p) { return p.m_proxyIdleTimeout; }},
        {"process", "ThreadLimit", false, 1, 1, k, [](Proxy const& p) { return p.m_threadLimit; }},
        {"process", "ProxyRefreshRate", false, 0, 0, k, [](Proxy const& p) { return p.m_refreshRate; }},
        {"process", "PermThreads", false, 4, 1, k, [](Proxy const& p) { return p.m_permThreads; }},
        {"network", "AcceptCount", false, 1, 1, k, [](Proxy const& p) { return p.m_acceptCount; }},
        {"scanning", "MaxScanMem", false, 1, 1, k,
         [](Proxy const&) { return VELT::ScannerStream::s_bufferpool->size() / 1024; }},
    };
    return all;
}

struct FlagSetting {
    char const* key;
    bool standard;
    bool Proxy::*taken;
};

constexpr FlagSetting kFlags[] = {
    {"ForkedModelThreads", true, &Proxy::m_forkedModelThreads},
    {"ForkedModel", false, &Proxy::m_forkedModel},
    {"MonitorHealth", true, &Proxy::m_monitorHealth},
};

class SettingsTest : public velt_testing::ProxyFixture {
protected:
    SettingsTest() {
        m_events.AllowAll();
        VELT::Config::initialise(&m_store);
        std::filesystem::create_directories(m_root / "scandir");
        m_proxy->SetProxyName("mail");
        m_proxy->m_loggingOn = false;
    }
    ~SettingsTest() override {
        DropLoop();
        VELT::TCPStream::set_pool(nullptr);
        VELT::Config::initialise(nullptr);
        QXlog::detail::allowLogging(true);
    }
    void Read() {
        DropLoop();
        m_proxy->GetStandardConfig();
        m_pools.emplace_back(VELT::TCPStream().get_pool());
    }
    // Each number setting gets what `value` makes of it, and then holds what `expected` says.
    template <class Make, class Expected>
    void ExpectNumbers(char const* what, Make value, Expected expected) {
        SCOPED_TRACE(what);
        for (NumberSetting const& setting : Numbers())
            m_store.Put("base", setting.section, setting.key, value(setting));
        Read();
        for (NumberSetting const& setting : Numbers()) {
            EXPECT_EQ(setting.taken(*m_proxy), expected(setting)) << setting.key;
        }
    }
    static Value Number(NumberSetting const& setting, long value) {
        return setting.isSigned ? Value::Int(static_cast<int>(value)) : Value::Unsigned(static_cast<unsigned>(value));
    }
    void DropLoop() { delete std::exchange(m_proxy->m_serviceLoop, nullptr); }

    RecordingStore m_store;
    velt_testing::EventCapture m_events;
    std::vector<std::unique_ptr<VELT::BufferPool>> m_pools;  // a start makes one and keeps it; here are several starts
};

TEST_F(SettingsTest, NumbersThatAreAbsentOrNoNumbersHaveTheirDefaults) {
    Read();
    for (NumberSetting const& setting : Numbers()) {
        EXPECT_EQ(setting.taken(*m_proxy), setting.standard) << setting.key;
    }
    auto const text = [](NumberSetting const&) { return Value::Text("7"); };
    ExpectNumbers("a text", text, [](NumberSetting const& setting) { return setting.standard; });
}

TEST_F(SettingsTest, NumbersWithinTheirBoundsAreTaken) {
    for (int const offset : {0, 1}) {
        auto const low = [=](NumberSetting const& setting) { return setting.least + offset; };
        auto const high = [=](NumberSetting const& setting) { return setting.most - offset; };
        ExpectNumbers(
            "low", [&](NumberSetting const& setting) { return Number(setting, low(setting)); }, low);
        ExpectNumbers(
            "high", [&](NumberSetting const& setting) { return Number(setting, high(setting)); }, high);
    }
}

TEST_F(SettingsTest, NumbersBeyondTheirBoundsAreTheNearestBound) {
    ExpectNumbers(
        "above", [](NumberSetting const& setting) { return Number(setting, setting.most + 1L); },
        [](NumberSetting const& setting) { return setting.most; });
    auto const below = [](NumberSetting const& setting) {
        return setting.isSigned ? -1 : setting.least - (setting.least ? 1L : 0);
    };
    ExpectNumbers(
        "below", [&](NumberSetting const& setting) { return Number(setting, below(setting)); },
        [](NumberSetting const& setting) { return setting.least; });
}

TEST_F(SettingsTest, FlagsAreSetAndCleared) {
    Read();
    for (FlagSetting const& setting : kFlags) EXPECT_EQ(m_proxy->*setting.taken, setting.standard) << setting.key;
    for (bool const value : {true, false}) {
        for (FlagSetting const& setting : kFlags) m_store.Put("base", "process", setting.key, Value::Flag(value));
        Read();
        for (FlagSetting const& setting : kFlags) EXPECT_EQ(m_proxy->*setting.taken, value) << setting.key;
    }
}

// A store may be slow, or note who asks: the order is part of what a start does.
TEST_F(SettingsTest, AreReadInTheirOrder) {
    Read();
    std::vector<std::string> const first{"process.LoggingEnabled",
                                         "network.MaxConnections",
                                         "network.ConnectTimeout",
                                         "network.Timeout",
                                         "network.QueueRatio",
                                         "network.MaxQueuedConnections",
                                         "network.NetMem",
                                         "network.InitialNetMemPool",
                                         "process.IdleTimeout",
                                         "process.ProxyIdleTimeout",
                                         "process.ForkedModelThreads",
                                         "process.ForkedModel",
                                         "process.MonitorHealth",
                                         "process.ThreadLimit",
                                         "process.ProxyRefreshRate",
                                         "process.PermThreads",
                                         "process.ConnectionHandlerStacksize",
                                         "process.TCPDebugDirectory",
                                         "network.AcceptCount",
                                         "scanning.MaxScanMem",
                                         "scanning.InitialScanMemPool",
                                         "network.BindAddress",
                                         "network.BindPorts"};
    ASSERT_GE(m_store.asked.size(), first.size());
    m_store.asked.resize(first.size());
    EXPECT_EQ(m_store.asked, first);
}

TEST_F(SettingsTest, DirectoryOfCapturesIsEmptyUnlessItIsSet) {
    std::string const directory = m_root / "captures";
    for (bool const isSet : {false, true}) {
        if (isSet) m_store.Put("base", "process", "TCPDebugDirectory", Value::Text(directory));
        Read();
        VELT::TCPStream stream;
        stream.debug("mail", "client");
        EXPECT_EQ(std::filesystem::exists(directory + "/mail-client.qxd"), isSet);
    }
    VELT::TCPStream::set_debug_dir("");
}

// The one pool is made of a size and a count, the other of a count and a size.
TEST_F(SettingsTest, BuffersOfBothPoolsHaveTheirOwnSizeAndNumber) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer's memory is not counted";
#endif
    constexpr unsigned kNetKiB = 16, kNetBuffers = 500, kScanKiB = 32, kScanBuffers = 300;
    Read();
    std::size_t const before = ::mallinfo2().uordblks;
    for (auto const& [section, key, value] : {std::tuple{"network", "NetMem", kNetKiB},
                                              {"network", "InitialNetMemPool", kNetBuffers},
                                              {"scanning", "MaxScanMem", kScanKiB},
                                              {"scanning", "InitialScanMemPool", kScanBuffers}}) {
        m_store.Put("base", section, key, Value::Unsigned(value));
    }
    Read();
    std::size_t const grown = ::mallinfo2().uordblks - before;
    EXPECT_EQ(NetBufferSize(), kNetKiB * 1024);
    EXPECT_EQ(VELT::ScannerStream::s_bufferpool->size(), kScanKiB * 1024);
    std::size_t const buffers = (kNetKiB * kNetBuffers + kScanKiB * kScanBuffers) * 1024;
    EXPECT_GE(grown, buffers);
    EXPECT_LT(grown, buffers + buffers / 10);
}

}  // namespace
