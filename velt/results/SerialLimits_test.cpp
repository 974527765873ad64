// What a verdict from the wire may cost: counts, indices, paths and lines beyond all measure take no memory, and what
// comes of them is what a cut one gives.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include <velt/results/SerialDecoding.h>
#include <velt/results/SerialTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

// The same piece again and again, to an end that may lie far away; it lies nowhere in memory.
class Repeated : public BufferedStream {
public:
    Repeated(std::string head, std::string piece, unsigned long length)
        : m_pool(65536, 0), m_head(std::move(head)), m_piece(std::move(piece)), m_left(length) {}
    ~Repeated() override { reset_buffered_stream(); }
    int read(char* data, unsigned length, unsigned* received) override {
        std::string& from = m_head.empty() ? m_piece : m_head;
        bool const fromHead = !m_head.empty();
        unsigned filled = 0;
        while (filled < length && (fromHead ? !m_head.empty() : m_left > 0)) {
            std::size_t const count =
                std::min<unsigned long>({length - filled, from.size() - m_at, m_left + m_head.size()});
            std::memcpy(data + filled, from.data() + m_at, count);
            filled += static_cast<unsigned>(count);
            if (fromHead) {
                m_head.erase(0, count);
                continue;
            }
            m_left -= count;
            m_at = (m_at + count) % m_piece.size();
        }
        taken += filled;
        *received = filled;
        return 0;
    }
    int write(char const*, unsigned, unsigned*) override { return 0; }
    int writev(unsigned, unsigned*, char const**, unsigned*) override { return 0; }
    BufferPool* get_pool() override { return &m_pool; }

    unsigned long taken = 0;

private:
    BufferPool m_pool;
    std::string m_head, m_piece;
    std::size_t m_at = 0;
    unsigned long m_left;
};

// In a process of its own, which has 256 MiB of addresses and no more.
void ExpectWithin256MiB(std::function<bool()> const& holds) {
    auto const limited = [&] {
#ifndef VELT_SANITIZED  // shadow memory takes more
        rlimit const most{256ul << 20, 256ul << 20};
        if (::setrlimit(RLIMIT_AS, &most) != 0) std::_Exit(2);
#endif
        std::_Exit(holds() ? 0 : 1);
    };
    EXPECT_EXIT(limited(), testing::ExitedWithCode(0), "");
}

IKORPropertyBag const* BagOf(Verdict const& verdict) {
    long position = 0;
    IKORScanResult const* const result = verdict ? verdict->FindFirstScanResult(position) : nullptr;
    return result ? result->GetPropertyBag() : nullptr;
}

std::string Path(unsigned segments) {
    std::string path;
    for (unsigned i = 1; i < segments; ++i) path += "b.";
    return path + "x";
}

}  // namespace

TEST(HostileVerdict, CountsOfAnySizeCostWhatCame) {
    for (char const* count : {"9223372036854775807", "4611686018427387904", "67108865", "99999999999999999999"}) {
        ExpectWithin256MiB([=] {
            std::string const start = std::string(" ss ") + count + "\nabc";
            bool const narrow = !Read("msr.action" + start) && !Read("msr.infection_description" + start) &&
                                !Read("msr.sr.result\nclassname" + start);
            bool const wide = !Read("msr.sr.result\ninfectionlist " + std::string(count) + "\nabcd") &&
                              !Read("msr.sr.result\nscanpolcontext scan_context_string " + std::string(count) + "\nab");
            bool ended = true;
            Verdict const verdict = Read("msr.sr.result\nproperty .t" + start, &ended);
            return narrow && wide && !ended && BagOf(verdict) && PropertyOf(*BagOf(verdict), "t")->GetCount() == 0;
        });
    }
}

TEST(HostileVerdict, NegativeCountsFailInNarrowTextAndAreNoneInWideText) {
    for (char const* count : {"-1", "-9223372036854775808"}) {
        EXPECT_EQ(Read("msr.action ss " + std::string(count) + "\n\n"), nullptr);
        EXPECT_EQ(Read("msr.sr.result\nclassname ss " + std::string(count) + "\n\n"), nullptr);
        Verdict const verdict = Read("msr.sr.result\ninfectionlist " + std::string(count) + "\nproperty .t ss " +
                                     count + "\nproperty .n sl 1\n\n\n");
        ASSERT_NE(BagOf(verdict), nullptr);
        long position = 0;
        EXPECT_EQ(verdict->FindFirstScanResult(position)->GetInfectionList(L' '), nullptr);
        EXPECT_EQ(PropertyOf(*BagOf(verdict), "t")->GetCount(), 0u);
        EXPECT_EQ(LongOf(*BagOf(verdict), "n"), 1);
    }
}

// The payload is read over, and then the verdict has had its share.
TEST(HostileVerdict, AStringThatNeverEndsIsGivenUp) {
    for (char const* head : {"msr.sr.result\nproperty .t ss 9000000000\n", "msr.action ss 9223372036854775807\n",
                             "msr.sr.result\ninfectionlist 4611686018427387904\n"}) {
        ExpectWithin256MiB([=] {
            Repeated stream(head, std::string(65536, 'x'), 1ul << 40);
            bool ended = true;
            Verdict const verdict(SerializedEFabricResult::deserialize(&stream, &ended));
            return !verdict && !ended && stream.taken < (257ul << 20);
        });
    }
}

