"""The scanner daemon and a client that speaks its protocol: items in line and by name, verdicts, attributes, parking."""
import os
import unittest
import urllib.request

import harness
from scannerd_case import (EICAR, FILE_REFUSED, GONE, LOCAL, REFUSED, REMOTE, SCAN_FAILED, TOO_LARGE, ScannerdCase, mail,
                           scan, set_up, wide)

PHRASE = "project nightingale"


class Verdicts(ScannerdCase):
    def test_a_clean_mail_is_clean(self):
        self.begin()
        verdict = self.client().item(mail())
        self.assertFalse(verdict.triggered)
        self.assertEqual((verdict.infections, verdict.headers["cached"]), ([], "0"))

    def test_a_virus_is_found_in_line(self):
        self.begin()
        verdict = self.client().item(mail(EICAR))
        self.assertTrue(verdict.triggered)
        self.assertTrue(any("EICAR" in one.upper() for one in verdict.infections), verdict.infections)

    def test_a_virus_is_found_in_an_item_larger_than_memory(self):
        self.begin()
        for content, found in ((mail(b"x\r\n" * 100000 + EICAR), True), (mail(b"x\r\n" * 100000), False)):
            client = self.client()
            self.assertEqual(client.item(content).triggered, found)
            client.close()
        self.assert_nothing_left()

    def test_the_content_crosses_once_for_all_identities(self):
        self.begin()
        client = self.client()
        self.assertEqual(client.state(set_up(mail(PHRASE))), "OK")
        found = [client.verdict(scan(one)).triggered for one in (None, "board", "nobody", "board")]
        self.assertEqual(found, [True, False, True, False])

    def test_what_the_engines_took_out_is_gone_from_the_content(self):
        self.av = "REPLACE"
        self.begin()
        verdict = self.client().item(mail(EICAR))
        self.assertTrue(verdict.triggered)
        self.assertEqual(verdict.headers["output_in_input"], "0")
        self.assertNotIn(EICAR, verdict.content)
        self.assertGreater(len(verdict.content), 0)

    def test_a_fallback_scan_is_a_scan(self):
        self.begin()
        client = self.client()
        client.state(set_up(mail(EICAR)))
        self.assertTrue(client.verdict(scan(fallback=True)).triggered)
        self.assertTrue(client.verdict(scan()).triggered)

    def test_a_policy_that_this_host_lacks_is_scanned_as_the_engines_usually_do(self):
        self.begin()
        client = self.client()
        self.assertEqual(client.state(set_up(mail(EICAR), policy="of another host")), "OK")
        self.assertTrue(client.verdict(scan()).triggered)


class Faults(ScannerdCase):
    """Engines that fail where the item says so."""

    def launch(self, options=("-d",), arguments=(), environment=None):
        return super().launch(options, arguments, {
            "LD_PRELOAD": os.environ["VELT_FAULTY_ENGINES"], "VELT_ENGINES": os.environ["VELT_ENGINES"],
            "VELT_ENGINES_WAIT": str(self.root.path / "wait"), **(environment or {})})

    def test_a_client_that_leaves_during_a_scan_gets_nothing(self):
        wait = self.root.write("/wait", "")
        self.begin()
        client = self.client()
        self.assertEqual(client.state(set_up(b"X: y\r\nX-Fault: slow\r\n" + mail(EICAR))), "OK")
        client.send(scan())
        harness.wait_until(lambda: self.counters()["scans.asked"] == 1, "a scan that is under way")
        client.close()
        wait.unlink()
        self.wait_event(*GONE)
        self.assert_nothing_left()
        self.assertTrue(self.client().item(mail(EICAR)).triggered)

    def test_a_scan_that_fails_is_no_verdict_and_the_item_stays(self):
        self.begin()
        for number, fault in enumerate(("no-verdict", "no-object", "exception", "memory", "foreign-exception"), 1):
            client = self.client()
            self.assertEqual(client.state(set_up(b"X: y\r\nX-Fault: " + fault.encode() + b"\r\n" + mail())), "OK")
            self.assertEqual(client.verdict(scan()), "FAILED", fault)
            self.wait_event(*SCAN_FAILED, count=number)
            self.assertEqual(client.state(b"get stasis\n\n"), "OK", "and the connection lives on")
        self.assertEqual(self.counters()["scans.failed"], 5)
        self.assertTrue(self.client().item(mail(EICAR)).triggered)


class Attributes(ScannerdCase):
    CROWD = b"conattr.RECIPIENTS ms 1\n" + wide("a") + b"conattr.RECIPIENTS ms 1\n" + wide("b") + (
        b"conattr.RECIPIENTS ms 1\n") + wide("c") + b"\r\n"

    def test_are_asked_for_where_the_policy_needs_them(self):
        self.begin()
        client = self.client()
        client.state(set_up(mail(), policy="counting"))
        self.assertEqual(client.state(scan(attributes=True)), "Attributes")
        self.assertTrue(client.verdict(self.CROWD).triggered)
        self.assertEqual(self.counters()["attributes.asked"], 1)

    def test_are_not_asked_for_otherwise(self):
        self.begin()
        client = self.client()
        client.state(set_up(mail()))
        self.assertFalse(client.verdict(scan(attributes=True)).triggered)
        client = self.client()
        client.state(set_up(mail(), policy="counting"))
        self.assertFalse(client.verdict(scan()).triggered, "nobody offered them")

    def test_a_client_that_leaves_when_asked_gets_nothing(self):
        self.begin()
        client = self.client()
        client.state(set_up(mail(), policy="counting"))
        self.assertEqual(client.state(scan(attributes=True)), "Attributes")
        client.close()
        self.wait_event(*GONE)


