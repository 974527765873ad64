// A file that changes while the loader runs: taken up at the next look, or not at all and said once.
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

#include <policyloader/store/LoaderWorld.h>
#include <policyloader/store/StoreFiles.h>
#include <policyloader/store/StorePool.h>

namespace policyloader {
namespace {

class LiveChange : public LoaderWorld {
protected:
    void SetUp() override {
        root.Write("rules.xml", SetA("1"));
        ASSERT_TRUE(Initialise());
        ASSERT_EQ(A(Later()), "1");
    }
    // Over the file that is there: the same place on disk.
    void WriteInPlace(char const* name, std::string const& content) { std::ofstream(root / name) << content; }
    void SetTime(char const* name, ::timespec modified) const {
        ::timespec const times[] = {modified, modified};
        ASSERT_EQ(::utimensat(AT_FDCWD, (root / name).c_str(), times, 0), 0);
    }
    ::timespec TimeOf(char const* name) const {
        struct stat status {};
        EXPECT_EQ(::stat((root / name).c_str(), &status), 0);
        return status.st_mtim;
    }
    // What the loader says of this content, which it is not to take up, over three looks.
    std::string Refused(std::string const& content) {
        int const before = reports.count();
        Replace("rules.xml", content);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(A(Later()), "1") << content;
        EXPECT_EQ(reports.count(), before + 1) << content;
        return reports.last();
    }
};

TEST_F(LiveChange, ShowsInAnotherSizeAtTheSameTime) {
    auto const time = TimeOf("rules.xml");
    WriteInPlace("rules.xml", SetA("two"));
    SetTime("rules.xml", time);
    EXPECT_EQ(A(Later()), "two");
}

TEST_F(LiveChange, ShowsInAnotherPlaceOnDiskOfTheSameTimeAndSize) {
    auto const time = TimeOf("rules.xml");
    Replace("rules.xml", SetA("2"));
    SetTime("rules.xml", time);
    EXPECT_EQ(A(Later()), "2");
}

TEST_F(LiveChange, ShowsInTheSamePlaceWithTheSameTimeAndSize) {
    auto const time = TimeOf("rules.xml");
    WriteInPlace("rules.xml", SetA("2"));
    SetTime("rules.xml", time);
    EXPECT_EQ(A(Later()), "2");
}

// Times on disk may go in steps: a change within the same step as the last leaves no trace.
TEST_F(LiveChange, IsLookedForAgainWhereAFileIsTooFreshToShowIt) {
    WriteInPlace("rules.xml", SetA("2"));
    StoreFiles fresh({root / "rules.xml"}, std::make_shared<StorePool>());
    fresh.load();
    EXPECT_TRUE(fresh.haveChanged()) << "nothing did, but something might have";
    EXPECT_EQ(fresh.reload(), nullptr);
    StoreFiles none({root / "no.xml"}, std::make_shared<StorePool>());
    none.load();
    EXPECT_FALSE(none.haveChanged());
}

TEST_F(LiveChange, TakesEachOfThreeFiles) {
    for (auto const* const name : {"rules.xml", "product.xml", "proxy.xml"}) {
        Replace(name, SetA(name));
        EXPECT_EQ(A(Later()), name);
    }
    EXPECT_EQ(reports.count(), 0);
}

TEST_F(LiveChange, TakesThreeFilesAtOnce) {
    Replace("rules.xml", Policies("<set name='a'>2</set><set name='b'>2</set><set name='c'>2</set>"));
    Replace("product.xml", Policies("<set name='b'>3</set><set name='c'>3</set>"));
    Replace("proxy.xml", Policies("<set name='c'>4</set>"));
    EXPECT_EQ(A(Later()), "2");
    EXPECT_EQ(Text("base", "b", now), "3");
    EXPECT_EQ(Text("base", "c", now), "4");
}

TEST_F(LiveChange, IsNotTakenInPartWhenOneOfThreeFilesIsWrong) {
    Replace("rules.xml", SetA("2"));
    Replace("product.xml", "<rules>\n<policy/></rules>");
    Replace("proxy.xml", SetA("2"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(A(Later()), "1");
    EXPECT_EQ(reports.count(), 1);
    EXPECT_EQ(reports.last(), (root / "product.xml") + ":2:1: <policy> lacks its attribute 'name'");
    Replace("product.xml", "<rules/>");
    EXPECT_EQ(A(Later()), "2");
}

struct Wrong {
    char const* inside;
    char const* error;  // after the name of the file
};
constexpr Wrong Wrongs[] = {
    {"<policy name='p'>", ":2:20: Start-end tags mismatch"},
    {"<polisy/>", ":2:1: <polisy> is not expected here, in <rules>"},
    {"<policy name='p' base='ghost'/>", ":2:18: base policy 'ghost' does not exist"},
    {"<policy name='p' base='p'/>", ":2:18: policy 'p' is its own base in a circle"},
    {"<policy name='base' base='q'/>\n<policy name='q' base='base'/>", ":3:18: policy 'q' is its own base in a circle"},
    {"<policy name='p'><identity name='i' inherits='ghost'/></policy>",
     ":2:37: identity 'ghost' does not exist in this policy"},
    {"<policy name='p'><identity name='i' inherits='j'/>\n<identity name='j' inherits='i'/></policy>",
     ":3:20: identity 'i' inherits itself in a circle"},
    {"<policy name='p'><settings section='s'>\n<set name='a' when='noon'>2</set></settings></policy>",
     ":3:15: 'noon' is no day (mon, tue, wed, thu, fri, sat, sun)"},
};

TEST_F(LiveChange, ThatIsWrongIsSaidOnceWithFileLineAndReason) {
    for (auto const& [inside, error] : Wrongs) {
        auto const said = Refused("<rules>\n" + std::string(inside) + "</rules>");
        EXPECT_EQ(said, (root / "rules.xml") + error);
        EXPECT_STRNE(loader.lastError().GetAttribute("line"), "0") << said;
        EXPECT_EQ(loader.lastError().GetAttribute("file"), root / "rules.xml");
    }
    Replace("rules.xml", SetA("2"));
    EXPECT_EQ(A(Later()), "2");
}

TEST_F(LiveChange, ToWhatCannotBeReadIsSaidOnce) {
    std::filesystem::remove(root / "rules.xml");
    std::filesystem::create_directory(root / "rules.xml");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(A(Later()), "1");
    EXPECT_EQ(reports.count(), 1);
    EXPECT_EQ(reports.last(), (root / "rules.xml") + ": is not a regular file");
    std::filesystem::remove(root / "rules.xml");
    std::filesystem::create_symlink("rules.xml", root / "rules.xml");  // leads to itself
    for (int i = 0; i < 3; ++i) EXPECT_EQ(A(Later()), "1");
    EXPECT_EQ(reports.count(), 2);
    EXPECT_EQ(reports.last(), (root / "rules.xml") + ": Too many levels of symbolic links");
    Replace("rules.xml", SetA("2"));
    EXPECT_EQ(A(Later()), "2");
    EXPECT_EQ(reports.count(), 2);
}

TEST_F(LiveChange, ThatIsWrongAndTouchedIsNotSaidAgain) {
    Refused("<rules>");
    Replace("rules.xml", "<rules>");
    EXPECT_EQ(A(Later()), "1");
    SetTime("rules.xml", {1, 0});
    EXPECT_EQ(A(Later()), "1");
    EXPECT_EQ(reports.count(), 1);
}

TEST_F(LiveChange, ThatIsWrongInAnotherWayIsSaidAgain) {
    auto const first = Refused("<rules>");
    auto const second = Refused("<rules>\n");
    EXPECT_NE(first.substr(0, first.find(": ")), second.substr(0, second.find(": ")));
}

TEST_F(LiveChange, ThatIsWrongTheSameWayAfterItWasRightIsSaidAgain) {
    Refused("<rules>");
    Replace("rules.xml", SetA("1"));
    EXPECT_EQ(A(Later()), "1");
    Refused("<rules>");
    EXPECT_EQ(reports.count(), 2);
}

TEST_F(LiveChange, ToNoProductFileKeepsWhatItSaid) {
    Replace("product.xml", SetA("product"));
    EXPECT_EQ(A(Later()), "product");
    std::filesystem::remove(root / "product.xml");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(A(Later()), "product");
    EXPECT_EQ(reports.count(), 1);
    EXPECT_EQ(reports.last(), (root / "product.xml") + ": is gone; what it said stays in force until it is back");
    Replace("rules.xml", SetA("2"));
    EXPECT_EQ(A(Later()), "product");
    Replace("product.xml", "<rules/>");
    EXPECT_EQ(A(Later()), "2");
}

// A writer that does not rename: each part of the file is there for a while.
TEST_F(LiveChange, IsNotTakenHalfWritten) {
    auto const whole = SetA("2");
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        WriteInPlace("rules.xml", whole.substr(0, cut));
        EXPECT_EQ(A(Later()), "1") << "cut at " << cut;
    }
    EXPECT_EQ(reports.count(), static_cast<int>(whole.size()));
    WriteInPlace("rules.xml", whole);
    EXPECT_EQ(A(Later()), "2");
}

TEST_F(LiveChange, IsNotLookedForWhenAnotherThreadLookedASecondAhead) {
    Replace("rules.xml", SetA("2"));
    for (std::time_t behind = 1; behind < PolicyLoader::LookInterval; ++behind) EXPECT_EQ(A(now - behind), "1");
    EXPECT_EQ(A(now - PolicyLoader::LookInterval), "2");
}

TEST_F(LiveChange, OfWindowsAppliesToWhatIsReadFromThen) {
    constexpr std::time_t Day = 24 * 60 * 60;
    Replace("rules.xml", Policies("<set name='a'>1</set><set name='a' when='mon-sun'>open</set>"));
    EXPECT_EQ(A(now += Day), "open");
    Replace("rules.xml", Policies("<set name='a'>1</set><set name='a' when='mon-sun 00:00-24:00'>still</set>"));
    EXPECT_EQ(A(now += Day), "still");
    Replace("rules.xml", Policies("<set name='a' when='mon-sun'>back</set>"));
    EXPECT_EQ(A(now += Day), "back");
}

TEST_F(LiveChange, ShowsInTheSources) {
    auto const find = [&] {
        auto const in = [&](char const* text) { return loader.internAttribute(text); };
        return loader.sources().find(in("base"), InternedString(), in("s"), in("a"), now);
    };
    auto const before = find();
    Replace("rules.xml",
            "<rules>\n\n<policy name='base'><settings section='s'><set name='a'>2</set></settings></policy>"
            "</rules>");
    A(Later());
    auto const after = find();
    ASSERT_TRUE(before && after);
    EXPECT_EQ(before->place.line, 1U);
    EXPECT_EQ(after->place.line, 3U);
    EXPECT_STREQ(after->value->text(), "2");
    EXPECT_EQ(after->value, Value("base", "a", now));
}

// The files are renamed into place one after the other, always in the same order, so no file is ever ahead of the one
// before it, and at most one step behind.
TEST_F(LiveChange, NeverMixesWhatWasOnDiskAtNoTime) {
    constexpr char const* Names[] = {"rules.xml", "product.xml", "proxy.xml"};
    std::string const filler(200000, ' ');  // makes a read take a while
    auto const content = [&](std::size_t file, int step) {
        return Policies("<set name='" + std::string(1, static_cast<char>('x' + file)) + "'>" + std::to_string(step) +
                        "</set>" + filler);
    };
    for (std::size_t file = 0; file < 3; ++file) root.Write(Names[file], content(file, 0));
    StoreFiles files({root / Names[0], root / Names[1], root / Names[2]}, std::make_shared<StorePool>());
    files.load();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int step = 1; !done; ++step) {
            for (std::size_t file = 0; file < 3; ++file) Replace(Names[file], content(file, step));
            if (step % 4 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));  // so that some reads succeed
        }
    });
    int taken = 0;
    for (int look = 0; look < 100000 && taken < 30; ++look) {
        auto const* const fresh = files.haveChanged() ? files.reload() : nullptr;
        if (!fresh) continue;
        ++taken;
        auto const view = fresh->view(loader.internAttribute("base"), InternedString(), now);
        unsigned const x = view.number("s", "x", 0), y = view.number("s", "y", 0), z = view.number("s", "z", 0);
        EXPECT_TRUE(x >= y && y >= z && z + 1 >= x) << x << ' ' << y << ' ' << z;
    }
    done = true;
    writer.join();
    EXPECT_GT(taken, 0);
}

}  // namespace
}  // namespace policyloader
