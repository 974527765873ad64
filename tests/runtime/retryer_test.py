"""Retryers over a directory of files that wait: what they take and leave, alone and beside others, and how they end."""
import fcntl
import os
import signal
import subprocess
import time
import unittest

import harness
from retryer_case import NO_DIRECTORY, NO_FILE, RETRYER, WALK, RetryerCase


class Files(RetryerCase):
    def test_new_ones_are_taken_at_once_and_those_at_rest_left(self):
        self.put("new", "done")
        self.put("resting", "done", at_rest=True)
        self.retry(RetryInterval=600)
        self.wait_attempts("new", "new", "done")
        self.wait_walks(2)
        self.assertEqual(self.attempts("resting"), [])
        self.assertEqual(self.names(), ["looked-at.rmd", "resting.rmd"])

    def test_failed_one_rests_for_the_interval_and_is_tried_again(self):
        self.put("mail", "done", "later", "later")
        self.retry(RetryInterval=2)
        self.wait_attempts("mail", "new", "again", "again", "done")
        self.assertEqual(self.names(), [])

    def test_one_that_is_not_put_to_rest_is_tried_at_each_walk(self):
        self.put("mail", "done", "again", "again")
        self.retry(RetryInterval=600)
        self.wait_attempts("mail", "new", "new", "new", "done")

    def test_other_names_are_left(self):
        for name in ("a.rmd.tmp", "b", ".c.rmd"):
            (self.directory / name).write_text("done\n")
        self.retry()
        self.wait_walks(2)
        self.assertEqual(self.journal(), [])

    def test_locked_one_is_left_until_it_is_free(self):
        path = self.put("mail", "done")
        with open(path, "r+") as file:
            fcntl.lockf(file, fcntl.LOCK_EX)
            self.retry()
            self.wait_walks(2)
            self.assertEqual(self.journal("mail"), [])
        self.wait_attempts("mail", "new", "done")

    def test_one_that_cannot_be_opened_is_reported_and_holds_nobody_up(self):
        (self.directory / "folder.rmd").mkdir()
        self.put("mail", "done")
        self.retry()
        (event, *_) = self.wait_event(*NO_FILE)
        self.assertEqual(event["values"], {"retry_directory": f"{self.directory}/", "file_for_retry": "folder.rmd"})
        self.wait_attempts("mail", "new", "done")

    def test_one_that_is_held_is_not_taken_again(self):
        self.put("mail", "done", "wait")
        self.retry()
        self.wait_attempts("mail", "new")
        self.wait_walks(2)
        self.wait_attempts("mail", "new")
        (self.directory / "go").touch()
        self.wait_attempts("mail", "new", "done")

    def test_one_that_is_replaced_while_it_is_held_is_other_work(self):
        self.put("mail", "done", "wait")
        self.retry()
        self.wait_attempts("mail", "new")
        self.put("mail", "done")
        self.wait_walks(2)
        self.wait_attempts("mail", "new")
        (self.directory / "go").touch()
        self.wait_attempts("mail", "new", "done", "new", "done")
        harness.wait_until(lambda: "mail.rmd" not in self.names(), "the end of both")

    def test_one_that_is_truncated_while_it_is_held_is_tried_again(self):
        path = self.put("mail", "done", "wait")
        self.retry()
        self.wait_attempts("mail", "new")
        os.truncate(path, 0)
        (self.directory / "go").touch()
        harness.wait_until(lambda: len(self.attempts("mail")) >= 2, "the next attempt")
        path.write_text("done\n")
        harness.wait_until(lambda: "done" in self.attempts("mail"), "success")

    def test_dead_ones_do_not_hold_others_up_for_ever(self):
        """Two threads, and two files whose attempts last: the others wait their turn and get it."""
        for number in range(4):
            self.put(f"slow{number}", "done", "wait")
        self.retry(MaxConncurrent=2)
        harness.wait_until(lambda: len(self.journal()) >= 2, "the first attempts")
        self.put("quick", "done")
        (self.directory / "go").touch()
        self.wait_attempts("quick", "new", "done")


