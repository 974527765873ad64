#include "tools/velt-scan/Manual.h"

namespace velt_scan {

char const kUsageText[] =
    "usage: velt-scan [--root DIR] [--product NAME] [--proxy NAME]\n"
    "                 [--policy NAME] [--identity NAME]\n"
    "                 [--from ADDRESS [--sender S] [--rcpt R]] [--mark NAME=TEXT]...\n"
    "                 [--json] [--quiet] [--output PATH] FILE...\n"
    "       velt-scan --help\n";

char const kManual[] = R"(NAME
    velt-scan - scan files as a gateway scans what passes through it

SYNOPSIS
    velt-scan [--root DIR] [--product NAME] [--proxy NAME]
              [--policy NAME] [--identity NAME]
              [--from ADDRESS [--sender S] [--rcpt R]] [--mark NAME=TEXT]...
              [--json] [--quiet] [--output PATH] FILE...

DESCRIPTION
    Scans each FILE, a mail or any other object, with the engines, the policy
    and the code of a gateway, and prints a verdict on each: clean; found, with
    the action that policy has for it; or error. A file named "-" is the
    standard input. A folder is an error. Files are not changed.

    A file is clean only if every engine that policy asks for has looked at all
    of it. Whatever hinders one of them is an error.

OPTIONS
    --root DIR       DIR stands for the root of the system: the configuration
                     is in DIR/config/qxxmlconf.
    --product NAME   Reads NAME.xml, too.
    --proxy NAME     Reads efabric/NAME.xml, too.

    --policy NAME    The policy to scan with: content_in without it.
    --identity NAME  One of its identities. Without it, none.
    --from ADDRESS   The client's IPv4 address. The rules choose policy and
                     identity by it, as for a session from there, and by
    --sender, --rcpt the addresses of the envelope.
    --mark NAME=TEXT What the mark %NAME% in an alert text becomes.

    --output PATH    Where what goes on after the scan is written: the object
                     as it was, or as it was cleaned. If PATH is a folder, each
                     FILE has its own name there. What policy stops is not
                     written, nor is a file with an error.
    --json           A line of JSON for each file, and one with the totals.
    --quiet          Tells neither clean files nor totals.
    --               What follows are files.

    In JSON, a file has "verdict" ("clean", "found" or "error"), "action",
    "identity", "findings", "errors", "components" (every place in which
    something was found), "rewritten" (there is a new object), "fallback" (a
    limit was hit, and the signatures have looked at the object as it is),
    "not_written", "bytes" and "milliseconds". A finding has "engine", "kind"
    (AV, CF, FF, MF, AS, IF), "action", "actions" (all that were asked for, the
    last one counts), "names", "text", "limit" (SIZE or DEPTH), "path" (of the
    first place, from the object inwards), "score", "cleaned" and "decided"
    (the action of the file is its). An error has "engine", "text" and "code".
    What there is none of is null or empty. The totals have "files", "clean",
    "found", "error" and "milliseconds".

EXIT STATUS
    0   All files are clean.
    1   Something was found, whatever else there was.
    2   Nothing was found, and there were errors: a file that cannot be read,
        an engine that failed, a configuration that a gateway does not start
        with, a command line that is wrong.
)";

}  // namespace velt_scan
