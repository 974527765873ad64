#include "Message.h"

namespace smtp {
namespace {

constexpr std::size_t kShown = 20;

}  // namespace

std::string ListOf(std::vector<std::string> const& addresses) {
    std::string out;
    for (std::size_t i = 0; i < addresses.size() && i < kShown; ++i) {
        if (i) out += ' ';
        out += '<' + addresses[i] + '>';
    }
    if (addresses.size() > kShown) out += " and " + std::to_string(addresses.size() - kShown) + " more";
    return out;
}

std::string ListOf(std::vector<Recipient> const& recipients) {
    std::vector<std::string> addresses;
    for (Recipient const& one : recipients) addresses.push_back(one.address);
    return ListOf(addresses);
}

}  // namespace smtp
