#include "velt/scanning/Scanner.h"

#include <QXStats/QXCounter.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "testing/Child.h"
#include "testing/ScriptedFramework.h"
#include "testing/ScriptedStream.h"
#include "testing/SessionWorld.h"
#include "velt/results/SerializedEFabricResult.h"
#include "velt/scanning/EFabricScanAgent.h"
#include "velt/scanning/ScanContext.h"
#include "velt/streams/ScannerStream.h"

using namespace VELT;
using namespace velt_testing;

namespace {

// Those of the process, from the start of the test on.
std::map<std::string, unsigned long> s_before;
unsigned long Counter(char const* name) { return QXStats::QXCounter(name).value() - s_before[name]; }

class ScanTest : public testing::Test {
protected:
    ScanTest() {
        s_before.clear();
        for (char const* const name : {"scanner.efabric.scans", "scanner.inline.scans", "scanner.null.scans"})
            s_before[name] = Counter(name);
        script.bag.clear();
        world.proxy().SetProxyName("gateway");
        world.proxy().m_handlerStackSize = 128;
        loaded = EFabricScanAgent::load(world.root() / "config/product.xml", "gateway", false, "engine.xml");
        Scanner::initialise(&world.proxy().m_config);
        body.write("one message", 11u);
        context.connection = &session;
        context.data = &body;
        context.policy = Intern("content_in");
        context.identities = {Intern("staff"), InternedString()};
        script.Forget();
    }
    ~ScanTest() override {
        delete output;
        script.scan = nullptr;
        script.giveLoader = script.initialises = script.giveThread = script.giveObject = true;
        script.takesPolicy = script.settingOn = true;
    }

    InternedString Intern(char const* text) {
        return EFabricScanContext::get()->getPolicyLoader()->internAttribute(text);
    }

    // One scan by a scanner of its own, as a session makes it.
    int Scan(unsigned index, bool fallback) {
        if (!fallback) delete std::exchange(output, nullptr);
        std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
        unsigned count = 0;
        if (scanner->setup_scan(count) != 0) return -2;
        return scanner->scan(index, output, fallback);
    }
    std::vector<std::string> CallsOf(unsigned index, bool fallback) {
        script.Forget();
        Scan(index, fallback);
        return script.Calls();
    }

