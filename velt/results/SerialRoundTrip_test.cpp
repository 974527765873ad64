// What is written of random verdicts, read and written again is the same bytes. What the form is known to change it
// changes twice at most: bags before an index that was written come to be several, and several come to be one. 1,000
// verdicts; 10,000 with FULL set. SEED chooses others.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <velt/results/ScanResultTest.h>
#include <velt/results/SerialTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

std::string Written(IScanResultHandler const& verdict) {
    ScriptedStream wire({});
    SerializedEFabricResult::serialize(&wire, &verdict);
    return wire.written();
}

// `lossless`: without what the form is known to change: several bags of one property, names that are paths, results
// without a class name.
class RandomVerdict {
public:
    RandomVerdict(unsigned seed, bool lossless) : m_dice(seed), m_lossless(lossless) {
        verdict.triggered = Below(2) == 1;
        verdict.modified = Below(2) == 1;
        if (Below(2)) verdict.action = Keep(Narrow());
        for (unsigned left = Below(4); left > 0; --left) verdict.results.push_back(&Result());
        if (Below(2)) verdict.master = &Result();
        if (verdict.master && Below(2)) verdict.results.insert(verdict.results.begin(), verdict.master);
    }

    FakeVerdict verdict;

private:
    unsigned Below(unsigned limit) { return static_cast<unsigned>(m_dice() % limit); }

    std::string Narrow() {
        std::string text;
        for (unsigned left = Below(9); left > 0; --left) text += static_cast<char>(1 + Below(255));
        return text;
    }
    std::wstring Wide() {
        static wchar_t const odd[] = {L'\n', L'\r', L' ', L'.', L'#', L'\x20ac', L'\x1f600', L'\x7f'};
        std::wstring text;
        for (unsigned left = Below(12); left > 0; --left)
            text += Below(2) ? odd[Below(8)] : static_cast<wchar_t>(L'a' + Below(26));
        return text;
    }
    std::string Name() {
        std::string name = "P" + std::to_string(Below(30));
        if (!m_lossless && Below(4) == 0) name += Below(2) ? ".x" : "<2>.x";
        return name;
    }
    char const* Keep(std::string text) {
        m_texts.push_back(std::make_unique<std::string>(std::move(text)));
        return m_texts.back()->c_str();
    }

    FakeResult& Result() {
        m_results.push_back(std::make_unique<FakeResult>());
        FakeResult& result = *m_results.back();
        if (Below(4)) result.infections = Wide();
        result.cleaned = static_cast<int>(m_dice());
        result.infected = static_cast<int>(m_dice());
        result.error = Below(2) == 1;
        if (m_lossless || Below(2)) result.className = Keep(Narrow());
        Fill(result.bag, 0);
        if (Below(2)) result.component = &Place();
        return result;
    }
    FakeComponent& Place() {
        m_places.push_back(std::make_unique<FakeComponent>());
        if (Below(4)) m_places.back()->name = Wide();
        if (Below(4)) m_places.back()->place = Below(8) ? Wide() : std::wstring(300 + Below(200), L'p');
        return *m_places.back();
    }
    void Fill(IKORPropertyBag& bag, unsigned depth) {
        for (unsigned left = Below(7); left > 0; --left) {
            IKORProperty& property = *bag.NewProperty(Name().c_str());
            unsigned const kind = Below(depth < 4 ? 6 : 4), count = Below(3) ? 1 : Below(4);
            if (kind >= 4)
                for (unsigned i = 0; i < (m_lossless ? 1 : count); ++i) AddBag(property, depth);
            else
                for (unsigned i = 0; i < count; ++i) AddElement(property, kind);
        }
    }
    void AddBag(IKORProperty& property, unsigned depth) {
        property.AddBag(nullptr);
        IKORPropertyBag& inner = *property.GetBagAt(property.GetCount() - 1);
        inner.NewProperty("always")->SetLong(1);  // a bag with nothing in it leaves no line
        Fill(inner, depth + 1);
    }
    void AddElement(IKORProperty& property, unsigned kind) {
        switch (kind) {
            case 0:
                property.AddWide(Wide().c_str());
                return;
            case 1:
                property.AddLong(static_cast<long>(m_dice() * (Below(2) ? 1 : 4294967297ul)));
                return;
            case 2:
                property.AddULong(m_dice() * (Below(2) ? 1 : 4294967297ul));
                return;
            default:
                property.AddDouble(
                    std::ldexp(static_cast<double>(static_cast<int>(m_dice())), static_cast<int>(Below(200)) - 100));
        }
    }

    std::mt19937 m_dice;
    bool const m_lossless;
    std::vector<std::unique_ptr<std::string>> m_texts;
    std::vector<std::unique_ptr<FakeResult>> m_results;
    std::vector<std::unique_ptr<FakeComponent>> m_places;
};

unsigned Verdicts() { return std::getenv("FULL") ? 10000 : 1000; }
unsigned Seed() { return std::getenv("SEED") ? static_cast<unsigned>(std::atoi(std::getenv("SEED"))) : 20261122; }

std::string ReadAndWritten(std::string const& text) {
    bool ended = false;
    Verdict const verdict = Read(text, &ended);
    EXPECT_TRUE(ended);
    return verdict ? Written(*verdict) : "(none)";
}

}  // namespace

TEST(RandomVerdicts, AreTheSameBytesWhenTheyAreReadAndWrittenAgain) {
    std::size_t bytes = 0;
    for (unsigned i = 0; i < Verdicts(); ++i) {
        RandomVerdict const random(Seed() + i, true);
        std::string const text = Written(random.verdict);
        bytes += text.size();
        ASSERT_EQ(ReadAndWritten(text), text) << "SEED=" << Seed() + i;
    }
    EXPECT_GT(bytes, Verdicts() * 500ul) << "verdicts that say something";
}

TEST(RandomVerdicts, ChangeNoMoreOnceTheyWereReadTwice) {
    unsigned changed = 0;
    for (unsigned i = 0; i < Verdicts(); ++i) {
        RandomVerdict const random(Seed() + i, false);
        std::string const text = Written(random.verdict), twice = ReadAndWritten(ReadAndWritten(text));
        changed += twice != text;
        ASSERT_EQ(ReadAndWritten(twice), twice) << "SEED=" << Seed() + i;
    }
    EXPECT_GT(changed, Verdicts() / 4);
}
