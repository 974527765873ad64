#include "RetryFormat.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace smtp {
namespace {

using State = RetryStatus::Recipient;

RetryEnvelope SomeEnvelope() {
    RetryEnvelope envelope;
    envelope.auditId = "a1";
    envelope.conversationId = "c1";
    envelope.sender = "alice@outside.example";
    envelope.helloName = "client.example";
    envelope.clientAddress = "127.0.0.2";
    envelope.server = "192.0.2.1:25";
    envelope.engines = "1.0.0 built-in";
    envelope.taken = 1700000000;
    envelope.inbound = envelope.eightBit = true;
    envelope.recipients = {{"bob@inside.example", "staff"}, {"\"a b%\"@inside.example", ""}};
    return envelope;
}

RetryStatus SomeStatus() {
    RetryStatus status;
    status.sequence = 7;
    status.tries = 3;
    status.last = 1700000300;
    status.due = 1700000900;
    status.unsure = true;
    status.recipients = {State::Waiting, State::Delivered};
    status.reason = "451 4.4.1 next server cannot be reached";
    return status;
}

RetryLayout LayoutOf(RetryEnvelope const& envelope, std::string const& text) {
    RetryLayout layout;
    layout.envelopeLength = text.size();
    layout.envelopeSum = Checksum(text);
    layout.slotLength = SlotLength(envelope.recipients.size());
    return layout;
}

TEST(RetryChecksum, IsTheOneThatEverybodyKnowsInAnyBlocks) {
    std::string const text = "123456789";
    EXPECT_EQ(Checksum(text), 0xCBF43926u);
    EXPECT_EQ(Checksum(""), 0u);
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        EXPECT_EQ(Checksum(text.substr(cut), Checksum(text.substr(0, cut))), 0xCBF43926u) << cut;
    }
}

TEST(RetryFirstLine, IsReadAsItWasWritten) {
    RetryLayout layout{12345, 481, 0xFFFFFFFF, 0xDEADBEEF, 1};
    std::string const line = WriteFirstLine(layout);
    EXPECT_EQ(line.size(), RetryLayout::kFirstLine);
    RetryLayout read;
    EXPECT_EQ(ReadFirstLine(line, read), RetryFault::None);
    EXPECT_EQ(WriteFirstLine(read), line);
}

TEST(RetryFirstLine, IsKnownForCutAtEveryPlaceAndForChangedAtEveryByte) {
    std::string const line = WriteFirstLine({1, 481, 3, 4, 5});
    RetryLayout read;
    for (std::size_t cut = 0; cut < line.size(); ++cut) {
        EXPECT_EQ(ReadFirstLine(line.substr(0, cut), read), RetryFault::Truncated) << cut;
    }
    for (std::size_t at = 0; at < line.size(); ++at) {
        std::string changed = line;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        EXPECT_NE(ReadFirstLine(changed, read), RetryFault::None) << at;
    }
}

TEST(RetryFirstLine, SaysWhatIsWrong) {
    RetryLayout read;
    EXPECT_EQ(ReadFirstLine("Received: from somewhere", read), RetryFault::NotARetryFile);
    std::string later = WriteFirstLine({1, 481, 3, 4, 5});
    later[8] = '2';
    EXPECT_EQ(ReadFirstLine(later, read), RetryFault::OtherVersion);
    EXPECT_EQ(ReadFirstLine(WriteFirstLine({RetryLayout::kMaxEnvelope + 1, 481, 3, 4, 5}), read),
              RetryFault::HeadDamaged);
    EXPECT_EQ(ReadFirstLine(WriteFirstLine({1, 481, RetryLayout::kMaxMessage + 1, 4, 5}), read),
              RetryFault::HeadDamaged);
}

TEST(RetryEnvelopeText, IsReadAsItWasWritten) {
    RetryEnvelope const envelope = SomeEnvelope();
    std::string const text = WriteEnvelope(envelope);
    RetryEnvelope read;
    ASSERT_EQ(ReadEnvelope(text, LayoutOf(envelope, text), read), RetryFault::None);
    EXPECT_EQ(WriteEnvelope(read), text);
    EXPECT_EQ(read.recipients.back().address, "\"a b%\"@inside.example");
    EXPECT_TRUE(read.inbound && read.eightBit);
    EXPECT_FALSE(read.plain || read.rewritten);
}

TEST(RetryEnvelopeText, KeepsEveryByteOfAText) {
    RetryEnvelope envelope = SomeEnvelope();
    for (int byte = 0; byte < 256; ++byte) envelope.helloName += static_cast<char>(byte);
    std::string const text = WriteEnvelope(envelope);
    RetryEnvelope read;
    ASSERT_EQ(ReadEnvelope(text, LayoutOf(envelope, text), read), RetryFault::None);
    EXPECT_EQ(read.helloName, envelope.helloName);
}

