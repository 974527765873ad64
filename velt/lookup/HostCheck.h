// HostCheck: the check of a DOMAIN line: a wildcard pattern (velt/streams/NameMatch.h) against the session's host name.
// Owner: the NetPolicy that holds it. Threads: any; the first score of a session may wait for a name server.
// Units: 0 for the pattern "*" and for a name that does not match, -1 for a host without a name, otherwise the score of
// name_match. Failure: none.
#pragma once

#include <memory>

#include <velt/Export.h>
#include <velt/lookup/NetPolicy.h>

namespace VELT {

class VELT_API HostCheck : public NetPolicyCheck {
public:
    explicit HostCheck(char const* text);  // a copy, in lower case

    static std::unique_ptr<HostCheck> parse(char const* text, LineRemark& remark);  // what follows "DOMAIN "

    // Case counts: a host name with a capital letter never matches, as the pattern has none left.
    int score(Connection* session, TCPConnection& end) override;

    static int calc_score(char const* pattern, Connection* session, TCPConnection& end);  // the pattern as it stands
    static int host_match(char const* pattern, char const* name);  // any case of letters; 0: no match

private:
    std::unique_ptr<char[]> pattern;
};

}  // namespace VELT
