// The agents that need no engines, and the choice between them and the engines.
#include <QXStats/QXCounter.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "testing/FakePolicyStore.h"
#include "testing/SessionWorld.h"
#include "velt/Config.h"
#include "velt/results/SerializedEFabricResult.h"
#include "velt/scanning/DebugScanAgent.h"
#include "velt/scanning/EFabricScanAgent.h"
#include "velt/scanning/NullScanAgent.h"
#include "velt/scanning/Scanner.h"
#include "velt/scanning/ScannerProcessScanOutput.h"

using namespace VELT;
using namespace velt_testing;

namespace {

std::vector<unsigned> sleeps;  // what usleep was asked for

unsigned long Scans(char const* counter) { return QXStats::QXCounter(counter).value(); }

constexpr char const* kVerdict = "msr.triggered sl 1\nmsr.modified sl 1\nmsr.action ss 4\nDROP\n";

class AgentTest : public testing::Test {
protected:
    AgentTest() {
        Config::initialise(&store);
        context.data = &body;
        context.identities.assign(3, InternedString());
        context.identities[1] = store.internAttribute("staff");
    }
    ~AgentTest() override {
        Drop();
        Config::initialise(nullptr);
    }

    void Choose(char const* kind) {
        store.Put("base", "scanning", "ScannerAgent", FakeValue::Text(kind));
        ScanAgent::initialise(&world.proxy().m_config);
    }
    template <class Kind>
    static bool GivesA() {
        std::unique_ptr<ScanAgent> const agent(ScanAgent::get());
        return dynamic_cast<Kind*>(agent.get()) != nullptr;
    }
    // A plain output owns neither its verdict nor its stream.
    void Drop() {
        if (output && typeid(*output) == typeid(ScanOutput)) {
            delete output->result;
            delete output->output;
        }
        delete output;
        output = nullptr;
    }

    FakePolicyStore store;
    SessionWorld world;
    ScannerStream body{65536u};
    ScanContext context;
    ScanOutput* output = nullptr;
};

using AgentChoice = AgentTest;
using NullAgent = AgentTest;

// What an agent of this kind shows to a class derived from it.
class OpenDebugAgent : public DebugScanAgent {
public:
    using DebugScanAgent::context;
    using DebugScanAgent::count;
    using DebugScanAgent::create_output_data;
    using DebugScanAgent::m_modified;
    using DebugScanAgent::result;
};

class DebugAgent : public AgentTest {
protected:
    DebugAgent() {
        sleeps.clear();
        ::signal(SIGCHLD, SIG_DFL);  // how a child ends is to be known
    }

    // The head, the empty line and then this.
    int Prepare(std::string const& script) { return PrepareWhole("Subject: x\r\nFrom: y\r\n\r\n" + script); }
    int PrepareWhole(std::string const& content) {
        body.reset();
        body.write(content.data(), static_cast<unsigned>(content.size()));
        return agent.setup_scan(&context, count, 0);
    }
    int Scan(unsigned index = 0) {
        Drop();
        return agent.scan(index, output, false);
    }
    // Whether the verdict behind the commands was read, and not one of the lines before it.
    bool Triggered() { return Scan() == 0 && output->result && output->result->IsTriggered(); }
    std::string Replacement() {
        if (!output->output) return "none";
        std::string text(output->output->size(), ' ');
        EXPECT_EQ(output->output->read(text.data(), text.size()), static_cast<long>(text.size()));
        return text;
    }
    std::string Content() {
        body.seek(0, 0);
        std::string text(body.size(), ' ');
        body.read(text.data(), text.size());
        return text;
    }

    OpenDebugAgent agent;
    unsigned count = 7;
};

}  // namespace

// In the place of the system's: the program's own definition goes first.
extern "C" int usleep(useconds_t microseconds) {
    sleeps.push_back(microseconds);
    return 0;
}

// --- the choice ---

