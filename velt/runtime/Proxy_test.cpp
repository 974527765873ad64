#include <velt/runtime/Proxy.h>

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <new>
#include <type_traits>
#include <utility>

#include <QXlog/QXlog.h>
#include <testing/FakePolicyStore.h>
#include <velt/logging/Events.h>
#include <velt/retry/RetryerServiceLoop.h>
#include <velt/runtime/RuntimeTest.h>
#include <velt/runtime/ServiceLoop.h>

namespace {

using VELT::Proxy;

// A command line that lives as long as what the proxy keeps of it.
class Arguments {
public:
    Arguments(std::initializer_list<char const*> texts) : m_texts(texts.begin(), texts.end()) {
        for (std::string& text : m_texts) m_argv.push_back(text.data());
        m_argv.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(m_texts.size()); }
    char** argv() { return m_argv.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_argv;
};

class NotedProxy : public Proxy {
public:
    int ProxyMain() override {
        ++mains;
        return 17;
    }
    int StartAsService() override {
        ++services;
        return 18;
    }
    int mains = 0, services = 0;
};

class ProxyTest : public velt_testing::ProxyFixture {
protected:
    int Process(std::initializer_list<char const*> texts) {
        m_arguments = std::make_unique<Arguments>(texts);
        return m_proxy->ProcessArgs(m_arguments->argc(), m_arguments->argv());
    }
    std::unique_ptr<Arguments> m_arguments;
};

TEST_F(ProxyTest, NamesFollowTheOptionsAndTheRestIsTheHosts) {
    EXPECT_EQ(Process({"echo", "-d", "mail", "product", "first", "second"}), 0);
    EXPECT_EQ(m_proxy->m_proxyName, "mail");
    EXPECT_EQ(m_proxy->m_productName, "product");
    EXPECT_EQ(m_proxy->m_productConfigFile, m_root / "config/qxxmlconf/product.xml");
    EXPECT_EQ(m_proxy->m_scanDir, m_root / "scandir/mail");
    ASSERT_EQ(m_proxy->m_argc, 2);
    EXPECT_STREQ(m_proxy->m_argv[0], "first");
    EXPECT_STREQ(m_proxy->m_argv[1], "second");
}

// In a process of its own: were it not enough, that process would end with success.
TEST_F(ProxyTest, OptionAloneIsEnoughOfACommandLine) {
    ::signal(SIGCHLD, SIG_DFL);
    ASSERT_EXIT(::_exit(Process({"echo", "-d"}) == 0 ? 7 : 1), ::testing::ExitedWithCode(7), "^$");
    EXPECT_EQ(Process({"echo", "-d"}), 0);
    EXPECT_EQ(m_proxy->m_proxyName, "");
    EXPECT_EQ(m_proxy->m_productName, "");
    EXPECT_EQ(m_proxy->m_argc, -2);
    EXPECT_EQ(*m_proxy->m_argv, nullptr);
}

TEST_F(ProxyTest, CommandLineWithoutArgumentsEndsTheProcessWithSuccess) {
    ::signal(SIGCHLD, SIG_DFL);
    EXPECT_EXIT(Process({"echo"}), ::testing::ExitedWithCode(0), "^Not enough arguments\n$");
}

TEST_F(ProxyTest, EachOptionSetsItsField) {
    Process({"echo", "-a", "-n", "-s", "other", "-t", "retry", "mail", "product"});
    EXPECT_TRUE(m_proxy->m_antiSpamSdk);
    EXPECT_FALSE(m_proxy->m_loggingOn);
    EXPECT_STREQ(m_proxy->m_serviceType, "other");
    EXPECT_STREQ(m_proxy->m_retryerArgument, "retry");
    EXPECT_EQ(m_proxy->m_logName, "retry");
    EXPECT_TRUE(m_proxy->m_runAsService);
}

TEST_F(ProxyTest, LastOptionThatNamesTheLogWins) {
    Process({"echo", "-l", "log", "-t", "retry", "mail", "product"});
    EXPECT_EQ(m_proxy->m_logName, "retry");
    Process({"echo", "-t", "retry", "-l", "log", "mail", "product"});
    EXPECT_EQ(m_proxy->m_logName, "log");
}

TEST_F(ProxyTest, ForegroundAndSingleProcessGoTogether) {
    for (auto const& options : {std::pair("-d", "-p"), std::pair("-p", "-d")}) {
        m_proxy->m_runAsService = true;
        m_proxy->m_singleProcess = m_proxy->m_debugForeground = false;
        Process({"echo", options.first, options.second, "mail", "product"});
        EXPECT_FALSE(m_proxy->m_runAsService);
        EXPECT_TRUE(m_proxy->m_singleProcess);
        EXPECT_TRUE(m_proxy->m_debugForeground);
    }
}

TEST_F(ProxyTest, UnknownLettersAreIgnored) {
    EXPECT_EQ(Process({"echo", "-x", "-d", "mail", "product"}), 0);
    EXPECT_EQ(m_proxy->m_proxyName, "mail");
}

TEST_F(ProxyTest, OptionsBehindTheNamesAreTheLibrarysUnlessADoubleDashStandsBefore) {
    Process({"echo", "mail", "product", "-n"});
    EXPECT_FALSE(m_proxy->m_loggingOn);
    m_proxy->m_loggingOn = true;
    Process({"echo", "--", "mail", "product", "-n"});
    EXPECT_TRUE(m_proxy->m_loggingOn);
    ASSERT_EQ(m_proxy->m_argc, 1);
    EXPECT_STREQ(m_proxy->m_argv[0], "-n");
}

TEST_F(ProxyTest, ProxyWithoutANameHasTheEmptyOne) {
    m_proxy->SetProxyName(nullptr);
    EXPECT_EQ(m_proxy->m_proxyName, "");
}

TEST_F(ProxyTest, StartKeepsTheCommandLineWithABlankAfterEachArgument) {
    delete m_proxy;
    auto* const noted = new NotedProxy;
    m_proxy = noted;
    Arguments foreground{"echo", "-d", "mail", "product"};
    EXPECT_EQ(VELT::ProxyStart(foreground.argc(), foreground.argv()), 17);
    EXPECT_EQ(noted->m_commandLine, "echo -d mail product ");
    noted->m_runAsService = true;
    Arguments service{"echo", "mail", "product"};
    EXPECT_EQ(noted->Start(service.argc(), service.argv()), 18);
    EXPECT_EQ(noted->mains, 1);
    EXPECT_EQ(noted->services, 1);
}

TEST_F(ProxyTest, NameInTheSystemsLogOutlivesTheProxy) {
    auto const room = std::make_unique<std::aligned_storage_t<sizeof(NotedProxy), alignof(NotedProxy)>>();
    delete m_proxy;
    m_proxy = nullptr;
    auto* const noted = new (room.get()) NotedProxy;
    Arguments foreground{"echo", "-d", "mail", "product"};
    noted->Start(foreground.argc(), foreground.argv());
    noted->~NotedProxy();
    std::memset(room.get(), 'x', sizeof *room);
    ::testing::internal::CaptureStderr();
    ::syslog(LOG_ERR, "the last word");
    std::string const told = ::testing::internal::GetCapturedStderr();
    ::closelog();
    EXPECT_EQ(told, "mail[" + std::to_string(::getpid()) + "]: the last word\n");
}

TEST_F(ProxyTest, ConstructionIgnoresThreeSignalsAndClearsTheUmask) {
    for (int const signal : {SIGPIPE, SIGXFSZ, SIGCHLD}) {
        struct sigaction action = {};
        ::sigaction(signal, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_IGN) << signal;
    }
    EXPECT_EQ(::umask(0), 0u);
}

TEST_F(ProxyTest, NewestInstanceTakesOverAndAGoneOneIsForgotten) {
    {
        Proxy second;
        EXPECT_EQ(Proxy::s_pProxyInstance, &second);
    }
    EXPECT_EQ(Proxy::s_pProxyInstance, nullptr);
    Proxy::s_pProxyInstance = m_proxy;
}

TEST_F(ProxyTest, StopReportsAndDeletesTheObject) {
    velt_testing::EventCapture events;
    events.Expect(VELT::events::PROXY_STOPS);
    VELT::ProxyStop();
    EXPECT_EQ(Proxy::s_pProxyInstance, nullptr);
    EXPECT_EQ(velt_testing::NumberAt(events.Bag(VELT::events::PROXY_STOPS), "velt_pid"), ::getpid());
    m_proxy = nullptr;
}

TEST_F(ProxyTest, StandardSettingsHaveTheirDefaultsBeforeTheFirstRead) {
    EXPECT_EQ(m_proxy->m_maxConnections, 1u);
    EXPECT_EQ(m_proxy->m_acceptCount, 1u);
    EXPECT_STREQ(m_proxy->m_serviceType, "tcp");
    EXPECT_EQ(m_proxy->m_retryerArgument, nullptr);
    EXPECT_FALSE(m_proxy->m_loopbackAllowed);
    EXPECT_FALSE(m_proxy->m_clockInConnectionChild);
}

TEST_F(ProxyTest, StackOfConnectionThreadsIsTheSystemsWhileScansRunHere) {
    m_proxy->m_handlerStackSize = 128;
    Proxy::CheckStackSize();
    EXPECT_EQ(m_proxy->m_handlerStackSize, 0u);
}

// --- the standard configuration, of which nothing is set ---

class StandardConfigTest : public ProxyTest {
protected:
    StandardConfigTest() {
        m_events.AllowAll();
        std::filesystem::create_directories(m_root / "scandir");
        Process({"echo", "-n", "mail", "product"});
    }
    ~StandardConfigTest() override { QXlog::detail::allowLogging(true); }

