#!/usr/bin/env python3
"""Mail through the gateway that scans in its own process, and through gateways with 1, 2 and 4 scanner daemons behind them.

usage: farm_throughput.py BUILD_DIR    RUNS, SECONDS in the environment

The daemons have addresses that do not count as this machine, so the content crosses the wire. Sessions, messages and next
server are those of mail_throughput.py, and the mail comes from outside; rows take turns. CPU is user and system, per message:
of the gateway, of its daemons with the resource manager, and of both.

The exit status is that of CPU ratios, with room: both sides of remote scanning with one daemon, by scanning in process, by
the policy of the sample packaging/samples/small-office, and by one that has one engine with one signature and no other, which
is as cheap as scanning can be. What is attached is noise, or an office document, which the engines unpack. They are those of
the least CPU of all rounds, with all processes on one processor, so that it is the work that is compared and not what waking
another processor costs on this machine. With more sessions than a processor can serve they turn each other's memory out
of its caches between the steps of an item. Rates are printed, with one engine: with the load, the next server and all daemons
on one machine they tell what distribution costs, and not what it gains.
"""
import contextlib
import os
import pathlib
import statistics
import sys

import mail_filters
import mail_throughput
import relays

RUNS = int(os.environ.get("RUNS", "2"))
RATIO_RUNS = 8 * RUNS
SECONDS = float(os.environ.get("SECONDS", "0.7"))
SESSIONS = 16
FEW = 4  # sessions
DAEMONS = (0, 1, 2, 4)
COMPARED = (0, 1)
ELSEWHERE = "127.0.0.3"
GOAL = 1.3
SMALL, LARGE, DOCUMENT = "4 KiB", "256 KiB", "256 KiB, a document"
COMPARISONS = ((SMALL, SESSIONS), (LARGE, FEW), (LARGE, SESSIONS), (DOCUMENT, FEW))
# What is scanned for, and where the gates are.
POLICIES = {"by the small office's policy": (mail_filters.sample_content("small-office"), {
                (LARGE, FEW): 1.4, (LARGE, SESSIONS): 1.5, (DOCUMENT, FEW): 1.4}),
            "by one engine": (mail_filters.ONE_ENGINE, {
                (LARGE, FEW): 1.55, (LARGE, SESSIONS): 1.6, (DOCUMENT, FEW): 1.55})}


class Scannerd(relays.Process):
    """In a root of its own, in the foreground; its monitor ends its workers in order."""

    def __init__(self, build, folder, content):
        [self.port] = relays.harness.free_ports(1)
        root = mail_filters.root_of(folder, mail_filters.OWN_SIGNATURE)
        config = root / "config/qxxmlconf"
        mail_filters.write(config / "scannerd-logging.xml", '<logging version="1"><events default="off"/></logging>\n')
        mail_filters.write(config / "rules.xml", mail_filters.rules(ELSEWHERE, self.port, """
    <settings section="scanning"><set name="MaxScanMem">1024</set></settings>""", content))
        super().__init__([build / "bin/velt-scannerd", "-d", "scannerd", "bench"],
                         env=dict(os.environ, VELT_ROOT=str(root)), **mail_filters.QUIET)


class Manager(relays.Process):
    """The resource manager of one gateway's root, told of the daemons by its file."""

    def __init__(self, build, root, daemons):
        servers = root / "servers"
        servers.write_text("".join(f"scan-{daemon.port} {ELSEWHERE} {daemon.port}\n" for daemon in daemons))
        super().__init__([build / "bin/velt-rmgrd", "--servers", servers, "--probe", "1", "--slow-start", "0"],
                         env=dict(os.environ, VELT_ROOT=str(root)), **mail_filters.QUIET)
        self.socket = root / "run/velt/rmgrd.socket"


class Farm(contextlib.ExitStack):
    """A gateway, and as many daemons as it has; none: it scans by itself."""

    def __init__(self, build, folder, sink, count, content):
        super().__init__()
        self.build, self.folder, self.sink, self.count, self.content = build, folder, sink, count, content
        self.helpers = []

    def __enter__(self):
        try:
            return self.begin()
        except BaseException:
            self.close()
            raise

    def begin(self):
        for number in range(self.count):
            place = self.folder / str(number)
            place.mkdir()
            self.helpers.append(self.enter_context(Scannerd(self.build, place, self.content)))
        gateway = mail_filters.Gateway(self.build, self.folder, self.sink, farm=bool(self.count), content=self.content,
                                       inside="192.0.2.0/24")
        if self.count:
            manager = self.enter_context(Manager(self.build, gateway.root, self.helpers))
            relays.harness.wait_until(manager.socket.exists, "the resource manager")
            self.helpers.append(manager)
        self.gateway = self.enter_context(gateway)
        self.port = gateway.port
        if mail_throughput.answer_to_infected(self.port) == "passed":
            raise SystemExit("the signature passes")
        return self

    def cpu(self):
        """Of the gateway, and of what scans for it."""
        helpers = [pid for one in self.helpers for pid in mail_filters.tree(one.process.pid)]
        return mail_filters.cpu_seconds(self.gateway.filter_pids), mail_filters.cpu_seconds(helpers)


