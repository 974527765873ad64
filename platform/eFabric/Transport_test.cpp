#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include <eFabric/Transport.h>

namespace {

using eFabric::RecommendedBaseType;

// A transport over a text, which notes the largest request and may take or give less than asked for.
class TextTransport : public eFabric::IStreamTransport {
public:
    explicit TextTransport(std::string content = {}) : content(std::move(content)) {}
    bool get(unsigned char&) override { return false; }
    bool put(unsigned char) override { return false; }
    unsigned long read(unsigned char* to, unsigned long count) override {
        largest = std::max(largest, count);
        unsigned long const units = std::min({count, atOnce, (content.size() - at) / unit()});
        std::memcpy(to, content.data() + at, units * unit());
        at += units * unit();
        return units;
    }
    unsigned long write(unsigned char const* from, unsigned long count) override {
        unsigned long const units = std::min({count, atOnce, room / unit()});
        content.append(reinterpret_cast<char const*>(from), units * unit());
        room -= units * unit();
        return units;
    }
    bool close() override { return true; }
    bool CanSeekTell() override { return true; }
    bool CanReportLength() override { return true; }
    bool seek(unsigned long) override { return false; }
    unsigned long tell() override { return at; }
    unsigned long size() override { return content.size(); }
    bool seteof() override { return false; }
    bool setsize(unsigned long) override { return false; }
    void SetRecommendedBase(RecommendedBaseType b) override { base = b; }
    RecommendedBaseType GetRecommendedBase() override { return base; }
    bool IsReadOnly() override { return false; }
    bool IsModified() override { return false; }
    void SetReadOnly(bool) override {}
    IKORPropertyBag* GetPropertyBag() override { return nullptr; }

    unsigned long unit() const { return base == eFabric::Base_Wide ? 4 : 1; }
    std::string content;
    RecommendedBaseType base = eFabric::Base_Byte;
    unsigned long at = 0, largest = 0, atOnce = ~0UL, room = ~0UL;
};

std::string Pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 >> 3);
    return text;
}

TEST(CopyData, CopiesAllInBlocksOf64KiB) {
    TextTransport from(Pattern(200001)), to;
    EXPECT_EQ(from.CopyData(to, ~0UL), 200001U);
    EXPECT_EQ(to.content, from.content);
    EXPECT_EQ(from.largest, 65536U);
}

TEST(CopyData, StopsAtTheLimit) {
    for (unsigned long const limit : {0UL, 1UL, 65535UL, 65536UL, 65537UL, 100000UL}) {
        TextTransport from(Pattern(100000)), to;
        EXPECT_EQ(from.CopyData(to, limit), limit);
        EXPECT_EQ(to.content, from.content.substr(0, limit));
    }
}

TEST(CopyData, GoesOnAfterShortReadsAndWrites) {
    TextTransport from(Pattern(1000)), to;
    from.atOnce = 7;
    to.atOnce = 3;
    EXPECT_EQ(from.CopyData(to, ~0UL), 1000U);
    EXPECT_EQ(to.content, from.content);
}

TEST(CopyData, TellsHowMuchArrivedWhenTheTargetIsFull) {
    TextTransport from(Pattern(100000)), to;
    to.room = 70000;
    EXPECT_EQ(from.CopyData(to, ~0UL), 70000U);
}

TEST(CopyData, CountsInUnitsOfTheSource) {
    TextTransport from(Pattern(4000)), to;
    from.base = eFabric::Base_Wide;
    EXPECT_EQ(from.CopyData(to, 500), 500U);
    EXPECT_EQ(to.content, from.content.substr(0, 2000));
}

TEST(CopyData, StopsBeforeAPartOfAUnitOfTheTarget) {
    TextTransport from(Pattern(10)), to;
    to.base = eFabric::Base_Wide;
    EXPECT_EQ(from.CopyData(to, ~0UL), 8U);
    EXPECT_EQ(to.content.size(), 8U);
}

TEST(Transports, ReserveNothingByThemselves) {
    TextTransport transport;
    EXPECT_TRUE(transport.reserve(1UL << 40));
}

}  // namespace