TEST(RetryEnvelopeText, IsRefusedAtEveryCutAndEveryChange) {
    RetryEnvelope const envelope = SomeEnvelope();
    std::string const text = WriteEnvelope(envelope);
    RetryLayout const layout = LayoutOf(envelope, text);
    RetryEnvelope read;
    for (std::size_t at = 0; at < text.size(); ++at) {
        EXPECT_EQ(ReadEnvelope(text.substr(0, at), layout, read), RetryFault::HeadDamaged) << at;
        std::string changed = text;
        changed[at] = static_cast<char>(changed[at] ^ 0x20);
        EXPECT_EQ(ReadEnvelope(changed, layout, read), RetryFault::HeadDamaged) << at;
    }
}

// The next server would be sent them.
TEST(RetryEnvelopeText, IsRefusedWithAnAddressThatIsNone) {
    for (char const* const address :
         {"a\r\nDATA", "bob@inside.example\r\nRSET", "bob@inside.example> SIZE=1", "bob", "a b@inside.example"}) {
        RetryEnvelope sent = SomeEnvelope(), received = SomeEnvelope(), read;
        sent.sender = received.recipients[1].address = address;
        for (RetryEnvelope const& envelope : {sent, received}) {
            std::string const text = WriteEnvelope(envelope);
            EXPECT_EQ(ReadEnvelope(text, LayoutOf(envelope, text), read), RetryFault::HeadDamaged) << text;
        }
    }
}

TEST(RetryEnvelopeText, TakesTheNullPathAndThePostmaster) {
    RetryEnvelope envelope = SomeEnvelope(), read;
    envelope.sender.clear();
    envelope.recipients[0].address = "postmaster";
    std::string const text = WriteEnvelope(envelope);
    EXPECT_EQ(ReadEnvelope(text, LayoutOf(envelope, text), read), RetryFault::None);
}

// Whoever can compute a checksum gets no further than to a clear refusal.
TEST(RetryEnvelopeText, IsRefusedWhereItMakesNoSense) {
    RetryEnvelope const envelope = SomeEnvelope();
    std::string const good = WriteEnvelope(envelope);
    for (std::string const& text :
         {good + "unknown x\n", good + "recipient \n", good + "recipient a%4\n", good + "recipient a%zz\n",
          good + "taken x\n", good + "taken -1\n", good + "taken 9223372036854775807\n", good + "plain x\n",
          good + "hello a b\n", good + "\n", good + "recipient third@inside.example \n",
          std::string("id a1\ntaken 5\n"), std::string()}) {
        RetryEnvelope read;
        EXPECT_EQ(ReadEnvelope(text, LayoutOf(envelope, text), read), RetryFault::HeadDamaged) << text;
    }
}

TEST(RetrySlot, IsReadAsItWasWritten) {
    std::string const slot = WriteSlot(SomeStatus());
    EXPECT_EQ(slot.size(), SlotLength(2));
    RetryStatus read;
    ASSERT_TRUE(ReadSlot(slot, 2, read));
    EXPECT_EQ(WriteSlot(read), slot);
    EXPECT_EQ(read.reason, SomeStatus().reason);
    EXPECT_TRUE(read.unsure && read.waits());
}

TEST(RetryEnvelopeText, HasTheVerdictOfMailThatIsHeldAndNothingOfItOtherwise) {
    RetryEnvelope envelope = SomeEnvelope(), read;
    EXPECT_EQ(WriteEnvelope(envelope).find("action"), std::string::npos);
    envelope.action = "QUARANTINE:DENY";
    envelope.finding = "EICAR test\r\nfile %";
    std::string const text = WriteEnvelope(envelope);
    EXPECT_NE(text.find("action QUARANTINE:DENY\nfinding EICAR%20test%0d%0afile%20%25\n"), std::string::npos) << text;
    ASSERT_EQ(ReadEnvelope(text, LayoutOf(envelope, text), read), RetryFault::None);
    EXPECT_EQ(read.action, envelope.action);
    EXPECT_EQ(read.finding, envelope.finding);
}

TEST(RetrySlot, TellsOfAReleaseAndOfWhoIsHeld) {
    RetryStatus status = SomeStatus(), read;
    EXPECT_FALSE(status.isHeld());
    status.recipients = {State::Held, State::Held};
    ASSERT_TRUE(ReadSlot(WriteSlot(status), 2, read));
    EXPECT_TRUE(read.isHeld());
    EXPECT_FALSE(read.waits());
    status.recipients = {State::Waiting, State::Delivered};
    status.released = 1700000500;
    ASSERT_TRUE(ReadSlot(WriteSlot(status), 2, read));
    EXPECT_EQ(read.released, 1700000500);
    EXPECT_EQ(WriteSlot(read), WriteSlot(status));
}

TEST(RetrySlot, IsRefusedWithATimeOfReleaseThatIsNone) {
    std::string const slot = WriteSlot(SomeStatus());
    std::size_t const states = slot.find(" wd ");
    for (std::string const other : {"wd@", "wd@x", "wd@0", "wd@-1", "w@1", "wd@1@1"}) {
        std::string text = slot.substr(9, states + 1 - 9) + other + slot.substr(states + 3);
        text.erase(text.size() - 1 - (other.size() - 2), other.size() - 2);  // of the blanks at the end
        char sum[10];
        std::snprintf(sum, sizeof sum, "%08x ", Checksum(text));
        RetryStatus read;
        EXPECT_FALSE(ReadSlot(sum + text, 2, read)) << other;
    }
}