    velt_testing::EventCapture m_events;
};

TEST_F(StandardConfigTest, AbsentSettingsHaveTheirDefaults) {
    m_proxy->GetStandardConfig();
    EXPECT_EQ(m_proxy->m_maxConnections, 1u);
    EXPECT_EQ(m_proxy->m_connectTimeoutSeconds, 30u);
    EXPECT_EQ(m_proxy->m_connectTimeoutMs, 30000u);
    EXPECT_EQ(m_proxy->m_timeoutSeconds, 60u);
    EXPECT_EQ(m_proxy->m_timeoutMs, 60000u);
    EXPECT_EQ(m_proxy->m_queueRatio, 1u);
    EXPECT_EQ(m_proxy->m_maxQueuedConnections, 0u);
    EXPECT_EQ(m_proxy->m_idleTimeout, 1);
    EXPECT_EQ(m_proxy->m_proxyIdleTimeout, 900);
    EXPECT_TRUE(m_proxy->m_forkedModelThreads);
    EXPECT_FALSE(m_proxy->m_forkedModel);
    EXPECT_TRUE(m_proxy->m_monitorHealth);
    EXPECT_EQ(m_proxy->m_threadLimit, 1u);
    EXPECT_EQ(m_proxy->m_refreshRate, 0u);
    EXPECT_EQ(m_proxy->m_permThreads, 4u);
    EXPECT_EQ(m_proxy->m_acceptCount, 1u);
    EXPECT_NE(m_proxy->m_serviceLoop, nullptr);
    delete std::exchange(m_proxy->m_serviceLoop, nullptr);
}

// --- the same with a store ---

class ConfiguredTest : public StandardConfigTest {
protected:
    using Value = velt_testing::FakeValue;

