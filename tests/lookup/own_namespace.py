"""A test file in namespaces of its own: port 53 is free, the name server is on loopback, and nobody else is to be asked.

A script calls enter() first. That runs the script once more, with a network of its own, its own /etc/resolv.conf, hosts
and nsswitch.conf, and the host name GATE. With the option --as-user the second run is an ordinary user's, who is root in
those namespaces alone. Where namespaces are forbidden the script ends with 77, which ctest takes for skipped.
"""
import atexit
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile

NAMESERVER = "127.0.0.1"
GATE = "gate.example.test"  # this machine
OWN, PEER = "198.51.100.1", "198.51.100.2"  # the two ends of its point-to-point link
HARDWARE = "02:00:c0:00:02:01"
SKIPPED = 77
NOBODY = "65534"

FILES = {
    "resolv.conf": f"nameserver {NAMESERVER}\noptions timeout:1 attempts:1\n",
    "hosts": "127.0.0.1 localhost\n",
    "nsswitch.conf": "passwd: files\ngroup: files\nservices: files\nhosts: files dns\n",
    "services": "smtp 25/tcp mail\nalpha 50000/udp\n",
}


_folder = pathlib.Path(tempfile.gettempdir()) / f"own-namespace-{os.getpid()}"


def enter():
    """Comes back in the namespaces, and nowhere else."""
    if "VELT_OWN_NAMESPACE" in os.environ:
        return _set_up()
    as_user = "--as-user" in sys.argv
    if as_user:
        sys.argv.remove("--as-user")
    root = os.geteuid() == 0
    become = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"] if as_user and root else []
    unshare = [*become, "unshare", "-mnu" if root and not as_user else "-Urmnu", "--propagation", "private"]
    if not _works(*unshare, "true"):
        _skip("namespaces are forbidden here")
    python = _python(unshare)
    environment = {**os.environ, "VELT_OWN_NAMESPACE": "yes"}
    environment.pop("IN_EMPTY_NET", None)
    sys.exit(subprocess.run([*unshare, python, "-B", *sys.argv], env=environment, check=False).returncode)


def write(name, text):
    """Another content for one of FILES."""
    (_folder / name).write_text(text)


def _skip(reason):
    print(f"skipped: {reason}")
    sys.exit(SKIPPED)


def _works(*command):
    return subprocess.run(command, capture_output=True, check=False).returncode == 0


def _python(unshare):
    """An interpreter that whoever goes on may run, and this script with it."""
    for candidate in (sys.executable, "/usr/bin/python3"):
        if _works(*unshare, candidate, "-c", f"open({os.path.abspath(sys.argv[0])!r})"):
            return candidate
    return _skip("an ordinary user cannot read the test")


def _run(*command):
    subprocess.run(command, check=True)


def _copy_etc(targets):
    """Puts a copy in the place of /etc that has all of these files: what is not there cannot be mounted on."""
    copy = _folder / "etc"
    subprocess.run(["cp", "-a", "/etc", copy], capture_output=True, check=False)  # a user may not read all of it
    for target in targets:
        if not target.exists():
            (copy / target.name).unlink(missing_ok=True)  # a link to nowhere
            (copy / target.name).touch()
    _run("mount", "--bind", copy, "/etc")


def _set_up():
    _folder.mkdir(mode=0o755)
    atexit.register(shutil.rmtree, _folder)
    targets = [pathlib.Path("/etc") / name for name in FILES]
    if not all(target.exists() for target in targets):
        _copy_etc(targets)
    for target in targets:
        write(target.name, FILES[target.name])
        _run("mount", "--bind", _folder / target.name, target.resolve())
    socket.sethostname(GATE)
    _run("ip", "link", "set", "lo", "up")
    _run("ip", "link", "add", "link0", "type", "veth", "peer", "name", "link1")
    _run("ip", "link", "set", "link0", "address", HARDWARE)
    _run("ip", "address", "add", OWN, "peer", PEER, "dev", "link0")
