"""A temporary root for daemons, and the processes that run in it."""
import pathlib
import shutil
import tempfile

from harness.events import EventLog
from harness.processes import has_environment, holds_files, process_fields, process_numbers, start_of


class Root:
    """A temporary VELT_ROOT with the folders that a daemon expects, and the log in which daemons report."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="velt-scenario-"))
        self.path.chmod(0o755)
        for folder in ("config/qxxmlconf/efabric", "scandir"):
            (self.path / folder).mkdir(parents=True)
        self.log = EventLog(self.path / "events.json")
        self._mark = f"VELT_ROOT={self.path}".encode()
        self._known = {}  # when each process began that was seen with the mark

    def remove(self):
        self.log.close()
        shutil.rmtree(self.path, ignore_errors=True)

    def write(self, name, text):
        """A file below /config/qxxmlconf, or anywhere below the root if the name begins with a slash."""
        file = self.path / name[1:] if name.startswith("/") else self.path / "config/qxxmlconf" / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        return file

    def runs(self, pid):
        """Whether this is a process of the root that has not ended. It has when its files are closed too."""
        if has_environment(pid, self._mark):
            self._known[pid] = start_of(pid)
            return True
        began = self._known.get(pid)
        return began is not None and began == start_of(pid) and holds_files(pid)

    def processes(self):
        """The processes that run in this root, by number. A process that has ended and was not waited for is none."""
        return sorted(pid for pid in process_numbers() if self.runs(pid))

    def zombies(self):
        """Those that have ended and that a process of this root does not wait for."""
        fields = {pid: process_fields(pid) for pid in process_numbers()}
        return sorted(pid for pid, known in fields.items() if known and known[0] == "Z" and self.runs(known[1]))