class ByName(ScannerdCase):
    def test_a_local_client_names_its_file(self):
        self.begin()
        for content, found in ((mail(EICAR), True), (mail(), False), (mail(b"x\r\n" * 100000 + EICAR), True)):
            path = self.spooled(content)
            client = self.client(LOCAL)
            self.assertEqual(client.state(set_up(size=len(content), filename=path)), "OK")
            self.assertEqual(client.verdict(scan()).triggered, found)
            self.assertEqual(path.read_bytes(), content)
        self.assertEqual(self.counters()["files.taken"], 3)

    def test_a_local_client_may_send_its_content_too(self):
        self.begin()
        self.assertTrue(self.client(LOCAL).item(mail(EICAR)).triggered)

    def test_a_health_monitor_is_answered_beside_local_clients(self):
        self.begin(process={"MonitorHealth": True})
        self.assertTrue(self.client(LOCAL).item(mail(EICAR)).triggered)
        with urllib.request.urlopen(f"http://{harness.SERVER}:{self.port}/", timeout=harness.LIMIT) as answer:
            self.assertIn(b"Health: OK", answer.read())

    def test_nothing_else_is_opened(self):
        self.begin()
        path = self.spooled(mail())
        secret = self.root.write("/secret", "root:x:0:0")
        link, hard = path.parent / "link", path.parent / "hard"
        link.symlink_to(secret)
        hard.hardlink_to(secret)
        (self.root.path / "scandir/folder").symlink_to(self.root.path)
        refused = [secret, link, hard, path.parent / ".." / "gate" / "1.in", self.root.path / "scandir/folder/secret",
                   "/etc/passwd", "1.in", path.parent, path.parent / "none", "/proc/self/mem"]
        for name in refused:
            client = self.client(LOCAL)
            size = len(mail()) if "1.in" in str(name) else 10
            self.assertEqual(client.state(set_up(size=size, filename=name)), "DENIED", name)
            self.assertTrue(client.is_closed())
        self.wait_event(*FILE_REFUSED, count=len(refused))
        self.assertEqual(self.counters()["files.refused"], len(refused))

    def test_another_machine_names_no_file(self):
        self.begin()
        path = self.spooled(mail())
        client = self.client(REMOTE)
        self.assertEqual(client.state(set_up(size=len(mail()), filename=path)), "DENIED")
        self.assertTrue(client.is_closed())
        self.wait_event(*FILE_REFUSED)

    def test_the_roots_are_a_setting(self):
        other = self.root.path / "other"
        other.mkdir()
        (other / "1.in").write_bytes(mail(EICAR))
        (other / "1.in").chmod(0o600)
        self.begin(scannerd={"SpoolRoots": [str(other)]})
        client = self.client(LOCAL)
        self.assertEqual(client.state(set_up(size=len(mail(EICAR)), filename=other / "1.in")), "OK")
        self.assertTrue(client.verdict(scan()).triggered)
        client = self.client(LOCAL)
        self.assertEqual(client.state(set_up(size=len(mail()), filename=self.spooled(mail()))), "DENIED")
        self.wait_event(*FILE_REFUSED)


class KeptConnections(ScannerdCase):
    def test_a_parked_connection_takes_the_next_item(self):
        self.begin()
        client = self.client()
        for content, found in ((mail(EICAR), True), (mail(), False), (mail(PHRASE), True)):
            self.assertEqual(client.item(content).triggered, found)
            self.assertEqual(client.state(b"get stasis\n\n"), "OK")
            self.assertEqual(client.state(b"get wakeup\n\n"), "OK")
        counted = self.counters()
        self.assertEqual((counted["sessions"], counted["items"], counted["parked"], counted["woken"]), (1, 3, 3, 3))

    def test_a_parked_connection_is_closed_when_its_time_is_over(self):
        self.begin(scannerd={"ParkTimeout": 1})
        client = self.client()
        client.item(mail())
        self.assertEqual(client.state(b"get stasis\n\n"), "OK")
        self.assertTrue(client.is_closed())

    def test_a_request_at_the_wrong_time_is_refused(self):
        self.begin()
        for request in (scan(), b"get stasis\n\n", b"get wakeup\n\n", b"\n", b"EHLO example\n\n"):
            client = self.client()
            self.assertEqual(client.state(request), "DENIED")
            self.assertTrue(client.is_closed())
        self.wait_event(*REFUSED, count=5)

    def test_an_item_beyond_the_limit_is_refused(self):
        self.begin(scannerd={"MaxItemSize": 1})
        self.assertFalse(self.client().item(mail(b"x" * 900)).triggered)
        for size in (1025, 2 ** 32, 2 ** 63, 10 ** 30):
            self.assertEqual(self.client().state(set_up(size=size)), "DENIED", size)
        self.wait_event(*TOO_LARGE, count=4)


if __name__ == "__main__":
    unittest.main()
