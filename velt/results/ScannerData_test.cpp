// The kinds of scanner, and the value that names those which took part.
#include <QXlog/Names.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <testing/EventCapture.h>
#include <velt/results/ScannerData.h>

using velt_testing::Describe;
using namespace VELT;

namespace {

ScannerData OfKind(char const* kind) {
    ScannerData data;
    data.kind = std::string(kind);
    return data;
}

}  // namespace

TEST(ScannerKinds, AreNineInThisOrder) {
    std::vector<std::string> codes;
    for (ScannerType const* row = scannerTypes; row != lastScanner; ++row) {
        codes.push_back(row->code);
        std::string key = std::string("scanner_") + row->code;
        std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
        EXPECT_EQ(row->key->name, key);
    }
    EXPECT_EQ(codes, (std::vector<std::string>{"AV", "CF", "FF", "CM", "EM", "SM", "AS", "MF", "IF"}));
    EXPECT_EQ(codes.size(), numScanners);
}

TEST(ScannerKinds, AreFoundByTheWholeCodeInItsCase) {
    EXPECT_TRUE(find_functor{"AV"}(scannerTypes[0]));
    for (char const* other : {"av", "A", "AVX", "", "CF"}) EXPECT_FALSE(find_functor{other}(scannerTypes[0])) << other;
}

TEST(ScannerNames, HoldTheKindAndTellTheAntiSpamScanner) {
    for (ScannerType const* row = scannerTypes; row != lastScanner; ++row) {
        KORlog::InfoBag bag;
        EXPECT_EQ(GetInfoFromScannerName(OfKind(row->code), bag), std::string(row->code) == "AS");
        EXPECT_EQ(Describe(bag), std::string("scanner_names={") + row->key->name + "=" + row->code + "}");
    }
}

TEST(ScannerNames, AreThereAndEmptyWithoutAKind) {
    for (ScannerData const& data : {ScannerData(), OfKind("as"), OfKind(""), OfKind("XX")}) {
        KORlog::InfoBag bag;
        EXPECT_FALSE(GetInfoFromScannerName(data, bag));
        EXPECT_EQ(Describe(bag), "scanner_names={}");
    }
}

TEST(ScannerNames, OfARangeShareOneValueAndTellTheAntiVirusScanner) {
    ScannerDataMap map;
    map["1"] = OfKind("AS");
    map["2"] = ScannerData();
    map["3"] = OfKind("XX");
    map["4"] = OfKind("CF");
    KORlog::InfoBag bag;
    EXPECT_FALSE(updateInfoFromData({map.begin(), map.end()}, bag));
    EXPECT_EQ(Describe(bag), "scanner_names={scanner_as=AS scanner_cf=CF}");
    map["5"] = OfKind("AV");
    map["6"] = OfKind("IF");
    KORlog::InfoBag withVirus;
    EXPECT_TRUE(updateInfoFromData({map.begin(), map.end()}, withVirus));
    EXPECT_EQ(Describe(withVirus), "scanner_names={scanner_as=AS scanner_cf=CF scanner_av=AV scanner_if=IF}");
    KORlog::InfoBag none;
    EXPECT_FALSE(updateInfoFromData({map.end(), map.end()}, none));
    EXPECT_EQ(Describe(none), "scanner_names={}");
}
