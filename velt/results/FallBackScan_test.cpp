// When a scan is to be repeated with the signatures alone.
#include <velt/results/ScanResultTest.h>
#include <velt/scanning/ScanContext.h>
#include <velt/streams/ScannerStream.h>

using namespace VELT;
using namespace velt_testing;

namespace {

class FallBackScan : public ScanResultTest {
protected:
    FallBackScan() {
        SetType(4);
        SetWide("E_SR_DOS_TYPE", L"SIZE");
        verdict.action = "DENY";
        verdict.master = &result;
        output.result = &verdict;
    }
    bool Wanted() { return process.DoFallBackScan(&output); }

    FakeVerdict verdict;
    ScanOutput output;
};

TEST_F(FallBackScan, IsWantedWhenTheFormatScannerGaveUp) {
    EXPECT_TRUE(Wanted());
    result.bag.GetProperty("E_SR_DOS_TYPE")->SetWide(L"DEPTH");
    EXPECT_TRUE(Wanted());
    for (wchar_t const* other : {L"", L"size", L"SIZE ", L"OTHER"}) {
        result.bag.GetProperty("E_SR_DOS_TYPE")->SetWide(other);
        EXPECT_FALSE(Wanted()) << other;
    }
}

TEST_F(FallBackScan, NeedsAVerdictWithAMasterResult) {
    verdict.master = nullptr;
    EXPECT_FALSE(Wanted());
    output.result = nullptr;
    EXPECT_FALSE(Wanted());
    EXPECT_FALSE(process.DoFallBackScan(nullptr));
}

TEST_F(FallBackScan, IsForTheFormatScannerAlone) {
    for (unsigned long type : {0ul, 1ul, 3ul, 5ul, 4294967300ul}) {
        result.bag.GetProperty("E_SR_TYPE")->SetULong(type);
        EXPECT_FALSE(Wanted()) << type;
    }
    result.bag.GetProperty("E_SR_TYPE")->SetLong(4);
    EXPECT_FALSE(Wanted());
    result.hasBag = false;
    EXPECT_FALSE(Wanted());
}

TEST_F(FallBackScan, NeedsAnActionOrContent) {
    verdict.action = nullptr;
    EXPECT_FALSE(Wanted());
    ScannerStream stream(64u);
    output.output = &stream;
    EXPECT_FALSE(Wanted());
    stream.write("x", 1u);
    EXPECT_TRUE(Wanted());
}

TEST_F(FallBackScan, ReasonOfAnotherTypeIsNoReason) {
    result.bag.GetProperty("E_SR_DOS_TYPE")->SetULong(1);
    EXPECT_FALSE(Wanted());
}

}  // namespace
