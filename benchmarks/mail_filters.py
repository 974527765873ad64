"""The mail filters that are compared, each a context manager with a port: mail comes in there and goes on to the sink.

All of them ask the same clamd, have the same one signature and log to nowhere. clamd has one processor for itself where
there are two or more, and everything else shares the others: what the engine can do is then the same whoever asks it.
`filter_pids` are the processes of the filter, without the engine."""
import contextlib
import ctypes
import os
import pathlib
import signal
import socket
import subprocess

import relays
import postfix  # beside the harness, which relays finds

RSPAMD = pathlib.Path(__file__).resolve().parents[1] / "build/peers/rspamd"  # put there by scripts/install-dependencies
SIGNATURE = b"velt-throughput-signature-0123456789"
QUIET = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
PROCESSORS = sorted(os.sched_getaffinity(0))
ENGINE_PROCESSORS = set(PROCESSORS[-1:])
OTHER_PROCESSORS = set(PROCESSORS[:-1] or PROCESSORS)
START_SECONDS = 120  # rspamd compiles its rules before it listens
TICK = os.sysconf("SC_CLK_TCK")


def write(path, text):
    path.write_text(text)
    return path


def is_open(port):
    with contextlib.suppress(OSError):
        relays.harness.Line(port).close()
        return True


def adopt_orphans():
    """What a server leaves behind is this process's to wait for."""
    PR_SET_CHILD_SUBREAPER = 36
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def await_orphans():
    def none_left():
        with contextlib.suppress(ChildProcessError):
            while os.waitpid(-1, os.WNOHANG)[0]:
                pass
            return False
        return True
    relays.harness.wait_until(none_left, "the end of what the servers have started")


def tree(pid):
    """A process and all that it started."""
    found = [pid]
    with contextlib.suppress(OSError):
        for child in relays.children_of(pid):
            found += tree(child)
    return found


def cpu_seconds(pids):
    """What these processes have used, and those of their children that have ended."""
    total = 0.0
    for pid in pids:
        with contextlib.suppress(OSError):  # one that has ended meanwhile counts with its parent
            fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
            total += relays.cpu_seconds([pid]) + sum(int(ticks) for ticks in fields[13:15]) / TICK
    return total


class Server(relays.Process):
    """A program that listens, in a folder of its own that every user may read."""

    def __init__(self, command, port=None, processors=OTHER_PROCESSORS, **kwargs):
        super().__init__(command, preexec_fn=lambda: os.sched_setaffinity(0, processors), **{**QUIET, **kwargs})
        self.port = port

    def __enter__(self):
        def listens():
            if self.process.poll() is not None:
                raise SystemExit(f"{self.process.args[0]} ended with {self.process.returncode}")
            return is_open(self.port)
        if self.port:
            try:
                relays.harness.wait_until(listens, f"port {self.port} of {self.process.args[0]}", START_SECONDS)
            except BaseException:
                self.__exit__()
                raise
        return self

    @property
    def filter_pids(self):
        return tree(self.process.pid)


class Service:
    """A gateway of ours as a service, which a process that ends at once has started. Its supervisor is adopted."""

    def __init__(self, command, port, root):
        self.command, self.port, self.root = command, port, root

    def __enter__(self):
        before = relays.children_of(os.getpid())
        subprocess.run([str(word) for word in self.command], check=True, stdin=subprocess.DEVNULL,
                       start_new_session=True, env=dict(os.environ, VELT_ROOT=str(self.root)), **QUIET)

        def supervisors():
            found = set(relays.children_of(os.getpid())).difference(before)
            return [pid for pid in found if relays.children_of(pid)]

        relays.harness.wait_until(lambda: is_open(self.port), f"port {self.port} of the gateway")
        relays.harness.wait_until(lambda: len(supervisors()) == 1, "the supervisor and its worker")
        [self.pid] = supervisors()
        return self

    def __exit__(self, *_):
        for pid in tree(self.pid):  # the supervisors first: they would start the rest again
            with contextlib.suppress(ProcessLookupError):  # the rest may leave by itself then
                os.kill(pid, signal.SIGKILL)

    @property
    def filter_pids(self):
        return tree(self.pid)


