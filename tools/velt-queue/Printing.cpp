#include "tools/velt-queue/Printing.h"

#include <cstdio>

#include <gateways/smtp/core/Reply.h>

namespace velt_queue {
namespace {

using smtp::Printable;
using State = smtp::RetryStatus::Recipient;

constexpr std::size_t kMaxLine = 2000;

char const* TextOf(State state) {
    switch (state) {
        case State::Waiting:
            return "waits";
        case State::Delivered:
            return "has it";
        case State::Failed:
            return "given up";
        case State::Held:
            return "held";
    }
    return "";
}

std::string BytesOf(std::uint64_t bytes) {
    char text[40];
    double const kib = static_cast<double>(bytes) / 1024;
    std::snprintf(text, sizeof text, kib < 1024 ? "%.1f KiB" : "%.1f MiB", kib < 1024 ? kib : kib / 1024);
    return text;
}

void PrintLine(std::string const& line) { std::printf("%s\n", Printable(line, kMaxLine).c_str()); }

class ForPeople final : public Printer {
public:
    ForPeople(std::time_t now, std::string relay) : m_now(now), m_relay(std::move(relay)) {}

    void list(Mail const& mail) override {
        if (!mail.isReadable()) return PrintLine(mail.id + "  " + NameOf(mail.queue) + "  damaged: " + mail.problem);
        PrintLine(mail.id + "  " + NameOf(mail.queue) + "  " + SpanOf(m_now - mail.envelope.taken) + "  " +
                  BytesOf(mail.size) + "  <" + mail.envelope.sender + ">");
        std::string recipients;
        for (std::size_t i = 0; i < mail.envelope.recipients.size(); ++i) {
            State const state = mail.status.recipients[i];
            if (state != State::Waiting && state != State::Held) continue;
            recipients += (recipients.empty() ? "<" : ", <") + mail.envelope.recipients[i].address + '>';
        }
        std::string const destination = DestinationOf(mail, m_relay);
        PrintLine("    to " + (recipients.empty() ? "nobody any more" : recipients + " by " + destination));
        PrintLine("    " + stateOf(mail));
    }

    void show(Mail const& mail, std::string const& header) override {
        auto const line = [](char const* name, std::string const& text) {
            std::printf("%-12s%s\n", name, Printable(text, kMaxLine).c_str());
        };
        line("id", mail.id);
        line("file", mail.path);
        if (!mail.isReadable()) return line("damaged", mail.problem);
        line("audit id", mail.envelope.auditId);
        line("session", mail.envelope.conversationId);
        line("client", mail.envelope.clientAddress + " (" + mail.envelope.helloName + ')');
        line("taken", timeOf(mail.envelope.taken));
        line("size", BytesOf(mail.size));
        line("sender", '<' + mail.envelope.sender + '>');
        for (std::size_t i = 0; i < mail.envelope.recipients.size(); ++i) {
            auto const& one = mail.envelope.recipients[i];
            line("recipient", '<' + one.address + ">, " + TextOf(mail.status.recipients[i]) +
                                  (one.identity.empty() ? "" : ", identity " + one.identity));
        }
        line("by", DestinationOf(mail, m_relay));
        if (!mail.envelope.action.empty()) line("verdict", verdictOf(mail));
        line("state", stateOf(mail));
        if (mail.status.released) line("released", timeOf(mail.status.released));
        if (!mail.status.reason.empty()) line("reason", mail.status.reason);
        std::printf("\n");
        printHeader(header);
    }

    void total(unsigned long mails, unsigned long held, unsigned long damaged, std::uint64_t bytes) override {
        std::printf("%lu mail%s, %s", mails, mails == 1 ? "" : "s", BytesOf(bytes).c_str());
        if (held) std::printf(", %lu held", held);
        if (damaged) std::printf(", %lu damaged", damaged);
        std::printf("\n");
    }

    void done(Mail const& mail, std::string const& what) override { PrintLine(mail.id + ": " + what); }

    void failed(std::string const& id, std::string const& why) override {
        std::fprintf(stderr, "velt-queue: %s\n", Printable(id + ": " + why, kMaxLine).c_str());
    }

private:
    std::string verdictOf(Mail const& mail) const {
        std::string const& finding = mail.envelope.finding;
        return mail.envelope.action + (finding.empty() ? "" : ", " + finding);
    }

    std::string stateOf(Mail const& mail) const {
        smtp::RetryStatus const& status = mail.status;
        if (mail.isReleasedOnly()) return "released, and not moved; release it again";
        if (mail.isHeld()) return "held: " + verdictOf(mail);
        if (mail.locked) return "being tried now";
        if (!status.waits()) return "done; a retryer removes it";
        std::string text = std::to_string(status.tries) + (status.tries == 1 ? " try" : " tries");
        if (status.asked()) text += ", the next one at once";
        if (status.due > m_now) text += ", the next one in " + SpanOf(status.due - m_now);
        if (status.unsure) text += ", may have arrived";
        return status.reason.empty() ? text : text + ": " + status.reason;
    }

    std::string timeOf(std::time_t time) const {
        char text[64];
        std::tm local{};
        ::localtime_r(&time, &local);
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &local);
        return std::string(text) + ", " + SpanOf(m_now - time) + " ago";
    }

    // What a terminal could take for an order is not sent to it.
    static void printHeader(std::string const& header) {
        for (std::size_t at = 0, end; at < header.size(); at = end + 1) {
            end = std::min(header.find('\n', at), header.size());
            std::string line = header.substr(at, end - at);
            if (line.ends_with('\r')) line.pop_back();
            bool const folded = line.starts_with('\t');
            PrintLine(folded ? "    " + line.substr(1) : line);
        }
    }

    std::time_t const m_now;
    std::string const m_relay;
};

}  // namespace

std::string SpanOf(std::time_t seconds) {
    auto const text = [](std::time_t number, char unit) { return std::to_string(number) + unit; };
    if (seconds < 0) return "0s";
    if (seconds < 60) return text(seconds, 's');
    if (seconds < 3600) return text(seconds / 60, 'm');
    if (seconds < 86400) return text(seconds / 3600, 'h') + ' ' + text(seconds / 60 % 60, 'm');
    return text(seconds / 86400, 'd') + ' ' + text(seconds / 3600 % 24, 'h');
}

std::unique_ptr<Printer> Printer::forPeople(std::time_t now, std::string const& relay) {
    return std::make_unique<ForPeople>(now, relay);
}

}  // namespace velt_queue
