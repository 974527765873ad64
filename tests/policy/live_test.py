"""What takes effect while a gateway runs, and what waits for its next start."""
import ctypes
import json
import os
import unittest

import harness

LIBC = ctypes.CDLL(None, use_errno=True)
IN_CLOSE_NOWRITE = 0x10


class Readers:
    """Tells whether somebody has read a file since."""

    def __init__(self, path):
        self.descriptor = LIBC.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self.descriptor < 0 or LIBC.inotify_add_watch(self.descriptor, bytes(path), IN_CLOSE_NOWRITE) < 0:
            raise OSError(ctypes.get_errno(), "inotify")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self.descriptor)

    def came(self):
        try:
            return bool(os.read(self.descriptor, 4096))
        except BlockingIOError:
            return False


class Live(harness.DaemonCase):
    program = os.environ["VELT_POLICY_PROBE"]

    def begin(self, policy, identities):
        self.running = self.settings(network={"MaxConnections": 4},
                                     process={"MonitorHealth": "false", "MemoryLimit": 0})
        self.configure(self.running, rules=self.rules(policy))
        self.name_identities(*identities)
        self.silent = self.root.write(f"efabric/{self.proxy}.xml", "<rules/>\n")
        self.launch()
        self.wait_worker()

    def rules(self, policy):
        return (f'<rules version="1"><policy name="base">{harness.settings_xml(self.running)}</policy>'
                f'<policy name="content_in">{policy}</policy></rules>')

    def name_identities(self, *names):
        """Those whose recipients begin with their names."""
        self.root.write("identities.xml", '<identities version="1">' + "".join(
            f'<identity name="{name}">eto IS "{name}*"</identity>' for name in names) + "</identities>")

    def question(self, recipient):
        return "\t".join(("", f"{recipient}@example.test", "", "process/IdleTimeout", "content"))

    def decided(self, recipient, session=None):
        """Identity and value, in this session or a new one."""
        if session:
            told = json.loads(session.ask(self.question(recipient)))
            return told["identity"], told["value"]
        with self.connect() as another:
            return self.decided(recipient, another)

    @staticmethod
    def value(number):
        return f'<settings section="process"><set name="IdleTimeout">{number}</set></settings>'

    def identity(self, name, number, inherits=""):
        return f'<identity name="{name}" inherits="{inherits}">{self.value(number) if number else ""}</identity>'

    def test_values_are_read_anew_and_who_is_who_is_not(self):
        self.begin(self.identity("ann", 2) + self.identity("a", 3) + self.identity("bob", 4) + self.value(5),
                   ("ann", "a", "bob"))
        session = self.connect()
        self.assertEqual(self.decided("ann", session), ("ann", "2"))
        self.assertEqual(self.decided("bob", session), ("bob", "4"))
        self.name_identities("ann", "carl")
        self.after(lambda: self.write(self.identity("carl", 6) + self.identity("a", 7) +
                                      self.identity("ann", None, "a") + self.value(8)))
        for one in (session, None):
            self.assertEqual(self.decided("ann", one), ("ann", "7"))
            self.assertEqual(self.decided("adam", one), ("a", "7"))
            self.assertEqual(self.decided("bob", one), ("bob", "8"))  # taken out: the policy's value
            self.assertEqual(self.decided("carl", one), (None, "8"))  # new: not chosen yet
        session.close()
        self.stop()
        self.launch()
        self.wait_event(10000, 54, count=2)
        for recipient, decided in (("ann", ("ann", "7")), ("adam", (None, "8")), ("bob", (None, "8")),
                                   ("carl", ("carl", "6"))):
            self.assertEqual(self.decided(recipient), decided)

    def write(self, policy):
        """In one step, as the manual wants it."""
        self.root.write("new", self.rules(policy)).rename(self.root.path / "config/qxxmlconf/rules.xml")

    def test_a_file_that_does_not_load_or_is_gone_changes_nothing(self):
        self.begin(self.identity("ann", 2), ("ann",))
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        text = self.rules(self.identity("ann", 3))
        self.after(lambda: rules.write_text(text.replace("</policy>", "", 1)))
        self.assertEqual(self.decided("ann"), ("ann", "2"))
        self.after(rules.unlink)
        self.assertEqual(self.decided("ann"), ("ann", "2"))
        self.after(lambda: rules.write_text(text))
        self.assertEqual(self.decided("ann"), ("ann", "3"))

    def after(self, change):
        """The gateway has read all of its files again since: that which says nothing, too."""
        with Readers(self.silent) as readers:
            change()
            harness.wait_until(lambda: self.decided("ann") and readers.came(), "a look at the files")


if __name__ == "__main__":
    unittest.main()