class Processes(RetryerCase):
    def test_two_retryers_share_a_directory_and_nothing_is_done_twice(self):
        count = 2000 if harness.FULL else 300
        ids = [f"mail{number}" for number in range(count)]
        for id in ids:
            self.put(id, "done")
        self.expect(*NO_FILE, at_least=0)  # the other one had just finished with it
        self.retry(MaxConncurrent=4)
        self.launch(RETRYER)
        harness.wait_until(lambda: not self.names(), "an empty directory", 10 * harness.LIMIT)
        notes = self.journal()
        self.assertEqual(sorted(note.id for note in notes if note.what == "new"), sorted(ids))
        self.assertEqual(sorted(note.id for note in notes if note.what == "done"), sorted(ids))
        print(f"{count} files:", {pid: sum(note.pid == pid for note in notes) // 2
                                  for pid in {note.pid for note in notes}})

    def test_killed_worker_leaves_its_files_to_the_next(self):
        self.put("mail", "done", "wait")
        self.retry()
        self.wait_attempts("mail", "new")
        killed = self.kill_worker()
        (self.directory / "go").touch()
        self.wait_attempts("mail", "new", "new", "done")
        self.assertNotEqual(self.journal("mail")[1].pid, killed)

    def test_workers_that_die_of_a_file_do_not_keep_it(self):
        self.put("mail", "done", "die", "die")
        self.expect(10000, 54)
        self.retry()
        self.wait_attempts("mail", "new", "new", "new", "done")
        self.assertEqual(len({note.pid for note in self.journal("mail")}), 3)

    def test_hangup_of_the_worker_finishes_what_it_holds_and_another_takes_over(self):
        self.put("held", "done", "wait")
        self.retry()
        self.wait_attempts("held", "new")
        (worker,) = self.workers()
        self.expect_end(worker)
        os.kill(worker, signal.SIGHUP)
        time_of_signal = time.monotonic()
        self.put("next", "done")
        self.wait_attempts("next", "new", "done")
        print(f"replaced {time.monotonic() - time_of_signal:.1f} s after its hangup")
        self.wait_attempts("held", "new")
        (self.directory / "go").touch()
        self.wait_attempts("held", "new", "done")
        self.assertEqual(self.journal("held")[-1].pid, worker)
        self.wait_gone(worker, harness.bound(5))

    def test_hangup_of_the_monitor_ends_a_worker_that_rests(self):
        daemon = self.retry(ScanInterval=65535)
        self.put("mail", "done")
        self.wait_worker()
        daemon.signal(signal.SIGHUP)
        self.assertEqual(daemon.wait(), 0)
        self.wait_all_gone(harness.bound(3))

    def test_worker_of_a_killed_monitor_finishes_what_it_holds_and_leaves(self):
        self.put("held", "done", "wait")
        self.retry(ScanInterval=65535)
        self.wait_attempts("held", "new")
        (worker,) = self.workers()
        self.kill_monitor()
        (self.directory / "go").touch()
        self.wait_attempts("held", "new", "done")
        self.wait_gone(worker, harness.bound(5))

    def test_worker_above_the_memory_limit_of_its_queue_is_replaced(self):
        self.retry(MemoryLimit=1, process={"MemoryLimitRate": 2})
        self.wait_event(10000, 70, limit=2 * harness.LIMIT)
        self.wait_event(10000, 54, count=2)

    def test_memory_limit_of_the_process_is_not_the_retryers(self):
        self.retry(process={"MemoryLimit": 1, "MemoryLimitRate": 1})
        self.wait_walks(3)
        self.assertEqual(self.events(10000, 70), [])