TEST_F(AgentChoice, IsTheEnginesUnlessToldOtherwise) {
    ScanAgent::initialise(&world.proxy().m_config);
    EXPECT_TRUE(GivesA<EFabricScanAgent>());
    Choose("");
    EXPECT_TRUE(GivesA<EFabricScanAgent>());
}

TEST_F(AgentChoice, GoesByTheExactName) {
    Choose("debug");
    EXPECT_TRUE(GivesA<DebugScanAgent>());
    Choose("null");
    EXPECT_TRUE(GivesA<NullScanAgent>());
    for (char const* other : {"Debug", "DEBUG", "debug ", "Null", "nul", "nullx", "efabric"}) {
        Choose(other);
        EXPECT_TRUE(GivesA<EFabricScanAgent>()) << other;
    }
}

TEST_F(AgentChoice, OfAValueWithoutATextIsTheEngines) {
    store.Put("base", "scanning", "ScannerAgent", FakeValue::NullText());
    ScanAgent::initialise(&world.proxy().m_config);
    EXPECT_TRUE(GivesA<EFabricScanAgent>());
}

TEST_F(AgentChoice, ReadsTheExceptionTypesForTheAgentOfTestsAlone) {
    auto const put = [&] {
        for (char const* policy : {"base", "content_in", "content_out"})
            store.Put(policy, "debug_scan_agent", "ExceptionTypes",
                      FakeValue::List({FakeValue::Text("one"), FakeValue::Text("two")}));
    };
    Choose("debug");
    EXPECT_EQ(DebugScanAgent::s_scan_exceptions, nullptr);
    put();
    Choose("null");
    EXPECT_EQ(DebugScanAgent::s_scan_exceptions, nullptr);
    Choose("debug");
    ASSERT_NE(DebugScanAgent::s_scan_exceptions, nullptr);
    ASSERT_EQ(DebugScanAgent::s_scan_exceptions->size(), 2u);
    EXPECT_STREQ(DebugScanAgent::s_scan_exceptions->at(1).c_str(), "two");
}

TEST_F(AgentChoice, LeavesTheEnginesTheirTime) {
    long now = 1000000;
    for (char const* kind : {"", "null", "debug"}) {
        Choose(kind);
        for (int i = 0; i < 6; ++i) {
            ScanAgent::set_time(++now);
            EXPECT_EQ(EFabricScanAgent::get_time(), now) << kind;
        }
    }
}

TEST_F(AgentChoice, ReachesTheInlineScanner) {
    Choose("null");
    ScannerInline::initialise(&world.proxy().m_config);
    ScannerNull::initialise(&world.proxy().m_config);
    std::unique_ptr<Scanner> const scanner(Scanner::get(&context));
    unsigned count = 0;
    EXPECT_EQ(scanner->setup_scan(count), 0);
    EXPECT_EQ(count, 3u);
    unsigned long const before = Scans("scanner.nullagent.scans");
    EXPECT_EQ(scanner->scan(2, output, false), 0);
    EXPECT_EQ(Scans("scanner.nullagent.scans"), before + 1);
    EXPECT_TRUE(scanner->is_av_enabled());
    EXPECT_FALSE(scanner->is_streaming_media());
}

// --- the agent that looks at nothing ---

TEST_F(NullAgent, GivesAnEmptyVerdictForEachIdentity) {
    NullScanAgent::initialise(nullptr);
    unsigned long const before = Scans("scanner.nullagent.scans");
    NullScanAgent agent;
    unsigned count = 7;
    EXPECT_EQ(agent.setup_scan(&context, count, 0), 0);
    EXPECT_EQ(count, 3u);
    for (unsigned index = 0; index < 3; ++index) {
        delete std::exchange(output, nullptr);
        ASSERT_EQ(agent.scan(index, output, false), 0);
        ASSERT_NE(dynamic_cast<ScannerProcessScanOutput*>(output), nullptr);
        ASSERT_NE(output->result, nullptr);
        EXPECT_FALSE(output->result->IsTriggered());
        EXPECT_FALSE(output->result->IsModified());
        long position = 5;
        EXPECT_EQ(output->result->FindFirstScanResult(position), nullptr);
        EXPECT_EQ(output->output, nullptr);
    }
    EXPECT_EQ(Scans("scanner.nullagent.scans"), before + 3);
}

