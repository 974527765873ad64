#include <KORtk/Exception.h>
#include <QXlog/Settings.h>

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testing/DocExample.h"
#include "testing/TempRoot.h"

namespace {

using QXlog::detail::ReadSettings;
using QXlog::detail::Settings;
using QXlog::detail::SinkKind;

class LoggingFile : public ::testing::Test {
protected:
    Settings Read(std::string const& text) {
        m_root.Write("l.xml", text);
        return ReadSettings(m_root / "l.xml");
    }
    // The complaint behind the file's name.
    std::string Complaint(std::string const& text) {
        try {
            Read(text);
        } catch (KORtk::Exception const& failure) {
            std::string const what = failure.what(), name = m_root / "l.xml:";
            EXPECT_EQ(what.compare(0, name.size(), name), 0) << what;
            return what.substr(name.size());
        }
        return "none";
    }
    velt_testing::TempRoot m_root;
};

TEST_F(LoggingFile, MissingMeansEverythingToSyslog) {
    Settings const settings = ReadSettings(m_root / "none.xml");
    ASSERT_EQ(settings.sinks.size(), 1u);
    EXPECT_EQ(settings.sinks[0].kind, SinkKind::Syslog);
    EXPECT_TRUE(settings.switches.Allow(1, 2));
}

TEST_F(LoggingFile, WithoutSinksMeansSyslog) {
    Settings const settings = Read("<logging/>");
    ASSERT_EQ(settings.sinks.size(), 1u);
    EXPECT_EQ(settings.sinks[0].kind, SinkKind::Syslog);
    EXPECT_EQ(settings.sinks[0].facility, LOG_DAEMON);
}

TEST_F(LoggingFile, NamesSinksInOrder) {
    Settings const settings = Read(
        "<?xml version='1.0'?>\n<!-- all -->\n<logging version='1'><sink type='journal'/><sink type='json' file='/x'/>"
        "<sink type='json'/><sink type='syslog' facility='mail'/><sink type='text'/></logging>");
    std::vector<SinkKind> kinds;
    for (auto const& sink : settings.sinks) kinds.push_back(sink.kind);
    EXPECT_EQ(kinds,
              (std::vector{SinkKind::Journal, SinkKind::Json, SinkKind::Json, SinkKind::Syslog, SinkKind::Text}));
    EXPECT_EQ(settings.sinks[1].file, "/x");
    EXPECT_EQ(settings.sinks[2].file, "");
    EXPECT_EQ(settings.sinks[3].facility, LOG_MAIL);
}

TEST_F(LoggingFile, SwitchesEventsByNumberAndReason) {
    Settings const settings = Read(
        "<logging><events default='off'><event number='10003' switch='on'/>"
        "<event number='10003' reason='66' switch='off'/></events></logging>");
    EXPECT_TRUE(settings.switches.Allow(10003, 68));
    EXPECT_FALSE(settings.switches.Allow(10003, 66));
    EXPECT_FALSE(settings.switches.Allow(12000, 7));
}

TEST_F(LoggingFile, SetsQueueAndLimits) {
    Settings const settings =
        Read("<logging><queue size='7' full='drop'/><limits value='16' record='1024'/></logging>");
    EXPECT_EQ(settings.queueSize, 7u);
    EXPECT_TRUE(settings.dropWhenFull);
    EXPECT_EQ(settings.limits.value, 16u);
    EXPECT_EQ(settings.limits.record, 1024u);
}

TEST_F(LoggingFile, ErrorsNameLineColumnAndReason) {
    struct Row {
        char const* text;
        char const* complaint;
    };
    constexpr Row kRows[] = {
        {"<logging>\n  <sink type='pipe'/>\n</logging>", "2:4: type is journal, syslog, json or text"},
        {"<logging>\n<sink/></logging>", "2:2: <sink> lacks the attribute type"},
        {"<logging><sink type='text' file='/x'/></logging>", "1:11: unknown attribute file"},
        {"<logging><sink type='json' file=''/></logging>", "1:11: file is empty"},
        {"<logging><sink type='syslog' facility='kern'/></logging>", "1:11: unknown facility kern"},
        {"<logging><sink type='text' type='json'/></logging>", "1:11: attribute type twice"},
        {"<logging><sink type='text'>x</sink></logging>", "1:28: <sink> holds nothing"},
        {"<logging><queue size='0'/></logging>", "1:11: size is a number from 1 to 1000000"},
        {"<logging><queue size='5x'/></logging>", "1:11: size is a number from 1 to 1000000"},
        {"<logging><queue full='wait'/></logging>", "1:11: full is drop or block"},
        {"<logging><limits value='99999999999999999999'/></logging>", "1:11: value is a number from 16 to 65536"},
        {"<logging><events default='maybe'/></logging>", "1:11: default is on or off"},
        {"<logging><events><event switch='on'/></events></logging>", "1:19: <event> lacks the attribute number"},
        {"<logging><events><event number='1'/></events></logging>", "1:19: <event> lacks the attribute switch"},
        {"<logging><events><event number='-1' switch='on'/></events></logging>",
         "1:19: number is a number from 0 to 2147483647"},
        {"<logging><events><sink/></events></logging>", "1:19: unknown element <sink>"},
        {"<logging><colour/></logging>", "1:11: unknown element <colour>"},
        {"<logging>words</logging>", "1:10: text where an element is expected"},
        {"<logging version='2'/>", "1:2: version is a number from 1 to 1"},
        {"<log/>", "1:2: the file's element is <logging>"},
        {"<logging/><logging/>", "1:12: more than one element at the top"},
    };
    for (Row const& row : kRows) EXPECT_EQ(Complaint(row.text), row.complaint) << row.text;
}

TEST_F(LoggingFile, OfTheManualReadsAsTheManualSays) {
    Settings const settings = Read(velt_testing::DocExample(DOCS "/formats/logging-xml.md", "xml"));
    ASSERT_EQ(settings.sinks.size(), 2u);
    EXPECT_EQ(settings.sinks[0].kind, SinkKind::Journal);
    EXPECT_EQ(settings.sinks[1].file, "/var/log/velt/smtp.json");
    EXPECT_EQ(settings.queueSize, 4096u);
    EXPECT_FALSE(settings.dropWhenFull);
    EXPECT_EQ(settings.limits.value, 512u);
    EXPECT_EQ(settings.limits.record, 8192u);
    EXPECT_FALSE(settings.switches.Allow(10003, 65));
    EXPECT_TRUE(settings.switches.Allow(10003, 68));
    EXPECT_FALSE(settings.switches.Allow(180002, 206));
    EXPECT_TRUE(settings.switches.Allow(180002, 161));
}

TEST_F(LoggingFile, EveryCutOfAGoodFileIsAnError) {
    std::string const whole = "<logging><sink type='text'/><events><event number='1' switch='off'/></events></logging>";
    EXPECT_EQ(Complaint(whole), "none");
    for (std::size_t cut = 0; cut < whole.size(); ++cut) EXPECT_NE(Complaint(whole.substr(0, cut)), "none") << cut;
}

TEST_F(LoggingFile, LargerThanItMayBeIsAnError) {
    EXPECT_EQ(Complaint("<logging/>" + std::string(1 << 20, ' ')), "1:1: larger than 1 MiB");
    EXPECT_EQ(Complaint("<logging/>" + std::string((1 << 20) - 10, ' ')), "none");
}

TEST_F(LoggingFile, ThatCannotBeReadIsAnError) {
    EXPECT_THROW(ReadSettings(m_root.path()), KORtk::Exception);  // a folder
}

}  // namespace
