// One scan by the engines, call by call: what they are asked and told, in which order, and what it leaves behind.
#include <cstdlib>
#include <thread>

#include "velt/scanning/ScanningTest.h"

using namespace VELT;
using namespace velt_testing;

namespace {

using Calls = std::vector<std::string>;
using Bag = std::vector<std::pair<std::string, std::string>>;

constexpr char const* kSwitch = "setting Settings:KORAVScanner:Kortex Anti-Virus Settings";

class EngineScan : public ScanningTest {
protected:
    ~EngineScan() override {
        script.giveLoader = script.initialises = script.giveThread = script.giveObject = true;
        script.settingOn = false;
    }

    bool Load(bool antispam, char const* engineXml) {
        script.bag.clear();
        return EFabricScanAgent::load("product.xml", "gateway", antispam, engineXml);
    }
    // On a thread of its own, which has no scan thread object yet, with an agent that is set up or not.
    void OnNewThread(std::function<void(ScanAgent&)> work, bool setUp = true) {
        std::thread([&] {
            std::unique_ptr<ScanAgent> const agent(EFabricScanAgent::get());
            if (setUp) {
                ASSERT_EQ(agent->setup_scan(&context, count, 0), 0);
                script.Forget();
            }
            work(*agent);
        }).join();
    }
    Calls Taken() {
        Calls const calls = script.Calls();
        script.Forget();
        return calls;
    }
    void ForceInPlace() {
        context.properties.NewProperty("ES_FORCEDHOST")->SetNarrow("KORHTTPScan");
        context.properties.NewProperty("ES_CONTEXT_HTTP")->SetLong(1);
    }