TEST_F(NullAgent, DoesNotLookAtTheIndex) {
    NullScanAgent agent;
    EXPECT_EQ(agent.scan(99, output, false), 0);
    EXPECT_NE(output, nullptr);
    EXPECT_FALSE(agent.is_streaming_media());
    EXPECT_TRUE(agent.is_av_scan_enabled(&context, 0));
    agent.set_protocol(nullptr);
}

TEST_F(NullAgent, AFallbackDeletesTheOutputBefore) {
    struct Watched : ScanOutput {
        explicit Watched(bool& flag) : gone(flag) {}
        ~Watched() override { gone = true; }
        bool& gone;
    };
    bool gone = false;
    NullScanAgent agent;
    output = new Watched(gone);
    EXPECT_EQ(agent.scan(0, output, true), 0);
    EXPECT_TRUE(gone);
    EXPECT_NE(dynamic_cast<ScannerProcessScanOutput*>(output), nullptr);
}

TEST_F(NullAgent, WithoutAContextHasNothingToRun) {
    NullScanAgent agent;
    unsigned count = 0;
    EXPECT_EQ(agent.setup_scan(nullptr, count, 0), -1);
    EXPECT_EQ(count, 0u);
}

TEST_F(NullAgent, ItsOutputHasAStreamOfItsOwnUnderAFreshName) {
    ScannerProcessScanOutput first, second;
    std::string const much(8192, 'x');  // more than its memory holds
    first.stream().write(much.data(), 8192u);
    second.stream().write(much.data(), 8192u);
    std::string const one = first.stream().get_spool_file(), two = second.stream().get_spool_file();
    EXPECT_NE(one, two);
    EXPECT_EQ(one.substr(one.size() - 3), ".in");
    auto* const verdict = SerializedEFabricResult::deserialize(nullptr);
    first.setResult(verdict);
    EXPECT_EQ(first.result, verdict);
    EXPECT_EQ(first.output, nullptr);
}

// --- the agent that does what the content says ---

TEST_F(DebugAgent, ReadsTheVerdictBehindTheCommands) {
    EXPECT_EQ(Prepare("# a comment\n#another\nexception now\nend\n" + std::string(kVerdict)), 0);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(Scan(), 0);
    EXPECT_EQ(typeid(*output), typeid(ScanOutput));
    ASSERT_NE(output->result, nullptr);
    EXPECT_TRUE(output->result->IsTriggered());
    EXPECT_TRUE(output->result->IsModified());
    EXPECT_STREQ(output->result->GetMasterActionCode(), "DROP");
    EXPECT_EQ(output->output, nullptr);
    EXPECT_FALSE(agent.is_streaming_media());
    EXPECT_TRUE(agent.is_av_scan_enabled(&context, 0));
    agent.set_protocol(nullptr);
}

TEST_F(DebugAgent, NeedsAContextWithContent) {
    EXPECT_EQ(agent.setup_scan(nullptr, count, 0), -1);
    ScanContext empty;
    EXPECT_EQ(agent.setup_scan(&empty, count, 0), -1);
    EXPECT_EQ(Scan(), -1);
    EXPECT_EQ(output, nullptr);
}

TEST_F(DebugAgent, StartsAtTheBeginningWhereverTheStreamStands) {
    ASSERT_EQ(Prepare("modified on\nend\n" + std::string(kVerdict)), 0);
    body.seek(body.size(), 0);
    ASSERT_EQ(agent.setup_scan(&context, count, 0), 0);
    EXPECT_TRUE(agent.m_modified);
    EXPECT_TRUE(Triggered());
}

