#include "RetryFormat.h"

#include <algorithm>
#include <array>
#include <boost/crc.hpp>
#include <charconv>
#include <cstdio>

#include "Address.h"

namespace smtp {
namespace {

constexpr std::string_view kMagic = "VELTRMD ";
constexpr std::string_view kVersion = "1 ";
constexpr std::size_t kSumEnd = 9;  // of a sum and the blank behind it
constexpr std::uint64_t kSlotRoom = 480;

struct TextRow {
    std::string_view key;
    std::string RetryEnvelope::*field;
};

constexpr TextRow kTexts[] = {
    {"id", &RetryEnvelope::auditId},           {"session", &RetryEnvelope::conversationId},
    {"sender", &RetryEnvelope::sender},        {"hello", &RetryEnvelope::helloName},
    {"client", &RetryEnvelope::clientAddress}, {"server", &RetryEnvelope::server},
    {"engines", &RetryEnvelope::engines},
};

// Of mail that policy says to keep, and of no other.
constexpr TextRow kVerdict[] = {
    {"action", &RetryEnvelope::action},
    {"finding", &RetryEnvelope::finding},
};

struct FlagRow {
    std::string_view key;
    bool RetryEnvelope::*field;
};

constexpr FlagRow kFlags[] = {
    {"inbound", &RetryEnvelope::inbound},
    {"plain", &RetryEnvelope::plain},
    {"8bit", &RetryEnvelope::eightBit},
    {"rewritten", &RetryEnvelope::rewritten},
};

bool StandsAsItIs(char c) { return c > ' ' && c < 0x7F && c != '%'; }

std::string Escaped(std::string_view text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (StandsAsItIs(c)) {
            out += c;
        } else {
            out.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
        }
    }
    return out;
}

template <class Number>
bool ReadNumber(std::string_view text, Number& out, int base = 10) {
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), out, base);
    return error == std::errc() && end == text.data() + text.size();
}

bool Unescape(std::string_view text, std::string& out) {
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            if (!StandsAsItIs(text[i])) return false;
            out += text[i];
            continue;
        }
        unsigned byte = 0;
        if (i + 2 >= text.size() || !ReadNumber(text.substr(i + 1, 2), byte, 16)) return false;
        out += static_cast<char>(byte);
        i += 2;
    }
    return true;
}

// Cuts off what stands before the next `end`, which goes too; all, where there is none.
std::string_view Cut(std::string_view& text, char end) {
    std::size_t const at = text.find(end);
    std::string_view const front = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return front;
}

std::string Sum(std::string_view bytes) {
    char text[kSumEnd];
    std::snprintf(text, sizeof text, "%08x", Checksum(bytes));
    return text;
}

bool ReadRecipient(std::string_view text, RetryEnvelope& out) {
    RetryRecipient recipient;
    std::string_view const address = Cut(text, ' ');
    if (address.empty() || !Unescape(address, recipient.address) || !Unescape(text, recipient.identity)) return false;
    out.recipients.push_back(std::move(recipient));
    return true;
}

// The value of a key that is known; false: it is not, or the value is none.
bool ReadLine(std::string_view line, RetryEnvelope& out) {
    std::string_view const key = Cut(line, ' ');
    if (key == "recipient") return ReadRecipient(line, out);
    if (key == "taken") return ReadNumber(line, out.taken);
    for (TextRow const& row : kTexts) {
        if (key == row.key) return Unescape(line, out.*row.field);
    }
    for (TextRow const& row : kVerdict) {
        if (key == row.key) return Unescape(line, out.*row.field);
    }
    for (FlagRow const& row : kFlags) {
        if (key == row.key) return line.empty() && (out.*row.field = true);
    }
    return false;
}

// The server is sent it as it stands.
bool IsPath(std::string const& address, PathKind kind) {
    Mailbox ignored;
    std::string const path = '<' + address + '>';
    std::string_view rest = path;
    return ParsePath(rest, kind, ignored) == PathError::None && rest.empty();
}

bool HasPaths(RetryEnvelope const& envelope) {
    return IsPath(envelope.sender, PathKind::Reverse) &&
           std::all_of(envelope.recipients.begin(), envelope.recipients.end(),
                       [](RetryRecipient const& one) { return IsPath(one.address, PathKind::Forward); });
}

bool IsState(char c) {
    using Recipient = RetryStatus::Recipient;
    auto const state = static_cast<Recipient>(c);
    return state == Recipient::Waiting || state == Recipient::Delivered || state == Recipient::Failed ||
           state == Recipient::Held;
}

