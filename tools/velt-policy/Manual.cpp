#include "tools/velt-policy/Manual.h"

namespace velt_policy {

char const kUsageText[] =
    "usage: velt-policy check [DIR] [--product NAME] [--proxy NAME] [--own SECTION]...\n"
    "       velt-policy explain [DIR] --from ADDRESS [--to ADDRESS] [--sender S] [--rcpt R]\n"
    "                           [--setting SECTION/KEY] [OPTION]...\n"
    "       velt-policy explain [DIR] --batch [OPTION]...\n"
    "       velt-policy --help\n";

char const kManual[] = R"(NAME
    velt-policy - check a configuration, and explain what a gateway decides

SYNOPSIS
    velt-policy check [DIR] [--product NAME] [--proxy NAME] [--own SECTION]...
    velt-policy explain [DIR] --from ADDRESS [--to ADDRESS] [--sender S]
                        [--rcpt R] [--setting SECTION/KEY] [OPTION]...
    velt-policy explain [DIR] --batch [OPTION]...

DESCRIPTION
    DIR is the folder that stands for the system's root: the configuration is
    in DIR/config/qxxmlconf. Without it, it is the system's own. It is loaded
    by the code that a gateway loads it with. Nothing in DIR is changed.

    check prints what a gateway reports, and what it passes over in silence,
    one finding a line: FILE:LINE:COLUMN: LEVEL: REASON. The level is error
    where a gateway does not start or cannot do its work, else warning. It
    looks at rules.xml, the product and per-proxy files that are named,
    identities.xml, inside.txt, outside.txt, ldap.txt, bwserver.txt, the
    *-logging.xml, and the signatures of the anti-virus engine. A malformed XML
    file is told with its first error.

    explain tells of one session: the direction, the identity and the
    conditions that chose it, and with --setting the value, as it is written
    and as a gateway reads it, and where it stands. No connection is opened,
    but for a condition with IN: it asks the servers of ldap.txt, unless the
    groups are given.

OPTIONS
    --product NAME  Reads NAME.xml, too.
    --proxy NAME    Reads efabric/NAME.xml, too, and of the logging files
                    NAME-logging.xml alone.

    Of check:
    --own SECTION   A section of settings that a gateway of your own reads.

    Of explain:
    --from ADDRESS       The client's address.
    --from-host NAME     Its host name. Without it, the client has none.
    --to ADDRESS         The server's address. Without it, the session has no
                         server yet: no condition on it holds.
    --to-host NAME       Its host name. Without it, the server has none.
    --resolve            Host names that are not given are looked up, and names
                         may be given in place of addresses.
    --sender, --rcpt     The addresses of the envelope. Without them, they are
                         empty, as before a client has said them.
    --groups A,B         The groups of the recipient; no directory is asked.
    --sender-groups A,B  The groups of the sender.
    --setting S/KEY      The setting KEY of section S.
    --policy SLOT        The slot to read through: base, connection, content,
                         transport, protocol, const, machine, network, system.
                         Without it, that of the setting; without a setting
                         that is known, content.
    --json               The answer as a line of JSON.
    --batch              A query for each line of the standard input, a JSON
                         object with any of "from", "from_host", "to",
                         "to_host", "sender", "rcpt", "setting", "policy", and
                         the lists "groups" and "sender_groups". The answer to
                         each is a line. The longest time that one took is
                         told at the end, on standard error, and the
                         longest time of the processor, which other work on
                         the machine does not lengthen.

    In JSON, "direction" is "in" (the client is outside), "out", or null for a
    session that is closed; "slot", "policy" and "identity" are texts, or null
    for none; "rule" is the first condition on which the choice rests, with
    "file", "line", "column", "text", and all "conditions" that were asked;
    "raw" is the value as written, null where it is not set, "value" the one
    in effect, "clamped" and "default" tell how it came to be; "source" has
    "file", "line", "column", "policy", "identity" and "window". A query that
    makes no sense is answered by an "error".

EXIT STATUS
    0   check: nothing was found. explain: every query was answered.
    1   check: there are findings. explain: a query was not answered, or the
        configuration does not load.
    2   The command line is wrong, or there is no configuration in DIR.
)";

}  // namespace velt_policy