TEST_F(DebugAgent, ContentWithoutAnEmptyLineRunsNoCommand) {
    EXPECT_EQ(PrepareWhole("Subject: x\nmodified on\nend\n" + std::string("msr.triggered sl 1\n")), 0);
    EXPECT_FALSE(agent.m_modified);
    EXPECT_FALSE(Triggered());
    EXPECT_NE(output->result, nullptr);  // the empty verdict
}

TEST_F(DebugAgent, AnEmptyLineBehindTheHeadEndsTheCommands) {
    EXPECT_EQ(Prepare("\r\n" + std::string(kVerdict) + "\nmodified on\nend\n"), 0);
    EXPECT_FALSE(agent.m_modified);
    EXPECT_TRUE(Triggered());
}

TEST_F(DebugAgent, TheLineWithoutASpaceIsConsumed) {
    EXPECT_EQ(Prepare("modified on\nmsr.triggered\n" + std::string(kVerdict)), 0);
    EXPECT_TRUE(agent.m_modified);
    EXPECT_TRUE(Triggered());
}

TEST_F(DebugAgent, BlanksBeforeAValueAreSkipped) {
    for (char const* line : {"modified       on\nend\n", "modified \t \t  on\nend\n", "modified on\nend\n"}) {
        ASSERT_EQ(Prepare(line), 0);
        EXPECT_TRUE(agent.m_modified) << line;
    }
}

TEST_F(DebugAgent, ModifiedHasThreeWordsForTrue) {
    for (char const* yes : {"1", "on", "true"}) {
        ASSERT_EQ(Prepare(std::string("modified ") + yes + "\nend\n"), 0);
        EXPECT_TRUE(agent.m_modified) << yes;
    }
    for (char const* no : {"0", "off", "false", "True", "ON", "yes", "11", "on ", "trueish", ""}) {
        ASSERT_EQ(Prepare(std::string("modified on\nmodified ") + no + "\nend\n"), 0);
        EXPECT_FALSE(agent.m_modified) << no;
    }
}

TEST_F(DebugAgent, EachSetUpStartsAfresh) {
    ASSERT_EQ(Prepare("modified on\nend\n"), 0);
    ASSERT_EQ(Prepare("end\n"), 0);
    EXPECT_FALSE(agent.m_modified);
    agent.result(nullptr, std::string("-7").data());
    EXPECT_EQ(agent.setup_scan(&context, count, 0), 0);
}

TEST_F(DebugAgent, AnUnknownWordIsPassedOver) {
    EXPECT_EQ(Prepare("nonsense 1\nresult 5\ndelay 5\nmodifie on\nmodified true\nend\n" + std::string(kVerdict)), 0);
    EXPECT_TRUE(agent.m_modified);
    EXPECT_TRUE(sleeps.empty());
    EXPECT_TRUE(Triggered());
}

TEST_F(DebugAgent, ACommentAndALineThatBeginsWithASpaceArePassedOver) {
    EXPECT_EQ(Prepare("#\n# modified on\n#modified on\n modified on\nmodified true\nend\n" + std::string(kVerdict)), 0);
    EXPECT_TRUE(agent.m_modified);
    ASSERT_EQ(Prepare(" modified on\nend\n" + std::string(kVerdict)), 0);
    EXPECT_FALSE(agent.m_modified);
    EXPECT_TRUE(Triggered());
}

TEST_F(DebugAgent, ATabIsNoSpaceSoItsLineEndsTheCommands) {
    EXPECT_EQ(Prepare("modified\ton\n" + std::string(kVerdict)), 0);
    EXPECT_FALSE(agent.m_modified);
    EXPECT_TRUE(Triggered());
}

