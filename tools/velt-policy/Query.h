// Query: what velt-policy is asked to explain. Texts that are empty are not given. Value.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velt_policy {

struct Query {
    using Groups = std::optional<std::vector<std::string>>;  // nothing: the directory is asked, where a rule needs it

    std::string from;      // the client's address
    std::string fromHost;  // its host name
    std::string to;        // the server's address
    std::string toHost;
    std::string sender;
    std::string recipient;
    Groups senderGroups;
    Groups recipientGroups;
    std::string setting;  // SECTION/KEY
    std::string policy;   // the slot, "content"; empty: that of the setting
};

}  // namespace velt_policy