class Bench(mail_throughput.Bench):
    """The gateways stand on these processors."""

    def __init__(self, build, work, stack, counts, processors, content=mail_filters.ONE_ENGINE):
        work.mkdir()
        self.build, self.work = build, work
        os.sched_setaffinity(0, processors)
        self.sink = stack.enter_context(mail_filters.Sink(self.folder("sink")))
        self.servers = {count: stack.enter_context(Farm(build, self.folder(f"farm{count}"), self.sink, count, content))
                        for count in counts}

    def measure(self, server, sessions, path, count):
        before = server.cpu()
        result = self.load(server, sessions, path, count)
        own, scanning = ((after - had) / count * 1e3 for after, had in zip(server.cpu(), before))
        return {"rate": result["rate"], "own": own, "scanning": scanning, "both": own + scanning,
                **{key: result["latency_us"][key] / 1e3 for key in ("p50", "max")}}


def show(label, table):
    print(f"\n{label}, {SESSIONS} sessions, median of {RUNS}, load average {os.getloadavg()[0]:.1f}")
    titles = ("messages/s", "gateway ms", "daemons ms", "both CPU ms", "p50 ms", "slowest")
    print(f"{'scanner daemons':<18}" + "".join(f"{title:>13}" for title in titles))
    for count, row in table.items():
        cells = (f"{row['rate']:.0f}", *(f"{row[key]:.3f}" for key in ("own", "scanning", "both", "p50", "max")))
        print(f"{count or 'none, in process':<18}" + "".join(f"{cell:>13}" for cell in cells))


def both_sides(bench, sessions, path):
    """The least CPU of a message by number of daemons."""
    least = dict.fromkeys(bench.servers, float("inf"))
    for server in bench.servers.values():
        bench.load(server, sessions, path, 4 * SESSIONS)
    for _ in range(RATIO_RUNS):
        for count, server in bench.servers.items():
            least[count] = min(least[count], bench.measure(server, sessions, path, 6 * SESSIONS)["both"])
    return least


def judge(bench, paths, gates):
    failed = False
    for label, sessions in COMPARISONS:
        least = both_sides(bench, sessions, paths[label])
        what = f"{label}, {sessions} sessions: {least[1]:.3f} ms with a daemon, {least[0]:.3f} ms in process"
        if (label, sessions) in gates:
            failed |= mail_throughput.goal(what, least[1] / least[0], GOAL, gates[label, sessions])
        else:
            print(f"  {what}: {least[1] / least[0]:.2f}")
    return failed


def mails(work):
    """The files of the mails by what they are."""
    size = mail_throughput.SIZES[LARGE]
    texts = {label: mail_throughput.message(bytes) for label, bytes in mail_throughput.SIZES.items()}
    texts[DOCUMENT] = mail_throughput.message(size, mail_throughput.document(size * 57 // 78), "report.docx")
    paths = {label: work / str(number) for number, label in enumerate(texts)}
    for label, path in paths.items():
        path.write_text(texts[label])
    return paths


def main():
    mail_filters.adopt_orphans()
    build = pathlib.Path(sys.argv[1]).resolve()
    with relays.folder() as folder:
        work = pathlib.Path(folder)
        work.chmod(0o755)
        paths = mails(work)
        failed = False
        print(f"CPU of a message on both sides, on one processor, least of {RATIO_RUNS} rounds")
        for number, (policy, (content, gates)) in enumerate(POLICIES.items()):
            print(policy)
            with contextlib.ExitStack() as stack:
                place = work / f"ratio{number}"
                bench = Bench(build, place, stack, COMPARED, mail_filters.ENGINE_PROCESSORS, content)
                failed |= judge(bench, paths, gates)
        with contextlib.ExitStack() as stack:
            bench = Bench(build, work / "rates", stack, DAEMONS, mail_filters.PROCESSORS)
            for label in mail_throughput.SIZES:
                show(label, bench.rounds(SESSIONS, paths[label]))
    mail_filters.await_orphans()
    return int(failed)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        raise SystemExit(__doc__)
    relays.isolate()
    sys.exit(main())