// Sums and differences of a few of them are numbers, too.
bool IsTime(std::int64_t seconds) {
    return seconds >= -RetryLayout::kMaxSeconds && seconds <= RetryLayout::kMaxSeconds;
}

// The states, and behind them the time of a release.
bool ReadStates(std::string_view text, std::size_t recipients, RetryStatus& out) {
    bool const dated = text.find('@') != std::string_view::npos;
    std::string_view const states = Cut(text, '@');
    if (states.size() != recipients || !std::all_of(states.begin(), states.end(), IsState)) return false;
    out.recipients.clear();
    for (char const c : states) out.recipients.push_back(static_cast<RetryStatus::Recipient>(c));
    out.released = 0;
    return !dated || (ReadNumber(text, out.released) && out.released > 0 && IsTime(out.released));
}

std::string Due(RetryStatus const& status) {
    std::string const due = std::to_string(status.due);
    return status.skipped ? due + '/' + std::to_string(status.skipped) : due;
}

bool ReadDue(std::string_view text, RetryStatus& out) {
    bool const skips = text.find('/') != std::string_view::npos;
    out.skipped = 0;
    return ReadNumber(Cut(text, '/'), out.due) && (!skips || (ReadNumber(text, out.skipped) && out.skipped));
}

}  // namespace

char const* TextOf(RetryFault fault) {
    switch (fault) {
        case RetryFault::None:
            return "no fault";
        case RetryFault::Unreadable:
            return "file cannot be read";
        case RetryFault::NotOurs:
            return "another user's file, or one that anybody may write to";
        case RetryFault::MoreNames:
            return "file has more than one name";
        case RetryFault::NotARetryFile:
            return "not a file of this kind";
        case RetryFault::OtherVersion:
            return "format of another version";
        case RetryFault::Truncated:
            return "file has not the length that it names";
        case RetryFault::HeadDamaged:
            return "envelope was changed";
        case RetryFault::StatusDamaged:
            return "status was changed";
        case RetryFault::MessageDamaged:
            return "message was changed";
    }
    return "";
}

bool RetryStatus::waits() const {
    return std::find(recipients.begin(), recipients.end(), Recipient::Waiting) != recipients.end();
}

bool RetryStatus::isHeld() const {
    return std::find(recipients.begin(), recipients.end(), Recipient::Held) != recipients.end();
}

std::uint64_t SlotLength(std::size_t recipients) { return kSlotRoom + recipients; }

std::uint32_t Checksum(std::string_view bytes, std::uint32_t before) {
    // The optimal form takes its start as it is reflected: what one block ended with is the start of the next.
    boost::crc_optimal<32, 0x04C11DB7, 0, 0, true, true> sum(0);
    std::uint32_t reflected = ~before;
    std::uint32_t start = 0;
    for (unsigned bit = 0; bit < 32; ++bit) start |= ((reflected >> bit) & 1u) << (31 - bit);
    sum.reset(start);
    sum.process_bytes(bytes.data(), bytes.size());
    return ~static_cast<std::uint32_t>(sum.checksum());
}

std::string WriteFirstLine(RetryLayout const& layout) {
    char text[RetryLayout::kFirstLine + 1];
    int const length = std::snprintf(
        text, sizeof text, "%s%s%010llu %010llu %020llu %08x %08x ", kMagic.data(), kVersion.data(),
        static_cast<unsigned long long>(layout.envelopeLength), static_cast<unsigned long long>(layout.slotLength),
        static_cast<unsigned long long>(layout.messageLength), layout.envelopeSum, layout.messageSum);
    std::string line(text, static_cast<std::size_t>(length));
    return line + Sum(line) + '\n';
}