    ConfiguredTest() { VELT::Config::initialise(&m_store); }
    ~ConfiguredTest() override {
        delete std::exchange(m_proxy->m_serviceLoop, nullptr);
        VELT::Config::initialise(nullptr);
    }
    void Number(char const* section, char const* key, unsigned value) {
        m_store.Put("base", section, key, Value::Unsigned(value));
    }
    void Listen(std::vector<std::string> const& addresses, std::vector<unsigned> const& ports) {
        std::vector<Value> texts, numbers;
        for (std::string const& address : addresses) texts.push_back(Value::Text(address));
        for (unsigned const port : ports) numbers.push_back(Value::Unsigned(port));
        m_store.Put("base", "network", "BindAddress", Value::List(texts));
        m_store.Put("base", "network", "BindPorts", Value::List(numbers));
    }
    static std::vector<std::string> Bindings() {
        std::vector<std::string> texts;
        for (sockaddr_in const* const binding : Proxy::GetSvcBindings()) {
            texts.push_back(::inet_ntoa(binding->sin_addr) + (":" + std::to_string(ntohs(binding->sin_port))));
        }
        return texts;
    }

    velt_testing::FakePolicyStore m_store;
};

TEST_F(ConfiguredTest, EachSettingGoesToItsField) {
    unsigned next = 10;
    for (char const* const key : {"MaxConnections", "ConnectTimeout", "Timeout", "QueueRatio", "MaxQueuedConnections",
                                  "AcceptCount", "NetMem"}) {
        Number("network", key, ++next);
    }
    for (char const* const key : {"ThreadLimit", "ProxyRefreshRate", "PermThreads"}) Number("process", key, ++next);
    for (char const* const key : {"IdleTimeout", "ProxyIdleTimeout"}) {
        m_store.Put("base", "process", key, Value::Int(static_cast<int>(++next)));
    }
    for (char const* const key : {"ForkedModelThreads", "MonitorHealth"}) {
        m_store.Put("base", "process", key, Value::Flag(0));
    }
    m_store.Put("base", "process", "ForkedModel", Value::Flag(1));
    m_proxy->GetStandardConfig();
    EXPECT_EQ(m_proxy->m_maxConnections, 11u);
    EXPECT_EQ(m_proxy->m_connectTimeoutSeconds, 12u);
    EXPECT_EQ(m_proxy->m_connectTimeoutMs, 12000u);
    EXPECT_EQ(m_proxy->m_timeoutSeconds, 13u);
    EXPECT_EQ(m_proxy->m_timeoutMs, 13000u);
    EXPECT_EQ(m_proxy->m_queueRatio, 14u);
    EXPECT_EQ(m_proxy->m_maxQueuedConnections, 15u);
    EXPECT_EQ(m_proxy->m_acceptCount, 16u);
    EXPECT_EQ(m_proxy->m_threadLimit, 18u);
    EXPECT_EQ(m_proxy->m_refreshRate, 19u);
    EXPECT_EQ(m_proxy->m_permThreads, 20u);
    EXPECT_EQ(m_proxy->m_idleTimeout, 21);
    EXPECT_EQ(m_proxy->m_proxyIdleTimeout, 22);
    EXPECT_FALSE(m_proxy->m_forkedModelThreads);
    EXPECT_FALSE(m_proxy->m_monitorHealth);
    EXPECT_TRUE(m_proxy->m_forkedModel);
}

TEST_F(ConfiguredTest, OtherServiceTypeOverridesTheNumberOfWorkers) {
    Number("network", "AcceptCount", 5);
    m_proxy->m_serviceType = "retry";
    ::testing::internal::CaptureStderr();
    m_proxy->GetStandardConfig();
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(m_proxy->m_acceptCount, 1u);
}

TEST_F(ConfiguredTest, EachAddressIsBoundWithEachPortInOrder) {
    Listen({"10.0.0.1", "10.0.0.2"}, {25, 70000, 25});
    m_proxy->LoadSvcBindings();
    EXPECT_EQ(Bindings(), (std::vector<std::string>{"10.0.0.1:25", "10.0.0.1:65535", "10.0.0.2:25", "10.0.0.2:65535"}));
}

TEST_F(ConfiguredTest, PortsWithoutAddressesAndAddressesWithoutPortsBindNothing) {
    Listen({}, {25});
    m_proxy->LoadSvcBindings();
    Listen({"10.0.0.1"}, {});
    m_proxy->LoadSvcBindings();
    EXPECT_TRUE(Bindings().empty());
}

TEST_F(ConfiguredTest, PortOfTheHostIsBoundOnEachAddress) {
    Listen({"10.0.0.1", "10.0.0.2", "10.0.0.1"}, {});
    Proxy::AddSvcBinding(static_cast<unsigned short>(40000));
    EXPECT_EQ(Bindings(), (std::vector<std::string>{"10.0.0.1:40000", "10.0.0.2:40000"}));
}

// --- the change of identity, as far as it fails for everybody ---

class IdentityChangeTest : public ConfiguredTest {
protected:
    void Is(char const* key, char const* value) { m_store.Put("base", "process", key, Value::Text(value)); }
    void ExpectRefused(QXlog::Event const& event, std::string const& number) {
        ASSERT_EQ(m_events.Count(event), 1u) << number;
        EXPECT_EQ(velt_testing::TextAt(m_events.Bag(event), "velt_id"), number);
        EXPECT_EQ(velt_testing::NumberAt(m_events.Bag(event), "velt_error.velt_os_error"), EINVAL);
    }
};

// The first number is the one that says "leave it", and the second would be the superuser's if it were cut.
TEST_F(IdentityChangeTest, ThatTheSystemRefusesIsReportedAndTheProcessRunsOn) {
    for (char const* const number : {"4294967295", "4294967296"}) {
        m_events.Clear();
        m_events.AllowAll();
        Is("GroupId", number);
        Is("UserId", number);
        m_proxy->SetUidAndGid();
        ExpectRefused(VELT::events::SETGID_FAILED, number);
        ExpectRefused(VELT::events::SETUID_FAILED, number);
    }
}

// The settings have a default, "uucp", which is for the page of settings and is never applied.
TEST_F(IdentityChangeTest, WithoutSettingsTheProcessStaysWhoItIs) {
    uid_t const user = ::geteuid();
    gid_t const group = ::getegid();
    m_proxy->SetUidAndGid();
    EXPECT_EQ(::geteuid(), user);
    EXPECT_EQ(::getegid(), group);
    EXPECT_TRUE(m_events.Events().empty());
}

TEST_F(IdentityChangeTest, UnknownUserIsReportedAndUnknownGroupIsNot) {
    Is("GroupId", "no such group");
    Is("UserId", "no such user");
    m_proxy->SetUidAndGid();
    EXPECT_EQ(m_events.Events().size(), 1u);
    EXPECT_EQ(velt_testing::TextAt(m_events.Bag(VELT::events::USER_UNKNOWN), "velt_id"), "no such user");
}

TEST_F(StandardConfigTest, NetworkListsThatAreNotThereGiveNobodyADirection) {
    m_proxy->GetStandardConfig();
    VELT::Connection session;
    bool outside = true;
    EXPECT_FALSE(Proxy::FindConnectionDirection(outside, &session));
    delete std::exchange(m_proxy->m_serviceLoop, nullptr);
}

// Any other type will do, and a queue that has no name is one that nobody knows.
class OtherServiceType : public StandardConfigTest, public ::testing::WithParamInterface<char const*> {};

TEST_P(OtherServiceType, IsARetryerWithOneWorker) {
    m_proxy->m_serviceType = GetParam();
    m_proxy->m_acceptCount = 4;
    m_proxy->GetStandardConfig();
    EXPECT_EQ(m_proxy->m_acceptCount, 1u);
    EXPECT_NE(dynamic_cast<VELT::RetryerServiceLoop*>(m_proxy->m_serviceLoop), nullptr);
    delete std::exchange(m_proxy->m_serviceLoop, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Words, OtherServiceType, ::testing::Values("retryer", "TCP", ""));

// --- bindings ---

class BindingTest : public ProxyTest {
protected:
    int Check(char const* address, unsigned short port) {
        return m_proxy->CheckDupSvcBinding(::inet_addr(address), static_cast<short>(port));
    }
    void Add(char const* address, unsigned short port) { m_proxy->AddSvcBinding(::inet_addr(address), port); }

    velt_testing::EventCapture m_events;  // none is expected: what is dropped is dropped in silence
};

TEST_F(BindingTest, AnyAddressCoversLaterOnes) {
    Add("0.0.0.0", 25);
    EXPECT_EQ(Check("10.0.0.1", 25), 2);
    Add("10.0.0.1", 25);
    EXPECT_EQ(Proxy::GetSvcBindings().size(), 1u);
}

TEST_F(BindingTest, AnyAddressIsRefusedAfterASpecialOne) {
    Add("10.0.0.1", 25);
    EXPECT_EQ(Check("0.0.0.0", 25), 1);
    Add("0.0.0.0", 25);
    EXPECT_EQ(Proxy::GetSvcBindings().size(), 1u);
}

// The order of the questions shows in the answer: the same address is 2, also when it is that of all.
TEST_F(BindingTest, AnyAddressTwiceIsTheSameAddress) {
    Add("0.0.0.0", 25);
    EXPECT_EQ(Check("0.0.0.0", 25), 2);
}

TEST_F(BindingTest, SameAddressAndPortAreRefusedWhateverThePort) {
    for (unsigned short const port : {25, 32767, 32768, 65535}) {
        Add("10.0.0.1", port);
        EXPECT_EQ(Check("10.0.0.1", port), 2) << port;
    }
    EXPECT_EQ(Check("0.0.0.0", 26), 0);
}

TEST_F(BindingTest, OtherAddressesAndPortsAreAccepted) {
    Add("10.0.0.1", 25);
    EXPECT_EQ(Check("10.0.0.2", 25), 0);
    Add("10.0.0.2", 25);
    Add("10.0.0.1", 26);
    auto const bindings = Proxy::GetSvcBindings();
    ASSERT_EQ(bindings.size(), 3u);
    EXPECT_EQ(bindings[1]->sin_family, AF_INET);
    EXPECT_EQ(ntohs(bindings[2]->sin_port), 26);
    EXPECT_STREQ(::inet_ntoa(bindings[1]->sin_addr), "10.0.0.2");
}

TEST_F(BindingTest, BindingGivenAsAnAddressIsNotChecked) {
    sockaddr_in binding = velt_testing::Loopback(25);
    m_proxy->AddSvcBinding(binding);
    m_proxy->AddSvcBinding(binding);
    EXPECT_EQ(Proxy::GetSvcBindings().size(), 2u);
}

TEST_F(BindingTest, WithoutConfiguredAddressesThereAreNone) {
    m_proxy->LoadSvcBindings();
    Proxy::AddSvcBinding(25);
    EXPECT_TRUE(Proxy::GetSvcBindings().empty());
}

// --- what the library asks ---

TEST_F(ProxyTest, WholeLoopbackNetAndOwnAddressesLeadBack) {
    EXPECT_TRUE(Proxy::IsLoopbackConnection(velt_testing::Loopback(1, "127.9.9.9")));
    EXPECT_FALSE(Proxy::IsLoopbackConnection(velt_testing::Loopback(1, "192.0.2.7")));
    sockaddr_in own = velt_testing::Loopback(0, "192.0.2.7");
    m_proxy->m_interfaceAddresses.push_back(&own);
    EXPECT_TRUE(Proxy::IsLoopbackConnection(velt_testing::Loopback(1, "192.0.2.7")));
    m_proxy->m_interfaceAddresses.pop_back();
}

TEST_F(ProxyTest, InterfaceNamesLeaveOutTheLoopback) {
    for (std::string const& name : Proxy::GetInterfaces()) EXPECT_NE(name, "127.0.0.1");
    EXPECT_LE(Proxy::GetInterfaces().size(), m_proxy->m_interfaceAddresses.size());
}

TEST_F(ProxyTest, HostNameIsShortOrFull) {
    std::string shortName = "gate", fullName = "gate.example.test";
    Proxy::SetHostInformation(shortName, fullName);
    EXPECT_EQ(Proxy::GetProxyHostName(false), "gate");
    EXPECT_EQ(Proxy::GetProxyHostName(true), "gate.example.test");
}

TEST(ProxyInstance, IsNotNeededToAskForTheHostName) {
    ASSERT_EQ(Proxy::s_pProxyInstance, nullptr);
    std::string shortName = "gate", fullName = "gate.example.test";
    Proxy::SetHostInformation(shortName, fullName);
    EXPECT_EQ(Proxy::GetProxyHostName(false), "");
    EXPECT_EQ(Proxy::GetProxyHostName(true), "");
}

TEST_F(ProxyTest, UsersAndGroupsAreNumbersOrKnownNames) {
    EXPECT_EQ(Proxy::MapUID(nullptr), -1);
    EXPECT_EQ(Proxy::MapGID(nullptr), -1);
    EXPECT_EQ(Proxy::MapUID(""), 0);  // a text without a letter is a number
    EXPECT_EQ(Proxy::MapGID(""), 0);
    EXPECT_EQ(Proxy::MapUID("0123"), 123);
    EXPECT_EQ(Proxy::MapGID("4294967294"), 4294967294L);
    EXPECT_EQ(Proxy::MapUID("root"), 0);
    EXPECT_EQ(Proxy::MapGID("root"), 0);
    EXPECT_EQ(Proxy::MapUID("no such user"), -1);
    EXPECT_EQ(Proxy::MapGID("no such group"), -1);
}

TEST_F(ProxyTest, WithoutAUserOrGroupTheProcessStaysWhatItIs) {
    velt_testing::EventCapture events;
    uid_t const user = ::getuid();
    gid_t const group = ::getgid();
    m_proxy->SetUidAndGid();
    EXPECT_EQ(::getuid(), user);
    EXPECT_EQ(::getgid(), group);
}

// --- direction ---

class DirectionTest : public ProxyTest {
protected:
    void Lists(std::string const& inside, std::string const& outside) {
        m_root.Write("inside.txt", inside);
        m_root.Write("outside.txt", outside);
        m_proxy->m_insidePolicy.load(m_root / "inside.txt");
        m_proxy->m_outsidePolicy.load(m_root / "outside.txt");
        m_session.getSourceConnection().m_address = velt_testing::Loopback(1, "10.0.0.1");
    }
    VELT::Connection m_session;
};

TEST_F(DirectionTest, MoreSpecificListWins) {
    bool outside = true;
    Lists("NETWORK 10.0.0.0/8\n", "NETWORK *\n");
    EXPECT_TRUE(Proxy::FindConnectionDirection(outside, &m_session));
    EXPECT_FALSE(outside);
    Lists("NETWORK 10.0.0.0/8\n", "NETWORK 10.0.0.1\n");
    EXPECT_TRUE(Proxy::FindConnectionDirection(outside, &m_session));
    EXPECT_TRUE(outside);
}

TEST_F(DirectionTest, TieGoesToOutside) {
    bool outside = false;
    Lists("NETWORK 10.0.0.0/8\n", "NETWORK 10.0.0.0/8\n");
    EXPECT_TRUE(Proxy::FindConnectionDirection(outside, &m_session));
    EXPECT_TRUE(outside);
}

TEST_F(DirectionTest, AddressOnNeitherListHasNone) {
    bool outside = true;
    Lists("NETWORK 192.0.2.0/24\n", "");
    EXPECT_FALSE(Proxy::FindConnectionDirection(outside, &m_session));
    EXPECT_FALSE(outside);
}

}  // namespace
