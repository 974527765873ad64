// The road from a session to what scans: which scanner an item gets, what is started when, and how a process ends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "testing/Child.h"
#include "testing/FakePolicyStore.h"
#include "testing/ScriptedFramework.h"
#include "testing/SessionWorld.h"
#include "velt/Config.h"
#include "velt/runtime/Clock.h"
#include "velt/scanning/EFabricScanAgent.h"
#include "velt/scanning/ScanContext.h"
#include "velt/scanning/Scanner.h"

using namespace VELT;
using namespace velt_testing;

namespace {

class ChainTest : public testing::Test {
protected:
    ChainTest() {
        world.proxy().SetProxyName("gateway");
        context.data = &body;
        context.identities = {InternedString()};
    }

    void Initialise(unsigned stack) {
        world.proxy().m_handlerStackSize = stack;
        Scanner::initialise(&world.proxy().m_config);
    }
    bool ScansInline() { return std::unique_ptr<Scanner>(ScannerInline::get(&context)) != nullptr; }

    SessionWorld world;
    ScannerStream body{4096u};
    ScanContext context;
};

using ScanChainChoice = ChainTest;
using ScanChainStart = ChainTest;
using ScanChainEnd = ChainTest;
using ScanItem = ChainTest;

constexpr unsigned kLeastStack = 0x80000;

}  // namespace

TEST_F(ScanChainChoice, WithNoScannerProcessesAnyConfiguredStackWillDo) {
    for (unsigned stack : {1u, kLeastStack - 1, kLeastStack, 0u}) {
        Initialise(stack);
        EXPECT_EQ(world.proxy().m_handlerStackSize, 0u) << stack;
        EXPECT_TRUE(ScansInline()) << stack;
    }
}

