#include "Headers.h"

#include "Reply.h"

namespace smtp {
namespace {

constexpr std::size_t kReturnedHeaderLimit = 16384;

// 70 characters are the most that a boundary may have.
std::string Boundary(NotificationFacts const& facts) { return "velt-" + facts.messageId; }

void Part(std::string& out, NotificationFacts const& facts, std::string_view type) {
    out += "\r\n--" + Boundary(facts) + "\r\nContent-Type: ";
    out.append(type) += "\r\n\r\n";
}

void Header(std::string& out, NotificationFacts const& facts) {
    out += "From: Mail Delivery System <MAILER-DAEMON@" + facts.reportingHost + ">\r\n";
    out += "To: <" + facts.sender + ">\r\n";
    out += "Subject: Undelivered mail returned to sender\r\n";
    out += "Date: " + facts.arrival + "\r\n";
    out += "Message-ID: <" + facts.messageId + "@" + facts.reportingHost + ">\r\n";
    out += "Auto-Submitted: auto-replied\r\nMIME-Version: 1.0\r\n";
    out += "Content-Type: multipart/report; report-type=delivery-status;\r\n\tboundary=\"" + Boundary(facts) + "\"\r\n";
    out += "\r\nThis is a report in MIME format.\r\n";
}

void Explanation(std::string& out, NotificationFacts const& facts) {
    Part(out, facts, "text/plain; charset=us-ascii");
    out += "This is the mail gateway at " + facts.reportingHost + ".\r\n\r\n";
    out += "Your message could not be delivered to every recipient. It did not reach:\r\n";
    for (FailedRecipient const& one : facts.failed) {
        out += "\r\n<" + one.address + ">\r\n    " + Printable(one.diagnostic, 800) + "\r\n";
    }
    out += "\r\nThe gateway does not try again to reach them. Any other recipient has the\r\n";
    out += "message, will have it, or is told of in a report of its own.\r\n";
    out += "Number of this message in the gateway's records: " + facts.auditId + "\r\n";
}

void StatusReport(std::string& out, NotificationFacts const& facts) {
    Part(out, facts, "message/delivery-status");
    out += "Reporting-MTA: dns; " + facts.reportingHost + "\r\n";
    if (!facts.helloName.empty()) out += "Received-From-MTA: dns; " + Printable(facts.helloName, 255) + "\r\n";
    out += "Arrival-Date: " + facts.arrival + "\r\n";
    for (FailedRecipient const& one : facts.failed) {
        out += "\r\nFinal-Recipient: rfc822; " + one.address + "\r\nAction: failed\r\nStatus: " + one.status + "\r\n";
        if (!one.remote.empty()) out += "Remote-MTA: dns; " + Printable(one.remote, 255) + "\r\n";
        out += "Diagnostic-Code: smtp; " + Printable(one.diagnostic, 800) + "\r\n";
    }
}

// The header of the message, in seven bits, cut at a line.
void ReturnedHeader(std::string& out, NotificationFacts const& facts) {
    Part(out, facts, "text/rfc822-headers");
    std::string_view header = facts.header.substr(0, kReturnedHeaderLimit);
    while (!header.empty()) {
        std::size_t const end = header.find('\n');
        if (end == std::string_view::npos) break;
        std::string_view line = header.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) break;
        out +=
            line.front() == ' ' || line.front() == '\t' ? "\t" + Printable(line.substr(1), 990) : Printable(line, 990);
        out += "\r\n";
        header.remove_prefix(end + 1);
    }
}

}  // namespace

std::string ReceivedLine(ReceivedFacts const& facts) {
    std::string out = "Received: from " + Printable(facts.helloName, 255) + " ([" + facts.clientAddress +
                      "])\r\n\tby " + facts.byName + " (Velt) with " + facts.protocol + " id " + facts.id;
    if (!facts.recipient.empty()) out += "\r\n\tfor <" + facts.recipient + ">";
    return out + ";\r\n\t" + facts.date + "\r\n";
}

std::string DeliveryNotification(NotificationFacts const& facts) {
    std::string out;
    Header(out, facts);
    Explanation(out, facts);
    StatusReport(out, facts);
    ReturnedHeader(out, facts);
    out += "\r\n--" + Boundary(facts) + "--\r\n";
    return out;
}

}  // namespace smtp
