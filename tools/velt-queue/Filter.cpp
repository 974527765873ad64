#include "tools/velt-queue/Filter.h"

#include <velt/streams/NetUtils.h>

#include <algorithm>
#include <charconv>

namespace velt_queue {
namespace {

constexpr std::string_view kBetweenFindings = "; ";

bool Fits(std::string const& pattern, std::string const& text) { return VELT::NameCaseMatch(pattern, text) != 0; }

bool FitsRecipient(std::string const& pattern, Mail const& mail) {
    return std::any_of(mail.envelope.recipients.begin(), mail.envelope.recipients.end(),
                       [&](smtp::RetryRecipient const& one) { return Fits(pattern, one.address); });
}

bool FitsVerdict(std::string const& pattern, Mail const& mail) {
    std::string const& findings = mail.envelope.finding;
    if (mail.envelope.action.empty()) return false;
    if (Fits(pattern, mail.envelope.action)) return true;
    for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + kBetweenFindings.size()) {
        end = findings.find(kBetweenFindings, at);
        if (Fits(pattern, findings.substr(at, end == std::string::npos ? end : end - at))) return true;
    }
    return false;
}

std::time_t UnitOf(std::string_view text) {
    if (text.empty() || text == "s") return 1;
    if (text == "m") return 60;
    if (text == "h") return 3600;
    if (text == "d") return 86400;
    return text == "w" ? 7 * 86400 : 0;
}

}  // namespace

bool Filter::fits(Mail const& mail, std::time_t now) const {
    if (!mail.isReadable()) return all && !olderThan && !to && !from && !verdict;
    if (olderThan && now - mail.envelope.taken <= *olderThan) return false;
    if (to && !FitsRecipient(*to, mail)) return false;
    if (from && !(from->empty() ? mail.envelope.sender.empty() : Fits(*from, mail.envelope.sender))) return false;
    return !verdict || FitsVerdict(*verdict, mail);
}

std::optional<std::time_t> ReadAge(std::string const& text) {
    unsigned number = 0;
    char const* const last = text.data() + text.size();
    auto const [end, error] = std::from_chars(text.data(), last, number);
    std::time_t const unit = UnitOf({end, static_cast<std::size_t>(last - end)});
    if (error != std::errc() || unit == 0) return std::nullopt;
    return static_cast<std::time_t>(number) * unit;
}

}  // namespace velt_queue
