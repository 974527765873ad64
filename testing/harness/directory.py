"""A real directory server (slapd(8)) with the small tree of testing/slapd, on loopback."""
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile

from harness.basics import SERVER, free_ports, wait_until

PREPARE = pathlib.Path(__file__).resolve().parents[1] / "slapd" / "prepare"


class Slapd:
    """Serves from its making until close()."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="slapd."))
        subprocess.run([PREPARE, self.folder], check=True)
        (self.port,) = free_ports(1)
        self.start()

    @property
    def host(self):
        """As ldapserver in ldap.txt has it."""
        return f"{SERVER}:{self.port}"

    def start(self):
        with open(self.folder / "log", "ab") as log:
            self.process = subprocess.Popen(
                # It takes memory for as many descriptors as it may have.
                ["prlimit", "--nofile=1024", "/usr/sbin/slapd", "-f", self.folder / "slapd.conf",
                 "-h", f"ldap://{self.host}", "-d", "stats"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(self._serves, "the directory server")

    def _serves(self):
        if self.process.poll() is not None:
            raise AssertionError((self.folder / "log").read_text())
        try:
            socket.create_connection((SERVER, self.port), 1).close()
        except OSError:
            return False
        return True

    def freeze(self):
        """It takes connections, as the system does that, and answers nothing."""
        self.process.send_signal(signal.SIGSTOP)
        os.waitpid(self.process.pid, os.WUNTRACED)  # with its last thread

    def thaw(self):
        self.process.send_signal(signal.SIGCONT)

    def stop(self):
        self.thaw()
        self.process.terminate()
        self.process.wait()

    def searches(self):
        return (self.folder / "log").read_text(errors="replace").count(" SRCH base=")

    def close(self):
        if self.process.poll() is None:
            self.stop()
        shutil.rmtree(self.folder)
