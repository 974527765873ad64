"""What the comparisons of processes run against each other: bare programs, a gateway of ours, HAProxy and nginx.

Each is one context manager with a port and the numbers of its processes. All stand on the loopback of a network
namespace of their own, in one temporary folder, with logging off unless a row says otherwise."""
import contextlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "testing"))
import harness  # noqa: E402

CPU_CLOCK = 2  # of the clocks that a process number makes: the scheduler's count


def isolate():
    """Runs the script again in a network namespace of its own."""
    if os.environ.get("VELT_ISOLATED"):
        return
    setup = 'ip link set lo up; sysctl -qw net.core.somaxconn=4096 2>/dev/null; exec "$@"'
    flags = "-n" if os.geteuid() == 0 else "-Urn"
    os.execvpe("unshare", ["unshare", flags, "sh", "-c", setup, "sh", sys.executable, *sys.argv],
               dict(os.environ, VELT_ISOLATED="1"))


def threads_of(pids):
    return {int(task.name) for pid in pids for task in pathlib.Path(f"/proc/{pid}/task").iterdir()}


def cpu_seconds(pids):
    """What these processes have used, to the nanosecond, with the threads of theirs that have ended."""
    return sum(time.clock_gettime((~pid << 3) | CPU_CLOCK) for pid in pids)


def resident_kib(pids):
    total = 0
    for pid in pids:
        for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
            if line.startswith("Rss:"):
                total += int(line.split()[1])
    return total


def children_of(pid):
    return [int(child) for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


class Process:
    """A process in a session of its own, ended by its pid."""

    def __init__(self, command, **kwargs):
        self.process = subprocess.Popen([str(word) for word in command], start_new_session=True,
                                        **{"stdin": subprocess.DEVNULL, **kwargs})

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
        self.process.wait()
        if self.process.stdout:
            self.process.stdout.close()

    @property
    def pids(self):
        """The processes that the server is made of, those that serve nobody among them."""
        return [self.process.pid]

    def wait_port(self, port):
        def open_port():
            if self.process.poll() is not None:
                raise SystemExit(f"{self.process.args[0]} ended with {self.process.returncode}")
            with contextlib.suppress(OSError):
                harness.Line(port).close()
                return True
        harness.wait_until(open_port, f"port {port} of {self.process.args[0]}")


class Tool(Process):
    """A sub-command of the load tool that listens."""

    def __init__(self, build, command, port=0, backend=None):
        target = ["--to", f"127.0.0.1:{backend}"] if backend else []
        super().__init__([build / "bin/velt_load", command, "--port", port, *target], stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline().split()[1])


class Bare(Tool):
    """The loop of accept, receive, send and close that every row is compared with."""

    def __init__(self, build, port=0):
        super().__init__(build, "serve", port)


class EchoBackend(Process):
    """Sessions with it last until the client leaves."""

    def __init__(self):
        script = pathlib.Path(__file__).resolve().with_name("echo_backend.py")
        super().__init__([sys.executable, "-B", script], stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline().split()[1])


class Haproxy(Process):
    """One thread, as it serves with one worker here. The connection limit is above what the load needs."""

    def __init__(self, folder, backend, limit=4000, timeout="60s", option=""):
        [self.port] = harness.free_ports(1)
        conf = pathlib.Path(folder) / f"haproxy-{self.port}.cfg"
        conf.write_text(f"""global
    nbthread 1
    maxconn {limit}
defaults
    mode tcp
    timeout connect 5s
    timeout client {timeout}
    timeout server {timeout}
    {option}
listen relay
    bind 127.0.0.1:{self.port} backlog 4096
    server s 127.0.0.1:{backend}
""")
        super().__init__(["haproxy", "-db", "-q", "-f", conf], stderr=subprocess.DEVNULL)
        self.wait_port(self.port)


class Nginx(Process):
    """One worker process."""

    def __init__(self, folder, backend, limit=4000, timeout="60s"):
        [self.port] = harness.free_ports(1)
        folder = pathlib.Path(folder)
        conf = folder / "nginx.conf"
        conf.write_text(f"""load_module /usr/lib/nginx/modules/ngx_stream_module.so;
daemon off; worker_processes 1; worker_rlimit_nofile {2 * limit + 100};
pid {folder}/nginx.pid; error_log /dev/null;
events {{ worker_connections {2 * limit}; }}
stream {{ server {{ listen 127.0.0.1:{self.port} backlog=4096; tcp_nodelay on; proxy_timeout {timeout};
                    proxy_pass 127.0.0.1:{backend}; }} }}
""")
        super().__init__(["nginx", "-c", conf, "-p", folder, "-e", "/dev/null"])
        self.wait_port(self.port)

    @property
    def pids(self):
        return [self.process.pid, *children_of(self.process.pid)]


class Gateway:
    """A gateway of ours in the foreground: the settings of a case of the harness, without its test."""

    def __init__(self, program, logging=False, name="gate", case=None, environment=None, **sections):
        self.case = case or harness.DaemonCase()
        self.case.program = program
        self.case.proxy = name
        self.logging = logging
        self.environment = environment
        self.sections = sections

    def __enter__(self):
        self.case.setUp()
        process = {"LoggingEnabled": self.logging, **self.sections.pop("process", {})}
        settings = self.case.settings(1, process=process, **self.sections)
        self.case.configure(settings)
        self.daemon = self.case.launch(("-d",), environment=self.environment)
        self.port = self.case.port
        wanted = int(settings["network"].get("AcceptCount", 1))
        harness.wait_until(lambda: len(self.pids) == wanted, "the workers")
        harness.wait_until(self._answers, "an open port")
        return self

    def _answers(self):
        with contextlib.suppress(OSError):
            with harness.Line(self.port) as client:
                return client.ask("ready") == "ready"

    def __exit__(self, *_):
        self.case.doCleanups()

    @property
    def pids(self):
        """The workers; without logging they report nothing, but they are children of the monitor."""
        return children_of(self.daemon.pid)

    def counters(self, build):
        shown = subprocess.run([build / "bin/velt-counters", "--json", self.case.proxy], capture_output=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.case.root.path)}).stdout
        return json.loads(shown)["counters"]


def folder():
    return tempfile.TemporaryDirectory(prefix="velt-relays-")


def settle():
    """Lets what the last run left behind, such as the ends of its connections, pass by."""
    time.sleep(0.2)
