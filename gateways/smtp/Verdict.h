// ScanMessage: one scan for each identity of the recipients, and what the verdicts mean for the message.
// Nothing passes for clean unless a scan said so: an engine that is missing, an error of one engine, an action that
// nobody knows, a rewritten message that is not there: all of these end in Defer.
// Owner: the session; the outputs must outlive the delivery, as they hold rewritten content. Thread: the session's.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <eFabric/Interned.h>
#include <velt/scanning/ScanContext.h>

namespace VELT {
class Connection;
class Scanner;
}  // namespace VELT

namespace smtp {

struct Verdict {
    enum class Fate {
        Pass,    // as it came, or as `rewritten` has it
        Refuse,  // a finding whose action stops the message
        Defer,   // not scanned, or not understood: the client tries again
    };
    Fate fate = Fate::Defer;
    InternedString identity;
    std::string finding;                       // what was found, or why nothing can be said; printable
    VELT::ScannerStream* rewritten = nullptr;  // in place of the spool; lives in `output`
    std::unique_ptr<VELT::ScanOutput> output;
};

// A verdict for each element of context.identities. Empty: no scanner would take the message.
std::vector<Verdict> ScanMessage(VELT::Connection& session, VELT::ScanContext& context);

// What an action of the policy does. An action that is not one of the known ones gives Defer.
Verdict::Fate FateOfAction(char const* action);

}  // namespace smtp