TEST(RetrySlot, SaysSinceWhenATryIsAskedFor) {
    RetryStatus status = SomeStatus(), read;
    EXPECT_EQ(status.asked(), 0);
    status.due = -1700000000;
    ASSERT_TRUE(ReadSlot(WriteSlot(status), 2, read));
    EXPECT_EQ(read.asked(), 1700000000);
    status.due = INT64_MIN;
    EXPECT_EQ(status.asked(), 0);
}

TEST(RetrySlot, SaysHowMuchOfTheAgeDoesNotCountOnlyWhereThereIsAny) {
    for (std::int64_t skipped : {0, 86400, -3600}) {
        RetryStatus status = SomeStatus();
        status.skipped = skipped;
        RetryStatus read;
        read.skipped = 7;
        ASSERT_TRUE(ReadSlot(WriteSlot(status), 2, read));
        EXPECT_EQ(read.skipped, skipped);
        EXPECT_EQ(read.due, status.due);
        EXPECT_EQ(WriteSlot(status).find('/') != std::string::npos, skipped != 0);
    }
}

TEST(RetrySlot, HasRoomForTheLargestNumbersAndCutsALongReason) {
    RetryStatus status;
    status.sequence = RetryLayout::kMaxSequence;
    status.tries = UINT32_MAX;
    status.unsure = status.telling = true;
    status.last = status.due = status.skipped = -RetryLayout::kMaxSeconds;
    status.released = RetryLayout::kMaxSeconds;
    status.recipients.assign(1000, State::Failed);
    status.reason.assign(5000, '\xff');
    RetryStatus read;
    ASSERT_TRUE(ReadSlot(WriteSlot(status), 1000, read));
    EXPECT_EQ(read.sequence, RetryLayout::kMaxSequence);
    EXPECT_EQ(read.due, -RetryLayout::kMaxSeconds);
    EXPECT_EQ(read.skipped, -RetryLayout::kMaxSeconds);
    EXPECT_EQ(read.reason, std::string(RetryLayout::kMaxReason, '?'));
    EXPECT_FALSE(read.waits());
}

// Somebody made it up: it would be the last word for ever, or its times could not be reckoned with.
TEST(RetrySlot, IsRefusedWithNumbersThatNobodyComesTo) {
    auto const refused = [](auto change) {
        RetryStatus status = SomeStatus(), read;
        change(status);
        return !ReadSlot(WriteSlot(status), 2, read);
    };
    EXPECT_FALSE(refused([](RetryStatus&) {}));
    EXPECT_TRUE(refused([](RetryStatus& status) { status.sequence = RetryLayout::kMaxSequence + 1; }));
    EXPECT_TRUE(refused([](RetryStatus& status) { status.sequence = UINT64_MAX; }));
    EXPECT_TRUE(refused([](RetryStatus& status) { status.last = RetryLayout::kMaxSeconds + 1; }));
    EXPECT_TRUE(refused([](RetryStatus& status) { status.due = INT64_MIN; }));
    EXPECT_TRUE(refused([](RetryStatus& status) { status.skipped = INT64_MIN; }));
    EXPECT_TRUE(refused([](RetryStatus& status) { status.released = INT64_MAX; }));
}

TEST(RetrySlot, SaysWhatMayBeOutAlready) {
    for (auto const& [unsure, telling, text] :
         {std::tuple(false, false, " . "), {true, false, " ? "}, {false, true, " .! "}, {true, true, " ?! "}}) {
        RetryStatus status = SomeStatus(), read;
        status.unsure = unsure;
        status.telling = telling;
        EXPECT_NE(WriteSlot(status).find(text), std::string::npos);
        ASSERT_TRUE(ReadSlot(WriteSlot(status), 2, read));
        EXPECT_EQ(read.unsure, unsure);
        EXPECT_EQ(read.telling, telling);
    }
}

TEST(RetrySlot, IsNotWholeAtAnyCutOrChange) {
    std::string const slot = WriteSlot(SomeStatus());
    RetryStatus read;
    for (std::size_t at = 0; at < slot.size(); ++at) {
        EXPECT_FALSE(ReadSlot(slot.substr(0, at), 2, read)) << at;
        std::string changed = slot;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        EXPECT_FALSE(ReadSlot(changed, 2, read)) << at;
    }
    EXPECT_FALSE(ReadSlot(slot, 3, read));
}

TEST(RetryFaultText, IsThereForEach) {
    for (int fault = 0; fault <= static_cast<int>(RetryFault::MessageDamaged); ++fault) {
        EXPECT_STRNE(TextOf(static_cast<RetryFault>(fault)), "");
    }
}

}  // namespace
}  // namespace smtp
