"""Disks that are full or closed: mail is not lost, the operator is told why it waits, and a retryer that can do nothing
does nothing."""
import os
import unittest

import harness
import small_disk
from crash_case import LARGE
from deferred_case import DAMAGED, GIVEN_UP, NO_FILE, RETRY_FAILED, STORE_FAILED, numbered
from smtp_case import DEFERRED, SENDER, STAFF
from troubles_case import TroublesCase

MAY_MOUNT = small_disk.permitted()
NO_DIRECTORY = (70002, 119)
FULL = "No space left on device"


@unittest.skipUnless(MAY_MOUNT, "mounting is not permitted here")
class Full(TroublesCase):
    def disk(self, folder, **limits):
        made = small_disk.SmallDisk(folder, **limits)
        self.addCleanup(made.close)
        return made

    def assert_kept_once_it_has_room(self, disk, fill):
        self.begin()
        self.provokes(DEFERRED, STORE_FAILED)
        self.away()
        fill()
        before = sorted(path.name for path in self.directory.iterdir())
        self.assertRegex(self.client().mail(numbered(1)), r"^451 ")
        self.assertEqual(sorted(path.name for path in self.directory.iterdir()), before)
        self.assertEqual(self.finding(STORE_FAILED), {FULL})
        disk.free()
        self.assertRegex(self.client().mail(numbered(2)), r"^250 ")
        self.back()
        self.retryer()
        self.assert_arrived(2)

    def test_mail_that_a_full_disk_does_not_take_stays_with_its_client(self):
        disk = self.disk(self.directory)
        self.assert_kept_once_it_has_room(disk, disk.fill)

    def test_mail_without_an_inode_stays_with_its_client(self):
        disk = self.disk(self.directory, inodes=12)
        self.assert_kept_once_it_has_room(disk, disk.use_inodes)

    def test_mail_that_waits_on_a_full_disk_is_delivered(self):
        disk = self.disk(self.directory)
        self.begin()
        self.keep(1, 2)
        disk.fill()
        self.retryer()
        self.assert_arrived(1, 2)

    def test_what_became_of_a_mail_is_noted_on_a_full_disk_and_told_once_there_is_room(self):
        disk = self.disk(self.directory)
        self.begin()
        self.provokes(STORE_FAILED, GIVEN_UP)
        self.keep(1)
        disk.fill()
        self.sink.replies = {"MAIL": "451 4.3.2 still not"}
        retryer = self.retryer()
        self.assert_at_rest(retryer, RETRY_FAILED)
        self.sink.replies = {f"RCPT {STAFF}": "550 5.1.1 who?"}
        self.assert_at_rest(retryer, STORE_FAILED)
        self.assertEqual(self.finding(STORE_FAILED), {FULL})
        self.assertEqual(len(self.waiting()), 1)
        disk.free()
        (report,) = self.sink.wait_messages(1)
        self.assertEqual(report.recipients, [SENDER])
        self.assertIn(b"<1@outside.example>", report.content)
        self.wait_empty()
        self.assertEqual(len(self.sink.messages), 1)

    def test_mail_that_a_full_spool_disk_does_not_take_waits(self):
        disk = self.disk(self.root.path / "scandir/smtp-retryer", size="1m")
        disk.folder.chmod(0o777)
        self.begin(scanning={"MaxScanMem": 4})
        self.provokes(DAMAGED)
        self.sink.replies = {"MAIL": "451 4.3.2 later"}
        large = 30 * LARGE  # which no try has in memory
        self.assertRegex(self.client().mail(large), r"^250 ")
        self.sink.replies = {}
        disk.fill()
        retryer = self.retryer()
        self.assert_at_rest(retryer, DAMAGED)
        self.assertEqual(self.finding(DAMAGED), {FULL})
        self.assertEqual(self.sink.messages, [])
        disk.free()
        (stored,) = self.sink.wait_messages(1)
        self.assertEqual(self.content_of(stored), large)
        self.wait_empty()


class Closed(TroublesCase):
    """A mode is what it says to whom the superuser's right to everything was taken."""

    def retryer_without_rights(self):
        if os.geteuid() == 0:
            bound = self.root.write("/bound", "#!/bin/sh\nexec setpriv --bounding-set=-dac_override,-dac_read_search "
                                              f"{self.program} \"$@\"\n")
            bound.chmod(0o755)
            self.program = bound
        return self.retryer()

    def test_directory_that_cannot_be_read_is_reported_by_each_walk(self):
        self.begin()
        self.provokes(NO_DIRECTORY)
        self.keep(1)
        self.directory.chmod(0)
        retryer = self.retryer_without_rights()
        self.assert_at_rest(retryer, NO_DIRECTORY)
        self.directory.chmod(0o700)
        self.assert_arrived(1)

    def test_file_that_cannot_be_opened_is_reported_and_holds_nothing_up(self):
        self.begin()
        self.provokes(NO_FILE)
        self.expect(*DAMAGED, at_least=0)
        closed, _ = self.keep(1, 2)
        closed.chmod(0)
        (self.directory / "folder.rmd").mkdir()
        os.mkfifo(self.directory / "pipe.rmd")
        os.symlink("nowhere", self.directory / "link.rmd")
        retryer = self.retryer_without_rights()
        self.assert_at_rest(retryer, NO_FILE, 2)
        self.sink.wait_messages(1)
        closed.chmod(0o600)
        self.sink.wait_messages(2)
        harness.wait_until(lambda: self.waiting() == ["folder.rmd", "link.rmd", "pipe.rmd"], "the end of both mails")
        self.assertEqual(len(self.numbers()), 2)


if __name__ == "__main__":
    unittest.main()