    unsigned count = 7;
};

using EngineSetUp = EngineScan;
using EngineSwitch = EngineScan;
using EngineFramework = EngineScan;

// --- The framework is loaded ---

TEST_F(EngineFramework, IsToldOfSpamAndOfItsEnginesFileOnlyWhereTheyAreGiven) {
    Bag const always = {{"TarvosAVProductID", "13011"}, {"TarvosAVLocaleID", "0"}};
    ASSERT_TRUE(Load(false, nullptr));
    EXPECT_EQ(script.bag, always);
    ASSERT_TRUE(Load(true, ""));
    Bag all = always;
    all.emplace_back("ASSDKInstallPath", "/usr/lib/");
    all.emplace_back("EngineXMLFilePath", "");
    EXPECT_EQ(script.bag, all);
}

TEST_F(EngineFramework, WithoutALoaderIsASilentFailureThatTakesThePlaceOfTheOneBefore) {
    NotedEnd said;
    EFabricScanContext const* const before = EFabricScanContext::get();
    script.giveLoader = false;
    ::setenv("TMPDIR", "/elsewhere", 1);
    EXPECT_FALSE(Load(true, nullptr));
    EXPECT_EQ(said->priority, 0);
    EXPECT_STREQ(::getenv("TMPDIR"), "/elsewhere");
    EXPECT_TRUE(script.bag.empty());
    EXPECT_NE(EFabricScanContext::get(), before);
    EXPECT_EQ(EFabricScanAgent::getPolicyLoader(), nullptr);
    EXPECT_EQ(EFabricScanContext::get()->segvPrefix(), world.proxy().m_scanDir + "/segv/gateway");
}

// --- An agent is set up ---

TEST_F(EngineSetUp, GivesAScanForEachIdentityAndNoneForNone) {
    OnNewThread([&](ScanAgent& agent) {
        EXPECT_EQ(count, 2u);
        context.identities.clear();
        EXPECT_EQ(agent.setup_scan(&context, count, 0), 0);
        EXPECT_EQ(count, 0u);
    });
}

TEST_F(EngineSetUp, SetsEachOtherPolicyAlsoNone) {
    OnNewThread([&](ScanAgent& agent) {
        for (char const* name : {"a", "a", "b", "a"}) {
            context.policy = Intern(name);
            EXPECT_EQ(agent.setup_scan(&context, count, 0), 0);
        }
        context.policy = InternedString();
        EXPECT_EQ(agent.setup_scan(&context, count, 0), 0);
        EXPECT_EQ(Taken(), (Calls{"policy a", "policy b", "policy a", "policy null"}));
    });
    EXPECT_EQ(Taken(), Calls{"release thread"});
}

TEST_F(EngineSetUp, ThatFailsLeavesNothingToRun) {
    NotedEnd said;
    script.giveThread = false;
    OnNewThread(
        [&](ScanAgent& agent) {
            EXPECT_EQ(agent.setup_scan(&context, count, 0), -1);
            EXPECT_EQ(count, 0u);
            EXPECT_EQ(said->priority, 0x1E);
            EXPECT_EQ(agent.scan(0, output, false), -1);
            EXPECT_EQ(output, nullptr);
        },
        false);
}

TEST_F(EngineSetUp, TakesTheTimeThatIsCurrentThenAndKeepsIt) {
    EFabricScanAgent::set_time(4444);
    OnNewThread([&](ScanAgent& agent) {
        EFabricScanAgent::set_time(5555);
        EXPECT_EQ(agent.scan(0, output, false), 0);
        EXPECT_EQ(script.when, 4444);
        EXPECT_FALSE(agent.is_av_scan_enabled(&context, 0));
        EXPECT_EQ(script.when, 5555);
        EXPECT_FALSE(agent.is_av_scan_enabled(&context, -7));
        EXPECT_EQ(script.when, -7);
    });
}

// --- It scans ---

TEST_F(EngineScan, ShowsTheItemFromItsStartWithTheItemsPropertiesAndAnEmptyOutput) {
    unsigned long const before = Counter("scanner.efabric.scans");
    body.seek(5, 0);
    script.scan = [&](eFabric::IStreamTransport& in, eFabric::IStreamTransport* out) -> IScanResultHandler const* {
        EXPECT_EQ(in.tell(), 0u);
        EXPECT_EQ(in.size(), 11u);
        EXPECT_EQ(in.GetPropertyBag(), &context.properties);
        EXPECT_EQ(in.GetRecommendedBase(), eFabric::Base_Byte);
        EXPECT_FALSE(in.IsReadOnly());
        EXPECT_EQ(out->size(), 0u);
        out->GetPropertyBag()->NewProperty("OF_THE_OUTPUT")->SetLong(3);
        in.put('Z');
        return nullptr;
    };
    OnNewThread([&](ScanAgent& agent) {
        EXPECT_EQ(agent.scan(1, output, false), 0);
        EXPECT_EQ(Taken(), (Calls{"object guests", "scan"}));
        ASSERT_NE(output, nullptr);
        EXPECT_EQ(output->identity, Intern("guests"));
        EXPECT_EQ(output->result, nullptr);
        EXPECT_FALSE(output->input_modified);  // only told of what is scanned in place
        EXPECT_NE(output->properties.GetProperty("OF_THE_OUTPUT"), nullptr);
        EXPECT_EQ(context.properties.Size(), 0);
        delete std::exchange(output, nullptr);
        EXPECT_EQ(Taken(), Calls{"release object"});
    });
    EXPECT_EQ(Counter("scanner.efabric.scans"), before + 1);
}

TEST_F(EngineScan, WithoutAScanObjectIsCountedAndLeavesTheOutputAlone) {
    NotedEnd said;
    unsigned long const before = Counter("scanner.efabric.scans");
    OnNewThread([&](ScanAgent& agent) {
        EXPECT_EQ(agent.scan(0, output, false), 0);
        ScanOutput const* const first = output;
        script.giveObject = false;
        context.connection_attributes = new ScanConnectionAttributes(&session);
        EXPECT_EQ(agent.scan(0, output, false), -1);
        EXPECT_EQ(output, first);
        EXPECT_EQ(context.connection_attributes, nullptr);  // handed over before
        EXPECT_NE(context.properties.GetProperty("ES_SCANRESSUBSTITUTIONS"), nullptr);
    });
    EXPECT_EQ(Counter("scanner.efabric.scans"), before + 2);
}

TEST_F(EngineScan, InPlaceIsModifiedByWritesAlone) {
    ForceInPlace();
    bool writes = false;
    script.scan = [&](eFabric::IStreamTransport& in, eFabric::IStreamTransport*) -> IScanResultHandler const* {
        writes ? in.put('Z') : in.setsize(9);
        return nullptr;
    };
    OnNewThread([&](ScanAgent& agent) {
        EXPECT_EQ(agent.scan(0, output, false), 0);
        EXPECT_EQ(output->output, &body);
        EXPECT_FALSE(output->input_modified);
        delete std::exchange(output, nullptr);
        writes = true;
        EXPECT_EQ(agent.scan(0, output, false), 0);
        EXPECT_TRUE(output->input_modified);
        EXPECT_NE(context.properties.GetProperty("ES_FORCEDHOST"), nullptr);  // no fallback: it stays
    });
}

// The fallback's own host takes the place of the one that would have made it a scan in place.
TEST_F(EngineScan, AFallbackOfAScanInPlaceIsNotInPlace) {
    ForceInPlace();
    OnNewThread([&](ScanAgent& agent) {
        EXPECT_EQ(agent.scan(0, output, true), 0);
        EXPECT_EQ(Taken().back(), "scan");
        EXPECT_FALSE(output->output_in_input);
        EXPECT_NE(output->output, &body);
        EXPECT_EQ(context.properties.GetProperty("ES_FORCEDHOST"), nullptr);
        EXPECT_NE(context.properties.GetProperty("ES_CONTEXT_HTTP"), nullptr);
    });
}

TEST_F(EngineScan, EnginesAreSelectedOnlyWhereTheKindOfScanChangesAlsoByOneThatFailed) {
    NotedEnd said;
    OnNewThread([&](ScanAgent& agent) {
        script.giveObject = false;
        EXPECT_EQ(agent.scan(0, output, true), -1);
        EXPECT_EQ(Taken(), (Calls{"select 0 all", "select 1 KORAVScanner", "object staff"}));
        script.giveObject = true;
        EXPECT_EQ(agent.scan(0, output, true), 0);
        EXPECT_EQ(Taken(), (Calls{"object staff", "scan"}));
        EXPECT_FALSE(agent.is_av_scan_enabled(&context, 0));
        EXPECT_EQ(Taken(), (Calls{"select 1 all", "object staff", kSwitch, "release object"}));
        EXPECT_EQ(agent.scan(0, output, true), 0);
        EXPECT_EQ(Taken(), (Calls{"release object", "select 0 all", "select 1 KORAVScanner", "object staff", "scan"}));
    });
}

TEST_F(EngineScan, AFallbackBeyondTheIdentitiesHasLostItsOutputAllTheSame) {
    OnNewThread([&](ScanAgent& agent) {
        EXPECT_EQ(agent.scan(0, output, false), 0);
        EXPECT_EQ(agent.scan(2, output, true), -1);
        EXPECT_EQ(output, nullptr);
        EXPECT_EQ(Taken(), (Calls{"object staff", "scan", "release object"}));
        EXPECT_EQ(context.properties.Size(), 0);
    });
}

// --- The anti-virus switch ---

TEST_F(EngineSwitch, IsThatOfTheFirstIdentity) {
    OnNewThread([&](ScanAgent& agent) {
        EXPECT_FALSE(agent.is_av_scan_enabled(&context, 0));
        EXPECT_EQ(Taken(), (Calls{"object staff", kSwitch, "release object"}));
        script.settingOn = true;
        EXPECT_TRUE(agent.is_av_scan_enabled(&context, 0));
    });
}

TEST_F(EngineSwitch, IsOnWhereverItCannotBeAsked) {
    NotedEnd said;
    OnNewThread(
        [&](ScanAgent& agent) {
            EXPECT_TRUE(agent.is_av_scan_enabled(nullptr, 0));
            script.giveThread = false;
            EXPECT_TRUE(agent.is_av_scan_enabled(&context, 0));
            script.giveThread = true;
            script.giveObject = false;
            EXPECT_TRUE(agent.is_av_scan_enabled(&context, 0));
            script.giveObject = true;
            EXPECT_FALSE(agent.is_av_scan_enabled(&context, 0));
        },
        false);
}

}  // namespace