TEST_F(DebugAgent, ALastLineWithoutALineEndIsNoCommand) {
    EXPECT_EQ(Prepare("scantime 0\nmodified on"), 0);
    EXPECT_FALSE(agent.m_modified);
    EXPECT_EQ(count, 1u);
}

TEST_F(DebugAgent, AHeadOfNothingButTheEmptyLineWillDo) {
    EXPECT_EQ(PrepareWhole("\nmodified on\nend\n" + std::string(kVerdict)), 0);
    EXPECT_TRUE(agent.m_modified);
    EXPECT_EQ(PrepareWhole(" \n\nmodified on\nend\n" + std::string(kVerdict)), 0);  // a blank is not empty
    EXPECT_TRUE(agent.m_modified);
    EXPECT_TRUE(Triggered());
}

TEST_F(DebugAgent, ScantimeSleepsForSoManyMicroseconds) {
    sleeps.clear();
    ASSERT_EQ(Prepare("scantime 0\nscantime x\nend\n"), 0);
    EXPECT_TRUE(sleeps.empty());
    ASSERT_EQ(Prepare("scantime 1500\nscantime   010\nend\n"), 0);
    EXPECT_EQ(sleeps, (std::vector<unsigned>{1500, 10}));
}

TEST_F(DebugAgent, AnOverlongLineEndsTheCommands) {
    std::string words = "exception";
    while (words.size() < 9000) words += " x";
    ScannerStream spooled("debugcommands", false);  // its memory is a buffer of the pool
    std::string const content = "S: x\n\nmodified on\n" + words + "\nmodified off\nend\n";
    spooled.write(content.data(), static_cast<unsigned>(content.size()));
    context.data = &spooled;
    ASSERT_EQ(agent.setup_scan(&context, count, 0), 0);
    EXPECT_TRUE(agent.m_modified);
}

TEST_F(DebugAgent, AnOverlongLineOfTheHeadHidesNoEmptyLine) {
    for (unsigned length : {4093u, 4094u, 4095u, 4096u, 9000u}) {
        ScannerStream spooled("debughead", false);
        std::string const content = std::string(length, 'x') + "\r\nA: b\r\n\r\nmodified on\nend\n" + kVerdict;
        spooled.write(content.data(), static_cast<unsigned>(content.size()));
        spooled.write(std::string(8192, '\n').data(), 8192u);
        context.data = &spooled;
        ASSERT_EQ(agent.setup_scan(&context, count, 0), 0);
        EXPECT_TRUE(agent.m_modified) << length;
    }
}

TEST_F(DebugAgent, CommandsLeaveTheContentAsItWas) {
    ASSERT_EQ(Prepare("modified on\nscantime 0\nend\n" + std::string(kVerdict)), 0);
    ASSERT_EQ(Scan(), 0);
    EXPECT_EQ(Content(), "Subject: x\r\nFrom: y\r\n\r\nmodified on\nscantime 0\nend\n" + std::string(kVerdict));
}

TEST_F(DebugAgent, HasOneScan) {
    ASSERT_EQ(Prepare("end\n" + std::string(kVerdict)), 0);
    ASSERT_EQ(Scan(0), 0);
    Drop();
    EXPECT_EQ(agent.scan(1, output, false), -1);
    EXPECT_EQ(output, nullptr);
}

TEST_F(DebugAgent, AFallbackDeletesTheOutputBeforeAnythingElse) {
    ASSERT_EQ(Prepare("end\n"), 0);
    output = new ScannerProcessScanOutput;
    EXPECT_EQ(agent.scan(1, output, true), -1);
    EXPECT_EQ(output, nullptr);
    auto* const kept = new ScannerProcessScanOutput;
    output = kept;
    EXPECT_EQ(agent.scan(1, output, false), -1);
    EXPECT_EQ(output, kept);
}

TEST_F(DebugAgent, AMalformedVerdictIsNoneAndTheScanSucceeds) {
    ASSERT_EQ(Prepare("end\nmsr.nonsense sl 1\n"), 0);
    EXPECT_EQ(Scan(), 0);
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(output->result, nullptr);
}

