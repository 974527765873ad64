#!/usr/bin/env python3
"""Mail through the gateway, side by side with other filters before the same clamd, and with that engine alone.

usage: mail_throughput.py BUILD_DIR [NAME...]    SESSIONS, RUNS, SECONDS in the environment; FULL=1 for all filters

Each message is a session of its own, with 4 KiB of text or an attachment of 256 KiB; the load waits for each answer. All
stand on the loopback of a network namespace of their own and take turns in each round; figures are medians. The engine
alone is asked by as many clients as there are sessions, each over one connection; clamd has a processor for itself. CPU is
user and system, per message: of the filter's processes, and of clamd. `slowest` is the longest message of all rounds.

The exit status is that of CPU ratios alone, with room. Rates and times are judged by the reader, as they drift with the
machine; the goals are printed beside them.
"""
import base64
import contextlib
import html
import io
import json
import os
import pathlib
import random
import smtplib
import statistics
import subprocess
import sys
import time
import zipfile

import mail_filters
import relays

FULL = bool(os.environ.get("FULL"))
SESSIONS = [int(n) for n in os.environ.get("SESSIONS", "1 4 16" if FULL else "16").split()]
RUNS = int(os.environ.get("RUNS", "3" if FULL else "2"))
SECONDS = float(os.environ.get("SECONDS", "2" if FULL else "0.7"))
SIZES = {"4 KiB": 4 << 10, "256 KiB": 256 << 10}
ENGINE, NONE, ALONE, OURS = "engine alone", "no filter", "velt-smtp", "velt-smtp + clamd"
CLAMSMTP, MILTER, RSPAMD = "clamsmtp + clamd", "Postfix + clamav-milter", "Postfix + rspamd"
NAMES = (ENGINE, NONE, ALONE, OURS, CLAMSMTP, MILTER, RSPAMD) if FULL else (ENGINE, ALONE, OURS, CLAMSMTP)
WORDS = "the mail of this day carries plain words to read and a few lines more".split()
MANY = 16  # sessions, for which rates are promised
SLOW_PEERS = ("4 KiB", 4)  # where the others wait for delayed acknowledgements
MOST = 20000  # messages of a round
PATIENCE_MS = 120000  # a connection that a full queue has dropped is made again after seconds


def plain_text(size):
    pick, lines, have = random.Random(1), [], 0
    while have < size:
        line = " ".join(pick.choice(WORDS) for _ in range(12))[:70]
        lines.append(line)
        have += len(line) + 1
    return "\n".join(lines)[:size - 1] + "\n"


def document(size):
    """An office document of about this size: a text of some pages, and a picture, which cannot be packed."""
    made, text = io.BytesIO(), html.escape(plain_text(64 << 10))
    with zipfile.ZipFile(made, "w", zipfile.ZIP_DEFLATED) as package:
        package.writestr("[Content_Types].xml", '<?xml version="1.0"?><Types xmlns="http://schemas.openxmlformats.org/'
                                                'package/2006/content-types"/>')
        package.writestr("word/document.xml", f'<?xml version="1.0"?><w:document><w:body>{text}</w:body></w:document>')
        package.writestr("word/media/image1.jpeg", b"\xff\xd8\xff\xe0\0\x10JFIF\0\1"
                         + random.Random(1).randbytes(size - len(made.getvalue()) - 512), zipfile.ZIP_STORED)
    return made.getvalue()


