// What reloads leave behind in memory: what is new, and nothing else.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <eFabric/XmlFile.h>
#include <policyloader/store/LoaderWorld.h>
#include <policyloader/store/StoreFiles.h>
#include <policyloader/store/StorePool.h>

#include "testing/DocExample.h"

namespace policyloader {
namespace {

#ifdef VELT_SANITIZED
constexpr bool CountsBytes = false;  // the sanitizers' allocator keeps what is freed
#else
constexpr bool CountsBytes = true;
#endif

class Growth : public LoaderWorld {
protected:
    static std::string Example() { return velt_testing::DocExample(DOCS "/formats/rules-xml.md", "xml"); }
    static std::string With(std::string text, std::string const& from, std::string const& to) {
        return text.replace(text.find(from), from.size(), to);
    }
    static std::string WithTimeout(int seconds) { return With(Example(), ">60<", '>' + std::to_string(seconds) + '<'); }

    static std::size_t BytesInUse() {
        auto const in = ::mallinfo2();
        return in.uordblks + in.hblkhd;
    }
    // Bytes that one load of each of these contents in turn leaves behind, over many.
    template <class ContentOf>
    double PerReload(int reloads, ContentOf contentOf) {
        Replace("rules.xml", contentOf(0));
        A(Later());
        auto const before = BytesInUse();
        for (int i = 1; i <= reloads; ++i) {
            Replace("rules.xml", contentOf(i));
            A(Later());
        }
        auto const after = BytesInUse();
        return (static_cast<double>(after) - static_cast<double>(before)) / reloads;
    }
    std::size_t Parts() const { return StorePartCount(*pool); }
    static std::size_t StorePartCount(StorePool const& pool) {
        return pool.values.size() + pool.rules.size() + pool.windows.size() + pool.chains.size() +
               pool.settings.size() + pool.ruleBlocks.size() + pool.actions.size() + pool.identities.size() +
               pool.plans.size() + pool.names.size() + pool.tables.size();
    }
    void LoadAlone(std::string const& content) {
        Replace("rules.xml", content);
        if (files.newest())
            files.reload();
        else
            files.load();
    }

    std::shared_ptr<StorePool> pool = std::make_shared<StorePool>();
    StoreFiles files{{root / "rules.xml"}, pool};
};

TEST_F(Growth, OfOneChangedValueIsThatValueAndTheTablesThatShowIt) {
    LoadAlone(WithTimeout(60));
    auto const before = Parts();
    auto const values = pool->values.size(), identities = pool->settings.size();
    LoadAlone(WithTimeout(61));
    EXPECT_EQ(pool->values.size(), values + 1);
    // "base" has it, and all other policies of the example see what "base" and "content" have: two tables.
    EXPECT_EQ(pool->settings.size(), identities + 2);
    EXPECT_EQ(pool->tables.size(), 2U);
    EXPECT_LE(Parts(), before + 15);
}

TEST_F(Growth, IsNoneForAContentThatComesBack) {
    LoadAlone(WithTimeout(60));
    auto const* const first = &files.newest()->tables();
    LoadAlone(WithTimeout(61));
    auto const parts = Parts();
    for (int i = 0; i < 10; ++i) LoadAlone(WithTimeout(60 + i % 2));
    EXPECT_EQ(Parts(), parts);
    LoadAlone(WithTimeout(60));
    EXPECT_EQ(&files.newest()->tables(), first);
}

TEST_F(Growth, IsNoneForCommentsAndLayout) {
    LoadAlone(WithTimeout(60));
    auto const parts = Parts();
    LoadAlone(With(WithTimeout(60), "</policy>\n</rules>", "</policy><!-- a comment -->\n\n</rules>"));
    EXPECT_EQ(Parts(), parts);
}

TEST_F(Growth, IsNoneForWhatDoesNotLoad) {
    LoadAlone(WithTimeout(60));
    auto const parts = Parts();
    for (int i = 0; i < 10; ++i) {
        Replace("rules.xml", WithTimeout(100 + i) + '<');
        EXPECT_THROW(files.reload(), eFabric::XmlError);
    }
    EXPECT_EQ(Parts(), parts);
}

TEST_F(Growth, OfManyReloadsIsWhatTheManualSays) {
    Replace("rules.xml", WithTimeout(0));
    ASSERT_TRUE(Initialise());
    int const reloads = !CountsBytes ? 50 : std::getenv("FULL") ? 1000 : 200;
    double const changing = PerReload(reloads, [](int i) { return WithTimeout(1 + i); });
    double const returning = PerReload(reloads, [](int i) { return WithTimeout(60 + i % 2); });
    double const refused = PerReload(reloads, [](int i) { return WithTimeout(60) + std::string(1U + i % 2, '<'); });
    if (!CountsBytes) return;
    std::printf("bytes kept per reload of the example: %.0f with a new value, %.0f with one of two, %.0f refused\n",
                changing, returning, refused);
    EXPECT_LE(changing, 8192);
    EXPECT_LE(returning, 64);
    EXPECT_LE(refused, 2048);
}

// A provider: 500 customers with three settings each, 50 settings for all, one of which changes.
TEST_F(Growth, OfALargeFileIsBoundedByItsPoliciesAndIdentities) {
    constexpr int Customers = 500, Shared = 50;
    auto const settings = [](int count, std::string const& value) {
        std::string text = "<settings section='s'>";
        for (int i = 0; i < count; ++i) text += "<set name='n" + std::to_string(i) + "'>" + value + "</set>";
        return text + "</settings>";
    };
    std::string customers;
    for (int i = 0; i < Customers; ++i)
        customers += "<identity name='c" + std::to_string(i) + "'>" + settings(3, std::to_string(i)) + "</identity>";
    auto const content = [&](int i) {
        return "<rules><policy name='base'>" + settings(Shared, "x") + "<settings section='t'><set name='a'>" +
               std::to_string(i) + "</set></settings></policy><policy name='content_in'>" + customers +
               "</policy></rules>";
    };
    Replace("rules.xml", content(0));
    ASSERT_TRUE(Initialise());
    double const kept = PerReload(CountsBytes ? 20 : 2, [&](int i) { return content(i + 1); });
    if (!CountsBytes) return;
    std::printf("bytes kept per reload: %.0f, %.0f for each identity\n", kept, kept / Customers);
    EXPECT_LE(kept, 256.0 * (Customers + Shared));
}

}  // namespace
}  // namespace policyloader
