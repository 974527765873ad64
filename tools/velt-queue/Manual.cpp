#include "tools/velt-queue/Manual.h"

namespace velt_queue {

char const kUsageText[] =
    "usage: velt-queue list [FILTER | ID...]\n"
    "       velt-queue show [--body] ID...\n"
    "       velt-queue release | retry | delete [--dry-run] FILTER | ID...\n"
    "       velt-queue --help\n";

char const kManual[] = R"(NAME
    velt-queue - mail that waits to be delivered, and mail that is held

SYNOPSIS
    velt-queue [list] [FILTER | ID...]
    velt-queue show [--body] FILTER | ID...
    velt-queue release [--dry-run] FILTER | ID...
    velt-queue retry [--dry-run] FILTER | ID...
    velt-queue delete [--dry-run] FILTER | ID...

DESCRIPTION
    Works on the files of the mail gateway's two queues: "deferred", mail that
    waits until the next server takes it, and "quarantine", mail that policy
    says to keep. It may run at any time, beside gateways, retryers and others
    of its kind; a mail that somebody works on is left alone.

    list     Tells of each mail, the oldest first: id, queue, age, size, sender,
             recipients who have not got it, the server or the domains that it
             goes to, and what is to become of it.
    show     All that is known of a mail, its verdict and its header.
    release  Mail that is held goes to the deferred directory, and a retryer
             delivers it at its next walk. It is not judged again. Where it
             was cut off the next call of any kind finishes it, or "list" tells
             of it.
    retry    A retryer tries the mail at its next walk, whatever its own time
             and the pause of its destination.
    delete   The mail is gone. Nobody is told.

    An ID is the one of a file, as "list" tells it, or the audit id of a mail,
    which may have several files. Where none is named a filter chooses: among
    held mail for "release" and "delete", among mail that waits for "retry",
    among both for "list" and "show", unless --queue says otherwise.

OPTIONS
    --queue NAME       "deferred" or "quarantine".
    --older AGE        Filter: taken from its client longer ago than this: a
                       number and s, m, h, d or w.
    --to PATTERN       Filter: some recipient fits; * and ?, in any case.
    --from PATTERN     Filter: the sender fits. Empty: the empty sender.
    --verdict PATTERN  Filter: the action, or one of the findings, fits.
    --all              Filter: every mail, damaged files too.
                       Several filters: a mail that all of them fit.

    --body             The message as it is, and nothing else.
    --dry-run          Tells what would be done.
    --json             A line of JSON for each mail.
    --root DIR         DIR stands for the root of the system.
    --product NAME     Reads NAME.xml, too.
    --proxy NAME       Reads efabric/NAME.xml, too.
    --                 What follows are ids.

    In JSON, a mail has "id", "queue", "file", "problem" (why its file cannot
    be read; the rest is then missing), "audit_id", "session", "client",
    "hello", "taken", "age", "size", "sender", "recipients" (each with
    "address", "identity" and "state": waits, delivered, failed or held),
    "destination", "action", "finding", "held", "locked" (somebody works on
    it), "tries", "last", "due", "asked" (since when a try is asked for),
    "released", "unsure" (it may have arrived) and "reason"; with "show"
    "header", too. Times are seconds since 1970, ages and sizes seconds and
    bytes. What was done has "id", "queue", "done" and "problem".

EXIT STATUS
    0   All was done. A filter that fits no mail is no failure.
    1   Some mail could not be found, read or changed.
    2   A configuration that a gateway does not start with, a directory that
        cannot be read, a command line that is wrong.
)";

}  // namespace velt_queue
