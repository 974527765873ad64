"""A Postfix of its own: queue, configuration and log in one folder. It needs the superuser, as Postfix does."""
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess

import harness

MASTER, QUEUE_TOOL, CONTENT_TOOL = "/usr/lib/postfix/sbin/master", "/usr/sbin/postqueue", "/usr/sbin/postcat"
SERVICES = """pickup unix n - n 60 1 pickup
cleanup unix n - n - 0 cleanup
qmgr unix n - n 300 1 qmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
trace unix - - n - 0 bounce
flush unix n - n 1000? 0 flush
showq unix n - n - - showq
smtp unix - - n - - smtp
relay unix - - n - - smtp
error unix - - n - - error
retry unix - - n - - error
anvil unix - - n - 1 anvil
scache unix - - n - 1 scache
proxymap unix - - n - - proxymap
postlog unix-dgram n - n - 1 postlogd
"""


def is_available():
    return os.geteuid() == 0 and os.access(MASTER, os.X_OK)


def set_up(folder, settings, log="/dev/null"):
    """Queue and configuration of one that listens on a free port and takes mail for everybody: that port, and the command
    of its master, which stays in the foreground and leads a session that its end takes along."""
    [port] = harness.free_ports(1)
    for name in ("etc", "queue", "data"):
        (folder / name).mkdir(parents=True)
    for path in (folder, *folder.parents[:-1]):
        path.chmod(path.stat().st_mode | 0o555)  # its processes are other users
    shutil.chown(folder / "data", "postfix")
    (folder / "etc/main.cf").write_text(f"""compatibility_level = 3.6
queue_directory = {folder}/queue
data_directory = {folder}/data
command_directory = /usr/sbin
daemon_directory = {os.path.dirname(MASTER)}
myhostname = postfix.alpha.test
mydestination =
mynetworks = 127.0.0.0/8
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
smtp_dns_support_level = disabled
smtpd_peername_lookup = no
smtpd_client_connection_rate_limit = 0
smtpd_client_connection_count_limit = 0
maillog_file = {log}
maillog_file_prefixes = {os.path.dirname(log)}
alias_maps =
{settings}
""")
    (folder / "etc/master.cf").write_text(f"127.0.0.1:{port} inet n - n - - smtpd\n{SERVICES}")
    subprocess.run(["postfix", "-c", folder / "etc", "check"], capture_output=True, check=False)
    return port, [MASTER, "-c", folder / "etc", "-d"]


def onward_to(port):
    """The setting by which all mail goes on."""
    return f"relayhost = [127.0.0.1]:{port}\n"


class Postfix:
    """Listens on `port` once it was started, and takes mail for everybody, which goes on to `relay`, a port, if there is one;
    without one all of it stays in the queue."""

    def __init__(self, folder, relay=None, settings=""):
        self.folder, self.process = pathlib.Path(folder), None
        onward = onward_to(relay) if relay else "defer_transports = smtp\n"
        self.port, self.command = set_up(self.folder, onward + settings, self.folder / "log")

    def start(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, start_new_session=True)
        harness.wait_until(self._listens, f"port {self.port} of Postfix", 90)

    def _listens(self):
        with contextlib.suppress(OSError):
            harness.Line(self.port).close()
            return True

    def stop(self, number=signal.SIGTERM):
        """It and all that it has started."""
        if self.process:
            os.killpg(self.process.pid, number)
            self.process.wait()
            harness.wait_until(self._has_ended, "the end of Postfix")
        self.process = None

    def _has_ended(self):
        """Those who are left over are killed."""
        of_each = map(harness.process_fields, map(int, filter(str.isdigit, os.listdir("/proc"))))
        left = any(fields and fields[2] == self.process.pid and fields[0] not in "ZX" for fields in of_each)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        return not left

    # --- its own tools ---

    def tool(self, *options):
        return subprocess.run([QUEUE_TOOL, "-c", self.folder / "etc", *options], check=True, capture_output=True,
                              text=True).stdout

    def flush(self):
        """All of the queue is tried now."""
        self.tool("-f")

    def queued(self):
        """The mails in its queue, as it tells of each."""
        return [json.loads(line) for line in self.tool("-j").splitlines()]

    def requests(self):
        """The number at the end of its list."""
        return int((re.search(r"in (\d+) Request", self.tool("-p")) or [0, 0])[1])

    def message_ids(self, numbers):
        """Those of these mails in its queue. Its log has them, but for what was on its way there when it was killed."""
        text = (self.folder / "log").read_text(errors="replace")
        logged = dict(re.findall(r"/cleanup\[\d+\]: (\w+): message-id=(<.*?>)", text))
        return [logged.get(number) or self._message_id(number) for number in numbers]

    def _message_id(self, number):
        shown = subprocess.run([CONTENT_TOOL, "-c", self.folder / "etc", "-hq", number], check=True, capture_output=True,
                               text=True).stdout
        return re.search(r"^Message-ID: *(<.*?>)", shown, re.MULTILINE | re.IGNORECASE)[1]
