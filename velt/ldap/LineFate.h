// LineFate: what became of a line of ldap.txt or bwserver.txt. Threads, owner, failure: a value.
#pragma once

namespace VELT {

enum class LineFate {
    Skipped,       // empty, or a comment
    OpensServer,   //
    GoesOn,        // a further "server" of a file that knows one server alone
    Taken,         // a key with its value
    BeforeServer,  // dropped: no server is open
    WithoutBlank,  // dropped: no blank ends the key
    UnknownKey,    // dropped
    Refused,       // dropped: the value makes no sense for the key
    SameHost,      // dropped with its server: an earlier one has the same host
};

}  // namespace VELT
