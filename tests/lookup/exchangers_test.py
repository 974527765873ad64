"""Mail that the gateway takes to each domain's exchangers, as a real name server names them."""
import own_namespace

own_namespace.enter()

import concurrent.futures  # noqa: E402
import ctypes  # noqa: E402
import pathlib  # noqa: E402
import subprocess  # noqa: E402
import sys  # noqa: E402
import threading  # noqa: E402
import unittest  # noqa: E402

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "smtp"))

import lookup_case  # noqa: E402
import mail_sink  # noqa: E402
from smtp_case import DEFERRED, FAILED, LOOP, REFUSED, UNREACHED, SmtpCase  # noqa: E402

FIRST, SECOND, NOBODY = "203.0.113.1", "203.0.113.2", "203.0.113.3"
NEW_NETWORK = 0x40000000  # of unshare(2)

ZONES = {"example.test": f"""
plain MX 10 first
first A {FIRST}
second A {SECOND}
nobody A {NOBODY}
@ MX 20 first
@ MX 10 second
fallback MX 10 nobody
fallback MX 20 second
direct A {SECOND}
null MX 0 .
circle MX 10 localhost.
circle MX 20 first
better MX 10 first
better MX 20 localhost.
lost MX 10 nowhere
nothing TXT "neither exchanger nor address"
wide A {NOBODY}
""" + "\n".join(f"wide MX {i + 10} w{i:03d}-{'x' * 20}.wide\nw{i:03d}-{'x' * 20}.wide A {FIRST if i else SECOND}"
                for i in range(30)) + "\n" +
    "\n".join(f"huge MX 10 w{i:03d}-{'x' * 20}.huge" for i in range(250))}


class FarSide:
    """The other end of the link, a network of its own with two mail servers."""

    def __init__(self):
        self.thread = concurrent.futures.ThreadPoolExecutor(1)
        task = self.thread.submit(self._move).result()
        self._run("ip", "link", "set", "link1", "netns", str(task))
        self._run("ip", "link", "set", "link0", "up")
        self._run("ip", "route", "add", "203.0.113.0/24", "dev", "link0")
        self.within(self._set_up)
        self.first = self.within(lambda: mail_sink.MailSink(host=FIRST))
        self.second = self.within(lambda: mail_sink.MailSink(host=SECOND, port=self.first.port))

    def within(self, action):
        return self.thread.submit(action).result()

    @staticmethod
    def _move():
        if ctypes.CDLL(None, use_errno=True).unshare(NEW_NETWORK):
            raise OSError(ctypes.get_errno(), "unshare")
        return threading.get_native_id()

    @staticmethod
    def _run(*command):
        subprocess.run(command, check=True)

    def _set_up(self):
        self._run("ip", "address", "add", own_namespace.PEER, "peer", own_namespace.OWN, "dev", "link1")
        for address in (FIRST, SECOND, NOBODY):
            self._run("ip", "address", "add", f"{address}/32", "dev", "link1")
        self._run("ip", "link", "set", "link1", "up")

    def forget(self):
        for sink in (self.first, self.second):
            sink.messages.clear()

    def close(self):
        self.first.close()
        self.second.close()
        self.thread.shutdown()


def setUpModule():
    global far
    far = FarSide()
    unittest.addModuleCleanup(far.close)


class Exchangers(SmtpCase):
    def setUp(self):
        super().setUp()
        far.forget()
        self.names = lookup_case.NameServer(ZONES)
        self.addCleanup(self.names.close)

    def begin(self, **others):
        return super().begin(smtp={"RelayHost": "", "RelayPort": far.first.port, "AcceptDomains": ["*"]}, **others)

    def mail_to(self, *domains):
        return self.client().mail(recipients=[f"bob@{domain}" for domain in domains])

    def taken(self):
        """Who took a message for whom."""
        return [(number, stored.recipients) for number, sink in ((1, far.first), (2, far.second))
                for stored in sink.messages]

    def test_get_the_mail_of_their_domain(self):
        self.begin()
        self.assertRegex(self.mail_to("plain.example.test"), r"^250 2\.0\.0 ")
        self.assertEqual(self.taken(), [(1, ["bob@plain.example.test"])])

    def test_are_asked_in_the_order_of_preference(self):
        self.begin()
        self.assertRegex(self.mail_to("example.test"), r"^250 ")
        self.assertEqual(self.taken(), [(2, ["bob@example.test"])])

    def test_that_are_not_there_are_passed_over(self):
        self.begin()
        self.provokes(UNREACHED)
        self.assertRegex(self.mail_to("fallback.example.test"), r"^250 ")
        self.assertEqual(self.taken(), [(2, ["bob@fallback.example.test"])])

    def test_of_several_domains_get_their_own(self):
        self.begin()
        self.assertRegex(self.mail_to("plain.example.test", "example.test"), r"^250 ")
        self.assertEqual(self.taken(), [(1, ["bob@plain.example.test"]), (2, ["bob@example.test"])])

    def test_whose_answer_is_larger_than_the_first_buffer_get_the_mail(self):
        self.assertTrue(1024 < lookup_case.answer_size("wide.example.test") < 8192)
        self.begin()
        self.assertRegex(self.mail_to("wide.example.test"), r"^250 ")
        self.assertEqual(self.taken(), [(2, ["bob@wide.example.test"])])

    def test_that_are_not_named_are_the_domain_itself(self):
        self.begin()
        self.assertRegex(self.mail_to("direct.example.test"), r"^250 ")
        self.assertEqual(self.taken(), [(2, ["bob@direct.example.test"])])

    def test_better_than_this_machine_get_the_mail(self):
        self.begin()
        self.assertRegex(self.mail_to("better.example.test"), r"^250 ")
        self.assertEqual(self.taken(), [(1, ["bob@better.example.test"])])

    def test_that_would_give_it_back_get_nothing(self):
        self.begin()
        self.provokes(REFUSED, FAILED, LOOP)
        self.assertRegex(self.mail_to("circle.example.test"), r"^554 5\.4\.6 ")
        self.assertEqual(self.taken(), [])

    def test_of_a_domain_that_takes_no_mail_or_is_none_get_nothing(self):
        self.begin()
        self.provokes(REFUSED, FAILED)
        for domain, reply in (("null", r"^554 5\.1\.10 "), ("unknown", r"^554 5\.1\.2 "), ("nothing", r"^554 5\.4\.4 ")):
            self.assertRegex(self.mail_to(f"{domain}.example.test"), reply)
        self.assertEqual(self.taken(), [])

    def test_that_cannot_be_found_now_are_tried_again_by_the_client(self):
        self.begin()
        self.provokes(DEFERRED, FAILED)
        for domain in ("lost.example.test", "huge.example.test", "not-served.test"):
            self.assertRegex(self.mail_to(domain), r"^451 4\.4\.")
        self.names.process.terminate()
        self.names.process.wait()
        self.assertRegex(self.mail_to("plain.example.test"), r"^451 4\.4\.3 ")
        self.assertEqual(self.taken(), [])


if __name__ == "__main__":
    unittest.main()