class Directory(RetryerCase):
    def test_one_that_is_not_there_is_reported_once_in_each_interval_until_it_is(self):
        self.directory.rmdir()
        began = time.monotonic()
        self.retry()
        self.wait_event(*NO_DIRECTORY, count=3)
        self.assertGreaterEqual(time.monotonic() - began, 2)
        for event in self.events(*NO_DIRECTORY):
            self.assertEqual(event["values"], {"retry_directory": f"{self.directory}/"})
        self.directory.mkdir()
        self.put("mail", "done")
        self.wait_attempts("mail", "new", "done")

    def test_queue_that_nobody_knows_has_none(self):
        for options in (("-t", "mail"), ()):
            with self.subTest(options):
                self.configure(self.settings())
                self.launch(("-d", "-s", "retryer", *options))
                (event, *_) = self.wait_event(*NO_DIRECTORY)
                self.assertEqual(event["values"], {"retry_directory": ""})
                self.finish()

    def test_walks_lose_no_descriptor(self):
        with open(self.put("locked", "done"), "r+") as file:
            fcntl.lockf(file, fcntl.LOCK_EX)
            (self.directory / "folder.rmd").mkdir()
            self.expect(*NO_FILE)
            for number in range(20):
                self.put(f"mail{number}", "again")
            self.retry()
            self.wait_walks(1)
            (worker,) = self.workers()
            harness.wait_until(lambda: not self.held_by(worker), "an end of the attempts")
            before = len(harness.descriptors(worker))
            self.wait_walks(4)
            harness.wait_until(lambda: len(harness.descriptors(worker)) == before, "as few descriptors as before")

    def test_factory_that_gives_nothing_loses_no_descriptor_either(self):
        self.put("mail", "done")
        self.retry(arguments=("none",))
        self.wait_walks(4)
        self.assertEqual(self.held_by(self.workers()[0]), [])
        self.assertEqual(self.journal(), [])

    def held_by(self, pid):
        return [path for path in harness.descriptors(pid).values() if path.endswith(".rmd")]

    def test_counters_tell_walks_and_files(self):
        self.put("mail", "done")
        self.retry()
        self.wait_attempts("mail", "new", "done")
        self.wait_walks(2)
        self.stop()
        text = subprocess.run([os.environ["VELT_COUNTERS"], self.proxy], capture_output=True, text=True, check=True,
                              env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        counted = dict(line.split()[:2] for line in text.splitlines() if len(line.split()) >= 2)
        self.assertEqual(counted["messages.retried"], "1", text)
        self.assertGreaterEqual(int(counted["messages.traversed"]), 3)
        self.assertGreaterEqual(int(counted["directory_scans"]), 3)


class OneProcess(RetryerCase):
    def passed(self, *ids):
        self.assertEqual(self.retry(("-p", *RETRYER[1:]), ids).wait(), 0)

    def test_pass_without_ids_takes_every_file_also_those_at_rest(self):
        self.put("new", "done")
        self.put("resting", "done", at_rest=True)
        self.passed()
        self.assertEqual(self.names(), [])
        self.assertEqual(self.attempts("new"), ["again", "done"])

    def test_pass_with_ids_takes_those_in_their_order(self):
        for id in "abc":
            self.put(id, "done", at_rest=True)
        self.passed("c", "a")
        self.assertEqual(self.names(), ["b.rmd"])
        self.assertEqual([note.id for note in self.journal() if note.what == "new"], ["c", "a"])

    def test_id_without_a_file_is_reported_and_the_next_one_taken(self):
        self.expect(*NO_FILE)
        self.put("b", "done", at_rest=True)
        self.passed("a", "b")
        self.assertEqual(self.names(), [])


class OtherQueues(RetryerCase):
    def passed(self, queue, directory):
        """One pass over the directory that the queue has by default; one file lies in it."""
        self.directory = self.root.path / directory
        self.directory.mkdir(parents=True, exist_ok=True)
        self.put("work", "done")
        self.configure(self.settings())
        self.assertEqual(self.launch(("-p", "-s", "retryer", "-t", queue)).wait(), 0)
        self.assertEqual(self.names(), [])

    def test_log_and_quarantine_have_their_directories_and_report_nothing(self):
        for queue, directory in (("log", "deferred/logging"), ("quarantine", "quarantine/smtp")):
            with self.subTest(queue):
                self.passed(queue, directory)
                self.assertEqual(self.attempts("work"), ["again", "done"])
                self.assertEqual(self.events(), [])
        self.passed("smtp", "deferred/smtp")
        self.assertEqual([event["values"]["file_for_retry"] for event in self.events(*WALK)], ["work.rmd"])


class OfTheMailGateway(RetryerCase):
    program = os.environ.get("VELT_SMTP")
    proxy = "smtp"

    def test_file_that_is_no_mail_is_reported_and_left(self):
        path = self.put("mail", "done")
        self.retry()
        (event, *_) = self.wait_event(60000, 25)
        self.assertEqual(event["values"]["smtp_file"], str(path))
        self.assertEqual(path.read_text(), "done\n")


if __name__ == "__main__":
    unittest.main()
