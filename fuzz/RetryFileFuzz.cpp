// A file of a mail that waits: whatever bytes it has, reading it ends in a fault that has a name or in values that are
// written to the same bytes again.
#include <gateways/smtp/core/RetryFormat.h>

#include <algorithm>
#include <cstdio>

#include "fuzz/Input.h"

using namespace smtp;
using velt_fuzz::Require;

namespace {

void CheckEnvelope(std::string const& text) {
    RetryEnvelope envelope;
    RetryLayout layout;
    layout.envelopeLength = text.size();
    layout.envelopeSum = Checksum(text);
    layout.slotLength = SlotLength(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')));
    for (; layout.slotLength >= SlotLength(1); --layout.slotLength) {
        if (ReadEnvelope(text, layout, envelope) == RetryFault::None) break;
    }
    if (layout.slotLength < SlotLength(1)) return;
    std::string const again = WriteEnvelope(envelope);
    layout.envelopeLength = again.size();
    layout.envelopeSum = Checksum(again);
    RetryEnvelope read;
    Require(ReadEnvelope(again, layout, read) == RetryFault::None, "what was read can be written");
    Require(WriteEnvelope(read) == again, "an envelope is stable");
}

void CheckSlot(std::string const& text, std::size_t recipients) {
    RetryStatus status;
    if (!ReadSlot(text, recipients, status)) return;
    RetryStatus read;
    Require(ReadSlot(WriteSlot(status), recipients, read), "what was read can be written");
    Require(WriteSlot(read) == WriteSlot(status), "a slot is stable");
}

}  // namespace

// The first byte is the number of recipients of the slot.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    velt_fuzz::Input input(data, size);
    std::size_t const recipients = input.Byte();
    std::string const text = input.Rest();
    RetryLayout layout;
    if (ReadFirstLine(text, layout) == RetryFault::None) {
        Require(WriteFirstLine(layout) == text.substr(0, RetryLayout::kFirstLine), "a first line is stable");
        Require(layout.end() >= layout.message() && layout.message() >= layout.slot(1), "parts stand in order");
    }
    if (text.size() < 4096) CheckEnvelope(text);
    // A sum that a mutation would hardly find.
    CheckSlot(text, recipients);
    std::string slot = text.substr(0, SlotLength(recipients) - 10);
    slot.resize(SlotLength(recipients) - 10, ' ');
    slot += '\n';
    char sum[10];
    std::snprintf(sum, sizeof sum, "%08x ", Checksum(slot));
    CheckSlot(sum + slot, recipients);
    return 0;
}