    ScriptedFramework& script = ScriptedFramework::get();
    SessionWorld world;
    bool loaded = false;
    Connection session;
    ScannerStream body{4096u};
    ScanContext context;
    ScanOutput* output = nullptr;
};

using ScanChain = ScanTest;
using EngineAdapter = ScanTest;
using ScanAttributes = ScanTest;

TEST_F(ScanChain, ScansInLineOncePerIdentity) {
    ASSERT_TRUE(loaded);
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 0;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(scanner->scan(0, output, false), 0);
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(output->identity, context.identities[0]);
    EXPECT_FALSE(scanner->is_streaming_media());
    EXPECT_EQ(Counter("scanner.inline.scans"), 1u);
    EXPECT_EQ(Counter("scanner.efabric.scans"), 1u);
    EXPECT_EQ(Counter("scanner.null.scans"), 0u);
}

TEST_F(ScanChain, AnIndexBeyondTheIdentitiesIsRefusedBeforeAnythingIsAsked) {
    EXPECT_EQ(Scan(2, false), -1);
    EXPECT_EQ(output, nullptr);
}

TEST_F(ScanChain, EndsAtTheNullScannerWhichScansNothingAndSaysSo) {
    EXPECT_EQ(StatusOfChild([&] {  // there is no way back within a process
                  ScannerInline::disable();
                  std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
                  unsigned count = 7;
                  EXPECT_EQ(scanner->setup_scan(count), -1);
                  EXPECT_EQ(count, 0u);
                  EXPECT_EQ(scanner->scan(0, output, false), -1);
                  EXPECT_EQ(output, nullptr);
                  EXPECT_EQ(Counter("scanner.null.scans"), 1u);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(ScanChain, TheStackSizeIsTheSystemsSoEnginesMayRun) {
    EXPECT_EQ(StatusOfChild([&] {  // there is no way back within a process
                  EXPECT_EQ(world.proxy().m_handlerStackSize, 0u);
                  world.proxy().m_handlerStackSize = 0x7ffff;
                  ScannerInline::initialise(&world.proxy().m_config);
                  EXPECT_EQ(ScannerInline::get(&context), nullptr);
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(ScanChain, AnAgentThatCannotSetUpLeavesNothingToRun) {
    script.giveThread = false;
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 7;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(scanner->scan(0, output, false), -1);
}

TEST_F(ScanChain, AskingForTheAntiVirusSwitchScansNothing) {
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    script.settingOn = false;
    EXPECT_FALSE(scanner->is_av_enabled());
    script.settingOn = true;
    EXPECT_TRUE(scanner->is_av_enabled());
    auto const calls = script.Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "setting Settings:KORAVScanner:Kortex Anti-Virus Settings"), 2);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "scan"), 0);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "release object"), 2);
}

TEST_F(ScanChain, TheAntiVirusSwitchIsOnWhereItCannotBeAsked) {
    script.giveObject = false;
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    EXPECT_TRUE(scanner->is_av_enabled());
    script.takesPolicy = false;
    context.policy = Intern("content_out");
    EXPECT_TRUE(scanner->is_av_enabled());
}

TEST_F(ScanChain, WithoutContentNothingIsScanned) {
    context.data = nullptr;
    EXPECT_EQ(Scan(0, false), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(Counter("scanner.efabric.scans"), 0u);
}

// These run in a process of their own, in which nothing was initialised.
TEST(ScanChainBeforeStart, AnInlineScannerHasNoAgentAndScansNothing) {
    if (std::unique_ptr<ScanAgent> const agent(ScanAgent::get()); agent) GTEST_SKIP() << "initialised by a test before";
    ScanContext context;
    context.identities = {InternedString()};
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 7;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 0u);
    ScanOutput* output = nullptr;
    EXPECT_EQ(scanner->scan(0, output, false), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_TRUE(scanner->is_av_enabled());
}

TEST(ScanChainBeforeStart, TheNullScannerSaysThatNothingIsScanned) {
    ScanContext context;
    std::unique_ptr<Scanner> const scanner(ScannerNull::get(&context));
    unsigned count = 7;
    EXPECT_EQ(scanner->setup_scan(count), -1);
    EXPECT_EQ(count, 0u);
    auto* output = reinterpret_cast<ScanOutput*>(&context);
    EXPECT_EQ(scanner->scan(0, output, false), -1);
    EXPECT_EQ(output, reinterpret_cast<ScanOutput*>(&context));
}

TEST(ScanChainBeforeStart, AnAgentWithoutAFrameworkScansNothing) {
    ScannerStream body(64u);
    ScanContext context;
    context.data = &body;
    context.identities = {InternedString()};
    std::unique_ptr<ScanAgent> const agent(EFabricScanAgent::get(nullptr));
    unsigned count = 7;
    EXPECT_EQ(agent->setup_scan(&context, count, 0), -1);
    EXPECT_EQ(count, 0u);
    ScanOutput* output = nullptr;
    EXPECT_EQ(agent->scan(0, output, false), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_TRUE(agent->is_av_scan_enabled(&context, 0));
}

// --- Loading the framework ---

TEST_F(EngineAdapter, GivesTheFrameworkItsPathsAndItsBag) {
    EXPECT_EQ(script.config.rules, KORtk::Utf8Array(world.root() / "config/qxxmlconf/rules.xml").wstr());
    EXPECT_EQ(script.config.product_config, KORtk::Utf8Array(world.root() / "config/product.xml").wstr());
    EXPECT_EQ(script.config.av_dat, KORtk::Utf8Array(world.root() / "opt/KORAqxs/avengine/dat").wstr());
    EXPECT_EQ(script.config.av_lib, KORtk::Utf8Array(world.root() / "opt/KORAqxs/avengine/lib").wstr());
    EXPECT_EQ(script.config.plugin_dir, KORtk::Utf8Array(world.root() / "opt/KORAeFCM/eplugin").wstr());
    EXPECT_EQ(script.config.scan_dir, KORtk::Utf8Array(world.proxy().m_scanDir).wstr());
    EXPECT_STREQ(::getenv("TMPDIR"), world.proxy().m_scanDir.c_str());
    EXPECT_EQ(script.bag,
              (std::vector<std::pair<std::string, std::string>>{
                  {"TarvosAVProductID", "13011"}, {"TarvosAVLocaleID", "0"}, {"EngineXMLFilePath", "engine.xml"}}));
}

TEST(EngineAdapterLoad, FailsWithoutALoaderOrWhenItDoesNotInitialise) {
    SessionWorld world;
    auto& script = ScriptedFramework::get();
    script.giveLoader = false;
    EXPECT_FALSE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    EXPECT_EQ(EFabricScanAgent::getPolicyLoader(), nullptr);
    script.giveLoader = true;
    script.initialises = false;
    EXPECT_FALSE(EFabricScanAgent::load("product.xml", "gateway", true, nullptr));
    EXPECT_EQ(EFabricScanAgent::getPolicyLoader(), nullptr);
    EXPECT_EQ(script.bag.back(), (std::pair<std::string, std::string>{"ASSDKInstallPath", "/usr/lib/"}));
    EXPECT_EQ(script.Calls().back(), "create 3 1");
    script.initialises = true;
    EXPECT_TRUE(EFabricScanAgent::load("product.xml", "gateway", true, nullptr));
    EXPECT_NE(EFabricScanAgent::getPolicyLoader(), nullptr);
    EFabricScanAgent::finish();
    EXPECT_EQ(script.Calls().back(), "shutdown");
}

// --- One scan ---

TEST_F(EngineAdapter, SetsThePolicyOncePerThreadForScansOfOnePolicy) {
    std::thread([&] {  // a new one, which no test before has used
        context.policy = Intern("content_out");
        EXPECT_EQ(CallsOf(0, false), (std::vector<std::string>{"thread content_in", "time source", "policy content_out",
                                                               "object staff", "scan"}));
        EXPECT_EQ(CallsOf(1, false), (std::vector<std::string>{"release object", "object null", "scan"}));
    })
        .join();
}

TEST_F(EngineAdapter, AFallbackScanRunsTheAntiVirusEngineAloneAndTheNextScanAllAgain) {
    Scan(0, false);
    ScanOutput* const first = output;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(CallsOf(0, true), (std::vector<std::string>{"release object", "select 0 all", "select 1 KORAVScanner",
                                                          "object staff", "scan"}));
    auto const again = CallsOf(0, false);
    ASSERT_GE(again.size(), 2u);
    EXPECT_EQ(again[1], "select 1 all");
}

TEST_F(EngineAdapter, AnEngineThatThrowsLeavesNothingBehind) {
    script.scan = [](eFabric::IStreamTransport&, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        throw std::runtime_error("broken engine");
    };
    EXPECT_THROW(Scan(0, true), std::runtime_error);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(script.Calls().back(), "release object");
    EXPECT_EQ(context.properties.GetProperty("ES_FORCEDHOST"), nullptr);
    script.scan = nullptr;
    EXPECT_EQ(Scan(0, false), 0);
}

TEST_F(EngineAdapter, AFallbackLeavesNoForcedHostBehindWhateverComesOfIt) {
    context.properties.NewProperty("ES_FORCEDHOST")->SetNarrow("KORHTTPScan");
    std::string seen;
    script.scan = [&](eFabric::IStreamTransport& in, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        seen = in.GetPropertyBag()->GetProperty("ES_FORCEDHOST")->GetNarrow();
        return nullptr;
    };
    EXPECT_EQ(Scan(0, true), 0);
    EXPECT_EQ(seen, "DefaultFormatPlugin");
    EXPECT_EQ(context.properties.GetProperty("ES_FORCEDHOST"), nullptr);
    script.giveObject = false;
    EXPECT_EQ(Scan(0, true), -1);
    EXPECT_EQ(output, nullptr);
    EXPECT_EQ(context.properties.GetProperty("ES_FORCEDHOST"), nullptr);
}

TEST_F(EngineAdapter, TheContentAfterTheScanIsTheOutputsOwnStream) {
    script.scan = [](eFabric::IStreamTransport& in, eFabric::IStreamTransport* out) -> IScanResultHandler const* {
        unsigned char text[4];
        EXPECT_EQ(in.read(text, 3), 3u);
        EXPECT_EQ(out->write(text, 3), 3u);
        return nullptr;
    };
    body.seek(0, 1);
    ASSERT_EQ(Scan(0, false), 0);
    ASSERT_NE(output->output, &body);
    EXPECT_EQ(output->output->size(), 3u);
    EXPECT_FALSE(output->output_in_input);
    EXPECT_FALSE(output->input_modified);
    EXPECT_EQ(output->result, nullptr);
}

TEST_F(EngineAdapter, AScanInPlaceGivesTheEngineNoOutput) {
    context.properties.NewProperty("ES_CONTEXT_HTTP")->SetLong(1);
    context.properties.NewProperty("ES_FORCEDHOST")->SetNarrow("KORHTTPScan");
    script.scan = [](eFabric::IStreamTransport& in, eFabric::IStreamTransport* out) -> IScanResultHandler const* {
        EXPECT_EQ(out, nullptr);
        in.seek(0);
        in.put('O');
        return nullptr;
    };
    ASSERT_EQ(Scan(0, false), 0);
    EXPECT_TRUE(output->output_in_input);
    EXPECT_TRUE(output->input_modified);
    EXPECT_EQ(output->output, &body);
    EXPECT_EQ(static_cast<EFabricScanOutput*>(output)->stream().size(), 0u);
}

TEST_F(EngineAdapter, InPlaceNeedsAllThreeOfItsSigns) {
    EXPECT_FALSE(ScanAgent::output_in_input(nullptr));
    EXPECT_FALSE(ScanAgent::output_in_input(&context));
    context.properties.NewProperty("ES_CONTEXT_HTTP")->SetLong(0);
    context.properties.NewProperty("ES_FORCEDHOST")->SetNarrow("KORHTTPScan");
    EXPECT_FALSE(ScanAgent::output_in_input(&context));
    context.properties.NewProperty("ES_CONTEXT_HTTP")->SetLong(2);
    EXPECT_TRUE(ScanAgent::output_in_input(&context));
    context.properties.NewProperty("ES_FORCEDHOST")->SetNarrow("korhttpscan");
    EXPECT_FALSE(ScanAgent::output_in_input(&context));
}

TEST_F(EngineAdapter, WritesEngineVersionsIntoResultsOfTheirKindOnly) {
    script.engines = {{"KORAVScanner", "1.2", "today"}, {"SpamScanner", "3.4", "rules"}};
    ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    ScriptedVerdict verdict;
    verdict.Add().bag.NewProperty("E_SR_TYPE")->SetULong(1);
    verdict.Add().bag.NewProperty("E_SR_TYPE")->SetULong(5);
    verdict.Add().bag.NewProperty("E_SR_TYPE")->SetULong(2);
    verdict.Add().bag.NewProperty("E_SR_TYPE")->SetLong(1);  // of another type: nothing is changed
    verdict.Add();
    script.scan = [&](eFabric::IStreamTransport&, eFabric::IStreamTransport*) { return &verdict; };
    ASSERT_EQ(Scan(0, false), 0);
    EXPECT_EQ(output->result, &verdict);
    auto const version = [&](std::size_t i, char const* name) -> std::string {
        IKORProperty const* const outer = verdict.results[i]->bag.GetProperty("QX_PROPERTIES");
        if (!outer) return "none";
        return outer->GetBag()->GetProperty(name)->GetNarrow();
    };
    EXPECT_EQ(version(0, "QX_ENGINE"), "1.2");
    EXPECT_EQ(version(0, "QX_DATS"), "today");
    EXPECT_EQ(version(1, "QX_ENGINE"), "3.4");
    EXPECT_EQ(version(1, "QX_DATS"), "rules");
    for (std::size_t i : {2u, 3u, 4u}) EXPECT_EQ(version(i, "QX_ENGINE"), "none");
}

TEST_F(EngineAdapter, WritesEngineVersionsBesideWhatAResultSaysItself) {
    script.engines = {{"Other", "9", "9"}, {"KORAVScanner", "1", "old"}, {"KORAVScanner", "2", "new"}};
    ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    ScriptedVerdict verdict;
    auto* const own = new KORPropertyBag;
    own->NewProperty("QX_ENGINE")->SetNarrow("of the engine");
    own->NewProperty("KEPT")->SetLong(1);
    verdict.Add().bag.NewProperty("QX_PROPERTIES")->SetBag(own);
    verdict.Add().bag.NewProperty("QX_PROPERTIES")->SetNarrow("no bag");
    for (auto const& result : verdict.results) result->bag.NewProperty("E_SR_TYPE")->SetULong(1);
    script.scan = [&](eFabric::IStreamTransport&, eFabric::IStreamTransport*) { return &verdict; };
    ASSERT_EQ(Scan(0, false), 0);
    auto const text = [&](std::size_t i) {
        std::string all;
        IKORPropertyBag* const bag = verdict.results[i]->bag.GetProperty("QX_PROPERTIES")->GetBag();
        for (long at = 0; at < bag->Size(); ++at) {
            IKORProperty const* const property = bag->GetProperty(at);
            all.append(property->GetName()).append("=").append(property->GetNarrow()).append(" ");
        }
        return all;
    };
    std::string const host = "QX_SYSTEM_NAME=" + Proxy::GetProxyHostName(false) + " ";
    EXPECT_EQ(text(0), "QX_ENGINE=2 KEPT=1 QX_DATS=new " + host);
    EXPECT_EQ(text(1), "QX_ENGINE=2 QX_DATS=new " + host);
}

TEST_F(EngineAdapter, HandsTheSessionsAttributesOverToTheFramework) {
    class Attributed : public Connection {
    public:
        void getConnectionAttributes(IKORPropertyBag* bag) override { bag->NewProperty("FROM")->SetNarrow("a@b"); }
    };
    Attributed attributed;
    context.connection_attributes = new ScanConnectionAttributes(&attributed);
    std::string from;
    script.scan = [&](eFabric::IStreamTransport& in, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        from = in.GetPropertyBag()->GetProperty("ES_SCANRESSUBSTITUTIONS")->GetBag()->GetProperty("FROM")->GetNarrow();
        return nullptr;
    };
    EXPECT_EQ(Scan(0, false), 0);
    EXPECT_EQ(from, "a@b");
    EXPECT_EQ(context.connection_attributes, nullptr);
}

TEST_F(EngineAdapter, KeepsTheItemThatACrashingThreadWasScanning) {
    EFabricScanAgent::start();
    script.scan = [](eFabric::IStreamTransport&, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        ScanAgent::segv();
        return nullptr;
    };
    std::filesystem::create_directories(world.proxy().m_scanDir + "/segv");
    ASSERT_EQ(Scan(0, false), 0);
    ScanAgent::segv();  // outside a scan nothing is kept
    std::vector<std::string> kept;
    for (auto const& entry : std::filesystem::directory_iterator(world.proxy().m_scanDir + "/segv"))
        kept.push_back(entry.path().filename());
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].rfind("gateway_content_in_", 0), 0u);
    EXPECT_EQ(world.root().Read("scandir/gateway/segv/" + kept[0]), "one message");
}

TEST_F(EngineAdapter, GivesTheTimeOfTheClockThreadToReaders) {
    EFabricScanAgent::set_time(1000);
    EXPECT_EQ(EFabricScanAgent::get_time(), 1000);
    EFabricScanAgent::set_time(1001);
    EXPECT_EQ(EFabricScanAgent::get_time(), 1001);
}

TEST_F(EngineAdapter, NamesOfPoliciesAndIdentitiesAreInterned) {
    auto* const engine = EFabricScanContext::get();
    engine->set_policy(&context, "content_out");
    EXPECT_EQ(context.policy, Intern("content_out"));
    engine->set_identity(&context, "guests");
    ASSERT_EQ(context.identities.size(), 1u);
    EXPECT_EQ(context.identities[0], Intern("guests"));
    engine->set_identity(&context, nullptr);
    ASSERT_EQ(context.identities.size(), 1u);
    EXPECT_FALSE(context.identities[0]);
}

// --- The context and the attributes ---

TEST_F(ScanAttributes, AreAskedForAgainAsLongAsTheSessionAddsNothing) {
    class Counting : public Connection {
    public:
        void getConnectionAttributes(IKORPropertyBag* bag) override {
            if (++asked == 3) bag->NewProperty("FROM")->SetNarrow("a@b");
        }
        int asked = 0;
    };
    Counting counting;
    ScanConnectionAttributes attributes(&counting);
    EXPECT_EQ(attributes.Size(), 0);
    EXPECT_EQ(static_cast<ScanConnectionAttributes const&>(attributes).GetProperty("FROM"), nullptr);
    EXPECT_EQ(counting.asked, 2);
    EXPECT_NE(attributes.GetProperty("FROM"), nullptr);
    EXPECT_EQ(attributes.Size(), 1);
    EXPECT_EQ(counting.asked, 3);
}

// What a scan server is sent of them, on its own and inside a scan's properties.
TEST_F(ScanAttributes, AreAskedForAgainByEachSectionThatIsMadeOfThem) {
    class Counting : public Connection {
    public:
        void getConnectionAttributes(IKORPropertyBag* bag) override {
            if (++asked == 3) bag->NewProperty("FROM")->SetLong(7);
        }
        int asked = 0;
    };
    Counting counting;
    KORPropertyBag properties;
    auto* const attributes = new ScanConnectionAttributes(&counting);
    properties.NewProperty("ES_SCANRESSUBSTITUTIONS")->SetBag(attributes);
    auto const section = [](char const* name, IKORPropertyBag const& bag) {
        ScriptedStream wire({});
        SerializedEFabricResult::serialize(&wire, name, &bag);
        return wire.written();
    };
    EXPECT_EQ(section("conattr", *attributes), "\r\n");
    EXPECT_EQ(counting.asked, 1);
    EXPECT_EQ(section("scan_properties", properties), "\r\n");
    EXPECT_EQ(counting.asked, 2);
    EXPECT_EQ(section("conattr", *attributes), "conattr.FROM sl 7\n\r\n");
    EXPECT_EQ(section("scan_properties", properties), "scan_properties.ES_SCANRESSUBSTITUTIONS<0>.FROM sl 7\n\r\n");
    EXPECT_EQ(counting.asked, 3);
}

TEST_F(ScanAttributes, WritingThemAsksNobody) {
    class Failing : public Connection {
    public:
        void getConnectionAttributes(IKORPropertyBag*) override { ADD_FAILURE() << "asked"; }
    };
    Failing failing;
    ScanConnectionAttributes attributes(&failing);
    attributes.Clear();
    EXPECT_FALSE(attributes.DeleteProperty("none"));
    attributes.SetEnableCallbacks(false);
    attributes.NewProperty("OWN")->SetLong(1);
    EXPECT_EQ(attributes.Size(), 1);
    EXPECT_NE(attributes.NewPropertyBagProperty("INNER"), nullptr);
    EXPECT_TRUE(attributes.DeleteProperty(0L));
}

TEST_F(ScanAttributes, ResetMakesTheContextReady) {
    context.connection_attributes = new ScanConnectionAttributes(&session);
    context.properties.NewProperty("P")->SetLong(1);
    context.Reset();
    EXPECT_EQ(context.connection, nullptr);
    EXPECT_EQ(context.data, nullptr);
    EXPECT_FALSE(context.policy);
    EXPECT_TRUE(context.identities.empty());
    EXPECT_EQ(context.properties.Size(), 0);
    EXPECT_EQ(context.connection_attributes, nullptr);
    context.Reset();
    EXPECT_EQ(body.size(), 11u);
}

}  // namespace
