// The loader over files: order of the files, what is missing, what is wrong, and reading them again.
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include <policyloader/store/LoaderWorld.h>

#include "testing/DocExample.h"

namespace policyloader {
namespace {

class Loader : public LoaderWorld {};

TEST_F(Loader, StartsWithoutAnyFile) {
    ASSERT_TRUE(Initialise());
    EXPECT_FALSE(loader.lastError().IsSet());
    EXPECT_EQ(A(), "(null)");
    int status = 7;
    EXPECT_EQ(loader.identities(loader.internAttribute("content_in"), &status)->size(), 0U);
    EXPECT_EQ(status, 1);
}

TEST_F(Loader, AnswersBeforeItIsInitialised) {
    EXPECT_EQ(A(), "(null)");
    EXPECT_FALSE(loader.lastError().IsSet());
    EXPECT_EQ(loader.compareActions(loader.internAttribute("content_in"), "A", "A"), -1);
}

TEST_F(Loader, LaterFilesWin) {
    root.Write("rules.xml", Policies("<set name='a'>rules</set><set name='b'>rules</set><set name='c'>rules</set>"));
    root.Write("product.xml", Policies("<set name='b'>product</set><set name='c'>product</set>"));
    root.Write("proxy.xml", Policies("<set name='c'>proxy</set>"));
    ASSERT_TRUE(Initialise());
    EXPECT_EQ(Text("base", "a", 0) + Text("base", "b", 0) + Text("base", "c", 0), "rulesproductproxy");
}

TEST_F(Loader, ALaterPlainValueReplacesEarlierWindowsAndALaterWindowKeepsThePlainOne) {
    root.Write("rules.xml", Policies("<set name='a' when='mon-sun'>window</set><set name='b'>plain</set>"
                                     "<set name='b' when='mon-sun'>early</set><set name='c'>plain</set>"));
    root.Write("product.xml", Policies("<set name='a'>product</set><set name='b' when='mon-sun'>late</set>"
                                       "<set name='c' when='mon 00:00-00:01'>late</set>"));
    ASSERT_TRUE(Initialise());
    constexpr std::time_t Monday9 = 1609750800;
    EXPECT_EQ(Text("base", "a", Monday9), "product");
    EXPECT_EQ(Text("base", "b", Monday9), "late");
    EXPECT_EQ(Text("base", "c", Monday9), "plain");
}

TEST_F(Loader, LaterFilesAddIdentitiesBehindAndRulesInFront) {
    root.Write("rules.xml",
               "<rules><policy name='content_in'><settings section='s'><rule name='r1'/></settings>"
               "<actions><action>A</action><action>B</action></actions><identity name='i'/></policy></rules>");
    root.Write("proxy.xml",
               "<rules><policy name='content_in'><settings section='s'><rule name='r2'/><rule name='r3'/>"
               "</settings><actions><action>B</action><action>A</action></actions><identity name='j'/>"
               "<identity name='i'/></policy></rules>");
    ASSERT_TRUE(Initialise());
    auto const policy = loader.internAttribute("content_in");
    auto const& list = *loader.identities(policy, nullptr);
    ASSERT_EQ(list.size(), 2U);
    EXPECT_STREQ(list.at(0).c_str(), "i");
    EXPECT_STREQ(list.at(1).c_str(), "j");
    EXPECT_EQ(loader.compareActions(policy, "A", "B"), 2);
    std::string names;
    for (auto const* const rule : loader.view(policy, InternedString(), 0).rules("s")) names += *rule->get("name");
    EXPECT_EQ(names, "r2r3r1");
}

TEST_F(Loader, AMalformedFileEndsTheStartAndSaysWhere) {
    for (auto const* const name : {"rules.xml", "product.xml", "proxy.xml"}) {
        root.Write(name, "<rules>\n  <policy nam='x'/></rules>");
        EXPECT_FALSE(Initialise()) << name;
        auto const& error = loader.lastError();
        ASSERT_TRUE(error.IsSet());
        EXPECT_EQ(error.GetLevel(), KORError_Error);
        EXPECT_EQ(error.GetCode(), 2U);
        EXPECT_EQ(KORtk::Utf8Array(error.GetText()).str(), root / name);
        EXPECT_STREQ(error.GetDetail(), L"<policy> has no attribute 'nam'");
        EXPECT_EQ(error.GetAttribute("file"), root / name);
        EXPECT_STREQ(error.GetAttribute("line"), "2");
        EXPECT_STREQ(error.GetAttribute("column"), "11");
        std::filesystem::remove(root / name);
    }
    EXPECT_EQ(reports.count(), 0);
}

TEST_F(Loader, ReadsAChangedFileAgain) {
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    EXPECT_EQ(A(Later()), "1");
    Replace("rules.xml", SetA("2"));
    EXPECT_EQ(A(Later()), "2");
    root.Write("product.xml", SetA("3"));
    EXPECT_EQ(A(Later()), "3");
    EXPECT_EQ(reports.count(), 0);
}

TEST_F(Loader, LooksAtMostOncePerFiveSecondsOfTheTimeAskedFor) {
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    std::time_t const looked = Later();
    EXPECT_EQ(A(looked), "1");
    Replace("rules.xml", SetA("2"));
    for (std::time_t second = 0; second < PolicyLoader::LookInterval; ++second) EXPECT_EQ(A(looked + second), "1");
    EXPECT_EQ(A(looked + PolicyLoader::LookInterval), "2");
}

TEST_F(Loader, LooksAgainWhenTheClockWasSetBack) {
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    EXPECT_EQ(A(Later()), "1");
    Replace("rules.xml", SetA("2"));
    EXPECT_EQ(A(now - 1000), "2");
}

TEST_F(Loader, AMalformedChangeIsReportedOnceAndTheOldStateStays) {
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    Replace("rules.xml", "<rules>\n<broken></rules>");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(A(Later()), "1");
    EXPECT_EQ(reports.count(), 1);
    EXPECT_EQ(reports.last().substr(0, (root / "rules.xml:2:").size()), root / "rules.xml:2:");
    EXPECT_STREQ(loader.lastError().GetAttribute("line"), "2");
    Replace("rules.xml", SetA("2"));
    EXPECT_EQ(A(Later()), "2");
}

TEST_F(Loader, AVanishedFileIsReportedOnceAndItsStateStays) {
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    std::filesystem::remove(root / "rules.xml");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(A(Later()), "1");
    EXPECT_EQ(reports.count(), 1);
    EXPECT_NE(reports.last().find("is gone"), std::string::npos);
    root.Write("rules.xml", SetA("2"));
    EXPECT_EQ(A(Later()), "2");
}

TEST_F(Loader, TheSameContentMakesNoNewState) {
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    auto const find = [&](std::time_t when) {
        return loader.productValue(loader.internAttribute("base"), InternedString(), loader.internSettings("s"),
                                   loader.internAttribute("a"), when, nullptr);
    };
    auto const* const before = find(Later());
    Replace("rules.xml", SetA("1"));
    EXPECT_EQ(find(Later()), before);
}

TEST_F(Loader, ValuesAndTextsOutliveAReload) {
    root.Write("rules.xml", SetA("first"));
    ASSERT_TRUE(Initialise());
    char const* text = nullptr;
    auto const* const value =
        loader.productValue(loader.internAttribute("base"), InternedString(), loader.internSettings("s"),
                            loader.internAttribute("a"), Later(), nullptr);
    auto const view = loader.view(loader.internAttribute("base"), InternedString(), now);
    Replace("rules.xml", SetA("second"));
    EXPECT_EQ(A(Later()), "second");
    ASSERT_TRUE(value->getString(&text));
    EXPECT_STREQ(text, "first");
    EXPECT_EQ(view.text("s", "a"), "first");
}

TEST_F(Loader, NeedsNoPerProxyFileAndNoStatus) {
    root.Write("rules.xml", SetA("1"));
    eFabric::eConfig config;
    config.rules = KORtk::Utf8Array(root / "rules.xml").wstr();
    ASSERT_TRUE(loader.initialise(config, 0, nullptr));
    EXPECT_EQ(A(), "1");
    EXPECT_EQ(loader.productValue(loader.internAttribute("base"), InternedString(), loader.internSettings("s"),
                                  loader.internAttribute("b"), 0, nullptr),
              nullptr);
}

// The epoch was a Thursday's first minute.
TEST_F(Loader, TakesZeroAsNow) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    constexpr std::time_t WeekMinutes = 7 * 24 * 60;
    if ((std::time(nullptr) + 60) / 60 % WeekMinutes < 2) GTEST_SKIP() << "it is that minute of the week";
    root.Write("rules.xml", Policies("<set name='a' when='thu 00:00-00:01'>epoch</set><set name='a'>now</set>"));
    ASSERT_TRUE(Initialise());
    EXPECT_EQ(A(1), "epoch");
    EXPECT_EQ(A(0), "now");
}

// The report of a malformed change is made in the middle of the load. Whoever reads then, on whichever thread, gets the
// state that stands: with a lock on the way this test would not end.
TEST_F(Loader, NobodyWaitsForTheThreadThatLoads) {
    static Loader_NobodyWaitsForTheThreadThatLoads_Test* s_test;
    static std::string s_seen;
    s_test = this;
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    eFabric::ExchangeReportSink([](std::string const&) {
        s_seen = s_test->A(s_test->Later());
        std::thread([] { s_seen += s_test->A(s_test->Later()); }).join();
    });
    Replace("rules.xml", "<rules>");
    EXPECT_EQ(A(Later()), "1");
    EXPECT_EQ(s_seen, "11");
}

TEST_F(Loader, NullTextsInternToNull) {
    EXPECT_FALSE(loader.internAttribute(nullptr));
    EXPECT_FALSE(loader.internSettings(nullptr));
    EXPECT_EQ(loader.internAttribute("x"), loader.internSettings("x"));
}

TEST_F(Loader, AForkedChildReadsAndReloads) {
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    EXPECT_EQ(A(Later()), "1");
    Replace("rules.xml", SetA("2"));
    ::pid_t const child = ::fork();
    if (child == 0) ::_exit(A(Later()) == "2" ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// The child is made while a thread of its parent is in the middle of a load, which nobody in the child will end.
TEST_F(Loader, AChildForkedAmidALoadReadsAndReloads) {
    static Loader_AChildForkedAmidALoadReadsAndReloads_Test* s_test;
    static ::pid_t s_child;
    s_test = this;
    root.Write("rules.xml", SetA("1"));
    ASSERT_TRUE(Initialise());
    eFabric::ExchangeReportSink([](std::string const&) {
        s_child = ::fork();
        if (s_child != 0) return;
        s_test->Replace("rules.xml", s_test->SetA("2"));
        ::_exit(s_test->A(s_test->Later()) == "2" ? 0 : 1);
    });
    Replace("rules.xml", "<rules>");
    EXPECT_EQ(A(Later()), "1");
    int status = -1;
    ASSERT_EQ(::waitpid(s_child, &status, 0), s_child);
    EXPECT_EQ(status, 0);
}

TEST_F(Loader, TheDocumentedExampleLoads) {
    root.Write("rules.xml", velt_testing::DocExample(DOCS "/formats/rules-xml.md", "xml"));
    ASSERT_TRUE(Initialise());
    auto const in = [&](char const* text) { return loader.internAttribute(text); };
    auto const at = [&](char const* policy, char const* identity, std::time_t when) {
        return loader.view(in(policy), in(identity), when);
    };
    constexpr std::time_t Wednesday = 1609934400, Saturday = 1610193600;  // noon UTC, the same day in most places
    EXPECT_EQ(at("base", nullptr, Wednesday).number("network", "Timeout", 0), 60U);
    EXPECT_EQ(at("protocol_in", nullptr, Wednesday).list("network", "BindPorts").size(), 2U);
    EXPECT_EQ(at("content_in", nullptr, Wednesday).real("SpamScanner", "Threshold", 0), 0);
    EXPECT_EQ(at("content_in", "staff", Wednesday).real("SpamScanner", "Threshold", 0), 5);
    EXPECT_EQ(at("content_in", "staff", Saturday).real("SpamScanner", "Threshold", 0), 3);
    EXPECT_EQ(at("content_in", "executives", Saturday).real("SpamScanner", "Threshold", 0), 8);
    EXPECT_EQ(at("content_in", "executives", Wednesday).text("SpamScanner", "Action"), "LOG");
    EXPECT_EQ(at("content_in", nullptr, Wednesday).rules("KORContentScanner").size(), 1U);
    EXPECT_EQ(loader.compareActions(in("content_in"), "DENY", "CLEAN"), 2);
    EXPECT_EQ(loader.identities(in("content_in"), nullptr)->size(), 2U);
}

TEST(Exports, GiveOneLoaderWhateverTheNumbers) {
    ShutdownPolicyLoader();
    auto* const loader = CreatePolicyLoader(3, 1);
    ASSERT_NE(loader, nullptr);
    EXPECT_EQ(CreatePolicyLoader(3, 1), loader);
    EXPECT_EQ(CreatePolicyLoader(0, -1), loader);
}

TEST(Exports, AfterShutdownThereAreNoScanThreads) {
    auto* const loader = CreatePolicyLoader(3, 1);
    ShutdownPolicyLoader();
    ShutdownPolicyLoader();
    EXPECT_EQ(loader->createScanThread(loader->internAttribute("content_in")), nullptr);
    EXPECT_TRUE(loader->lastError().IsSet());
}

TEST(Errors, ListTheirAttributes) {
    ErrorState error;
    long pos = 0;
    EXPECT_FALSE(error.IsSet());
    EXPECT_EQ(error.FirstAttribute(pos), nullptr);
    error.Set(KORError_Fatal, 5, "text", "detail");
    error.SetAttribute("file", "f");
    error.SetAttribute("line", "1");
    error.SetAttribute("line", "2");
    EXPECT_STREQ(error.FirstAttribute(pos), "file");
    EXPECT_STREQ(error.NextAttribute(pos), "line");
    EXPECT_EQ(error.NextAttribute(pos), nullptr);
    EXPECT_STREQ(error.GetAttribute("line"), "2");
    EXPECT_EQ(error.GetAttribute("none"), nullptr);
    EXPECT_EQ(error.GetAttribute(nullptr), nullptr);
    error.Clear();
    EXPECT_FALSE(error.IsSet());
}

}  // namespace
}  // namespace policyloader