def message(size, payload=None, name="f.bin"):
    """A mail of about this size; from 64 KiB on with a base64 attachment, of noise where nothing else is given."""
    head = "From: a@alpha.test\nTo: b@beta.test\nSubject: load\nMIME-Version: 1.0\n"
    if size < 64 << 10 and payload is None:
        return head + "Content-Type: text/plain\n\n" + plain_text(size - len(head) - 26)
    raw = payload or random.Random(1).randbytes(size * 57 // 78)
    return (head + 'Content-Type: multipart/mixed; boundary="b0"\n\n--b0\nContent-Type: text/plain\n\nSee below.\n'
            '--b0\nContent-Type: application/octet-stream; name="' + name
            + '"\nContent-Transfer-Encoding: base64\n\n'
            + base64.encodebytes(raw).decode() + "--b0--\n")


class Engine:
    """clamd itself: its clients speak to it over its socket."""
    filter_pids = []

    def __init__(self, clamd):
        self.target = ("scan", "--socket", clamd.socket)


def answer_to_infected(port):
    try:
        with smtplib.SMTP("127.0.0.1", port, "client.alpha.test", 30) as smtp:
            smtp.sendmail("a@alpha.test", "b@beta.test", message(0, mail_filters.SIGNATURE))
        return "passed"
    except smtplib.SMTPResponseException as refused:
        return f"{refused.smtp_code} {refused.smtp_error.decode()}"[:48]


class Bench:
    def __init__(self, build, work, stack, names):
        self.build, self.work = build, work
        self.clamd = stack.enter_context(mail_filters.Clamd(self.folder("clamd")))
        self.sink = stack.enter_context(mail_filters.Sink(self.folder("sink")))
        self.servers = {}
        for name in names:
            server = self.make(name)
            self.servers[name] = server if name == ENGINE or name == NONE else stack.enter_context(server)
        self.answers = {name: answer_to_infected(server.port) for name, server in self.servers.items()
                        if name not in (ENGINE, NONE)}
        passed = [name for name, answer in self.answers.items() if answer == "passed"]
        if passed:
            raise SystemExit(f"the signature passes {passed}")

    def folder(self, name):
        path = self.work / "".join(c for c in name if c.isalnum())
        path.mkdir()
        path.chmod(0o755)
        return path

    def make(self, name):
        if name in (ENGINE, NONE):
            return Engine(self.clamd) if name == ENGINE else self.sink
        folder = self.folder(name)
        if name in (ALONE, OURS):
            return mail_filters.Gateway(self.build, folder, self.sink, self.clamd if name == OURS else None)
        make = {CLAMSMTP: mail_filters.Clamsmtp, MILTER: mail_filters.ClamavMilter, RSPAMD: mail_filters.Rspamd}[name]
        return make(folder, self.sink, self.clamd)

    def load(self, server, sessions, path, count):
        """The load's own figures, with the rate at which the next server got the messages."""
        target = getattr(server, "target", None) or ("mail", "--timeout-ms", PATIENCE_MS, "--to",
                                                       f"127.0.0.1:{server.port}")
        had, begin = self.sink.count(), time.monotonic()
        words = (self.build / "bin/velt_load", *target, "--file", path, "--clients", sessions, "--sessions", count)
        shown = subprocess.run([str(word) for word in words], capture_output=True, text=True, check=True)
        result = json.loads(shown.stdout)
        if result["failed"]:
            raise SystemExit(f"messages to {target} failed: {result}")
        if target[0] == "mail":
            relays.harness.wait_until(lambda: self.sink.count() - had >= count, "the messages at the sink", 60)
            result["rate"] = count / max(result["seconds"], time.monotonic() - begin - 0.02)
        return result

    def measure(self, server, sessions, path, count):
        before = mail_filters.cpu_seconds(server.filter_pids), mail_filters.cpu_seconds([self.clamd.process.pid])
        result = self.load(server, sessions, path, count)
        own = mail_filters.cpu_seconds(server.filter_pids) - before[0]
        engine = mail_filters.cpu_seconds([self.clamd.process.pid]) - before[1]
        latency = result["latency_us"]
        return {"rate": result["rate"], "own": own / count * 1e3, "engine": engine / count * 1e3,
                **{key: latency[key] / 1e3 for key in ("p50", "p99", "max")}}

    def rounds(self, sessions, path):
        """The figures by filter; the first few messages of each tell how many a round has."""
        counts = {}
        for name, server in self.servers.items():
            self.load(server, sessions, path, 2 * sessions)
            rate = self.load(server, sessions, path, 4 * sessions)["rate"]
            counts[name] = max(4 * sessions, min(MOST, int(rate * SECONDS)))
        rounds = {name: [] for name in self.servers}
        for _ in range(RUNS):
            for name, server in self.servers.items():
                rounds[name].append(self.measure(server, sessions, path, counts[name]))
        return {name: {key: (max if key == "max" else statistics.median)(one[key] for one in figures)
                       for key in figures[0]} for name, figures in rounds.items()}


def show(title, table, answers):
    print(f"\n{title}, load average {os.getloadavg()[0]:.1f}")
    columns = {"rate": "messages/s", "own": "own CPU ms", "engine": "engine CPU ms", "p50": "p50 ms", "p99": "p99 ms",
               "max": "slowest"}
    unknown = {"own": (ENGINE, NONE), "engine": (NONE, ALONE)}
    print(" " * 25 + "".join(f"{title:>14}" for title in columns.values()) + "   signature")
    for name, row in table.items():
        cells = ("-" if name in unknown.get(key, ()) else f"{row[key]:.{0 if key == 'rate' else 3}f}" for key in columns)
        print(f"{name:<25}" + "".join(f"{cell:>14}" for cell in cells) + f"   {answers.get(name, '')}")


def goal(what, value, wanted, gate=None):
    """One line; `wanted` and `gate` are the least where negative, else the most. Gives whether the gate has failed."""
    def met(bound):
        return value >= -bound if bound < 0 else value <= bound
    text = f"  {what}: {value:.2f}, goal {abs(wanted)} {'or more' if wanted < 0 else 'at most'}, " \
           f"{'reached' if met(wanted) else 'missed'}"
    failed = gate is not None and not met(gate)
    print(text + (f", OUTSIDE THE GATE of {abs(gate)}" if failed else ""))
    return failed


def judge(label, sessions, table):
    failed = False
    peers = [table[name]["rate"] for name in (CLAMSMTP, MILTER, RSPAMD) if name in table]
    if OURS in table and ENGINE in table:
        ours, engine = table[OURS], table[ENGINE]
        goal("slowest message less the engine's slowest, ms", ours["max"] - engine["max"], 10)
        if sessions == MANY:
            goal("rate, of the engine's alone", ours["rate"] / engine["rate"], -0.85)
        if sessions == MANY and peers:
            most = f"rate, of the best peer's (the engine's alone is {engine['rate'] / max(peers):.1f})"
            goal(most, ours["rate"] / max(peers), -3)
    if CLAMSMTP not in table:
        return failed
    peer = table[CLAMSMTP]
    if OURS in table:
        if (label, sessions) == SLOW_PEERS:
            goal("rate, of clamsmtp's", table[OURS]["rate"] / peer["rate"], -5)
        failed |= goal("own CPU, of clamsmtp's", table[OURS]["own"] / peer["own"], 0.6, 1)
        failed |= goal("CPU of the engine, of clamsmtp's", table[OURS]["engine"] / peer["engine"], 1.05, 1.3)
    if ALONE in table:
        ratio = table[ALONE]["own"] / (peer["own"] + peer["engine"])
        failed |= goal("CPU with own signatures, of clamsmtp's and clamd's", ratio, 0.33, 0.6)
    return failed


def main():
    mail_filters.adopt_orphans()
    build, names = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2:] or NAMES
    os.sched_setaffinity(0, mail_filters.OTHER_PROCESSORS)
    status = 0
    with relays.folder() as folder, contextlib.ExitStack() as stack:
        work = pathlib.Path(folder)
        work.chmod(0o755)
        bench = Bench(build, work, stack, names)
        for label, size in SIZES.items():
            path = work / str(size)
            path.write_text(message(size))
            for sessions in SESSIONS:
                table = bench.rounds(sessions, path)
                show(f"{label}, {sessions} sessions, median of {RUNS}", table, bench.answers)
                status |= judge(label, sessions, table)
    mail_filters.await_orphans()
    return int(status)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        raise SystemExit(__doc__)
    relays.isolate()
    sys.exit(main())
