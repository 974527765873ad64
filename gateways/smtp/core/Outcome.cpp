#include "Outcome.h"

#include <algorithm>

namespace smtp {
namespace {

using Kind = RecipientFate::Kind;

// The class of what was said further on, under a code that may stand behind DATA.
Reply PassOn(Reply const& reply) {
    return {reply.group() == 4 ? 451 : 554, StatusOf(reply), Printable(reply.text, 400)};
}

Reply OneRefusal(std::vector<RecipientFate> const& fates) {
    auto const temporary =
        std::find_if(fates.begin(), fates.end(), [](RecipientFate const& fate) { return fate.temporary(); });
    if (temporary != fates.end()) return PassOn(temporary->reply);
    auto const refused =
        std::find_if(fates.begin(), fates.end(), [](RecipientFate const& fate) { return fate.kind == Kind::Refused; });
    return PassOn(refused != fates.end() ? refused->reply : fates.front().reply);
}

}  // namespace

Decision Decide(std::vector<RecipientFate> const& fates, std::string const& auditId) {
    auto const passedOn =
        std::any_of(fates.begin(), fates.end(), [](RecipientFate const& fate) { return fate.passedOn(); });
    auto const again =
        std::any_of(fates.begin(), fates.end(), [](RecipientFate const& fate) { return fate.temporary(); });
    auto const taken =
        std::count_if(fates.begin(), fates.end(), [](RecipientFate const& fate) { return fate.taken(); });
    if (fates.empty()) return {{451, "4.3.0", "no recipient"}, false};
    if (taken == 0 || (again && !passedOn)) return {OneRefusal(fates), false};
    bool const all = static_cast<std::size_t>(taken) == fates.size();
    return {{250, "2.0.0", "accepted as " + auditId}, !all};
}

Reply WithoutNotification(std::vector<RecipientFate> const& fates) {
    auto const missed =
        std::find_if(fates.begin(), fates.end(), [](RecipientFate const& fate) { return !fate.taken(); });
    if (missed == fates.end()) return {250, "2.0.0", "accepted"};
    std::string status = StatusOf(missed->reply);
    status.front() = '5';  // nobody tries again
    bool const had =
        std::any_of(fates.begin(), fates.end(), [](RecipientFate const& fate) { return fate.kind == Kind::Delivered; });
    std::string const who = had ? "some recipients have the message" : "some recipients will have the message";
    return {554, status, who + ", others do not: " + Printable(missed->reply.text, 400)};
}

}  // namespace smtp