TEST(HostileVerdict, LinesThatNeverEndAreGivenUp) {
    for (char const* piece :
         {"# comment\n", "msr.actions a\n", "msr.sr.result\n\n", "msr.sr.result\nproperty .t ml 1\n\n"}) {
        ExpectWithin256MiB([=] {
            Repeated stream("", piece, 1ul << 40);
            bool ended = true;
            Verdict const verdict(SerializedEFabricResult::deserialize(&stream, &ended));
            return !verdict && !ended && stream.taken < (257ul << 20);
        });
    }
    ExpectWithin256MiB([] {
        Repeated stream("", "p.t ml 1\n", 1ul << 40);
        KORPropertyBag bag;
        bool ended = true;
        bool other = true;
        errno = 0;
        SerializedEFabricResult::deserialize(&stream, "p", bag, &ended, &other);
        return !ended && !other && errno == EMSGSIZE && stream.taken < (257ul << 20) && bag.Size() == 1;
    });
}

TEST(HostileVerdict, ALineWithoutAnEndIsReadInPieces) {
    ExpectWithin256MiB([] {
        std::string const piece(65536, 'x');
        Repeated verdict("", piece, 10ul << 20), section("p.", piece, 10ul << 20);
        bool ended = true;
        KORPropertyBag bag;
        SerializedEFabricResult::deserialize(&section, "p", bag, &ended);
        return !Verdict(SerializedEFabricResult::deserialize(&verdict)) && !ended && bag.Size() == 0;
    });
}

// The tail of a property line that does not fit into the stream's buffer is the next line.
TEST(HostileVerdict, APropertyLineIsNotPutTogether) {
    std::string const name(100, 'n');
    ScriptedStream wire({"p.a sl 1\np." + name + " sl 1\np.b sl 2\n\n"}, EndsWith::close, 64);
    KORPropertyBag bag;
    bool ended = true;
    SerializedEFabricResult::deserialize(&wire, "p", bag, &ended);
    EXPECT_EQ(bag.Size(), 1);  // the first piece has no blank, and the second does not begin with the name
    EXPECT_FALSE(ended);
}

TEST(HostileVerdict, AnIndexBeyondTheLastIsDroppedWithItsText) {
    for (char const* index : {"1024", "2000000000", "99999999999999999999"}) {
        ExpectWithin256MiB([=] {
            bool ended = false;
            Verdict const verdict = Read("msr.sr.result\nproperty .t<" + std::string(index) + ">.a ss " +
                                             Wide(L"unknown 1\n") + "property .n sl 1\n\n\n",
                                         &ended);
            return ended && BagOf(verdict) && BagOf(verdict)->Size() == 1 && LongOf(*BagOf(verdict), "n") == 1;
        });
    }
    Verdict const verdict = Read("msr.sr.result\nproperty .t<1023>.a sl 1\n\n");
    EXPECT_EQ(PropertyOf(*BagOf(verdict), "t")->GetCount(), 1024u);
}

TEST(HostileVerdict, APathBeyondTheDeepestIsDroppedWithItsText) {
    for (unsigned segments : {65u, 5000u}) {
        Verdict const verdict =
            Read("msr.sr.result\nproperty ." + Path(segments) + " ss " + Wide(L"unknown 1\n") + "property .n sl 1\n\n");
        ASSERT_NE(BagOf(verdict), nullptr);
        EXPECT_EQ(BagOf(verdict)->Size(), 1);
        EXPECT_EQ(LongOf(*BagOf(verdict), "n"), 1);
    }
    Verdict const verdict = Read("msr.sr.result\nproperty ." + Path(64) + " sl 1\n\n");
    IKORPropertyBag const* at = BagOf(verdict);
    unsigned segments = 1;
    for (; PropertyOf(*at, "b"); ++segments) at = PropertyOf(*at, "b")->GetBag();
    EXPECT_EQ(segments, 64u);
    EXPECT_EQ(LongOf(*at, "x"), 1);
}

TEST(HostileVerdict, ItsPathsShareWhatTheyMayMake) {
    ExpectWithin256MiB([] {
        std::string lines = "msr.sr.result\n";
        for (int i = 0; i < 64; ++i) lines += "property .t" + std::to_string(i) + "<1023>.a sl 1\n";  // 65536 bags
        lines += "\nmsr.sr.result\nproperty .t<0>.a ss " + Wide(L"unknown 1\n") + "property .b.c sl 1\n";
        lines += "property .n sl 1\n\n\n";
        bool ended = false;
        Verdict const verdict = Read(lines, &ended);
        long position = 0;
        if (!ended || PropertyOf(*BagOf(verdict), "t63")->GetCount() != 1024) return false;
        IKORScanResult const* const first = verdict->FindFirstScanResult(position);
        IKORPropertyBag const& second = *verdict->FindNextScanResult(position)->GetPropertyBag();
        return first->GetPropertyBag()->Size() == 64 && second.Size() == 1 && LongOf(second, "n") == 1;
    });
}
