#include "tools/velt-queue/Filter.h"

#include <gtest/gtest.h>

#include "tools/velt-queue/Printing.h"

namespace velt_queue {
namespace {

constexpr std::time_t kNow = 1700100000;

Mail Held() {
    Mail mail;
    mail.queue = Queue::Quarantine;
    mail.envelope.taken = kNow - 7200;
    mail.envelope.sender = "Alice@outside.example";
    mail.envelope.recipients = {{"bob@inside.example", ""}, {"carol@board.inside.example", ""}};
    mail.envelope.action = "QUARANTINE";
    mail.envelope.finding = "KORAVScanner: EICAR-Test-File; KORContentScanner: prize";
    mail.status.recipients.assign(2, smtp::RetryStatus::Recipient::Held);
    return mail;
}

TEST(QueueFilter, FitsByAge) {
    EXPECT_TRUE((Filter{.olderThan = 7199}.fits(Held(), kNow)));
    EXPECT_FALSE((Filter{.olderThan = 7200}.fits(Held(), kNow)));
}

TEST(QueueFilter, FitsByAddresses) {
    EXPECT_TRUE((Filter{.to = "*@board.*"}.fits(Held(), kNow)));
    EXPECT_TRUE((Filter{.to = "BOB@inside.example"}.fits(Held(), kNow)));
    EXPECT_FALSE((Filter{.to = "*@elsewhere"}.fits(Held(), kNow)));
    EXPECT_TRUE((Filter{.from = "alice@*"}.fits(Held(), kNow)));
    EXPECT_FALSE((Filter{.from = ""}.fits(Held(), kNow)));
    Mail report = Held();
    report.envelope.sender.clear();
    EXPECT_TRUE((Filter{.from = ""}.fits(report, kNow)));
}

TEST(QueueFilter, FitsByActionAndByEachFinding) {
    for (char const* const pattern : {"quarantine", "*EICAR*", "KORContentScanner: prize", "*prize"}) {
        EXPECT_TRUE((Filter{.verdict = pattern}.fits(Held(), kNow))) << pattern;
    }
    EXPECT_FALSE((Filter{.verdict = "*EICAR*prize"}.fits(Held(), kNow))) << "one finding at a time";
    Mail waiting = Held();
    waiting.envelope.action.clear();
    EXPECT_FALSE((Filter{.verdict = "*"}.fits(waiting, kNow))) << "it has none";
}

TEST(QueueFilter, AsksForEverythingThatIsSet) {
    EXPECT_TRUE((Filter{.olderThan = 60, .to = "bob@*", .from = "alice@*", .verdict = "*"}.fits(Held(), kNow)));
    EXPECT_FALSE((Filter{.olderThan = 60, .to = "bob@*", .from = "dave@*", .verdict = "*"}.fits(Held(), kNow)));
    EXPECT_FALSE((Filter{.all = true, .olderThan = 8000}.fits(Held(), kNow)));
}

TEST(QueueFilter, KnowsNothingOfADamagedFile) {
    Mail damaged;
    damaged.problem = "envelope was changed";
    EXPECT_TRUE((Filter{.all = true}.fits(damaged, kNow)));
    EXPECT_FALSE((Filter{.olderThan = 0}.fits(damaged, kNow)));
    EXPECT_FALSE((Filter{.all = true, .to = "*"}.fits(damaged, kNow)));
}

TEST(QueueAge, IsANumberAndAUnit) {
    EXPECT_EQ(ReadAge("90"), 90);
    EXPECT_EQ(ReadAge("90s"), 90);
    EXPECT_EQ(ReadAge("30m"), 1800);
    EXPECT_EQ(ReadAge("12h"), 43200);
    EXPECT_EQ(ReadAge("30d"), 2592000);
    EXPECT_EQ(ReadAge("2w"), 1209600);
    EXPECT_EQ(ReadAge("4294967295w"), 4294967295L * 604800);
    for (char const* const text : {"", "d", "-1d", "1.5h", "30 d", "30days", "99999999999"}) {
        EXPECT_FALSE(ReadAge(text)) << text;
    }
}

TEST(QueueSpan, HasTwoUnitsAtMost) {
    EXPECT_EQ(SpanOf(-5), "0s");
    EXPECT_EQ(SpanOf(59), "59s");
    EXPECT_EQ(SpanOf(3599), "59m");
    EXPECT_EQ(SpanOf(3600 + 120), "1h 2m");
    EXPECT_EQ(SpanOf(3 * 86400 + 4 * 3600 + 5), "3d 4h");
}

TEST(QueueDestination, IsTheServerOrTheDomainsThatAreNotDoneWith) {
    Mail mail = Held();
    EXPECT_EQ(DestinationOf(mail, ""), "board.inside.example, inside.example");
    mail.status.recipients[1] = smtp::RetryStatus::Recipient::Delivered;
    EXPECT_EQ(DestinationOf(mail, ""), "inside.example");
    EXPECT_EQ(DestinationOf(mail, "relay:25"), "relay:25");
    mail.envelope.server = "192.0.2.1:25";
    EXPECT_EQ(DestinationOf(mail, "relay:25"), "192.0.2.1:25");
}

}  // namespace
}  // namespace velt_queue
