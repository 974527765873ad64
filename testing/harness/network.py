"""Three network namespaces in a row: client, gateway and server. The gateway's is the one that the test runs in.

    10.1.0.2 client  --  10.1.0.1 "clients"  gateway  "servers" 10.2.0.1  --  10.2.0.2 server

Nothing leaves them. They need no mount and no name: a namespace lives as long as the process that holds it."""
import contextlib
import ctypes
import os
import pathlib
import socket
import subprocess

from harness.basics import wait_until

CLIENT_ADDRESS, SERVER_ADDRESS = "10.1.0.2", "10.2.0.2"
INNER_ADDRESS, OUTER_ADDRESS = "10.1.0.1", "10.2.0.1"  # the gateway's
CLIENT_SIDE, SERVER_SIDE = "clients", "servers"  # its interfaces

_LIBC = ctypes.CDLL(None, use_errno=True)
_OWN = "/proc/thread-self/ns/net"
_CLONE_NEWNET = 0x40000000
SYSCTL = pathlib.Path("/proc/sys/net/ipv4")
FORWARD = "ip_forward"


def run(*command, check=True, **more):
    """The command's output."""
    done = subprocess.run(command, check=False, capture_output=True, text=True, **more)
    if check and done.returncode:
        raise AssertionError(f"{' '.join(command)}: {done.stderr}")
    return done.stdout


def permitted():
    """Whether this process may make namespaces and rules. It may in one of its own, as scripts/in-empty-net makes one."""
    own = os.readlink(_OWN)
    outside = pathlib.Path("/proc/1/ns/net")
    try:
        alone = os.readlink(outside) != own
    except PermissionError:
        alone = True  # the first process is somebody else's
    return alone and all(subprocess.run(command, capture_output=True, check=False).returncode == 0
                         for command in (("unshare", "-n", "true"), ("nft", "list", "ruleset")))


def _enter(descriptor):
    if _LIBC.setns(descriptor, _CLONE_NEWNET):
        raise OSError(ctypes.get_errno(), "setns")


class Namespace:
    """One namespace that is not the test's."""

    def __init__(self):
        self._holder = subprocess.Popen(["unshare", "-n", "sh", "-c", "echo; exec cat"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        self._holder.stdout.readline()
        self.pid = self._holder.pid
        self._descriptor = os.open(f"/proc/{self.pid}/ns/net", os.O_RDONLY)

    def close(self):
        os.close(self._descriptor)
        self._holder.stdin.close()
        self._holder.wait()
        self._holder.stdout.close()

    @contextlib.contextmanager
    def entered(self):
        """What this thread does meanwhile it does there; a socket stays where it was made."""
        home = os.open(_OWN, os.O_RDONLY)
        try:
            _enter(self._descriptor)
            yield
        finally:
            _enter(home)
            os.close(home)

    def ip(self, *arguments):
        with self.entered():
            return run("ip", *arguments)

    def connect(self, address, port, source=None, limit=5.0):
        with self.entered():
            return socket.create_connection((address, port), limit, source and (source, 0))


class ThreeNetworks:
    """Client and server with the gateway's namespace, which forwards, between them."""

    def __init__(self):
        self.client, self.server = Namespace(), Namespace()
        self._join(self.client, CLIENT_SIDE, INNER_ADDRESS, CLIENT_ADDRESS)
        self._join(self.server, SERVER_SIDE, OUTER_ADDRESS, SERVER_ADDRESS)
        self.set(FORWARD, 1)
        for interface in ("all", "default", CLIENT_SIDE, SERVER_SIDE):
            self.set(f"conf/{interface}/rp_filter", 0)

    @staticmethod
    def _join(far, interface, near_address, far_address):
        run("ip", "link", "add", interface, "type", "veth", "peer", "name", "eth0", "netns", str(far.pid))
        run("ip", "addr", "add", f"{near_address}/24", "dev", interface)
        run("ip", "link", "set", interface, "up")
        far.ip("link", "set", "lo", "up")
        far.ip("addr", "add", f"{far_address}/24", "dev", "eth0")
        far.ip("link", "set", "eth0", "up")
        far.ip("route", "add", "default", "via", near_address)

    @staticmethod
    def set(name, value):
        (SYSCTL / name).write_text(f"{value}\n")

    @staticmethod
    def load(rules):
        run("nft", "-f", "-", input=rules)

    def close(self):
        run("nft", "flush", "ruleset")
        for interface in (CLIENT_SIDE, SERVER_SIDE):
            run("ip", "link", "del", interface, check=False)
        self.client.close()
        self.server.close()
        wait_until(lambda: CLIENT_SIDE not in run("ip", "-o", "link"), "the end of the links")
