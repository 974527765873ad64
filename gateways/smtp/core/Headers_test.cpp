#include "core/Headers.h"

#include <gtest/gtest.h>

namespace smtp {
namespace {

ReceivedFacts Facts() {
    return {"client.example",
            "192.0.2.1",
            "gw.example",
            "ESMTP",
            "id-1",
            "joe@b.example",
            "Thu, 1 Jan 1970 00:00:00 +0000"};
}

TEST(ReceivedHeader, NamesClientHostProtocolAndId) {
    EXPECT_EQ(ReceivedLine(Facts()),
              "Received: from client.example ([192.0.2.1])\r\n\tby gw.example (Velt) with ESMTP id id-1"
              "\r\n\tfor <joe@b.example>;\r\n\tThu, 1 Jan 1970 00:00:00 +0000\r\n");
}

TEST(ReceivedHeader, TellsNoRecipientWhenThereAreSeveral) {
    ReceivedFacts facts = Facts();
    facts.recipient.clear();
    EXPECT_EQ(ReceivedLine(facts).find("for <"), std::string::npos);
}

NotificationFacts Report(std::string_view header) {
    NotificationFacts facts;
    facts.reportingHost = "gw.example";
    facts.sender = "alice@a.example";
    facts.helloName = "client.example";
    facts.auditId = "audit-7";
    facts.messageId = "m-8";
    facts.arrival = "Thu, 1 Jan 1970 00:00:00 +0000";
    facts.failed = {{"bob@b.example", "5.7.1", "554 5.7.1 refused: EICAR", ""},
                    {"carl@c.example", "5.1.1", "550 5.1.1 unknown", "mx.c.example"}};
    facts.header = header;
    return facts;
}

std::size_t Count(std::string const& text, std::string const& what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

// Of the hundredth file of a mail, after a hundred tries.
TEST(Notification, HasABoundaryThatIsNotTooLong) {
    NotificationFacts facts = Report("Subject: hello\r\n\r\n");
    facts.messageId = "1e83ef37-611f-454a-b2a2-09d1c1c112b3.100.report100.8afa8534";
    std::string const text = DeliveryNotification(facts);
    std::size_t const begin = text.find("boundary=\"") + 10;
    EXPECT_LE(text.find('"', begin) - begin, 70u);
}

TEST(Notification, IsAReportOfThreePartsWithOneGroupPerRecipient) {
    std::string const text = DeliveryNotification(Report("Subject: hello\r\nX: y\r\n\r\nbody\r\n"));
    EXPECT_NE(text.find("multipart/report; report-type=delivery-status"), std::string::npos);
    EXPECT_NE(text.find("To: <alice@a.example>\r\n"), std::string::npos);
    EXPECT_NE(text.find("Auto-Submitted: auto-replied\r\n"), std::string::npos);
    EXPECT_EQ(Count(text, "\r\n--velt-m-8\r\n"), 3u);
    EXPECT_EQ(Count(text, "\r\n--velt-m-8--\r\n"), 1u);
    EXPECT_EQ(Count(text, "Final-Recipient: rfc822; "), 2u);
    EXPECT_NE(text.find("Final-Recipient: rfc822; bob@b.example\r\nAction: failed\r\nStatus: 5.7.1\r\n"
                        "Diagnostic-Code: smtp; 554 5.7.1 refused: EICAR\r\n"),
              std::string::npos);
    EXPECT_NE(text.find("Remote-MTA: dns; mx.c.example\r\n"), std::string::npos);
    EXPECT_NE(text.find("audit-7"), std::string::npos);
    EXPECT_NE(text.find("Subject: hello\r\nX: y\r\n\r\n--"), std::string::npos) << "the header, and not the body";
}

// Others may have it, wait for it, or be given up by a report of their own; and there may be none.
TEST(Notification, ClaimsOfOtherRecipientsNoMoreThanIsSureOfThemAll) {
    std::string const text = DeliveryNotification(Report("Subject: hello\r\n\r\n"));
    EXPECT_EQ(text.find("other recipients have it"), std::string::npos);
    EXPECT_NE(text.find("Any other recipient has the\r\nmessage, will have it, or is told of in a report of its own."),
              std::string::npos);
}

TEST(Notification, HasCrLfOnlyAndSevenBitsWhateverTheMessageHad) {
    std::string const text = DeliveryNotification(Report("Subject: \xc3\xa4\n\x01\r\nX: y\n"));
    for (std::size_t i = 0; i < text.size(); ++i) {
        EXPECT_LT(static_cast<unsigned char>(text[i]), 128);
        if (text[i] == '\n') {
            EXPECT_EQ(text[i - 1], '\r') << i;
        }
        if (text[i] == '\r') {
            EXPECT_EQ(text[i + 1], '\n') << i;
        }
    }
}

TEST(Notification, ReturnsNoMoreThanTheFirstPartOfALargeHeader) {
    std::string header;
    while (header.size() < 100000) header += "X-Filler: " + std::string(60, 'x') + "\r\n";
    EXPECT_LT(DeliveryNotification(Report(header)).size(), 20000u);
}

}  // namespace
}  // namespace smtp
