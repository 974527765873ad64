// ScanMessage: one scan for each identity of the recipients, and what the verdicts mean for the message.
// Nothing passes for clean unless a scan said so: an engine that is missing, an error of one engine, an exception, an
// action that nobody knows, a rewritten message that is not there: all of these end in Defer.
// Each scan that is asked for has exactly one outcome; only the end of the process leaves one without.
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
        Hold,    // it goes into quarantine, and the client is told that it is taken
        Refuse,  // a finding whose action stops the message
        Defer,   // not scanned, or not understood: the client tries again
    };
    enum class Outcome {
        Clean,   // scanned, and nothing found
        Acted,   // policy did something about a finding, be it only to note it
        Failed,  // nothing can be said
        Null,    // nobody scanned
    };
    // A plain output is a scan agent's of tests: it owns neither its result nor its content.
    struct Drop {
        void operator()(VELT::ScanOutput* output) const;
    };
    Fate fate = Fate::Defer;
    Outcome outcome = Outcome::Null;
    bool quarantine = false;  // it is kept there: always of Hold, by its action of Refuse
    bool disclaimer = false;  // one was added
    InternedString identity;
    std::string action;                        // of the policy; empty: nothing was found
    std::string finding;                       // what was found, or why nothing can be said; printable
    std::string evidence;                      // all that was found, by engine; printable
    VELT::ScannerStream* rewritten = nullptr;  // in place of the spool; lives in `output`
    std::unique_ptr<VELT::ScanOutput, Drop> output;
};

// A verdict for each element of context.identities. Throws nothing: what an engine throws is a scan that failed.
std::vector<Verdict> ScanMessage(VELT::Connection& session, VELT::ScanContext& context);

// What an action of the policy does. An action that is not one of the known ones gives Defer.
Verdict::Fate FateOfAction(char const* action);

}  // namespace smtp