class Clamd(Server):
    def __init__(self, folder):
        self.socket = folder / "clamd.sock"
        [self.tcp_port] = relays.harness.free_ports(1)
        database = folder / "db"
        database.mkdir()
        write(database / "test.ndb", f"Throughput.Test:0:*:{SIGNATURE.hex()}\n")
        conf = write(folder / "clamd.conf", f"""DatabaseDirectory {database}
LocalSocket {self.socket}
LocalSocketMode 666
TCPSocket {self.tcp_port}
TCPAddr 127.0.0.1
Foreground yes
MaxThreads 16
StreamMaxLength 64M
DisableCache yes
TemporaryDirectory {folder}
SelfCheck 0
""")
        super().__init__(["clamd", "-c", conf], processors=ENGINE_PROCESSORS)

    def __enter__(self):
        def listens():
            with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as client:
                client.connect(str(self.socket))
                return True
        relays.harness.wait_until(listens, "clamd")
        return self


class Sink(Server):
    """The next server: Postfix's smtp-sink, which counts what it has taken."""

    def __init__(self, folder, port=None):
        port = port or relays.harness.free_ports(1)[0]
        self.log = folder / "sink.log"
        with open(self.log, "wb") as log:
            command = ["smtp-sink", "-c", "-u", "nobody", f"127.0.0.1:{port}", "1024"]
            super().__init__(command, port, stdout=log, stderr=log)

    def count(self):
        with open(self.log, "rb") as counter:
            counter.seek(max(0, os.path.getsize(self.log) - 200))
            return int((b"mesg=0" + counter.read()).rpartition(b"mesg=")[2].split()[0])

    @property
    def filter_pids(self):
        return []


def root_of(folder, signatures="", inside="127.0.0.0/8"):
    """A root for a daemon of ours, with its own signatures beside the built-in one; who is not inside is outside."""
    root = folder / "root"
    for path in ("config/qxxmlconf/efabric", "scandir", "run/velt", "opt/KORAqxs/avengine/dat"):
        (root / path).mkdir(parents=True)
    write(root / "opt/KORAqxs/avengine/dat/signatures.db", signatures)
    write(root / "config/qxxmlconf/inside.txt", f"NETWORK {inside}\n")
    write(root / "config/qxxmlconf/outside.txt", "NETWORK *\n")
    return root


ONE_ENGINE = """  <policy name="content"><actions><action>LOG</action><action>DENY</action></actions>
    <settings section="KORAVScanner"><set name="Enabled">true</set><set name="Action">DENY</set></settings>
  </policy>
  <policy name="content_in" base="content"/>
  <policy name="content_out" base="content"/>
"""


def sample_content(name):
    """The policies by which the sample of this name has content looked at."""
    sample = pathlib.Path(__file__).resolve().parents[1] / f"packaging/samples/{name}/config/qxxmlconf/rules.xml"
    text = sample.read_text()
    return text[text.index('  <policy name="content">'):text.rindex("</rules>")]


def rules(address, port, more="", content=ONE_ENGINE):
    return f"""<rules version="1">
  <policy name="base">
    <settings section="network">
      <list name="BindAddress"><item>{address}</item></list><list name="BindPorts"><item>{port}</item></list>
      <set name="MaxConnections">64</set><set name="ForbidReverseLookups">true</set><set name="NetMem">64</set>
    </settings>
    <settings section="process">
      <set name="MonitorHealth">false</set><set name="PermThreads">16</set><set name="MemoryLimit">500000</set>
    </settings>{more}
  </policy>
{content}</rules>
"""


OWN_SIGNATURE = f"Throughput.Test : {SIGNATURE.hex()}\n"


def Gateway(build, folder, sink, clamd=None, farm=False, content=ONE_ENGINE, **more):
    """Ours: with its own signatures, or with none that match and the scan server, or the scanner daemons, that have."""
    [port] = relays.harness.free_ports(1)
    root = root_of(folder, "" if clamd or farm else OWN_SIGNATURE, **more)
    # One report of each message, as the other filters make, and not the whole course of a session.
    reports = "".join(f'<event number="60000" reason="{reason}" switch="on"/>' for reason in (2, 3, 4))
    write(root / "config/qxxmlconf/bench-logging.xml",
          f'<logging version="1"><sink type="json" file="/dev/null"/><events default="off">{reports}</events></logging>\n')
    if clamd:
        servers = f'<list name="ClamdSockets"><item>{clamd.socket}</item></list>'
        content = content.replace('<set name="Enabled">true</set>', f'<set name="Enabled">true</set>{servers}', 1)
    write(root / "config/qxxmlconf/rules.xml", rules("127.0.0.1", port, f"""
    <settings section="scanning">
      <set name="MaxScanMem">1024</set><set name="LSDisabled">{"false" if farm else "true"}</set>
    </settings>
    <settings section="smtp">
      <set name="RelayHost">127.0.0.1</set><set name="RelayPort">{sink.port}</set>
      <set name="GreetingName">bench.test</set><list name="AcceptDomains"><item>beta.test</item></list>
    </settings>""", content))
    return Service([build / "bin/velt-smtp", "bench", "bench"], port, root)


