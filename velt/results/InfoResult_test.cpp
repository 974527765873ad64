// What becomes of a result that informs.
#include <velt/results/ScanResultTest.h>

using namespace VELT;
using namespace velt_testing;

namespace {

using InfoResult = ScanResultTest;

TEST_F(InfoResult, InformationIsReportedByItsType) {
    struct Row {
        unsigned long type;
        char const* event;  // empty: none
        bool answer;
    };
    constexpr Row rows[] = {{0, "", false},
                            {1, "180009:345", false},
                            {2, "180009:347", false},
                            {3, "180009:346", false},
                            {4, "", true},
                            {5, "", true},
                            {6, "", false},
                            {100, "", false},
                            {4294967297ul, "", false},
                            {4294967301ul, "", false}};
    events.AllowAll();
    SetEngine();
    SetDescription(L"note");
    SetULong("E_SR_INFORESULTTYPE", 0);
    for (Row const& row : rows) {
        events.Clear();
        events.AllowAll();
        data = ScannerData();
        result.bag.GetProperty("E_SR_INFORESULTTYPE")->SetULong(row.type);
        EXPECT_EQ(Info(), row.answer) << row.type;
        EXPECT_EQ(data.infoType, static_cast<long>(row.type));
        EXPECT_EQ(Reason(), row.type == 5 ? "Disclaimer Added" : "(unset)");
        std::vector<std::string> const expected =
            *row.event ? std::vector<std::string>{row.event} : std::vector<std::string>{};
        EXPECT_EQ(events.Names(), expected) << row.type;
        for (auto const& event : events.Events()) {
            EXPECT_EQ(Describe(event.bag),
                      "connection={audit_id=A1} scan_identity=staff description=note scan_host=scan1");
        }
    }
    ExpectCounted({});
}

TEST_F(InfoResult, InformationWithoutATypeIsPassedOver) {
    EXPECT_FALSE(Info());
    result.bag.NewProperty("E_SR_INFORESULTTYPE")->SetLong(5);
    EXPECT_FALSE(Info());
    EXPECT_FALSE(data.infoType);
    EXPECT_FALSE(data.reason);
}

TEST_F(InfoResult, InformationBagHoldsOnlyWhatIsThere) {
    KORlog::InfoBag bag;
    process.FillInfoResultInfoBag(bag, nullptr, nullptr);
    EXPECT_EQ(Describe(bag), "scan_identity=");
}

TEST_F(InfoResult, InformationBagIsAddedToWhatIsThere) {
    SetEngine();
    SetDescription(L"note");
    KORlog::InfoBag bag = QXlog::names::QXPROP_AUDIT_ID("A2");
    process.FillInfoResultInfoBag(bag, "staff", &result.bag);
    EXPECT_EQ(Describe(bag), "audit_id=A2 scan_identity=staff description=note scan_host=scan1");
}

TEST_F(InfoResult, DescriptionThatIsEmptyOrOfAnotherTypeIsLeftOut) {
    for (bool const empty : {true, false}) {
        if (empty) SetDescription(L"");
        if (!empty) SetULong("E_SR_DESCRIPTION_P", 5);
        KORlog::InfoBag bag;
        process.FillInfoResultInfoBag(bag, "staff", &result.bag);
        EXPECT_EQ(Describe(bag), "scan_identity=staff");
    }
}

}  // namespace
