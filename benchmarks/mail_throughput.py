#!/usr/bin/env python3
"""Mail through the gateway, side by side with no gateway at all and with clamsmtp and clamd on the same signature.

usage: mail_throughput.py BUILD_DIR        RUNS, SESSIONS in the environment; FULL=1 for the long counts

The load is Postfix's smtp-source, the next hop its smtp-sink, one message per connection, all on the loopback of a
network namespace of its own. CPU is that of the filter with its engine, user and system, per message. The goal is a third
of what clamsmtp and clamd use at five times their rate; the exit status is that of the CPU alone, with room. Rates are
judged by the reader, as they drift with the machine.
"""
import base64
import os
import pathlib
import random
import signal
import smtplib
import socket
import statistics
import subprocess
import sys
import tempfile
import time

SINK, GATEWAY, CLAMSMTP = 7400, 7401, 7402
SESSIONS = os.environ.get("SESSIONS", "16")
RUNS = int(os.environ.get("RUNS", "3"))
FULL = bool(os.environ.get("FULL"))
COUNTS = {4 << 10: 8000 if FULL else 3000, 256 << 10: 1600 if FULL else 600}
SLOW_PEER = 8  # clamsmtp waits for delayed acknowledgements: it gets a share of the messages
CPU_GOAL, CPU_GATE = 1 / 3, 0.45  # the gate leaves room for a machine that does other things meanwhile
TICK = os.sysconf("SC_CLK_TCK")
SIGNATURE = b"velt-throughput-signature-0123456789"
WORDS = "the mail of this day carries plain words to read and a few lines more".split()
children = []


def isolate():
    """Runs the script again in a network namespace of its own."""
    if os.environ.get("VELT_ISOLATED"):
        return
    setup = "ip link set lo up; sysctl -qw net.core.somaxconn=4096; exec \"$@\""
    flags = "-n" if os.geteuid() == 0 else "-Urn"
    os.execvpe("unshare", ["unshare", flags, "sh", "-c", setup, "sh", sys.executable, *sys.argv],
               dict(os.environ, VELT_ISOLATED="1"))


def start(command, **kwargs):
    child = subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True, **kwargs)
    children.append(child)
    return child


def stop(child):
    """Ends a child and all that it started, by their pids."""
    for pid in [child.pid, *descendants(child.pid)]:  # the supervisor first: it would start the rest again
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
    child.wait()
    children.remove(child)


