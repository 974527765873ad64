#include "velt/scanning/StreamTransport.h"

#include <gtest/gtest.h>

using namespace VELT;
using eFabric::RecommendedBaseType;

namespace {

class StreamTransportTest : public testing::Test {
protected:
    StreamTransportTest() { stream.write("0123456789abcdef", 16u); }

    ScannerStream stream{4096u};
    StreamTransport transport{stream};
    unsigned char buffer[32] = {};
};

TEST_F(StreamTransportTest, ReadsAndWritesBytesByDefault) {
    ASSERT_TRUE(transport.seek(0));
    EXPECT_EQ(transport.read(buffer, 4), 4u);
    EXPECT_EQ(std::string(buffer, buffer + 4), "0123");
    EXPECT_EQ(transport.write(reinterpret_cast<unsigned char const*>("XY"), 2), 2u);
    EXPECT_TRUE(transport.IsModified());
    ASSERT_TRUE(transport.seek(4));
    unsigned char byte = 0;
    EXPECT_TRUE(transport.get(byte));
    EXPECT_EQ(byte, 'X');
    EXPECT_TRUE(transport.put('Z'));
    EXPECT_EQ(transport.tell(), 6u);
}

TEST_F(StreamTransportTest, CountsWideElementsOfFourBytes) {
    transport.SetRecommendedBase(eFabric::Base_Wide);
    EXPECT_EQ(transport.GetRecommendedBase(), eFabric::Base_Wide);
    ASSERT_TRUE(transport.seek(0));
    EXPECT_EQ(transport.read(buffer, 3), 3u);
    EXPECT_EQ(transport.tell(), 12u);
    EXPECT_EQ(transport.read(buffer, 3), 1u);
    transport.SetRecommendedBase(eFabric::Base_Text);
    ASSERT_TRUE(transport.seek(0));
    EXPECT_EQ(transport.read(buffer, 3), 3u);
    EXPECT_EQ(transport.tell(), 3u);
}

TEST_F(StreamTransportTest, ABaseOfNoneChangesNothing) {
    transport.SetRecommendedBase(eFabric::Base_Wide);
    transport.SetRecommendedBase(eFabric::Base_None);
    EXPECT_EQ(transport.GetRecommendedBase(), eFabric::Base_Wide);
    ASSERT_TRUE(transport.seek(0));
    EXPECT_EQ(transport.read(buffer, 1), 1u);
    EXPECT_EQ(transport.tell(), 4u);
}

TEST_F(StreamTransportTest, ABaseItDoesNotKnowIsKeptWithTheElementsOfTheOneBefore) {
    transport.SetRecommendedBase(eFabric::Base_Wide);
    transport.SetRecommendedBase(static_cast<eFabric::RecommendedBaseType>(7));
    EXPECT_EQ(transport.GetRecommendedBase(), 7);
    ASSERT_TRUE(transport.seek(0));
    EXPECT_EQ(transport.read(buffer, 1), 1u);
    EXPECT_EQ(transport.tell(), 4u);
}

TEST_F(StreamTransportTest, ReadOnlyTakesNoWrite) {
    transport.SetReadOnly(true);
    EXPECT_TRUE(transport.IsReadOnly());
    EXPECT_EQ(transport.write(buffer, 4), 0u);
    EXPECT_FALSE(transport.put('x'));
    EXPECT_FALSE(transport.IsModified());
    EXPECT_EQ(transport.size(), 16u);
}

TEST_F(StreamTransportTest, SeeksToTheEndAndNoFurther) {
    EXPECT_TRUE(transport.seek(16));
    EXPECT_FALSE(transport.seek(17));
    unsigned char byte = 0;
    EXPECT_FALSE(transport.get(byte));
}

TEST_F(StreamTransportTest, CutsAtTheCursor) {
    ASSERT_TRUE(transport.seek(5));
    EXPECT_TRUE(transport.seteof());
    EXPECT_EQ(transport.size(), 5u);
    EXPECT_TRUE(transport.setsize(2));
    EXPECT_EQ(stream.size(), 2u);
}

TEST_F(StreamTransportTest, AnswersTheExternalBagOnceThereIsOne) {
    IKORPropertyBag* const own = transport.GetPropertyBag();
    ASSERT_NE(own, nullptr);
    KORPropertyBag external;
    transport.setExternalBag(&external);
    EXPECT_EQ(transport.GetPropertyBag(), &external);
    EXPECT_TRUE(transport.close());
    EXPECT_TRUE(transport.CanSeekTell());
    EXPECT_TRUE(transport.CanReportLength());
}

TEST_F(StreamTransportTest, ElementsOfABaseOfNoneHaveNoSize) {
    struct Open : StreamTransport {
        using StreamTransport::StreamTransport;
        void BeNone() {
            base = eFabric::Base_None;
            setBaseSize();
        }
    } none(stream);
    none.BeNone();
    ASSERT_TRUE(none.seek(0));
    EXPECT_EQ(none.read(buffer, 4), 0u);
    EXPECT_EQ(none.write(buffer, 4), 0u);
    EXPECT_EQ(none.tell(), 0u);
    EXPECT_EQ(none.size(), 16u);
}

// Cutting at the cursor asks a derived transport for both of its steps.
TEST_F(StreamTransportTest, CuttingAtTheCursorGoesThroughWhatIsOverridden) {
    struct Derived : StreamTransport {
        using StreamTransport::StreamTransport;
        unsigned long tell() override { return 7; }
        bool setsize(unsigned long size) override { return asked = size, true; }
        unsigned long asked = 0;
    } derived(stream);
    EXPECT_TRUE(derived.seteof());
    EXPECT_EQ(derived.asked, 7u);
    EXPECT_EQ(stream.size(), 16u);
}

}  // namespace
