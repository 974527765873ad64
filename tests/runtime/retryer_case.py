"""A retryer under test, over a directory of files that wait. The host is tests/hosts/keeper.cpp, which tells what the
words in the files mean."""
import os
import time
from typing import NamedTuple

import harness

WALK, NO_DIRECTORY, NO_FILE = (70000, 117), (70002, 119), (70002, 120)
RETRYER = ("-d", "-s", "retryer", "-t", "smtp")
REST = 60  # seconds between the times of a file at rest


class Note(NamedTuple):
    pid: int
    id: str
    what: str


class RetryerCase(harness.DaemonCase):
    program = os.environ.get("VELT_KEEPER")
    proxy = "keeper"
    routine = {**harness.ROUTINE, WALK: "each walk names the files that it comes by"}

    def setUp(self):
        super().setUp()
        self.directory = self.root.path / "deferred/smtp"
        self.directory.mkdir(parents=True)

    def retry(self, options=RETRYER, arguments=(), process=(), **keys):
        """Starts a retryer of the queue "smtp" that walks once a second."""
        self.configure(self.settings(smtpretryer={"ScanInterval": 1, **keys}, process=dict(process)))
        return self.launch(options, arguments)

    def put(self, name, *words, at_rest=False):
        """A file that waits, written at once as far as a retryer can see."""
        draft = self.directory / f".{name}"
        draft.write_text("\n".join(words) + "\n")
        if at_rest:
            os.utime(draft, (time.time() - REST,) * 2)
        return draft.rename(self.directory / f"{name}.rmd")

    def names(self):
        return sorted(entry.name for entry in self.directory.iterdir())

    def journal(self, id=None):
        """What the host has noted, of this id or of all. A line without its end is still being written, and a note that was
        cut short has another word."""
        try:
            lines = (self.directory.parent / "journal").read_text().split("\n")[:-1]
        except FileNotFoundError:
            return []
        notes = [Note(int(words[0]), *words[1:]) for words in map(str.split, lines) if len(words) == 3]
        return [note for note in notes if id in (None, note.id)]

    def attempts(self, id):
        return [note.what for note in self.journal(id)]

    def wait_attempts(self, id, *whats):
        harness.wait_until(lambda: len(self.attempts(id)) >= len(whats), f"{len(whats)} notes of {id}")
        self.assertEqual(self.attempts(id), list(whats))

    def wait_walks(self, count):
        """So many walks more, from their first file to their last: a file that is only looked at is named by each."""
        self.put("looked-at", "later", at_rest=True)

        def seen():
            return sum(event["values"]["file_for_retry"] == "looked-at.rmd" for event in self.events(*WALK))
        wanted = seen() + count + 1
        harness.wait_until(lambda: seen() >= wanted, f"{count} walks")