RetryFault ReadFirstLine(std::string_view bytes, RetryLayout& out) {
    if (!bytes.starts_with(kMagic)) {
        return kMagic.starts_with(bytes) ? RetryFault::Truncated : RetryFault::NotARetryFile;
    }
    if (bytes.size() < RetryLayout::kFirstLine) return RetryFault::Truncated;
    std::string_view rest = bytes.substr(kMagic.size());
    if (!rest.starts_with(kVersion)) return RetryFault::OtherVersion;
    std::string_view const summed = bytes.substr(0, RetryLayout::kFirstLine - kSumEnd);
    if (bytes.substr(summed.size(), kSumEnd) != Sum(summed) + '\n') return RetryFault::HeadDamaged;
    rest.remove_prefix(kVersion.size());
    bool const good = ReadNumber(Cut(rest, ' '), out.envelopeLength) && ReadNumber(Cut(rest, ' '), out.slotLength) &&
                      ReadNumber(Cut(rest, ' '), out.messageLength) &&
                      ReadNumber(Cut(rest, ' '), out.envelopeSum, 16) && ReadNumber(Cut(rest, ' '), out.messageSum, 16);
    bool const sane = good && out.envelopeLength <= RetryLayout::kMaxEnvelope &&
                      out.slotLength <= RetryLayout::kMaxEnvelope && out.messageLength <= RetryLayout::kMaxMessage;
    return sane ? RetryFault::None : RetryFault::HeadDamaged;
}

std::string WriteEnvelope(RetryEnvelope const& envelope) {
    std::string out;
    for (TextRow const& row : kTexts) {
        out.append(row.key).append(" ").append(Escaped(envelope.*row.field)).append("\n");
    }
    for (TextRow const& row : kVerdict) {
        if (!(envelope.*row.field).empty())
            out.append(row.key).append(" ").append(Escaped(envelope.*row.field)) += '\n';
    }
    out += "taken " + std::to_string(envelope.taken) + '\n';
    for (FlagRow const& row : kFlags) {
        if (envelope.*row.field) out.append(row.key).append("\n");
    }
    for (RetryRecipient const& one : envelope.recipients) {
        out += "recipient " + Escaped(one.address) + ' ' + Escaped(one.identity) + '\n';
    }
    return out;
}

RetryFault ReadEnvelope(std::string_view bytes, RetryLayout const& layout, RetryEnvelope& out) {
    out = {};
    if (bytes.size() != layout.envelopeLength || Checksum(bytes) != layout.envelopeSum) return RetryFault::HeadDamaged;
    while (!bytes.empty()) {
        if (!ReadLine(Cut(bytes, '\n'), out)) return RetryFault::HeadDamaged;
    }
    bool const whole = !out.auditId.empty() && out.taken > 0 && IsTime(out.taken) && !out.recipients.empty() &&
                       layout.slotLength == SlotLength(out.recipients.size()) && HasPaths(out);
    return whole ? RetryFault::None : RetryFault::HeadDamaged;
}

std::string WriteSlot(RetryStatus const& status) {
    std::string text = std::to_string(status.sequence) + ' ' + std::to_string(status.tries) + ' ' +
                       std::to_string(status.last) + ' ' + Due(status) + (status.unsure ? " ?" : " .") +
                       (status.telling ? "! " : " ");
    for (RetryStatus::Recipient const one : status.recipients) text += static_cast<char>(one);
    if (status.released > 0) text += '@' + std::to_string(status.released);
    std::string reason = status.reason.substr(0, RetryLayout::kMaxReason);
    std::replace_if(
        reason.begin(), reason.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    text += ' ' + reason;
    text.resize(SlotLength(status.recipients.size()) - kSumEnd - 1, ' ');
    text += '\n';
    return Sum(text) + ' ' + text;
}

bool ReadSlot(std::string_view bytes, std::size_t recipients, RetryStatus& out) {
    if (bytes.size() != SlotLength(recipients)) return false;
    std::string_view text = bytes.substr(kSumEnd);
    if (bytes.substr(0, kSumEnd) != Sum(text) + ' ' || text.back() != '\n') return false;
    text.remove_suffix(1);
    bool const numbers = ReadNumber(Cut(text, ' '), out.sequence) && ReadNumber(Cut(text, ' '), out.tries) &&
                         ReadNumber(Cut(text, ' '), out.last) && ReadDue(Cut(text, ' '), out);
    std::string_view unsure = Cut(text, ' ');
    out.telling = unsure.ends_with('!');
    if (out.telling) unsure.remove_suffix(1);
    std::string_view const states = Cut(text, ' ');
    bool const sane = numbers && out.sequence <= RetryLayout::kMaxSequence && IsTime(out.last) && IsTime(out.due) &&
                      IsTime(out.skipped);
    if (!sane || (unsure != "?" && unsure != ".") || !ReadStates(states, recipients, out)) return false;
    out.unsure = unsure == "?";
    out.reason = text.substr(0, text.find_last_not_of(' ') + 1);
    return true;
}

}  // namespace smtp