TEST_F(DebugAgent, ModifiedReplacesTheContentByWhatFollowsTheVerdict) {
    std::string const rest = "From: z\r\n\r\nnew\n\nbody" + std::string(20000, 'q');
    ASSERT_EQ(Prepare("modified 1\nend\n" + std::string(kVerdict) + rest), 0);
    ASSERT_EQ(Scan(), 0);
    EXPECT_TRUE(output->result->IsTriggered());
    EXPECT_EQ(Replacement(), rest);
}

TEST_F(DebugAgent, ALimitIsReadOnlyWhereSeveralScansMayRun) {
    ASSERT_EQ(Prepare("end\n"), 0);
    ScannerStream source(1024u);
    source.write("5\nabcdefgh", 10u);
    source.seek(0, 0);
    ScannerStream* out = nullptr;
    ASSERT_TRUE(agent.create_output_data(&source, out));
    EXPECT_EQ(out->size(), 10u);
    delete out;
    source.seek(0, 0);
    agent.count = 2;
    ASSERT_TRUE(agent.create_output_data(&source, out));
    EXPECT_EQ(out->size(), 5u);
    delete out;
}

TEST_F(DebugAgent, OfSeveralScansThoseBehindTheSecondReplaceTheContent) {
    ASSERT_EQ(Prepare("end\n" + std::string(kVerdict) + "\n3\nabcdef"), 0);
    agent.count = 3;
    ASSERT_EQ(Scan(1), 0);
    EXPECT_EQ(output->output, nullptr);
    ASSERT_EQ(Scan(2), 0);
    EXPECT_EQ(Replacement(), "abc");
    Drop();
    EXPECT_EQ(agent.scan(3, output, false), -1);
}

TEST_F(DebugAgent, AReplacementThatCannotBeWrittenIsAFailedScan) {
    std::string const rest(20000, 'q');
    ASSERT_EQ(Prepare("modified 1\nend\n" + std::string(kVerdict) + "\n" + rest), 0);
    std::string nowhere = world.root() / "away/below";
    ScannerStream::set_spool_dir(nowhere);
    EXPECT_EQ(Scan(), -1);
    EXPECT_EQ(output, nullptr);
}

#ifndef VELT_SANITIZED
TEST_F(DebugAgent, AllocTakesSoMuchMemoryAndGivesItBack) {
    auto const status = [](char const* key) {
        std::ifstream file("/proc/self/status");
        for (std::string line; std::getline(file, line);)
            if (line.rfind(key, 0) == 0) return std::stol(line.substr(std::strlen(key)));
        return 0l;
    };
    long const size = status("VmSize:");
    ASSERT_EQ(Prepare("alloc 536870912\nend\n"), 0);
    EXPECT_GE(status("VmPeak:"), size + 500000);
    EXPECT_LT(status("VmSize:"), size + 100000);
    EXPECT_EQ(Prepare("alloc 0\nalloc -1\nalloc x\nend\n"), 0);
}

TEST_F(DebugAgent, SegvEndsTheProcessInSetUp) {
    EXPECT_EXIT(
        {
            ::signal(SIGSEGV, SIG_DFL);
            Prepare("segv now\nend\n");
        },
        testing::KilledBySignal(SIGSEGV), "");
}
#endif

TEST_F(DebugAgent, ByebyeSpinsForEver) {
    rlimit second;
    second.rlim_cur = second.rlim_max = 1;
    auto const spin = [&] {
        ::setrlimit(RLIMIT_CPU, &second);
        Prepare("byebye now\nend\n");
    };
    auto const usedItUp = [](int status) {
        return WIFSIGNALED(status) && (WTERMSIG(status) == SIGXCPU || WTERMSIG(status) == SIGKILL);
    };
    EXPECT_EXIT(spin(), usedItUp, "");
}
