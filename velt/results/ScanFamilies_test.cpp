// Lists of an engine that leaves some of their elements without a text.
#include <eFabric/Property.h>
#include <eFabric/Result.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include <testing/EventCapture.h>
#include <velt/connection/Connection.h>
#include <velt/logging/Events.h>
#include <velt/results/ProcessScanResult.h>

using namespace VELT;

namespace {

// A list of texts, some of which are not there.
class GappyList final : public IKORProperty {
public:
    explicit GappyList(std::vector<std::optional<std::string>> texts) {
        for (auto const& text : texts) {
            m_narrow.push_back(text);
            m_wide.push_back(text ? std::optional(std::wstring(text->begin(), text->end())) : std::nullopt);
        }
    }
    unsigned GetCount() const override { return static_cast<unsigned>(m_narrow.size()); }
    char const* GetNarrowAt(unsigned i) const override {
        return i < m_narrow.size() && m_narrow[i] ? m_narrow[i]->c_str() : nullptr;
    }
    wchar_t const* GetWideAt(unsigned i) const override {
        return i < m_wide.size() && m_wide[i] ? m_wide[i]->c_str() : nullptr;
    }

    int GetType() const override { return KORProp_String; }
    bool SetDouble(double) override { return false; }
    bool SetULong(unsigned long) override { return false; }
    bool SetWide(wchar_t const*) override { return false; }
    bool SetNarrow(char const*) override { return false; }
    bool SetLong(long) override { return false; }
    bool SetBag(IKORPropertyBag*) override { return false; }
    bool GetULong(unsigned long&) const override { return false; }
    wchar_t const* GetWide() const override { return GetWideAt(0); }
    char const* GetNarrow() const override { return GetNarrowAt(0); }
    bool GetLong(long&) const override { return false; }
    IKORPropertyBag* GetBag() const override { return nullptr; }
    char const* GetName() const override { return ""; }
    bool AddDouble(double) override { return false; }
    bool AddULong(unsigned long) override { return false; }
    bool AddWide(wchar_t const*) override { return false; }
    bool AddLong(long) override { return false; }
    bool AddBag(IKORPropertyBag*) override { return false; }
    bool GetDoubleAt(unsigned, double&) const override { return false; }
    bool GetULongAt(unsigned, unsigned long&) const override { return false; }
    bool GetLongAt(unsigned, long&) const override { return false; }
    IKORPropertyBag* GetBagAt(unsigned) const override { return nullptr; }
    bool GetDouble(double&) const override { return false; }
    bool AddNarrow(char const*) override { return false; }

private:
    std::vector<std::optional<std::string>> m_narrow;
    std::vector<std::optional<std::wstring>> m_wide;
};

// A bag in which one property is such a list.
class GappyBag final : public KORPropertyBag {
public:
    GappyBag(std::string name, std::vector<std::optional<std::string>> texts)
        : m_name(std::move(name)), m_list(std::move(texts)) {}
    using KORPropertyBag::GetProperty;
    IKORProperty const* GetProperty(char const* name) const override {
        return m_name == name ? &m_list : KORPropertyBag::GetProperty(name);
    }

private:
    std::string m_name;
    GappyList m_list;
};

class GappyListTest : public testing::Test {
protected:
    GappyListTest() { m_events.AllowAll(); }

    std::string Rules(std::vector<std::optional<std::string>> names, std::vector<double> const& scores) {
        GappyBag bag("E_SR_INFECTIONNAME", std::move(names));
        IKORProperty* const list = bag.NewProperty("E_SR_AS_INFECTION_SCORE");
        for (double const score : scores) list->AddDouble(score);
        ProcessScanResult().ProcessAntiSpamResult(m_session, nullptr, &bag, m_data);
        return m_data.reason->str();
    }

    velt_testing::EventCapture m_events;
    Connection m_session;
    ScannerData m_data;
};

TEST_F(GappyListTest, ScoreWithoutANameIsSkippedWhereverItStands) {
    EXPECT_EQ(Rules({"A", std::nullopt, "C"}, {1, 2, 3}), "A=1, C=3");
    EXPECT_EQ(Rules({std::nullopt, std::nullopt, "C", "D"}, {1, 2, 3, 4.5}), "C=3, D=4.5");
    EXPECT_EQ(Rules({std::nullopt}, {1}), "");
    EXPECT_EQ(Rules({"A", std::nullopt}, {1, 2}), "A=1");
}

TEST_F(GappyListTest, ActionWithoutATextIsPassedOver) {
    GappyBag const bag("E_SR_ACTION", {std::nullopt, "LOG", std::nullopt, "EFABRIC:ALLOWTHRU"});
    EXPECT_FALSE(ProcessScanResult().ProcessFormatResult(m_session, nullptr, &bag, nullptr, m_data));
    EXPECT_TRUE(m_events.Events().empty());
}

}  // namespace