TEST_F(ScanChainChoice, TheLeastStackForEnginesIsHalfAMebibyte) {
    EXPECT_EQ(StatusOfChild([&] {  // there is no way back within a process
                  world.proxy().m_handlerStackSize = kLeastStack;
                  ScannerInline::initialise(nullptr);
                  EXPECT_TRUE(ScansInline());
                  world.proxy().m_handlerStackSize = 0;
                  ScannerInline::initialise(nullptr);
                  EXPECT_TRUE(ScansInline());
                  world.proxy().m_handlerStackSize = kLeastStack - 1;
                  ScannerInline::initialise(nullptr);
                  EXPECT_FALSE(ScansInline());
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(ScanChainChoice, IsMadeForEachItemAndKeptForIt) {
    EXPECT_EQ(StatusOfChild([&] {  // there is no way back within a process
                  Initialise(0);
                  std::unique_ptr<Scanner> const before(Scanner::get(&context));
                  ScannerInline::disable();
                  std::unique_ptr<Scanner> const after(Scanner::get(&context));
                  unsigned count = 7;
                  EXPECT_EQ(before->setup_scan(count), 0);
                  EXPECT_EQ(after->setup_scan(count), -1);
                  EXPECT_EQ(count, 0u);
                  EXPECT_FALSE(after->is_streaming_media());
                  return HasFailure() ? 1 : 0;
              }),
              0);
}

TEST_F(ScanChainStart, IsForEveryProcessButTheParentOfAForkedModel) {
    ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    Initialise(0);
    struct Case {
        bool force, forked;
        unsigned most;
        bool starts;
    };
    for (Case const& one : {Case{false, true, 2, false}, Case{false, true, 0, false}, Case{true, true, 2, true},
                            Case{false, false, 2, true}, Case{false, true, 1, true}}) {
        world.proxy().m_forkedModel = one.forked;
        world.proxy().m_maxConnections = one.most;
        int const status = RawStatusOf([&] {
            Scanner::start(one.force, false);
            bool const ownSession = ::getsid(0) == ::getpid(), ownGroup = ::getpgrp() == ::getpid();
            bool const timeKnown = EFabricScanAgent::get_time() != 0;
            ::_exit(ownSession && ownGroup && timeKnown ? 1 : ownSession || ownGroup ? 2 : 0);
        });
        EXPECT_TRUE(Exited(status, one.starts ? 1 : 0)) << status << one.force << one.forked << one.most;
    }
}

// What runs after the fork may start itself before its monitor does.
TEST_F(ScanChainStart, IsOnceForEachProcess) {
    ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    Initialise(0);
    auto const threads = [] {
        auto const tasks = std::filesystem::directory_iterator("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    int const status = RawStatusOf([&] {
        auto const before = threads();
        Scanner::start(true, true);
        auto const started = threads();
        Scanner::start(false, true);
        ::_exit(started > before && threads() == started ? 1 : 0);
    });
    EXPECT_TRUE(Exited(status, 1)) << status;
}

TEST_F(ScanChainStart, IsAgainForAFork) {
#ifdef VELT_SANITIZED
    GTEST_SKIP() << "a sanitizer lets no fork of a process with threads start one";
#endif
    ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    Initialise(0);
    int const status = RawStatusOf([] {
        Scanner::start(true, true);
        int const fork = RawStatusOf([] {
            Scanner::start(false, false);
            ::_exit(::getsid(0) == ::getpid() ? 1 : 0);
        });
        ::_exit(Exited(fork, 1) ? 1 : 0);
    });
    EXPECT_TRUE(Exited(status, 1)) << status;
}

TEST_F(ScanChainEnd, IsAnOrderlyExitOnceTheEnginesAreDown) {
    ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    int const status = RawStatusOf([] {
        ::setsid();
        Scanner::finish();
    });
    EXPECT_TRUE(Exited(status, 0)) << status;
}

TEST_F(ScanChainEnd, AnEngineThatHangsTakesTheWholeGroupWithIt) {
    ASSERT_TRUE(EFabricScanAgent::load("product.xml", "gateway", false, nullptr));
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    int const status = RawStatusOf([&] {
        ::setsid();
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(ends[0]);
        ScriptedFramework::get().shutdown = [] {
            for (;;) ::pause();
        };
        if (::fork() == 0) {  // another of the group, which holds the pipe open
            ::alarm(60);
            for (;;) ::pause();
        }
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        Scanner::finish();
    });
    ::close(ends[1]);
    EXPECT_TRUE(EndedBy(status, SIGKILL)) << status;
    char byte;
    EXPECT_EQ(::read(ends[0], &byte, 1), 0);  // ends when the other has ended, too
    ::close(ends[0]);
}

// --- the context ---

TEST_F(ScanItem, StartsWithNothing) {
    ScanContext const fresh;
    EXPECT_EQ(fresh.connection, nullptr);
    EXPECT_EQ(fresh.data, nullptr);
    EXPECT_FALSE(fresh.policy);
    EXPECT_TRUE(fresh.identities.empty());
    EXPECT_EQ(fresh.properties.Size(), 0);
    EXPECT_EQ(fresh.connection_attributes, nullptr);
    ScanOutput const output;
    EXPECT_EQ(output.result, nullptr);
    EXPECT_FALSE(output.identity);
    EXPECT_FALSE(output.output_in_input);
    EXPECT_FALSE(output.input_modified);
    EXPECT_EQ(output.output, nullptr);
}

TEST_F(ScanItem, ResetDeletesTheAttributesThatAreStillItsOwn) {
    class Watched : public ScanConnectionAttributes {
    public:
        Watched(Connection* session, bool& flag) : ScanConnectionAttributes(session), gone(flag) {}
        ~Watched() override { gone = true; }
        bool& gone;
    };
    Connection session;
    bool gone = false;
    context.connection_attributes = new Watched(&session, gone);
    context.Reset();
    EXPECT_TRUE(gone);
    gone = false;
    {
        ScanContext other;
        other.connection_attributes = new Watched(&session, gone);
    }
    EXPECT_TRUE(gone);
}

TEST_F(ScanItem, ResetOfAContextWithoutAttributesTouchesNothingElse) {
    body.write("content", 7u);
    body.seek(2, 0);
    Connection session;
    context.connection = &session;
    context.Reset();
    EXPECT_EQ(body.size(), 7u);
    EXPECT_EQ(body.seek(0, 1), 2);
    context.Reset();
}

// The properties of a context may be kept by a host when its session has gone.
TEST_F(ScanItem, ACopyOfThePropertiesHoldsTheAttributesThemselves) {
    class Attributed : public Connection {
    public:
        void getConnectionAttributes(IKORPropertyBag* bag) override { bag->NewProperty("FROM")->SetNarrow("a@b"); }
    };
    KORPropertyBag copy;
    {
        Attributed session;
        KORPropertyBag bag;
        bag.NewPropertyBagProperty("ES_SCANRESSUBSTITUTIONS")->SetBag(new ScanConnectionAttributes(&session));
        copy = bag;
    }
    IKORPropertyBag const* const inner = copy.GetProperty("ES_SCANRESSUBSTITUTIONS")->GetBag();
    ASSERT_EQ(inner->Size(), 1);
    EXPECT_STREQ(inner->GetProperty("FROM")->GetNarrow(), "a@b");
}

TEST_F(ScanItem, ReadingAttributesAsksAndWritingDoesNot) {
    class Counting : public Connection {
    public:
        void getConnectionAttributes(IKORPropertyBag*) override { ++asked; }
        int asked = 0;
    };
    Counting session;
    ScanConnectionAttributes attributes(&session);
    ScanConnectionAttributes const& fixed = attributes;
    int asked = 0;
    KORPropertyBag empty;
    fixed.Size();
    EXPECT_EQ(session.asked, ++asked);
    fixed.GetProperty("A");
    EXPECT_EQ(session.asked, ++asked);
    attributes.GetProperty("A");
    EXPECT_EQ(session.asked, ++asked);
    fixed.GetProperty(0L);
    EXPECT_EQ(session.asked, ++asked);
    attributes.GetProperty(0L);
    EXPECT_EQ(session.asked, ++asked);
    attributes.CopyProperties(&empty);
    EXPECT_EQ(session.asked, ++asked);
    attributes.DeleteProperty("A");
    attributes.DeleteProperty(0L);
    attributes.SetEnableCallbacks(true);
    attributes.PropertiesHaveChanged(nullptr, KORPropChange::Cleared);
    attributes.Clear();
    attributes.NewProperty("A");
    EXPECT_EQ(attributes.Size(), 1);
    EXPECT_EQ(session.asked, asked);
}