def Clamsmtp(folder, sink, clamd):
    [port] = relays.harness.free_ports(1)
    conf = write(folder / "clamsmtpd.conf", f"""OutAddress: 127.0.0.1:{sink.port}
Listen: 127.0.0.1:{port}
ClamAddress: {clamd.socket}
TempDirectory: {folder}
Action: bounce
""")
    return Server(["clamsmtpd", "-d", "1", "-f", conf], port)


class Postfix(Server):
    """With a queue and a configuration of its own, and a milter that sees each mail before it is taken."""

    def __init__(self, folder, sink, milter_port):
        port, command = postfix.set_up(folder, postfix.onward_to(sink.port) + f"""smtpd_milters = inet:127.0.0.1:{milter_port}
milter_default_action = tempfail
default_destination_concurrency_limit = 20
""")
        super().__init__(command, port)


class WithMilter(contextlib.ExitStack):
    """A milter, and the Postfix that asks it."""

    def __init__(self, folder, sink, milter):
        super().__init__()
        self.folder, self.sink, self.milter = folder, sink, milter

    def __enter__(self):
        server = Postfix(self.folder, self.sink, self.enter_context(self.milter).port)
        self.parts = [self.milter, self.enter_context(server)]
        self.port = server.port
        return self

    @property
    def filter_pids(self):
        return [pid for part in self.parts for pid in part.filter_pids]


def ClamavMilter(folder, sink, clamd):
    [port] = relays.harness.free_ports(1)
    conf = write(folder / "milter.conf", f"""MilterSocket inet:{port}@127.0.0.1
Foreground yes
ClamdSocket unix:{clamd.socket}
OnInfected Reject
AddHeader No
TemporaryDirectory {folder}
""")
    return WithMilter(folder, sink, Server(["clamav-milter", "-c", conf], port))


def Rspamd(folder, sink, clamd):
    """rspamd as a milter whose one rule is what clamd says."""
    [port] = relays.harness.free_ports(1)
    share = RSPAMD / "usr/share/rspamd"
    conf = write(folder / "rspamd.conf", f"""options {{ pidfile = "{folder}/pid"; filters = ""; tempdir = "{folder}";
  dns {{ nameserver = ["127.0.0.1:1"]; timeout = 0.1s; retransmits = 1; }}
  url_tld = "{share}/effective_tld_names.dat"; hs_cache_dir = "{folder}"; rrd = ""; control_socket = "{folder}/ctl"; }}
logging {{ type = "file"; filename = "/dev/null"; level = "error"; }}
metric {{ name = "default"; actions {{ reject = 15; }} }}
worker "rspamd_proxy" {{ bind_socket = "127.0.0.1:{port}"; milter = yes; count = 1;
  timeout = 60s; upstream "local" {{ default = yes; self_scan = yes; }} }}
lua = "{share}/rules/rspamd.lua";
modules {{ path = "{share}/plugins/"; path = "{share}/lualib/"; }}
force_actions {{ }}
antivirus {{ clamav {{ type = "clamav"; symbol = "CLAM_VIRUS"; action = "reject";
  scan_mime_parts = false; servers = "127.0.0.1:{clamd.tcp_port}"; log_clean = false; }} }}
""")
    paths = {"LD_LIBRARY_PATH": f"{RSPAMD}/usr/lib/rspamd", "SHAREDIR": share, "RULESDIR": share / "rules",
             "PLUGINSDIR": share / "plugins", "LUALIBDIR": share / "lualib", "DBDIR": folder, "RUNDIR": folder}
    command = [RSPAMD / "usr/bin/rspamd", "-f", "-i", "-u", "root", "-c", conf]
    milter = Server(command, port, env={**os.environ, **{name: str(path) for name, path in paths.items()}})
    return WithMilter(folder, sink, milter)