def stat(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    except OSError:
        return None


def descendants(pid):
    parents = {}
    for entry in os.listdir("/proc"):
        fields = stat(entry) if entry.isdigit() else None
        if fields:
            parents.setdefault(int(fields[1]), []).append(int(entry))
    found, todo = [], [pid]
    while todo:
        todo += (more := parents.get(todo.pop(), []))
        found += more
    return found


def cpu_seconds(*leaders):
    total = 0
    for leader in leaders:
        for pid in [leader, *descendants(leader)]:
            fields = stat(pid)
            if fields:
                total += sum(int(f) for f in fields[11:15])
    return total / TICK


def wait_until(ready, what, seconds=30):
    deadline = time.monotonic() + seconds
    while not ready():
        if time.monotonic() > deadline:
            raise RuntimeError(f"timed out: {what}")
        time.sleep(0.02)


def port_answers(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


def plain_text(size):
    pick, lines, have = random.Random(1), [], 0
    while have < size:
        line = " ".join(pick.choice(WORDS) for _ in range(12))[:70]
        lines.append(line)
        have += len(line) + 1
    return "\n".join(lines)[:size - 1] + "\n"


def message(size, payload=None):
    """A mail of about this size; from 64 KiB on with a base64 attachment of noise."""
    head = "From: a@alpha.test\nTo: b@beta.test\nSubject: load\nMIME-Version: 1.0\n"
    if size < 64 << 10 and payload is None:
        return head + "Content-Type: text/plain\n\n" + plain_text(size - len(head) - 26)
    raw = payload or random.Random(1).randbytes(size * 57 // 78)
    return (head + 'Content-Type: multipart/mixed; boundary="b0"\n\n--b0\nContent-Type: text/plain\n\nSee below.\n'
            '--b0\nContent-Type: application/octet-stream; name="f.bin"\nContent-Transfer-Encoding: base64\n\n'
            + base64.encodebytes(raw).decode() + "--b0--\n")


def start_gateway(build, work):
    root = work / "root"
    config = root / "config/qxxmlconf"
    (config / "efabric").mkdir(parents=True)
    for folder in ("scandir", "run", "opt/KORAqxs/avengine/dat"):
        (root / folder).mkdir(parents=True)
    (root / "opt/KORAqxs/avengine/dat/signatures.db").write_text(f"Throughput.Test : {SIGNATURE.hex()}\n")
    (config / "inside.txt").write_text("NETWORK 127.0.0.0/8\n")
    (config / "outside.txt").write_text("NETWORK *\n")
    # One report or two a message, as the other filters make, and not the whole course of a session.
    (config / "bench-logging.xml").write_text('<logging version="1"><sink type="json" file="/dev/null"/>'
                                              '<events default="off"><event number="60000" switch="on"/></events>'
                                              '</logging>\n')
    (config / "rules.xml").write_text(f"""<rules version="1">
  <policy name="base">
    <settings section="network">
      <list name="BindAddress"><item>127.0.0.1</item></list><list name="BindPorts"><item>{GATEWAY}</item></list>
      <set name="MaxConnections">64</set><set name="ForbidReverseLookups">true</set><set name="NetMem">64</set>
    </settings>
    <settings section="process"><set name="MonitorHealth">false</set><set name="PermThreads">16</set></settings>
    <settings section="scanning"><set name="MaxScanMem">1024</set></settings>
    <settings section="smtp">
      <set name="RelayHost">127.0.0.1</set><set name="RelayPort">{SINK}</set><set name="GreetingName">bench.test</set>
    </settings>
  </policy>
  <policy name="content"><actions><action>LOG</action><action>DENY</action></actions>
    <settings section="KORAVScanner"><set name="Enabled">true</set><set name="Action">DENY</set></settings></policy>
  <policy name="content_in" base="content"/>
  <policy name="content_out" base="content"/>
</rules>
""")
    log = open(work / "gateway.log", "wb")
    launcher = start([build / "bin/velt-smtp", "bench", "bench"], stdout=log, stderr=log,
                     env=dict(os.environ, VELT_ROOT=str(root)))
    launcher.wait()
    children.remove(launcher)
    return [Service(root)]


class Service:
    """The gateway as a service: its supervisor, which goes on when the process that started it has ended."""

    def __init__(self, root):
        mark = f"VELT_ROOT={root}".encode()

        def mine(pid):
            try:
                return mark in pathlib.Path(f"/proc/{pid}/environ").read_bytes().split(b"\0")
            except OSError:
                return False

        def supervisor():
            pids = [int(p) for p in os.listdir("/proc") if p.isdigit() and mine(p)]
            tops = [p for p in pids if stat(p) and int(stat(p)[1]) not in pids]
            return tops[0] if tops else None

        wait_until(supervisor, "the supervisor")
        self.pid = supervisor()
        children.append(self)

    def wait(self):
        wait_until(lambda: not pathlib.Path(f"/proc/{self.pid}").exists() or stat(self.pid)[0] == "Z", "the end")


def start_clamsmtp(_, work):
    database = work / "db"
    database.mkdir()
    (database / "test.ndb").write_text(f"Throughput.Test:0:*:{SIGNATURE.hex()}\n")
    os.chmod(work, 0o755)
    (work / "clamd.conf").write_text(f"""DatabaseDirectory {database}
LocalSocket {work}/clamd.sock
LocalSocketMode 666
Foreground yes
MaxThreads 16
StreamMaxLength 64M
DisableCache yes
TemporaryDirectory {work}
SelfCheck 0
""")
    (work / "clamsmtpd.conf").write_text(f"""OutAddress: 127.0.0.1:{SINK}
Listen: 127.0.0.1:{CLAMSMTP}
ClamAddress: {work}/clamd.sock
TempDirectory: {work}
Action: bounce
""")
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    clamd = start(["clamd", "-c", work / "clamd.conf"], **quiet)
    wait_until((work / "clamd.sock").exists, "clamd")
    return [clamd, start(["clamsmtpd", "-d", "1", "-f", work / "clamsmtpd.conf"], **quiet)]


FILTERS = {"no gateway": (SINK, None), "velt-smtp": (GATEWAY, start_gateway),
           "clamsmtp + clamd": (CLAMSMTP, start_clamsmtp)}


def sink_has(log):
    with open(log, "rb") as counter:
        counter.seek(max(0, os.path.getsize(log) - 200))
        return int((b"mesg=0" + counter.read()).rpartition(b"mesg=")[2].split()[0])


def send(port, path, count, sink_log):
    """Sends so many messages; gives the seconds until the sink has them all."""
    had, begin = sink_has(sink_log), time.monotonic()
    subprocess.run(["smtp-source", "-s", SESSIONS, "-m", str(count), "-F", path, "-f", "a@alpha.test", "-t",
                    "b@beta.test", f"inet:127.0.0.1:{port}"], check=True, timeout=300)
    wait_until(lambda: sink_has(sink_log) - had >= count, f"messages at the sink through port {port}", 60)
    return time.monotonic() - begin


def answer_to_infected(port):
    try:
        with smtplib.SMTP("127.0.0.1", port, "client.alpha.test", 20) as smtp:
            smtp.sendmail("a@alpha.test", "b@beta.test", message(0, SIGNATURE))
        return "passed"
    except smtplib.SMTPResponseException as refused:
        return f"{refused.smtp_code} {refused.smtp_error.decode()}"[:48]


def measure(build, name, paths, sink_log, work):
    port, begin = FILTERS[name]
    folder = work / name.replace(" ", "")
    folder.mkdir()
    leaders = begin(build, folder) if begin else []
    wait_until(lambda: port_answers(port), name)
    answer = answer_to_infected(port) if begin else "-"
    if begin and answer == "passed":
        raise RuntimeError(f"{name} passes the signature")
    figures = {}
    for size, path in paths.items():
        count = COUNTS[size] // (SLOW_PEER if begin is start_clamsmtp else 1)
        send(port, path, 40, sink_log)
        rates, costs = [], []
        for _ in range(RUNS):
            before = cpu_seconds(*(c.pid for c in leaders))
            rates.append(count / send(port, path, count, sink_log))
            costs.append((cpu_seconds(*(c.pid for c in leaders)) - before) / count * 1e3)
        figures[size] = (statistics.median(rates), statistics.median(costs))
    for child in reversed(leaders):
        stop(child)
    return figures, answer


def verdict(ratio):
    if ratio > CPU_GATE:
        return f"   ABOVE THE GATE OF {CPU_GATE}"
    return "" if ratio <= CPU_GOAL else "   above the goal of a third"


def report(results):
    print(f"\nMail, {SESSIONS} sessions, median of {RUNS}")
    print(f"{'filter':<18}{'size':>9}{'messages/s':>12}{'CPU ms each':>13}   answer to the signature")
    for name, (figures, answer) in results.items():
        for size, (rate, cost) in figures.items():
            shown = f"{cost:.2f}" if cost else "-"
            print(f"{name:<18}{size >> 10:>5} KiB{rate:>12.0f}{shown:>13}   {answer}")
    status = 0
    for size in COUNTS:
        own, peer = results["velt-smtp"][0][size], results["clamsmtp + clamd"][0][size]
        ratio = own[1] / peer[1]
        print(f"{size >> 10:>4} KiB: {own[0] / peer[0]:.1f} times the rate, {ratio:.2f} of the CPU"
              f"{verdict(ratio)}")
        status |= ratio > CPU_GATE
    return status


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    isolate()
    with tempfile.TemporaryDirectory(prefix="velt-throughput-") as name:
        work = pathlib.Path(name)
        os.chmod(work, 0o755)
        sink_log = work / "sink.log"
        with open(sink_log, "wb") as log:
            start(["smtp-sink", "-c", "-u", "nobody", f"127.0.0.1:{SINK}", "1024"], stdout=log, stderr=log)
        wait_until(lambda: port_answers(SINK), "smtp-sink")
        paths = {}
        for size in COUNTS:
            paths[size] = work / str(size)
            paths[size].write_text(message(size))
        try:
            results = {name: measure(build, name, paths, sink_log, work) for name in FILTERS}
        finally:
            for child in list(reversed(children)):
                stop(child)
        return report(results)


if __name__ == "__main__":
    sys.exit(main())
