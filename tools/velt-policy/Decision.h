// Decision: what a gateway decides for a session, and why. The library's own session decides, without a socket.
// Thread: the World's. Failure: a query that makes no sense has a `problem`, and nothing else is said.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <QXid/Rules.h>

#include "tools/velt-policy/Findings.h"
#include "tools/velt-policy/Query.h"
#include "tools/velt-policy/World.h"

namespace velt_policy {

// An identity that was tried.
struct TriedIdentity {
    std::string name;
    RulePlace place;
    RuleExplanation why;
};

// What the directory was asked of an address, by a condition with IN.
struct DirectoryAnswer {
    bool asked = false;
    bool failed = false;
    std::vector<std::string> groups;
};

struct SettingValue {
    bool known = false;              // some descriptor, or an engine, reads it
    std::optional<std::string> raw;  // nothing: it is not set
    std::string effective;           // empty for one that is not known and not set
    bool clamped = false;
    bool standard = false;  // the default counts
    Spot source;            // of the value; line 0: none
    std::string sourcePolicy;
    std::string sourceIdentity;  // empty: the policy's own
    std::string window;          // empty: always
};

struct Decision {
    std::string problem;
    std::optional<bool> inbound;  // nothing: neither list knows the client, and the session is closed
    unsigned slot = 0;
    std::string policy;                   // "content_in"
    std::optional<std::string> identity;  // nothing: none
    DirectoryAnswer ofSender, ofRecipient;
    std::vector<TriedIdentity> tried;   // in their order; the last is the one that was chosen, if one was
    std::optional<SettingValue> value;  // where a setting was asked for
    double microseconds = 0;
    double processorMicroseconds = 0;  // of them, on the processor: what other work on the machine does not lengthen
};

class Decider {
public:
    // Names of hosts are looked up only with `resolve`. With `all`, it is told of every identity that was tried, else
    // of the chosen one.
    Decider(World& world, bool resolve, bool all);
    Decision decide(Query const& query);

private:
    void choose(VELT::Connection& session, Query const& query, Decision& decision);
    void tell(VELT::Config::PolicyInfo& slot, Decision& decision) const;
    void readSetting(VELT::Config& config, std::string const& setting, Decision& decision) const;

    World& m_world;
    bool const m_resolve;
    bool const m_all;
};

}  // namespace velt_policy
