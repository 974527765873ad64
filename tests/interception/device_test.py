"""A gateway whose connections an interception device knows: the same networks and the same mail as with netfilter, and what
the device is asked."""
import errno
import os
import unittest

import harness
import net_case
from device_model import CONNECTION_INFO, SET_SOURCE, DeviceModel
from harness import network
from net_case import MAIL, NetCase
from smtp_case import DEFERRED, EICAR, FAILED, POLICY_REFUSED, REFUSED, VIRUS, body, with_attachment

CALLS = os.environ.get("VELT_DEVICE_CALLS")
SESSION_ACCEPTED = (10003, 65)


class Device(NetCase):
    interception = "device"
    descriptors = 1024  # that a process of the gateway may have

    def begin(self, smtp=None, before=lambda device: None):
        self.device = DeviceModel(self.root, network.OUTER_ADDRESS)
        self.addCleanup(self.device.close)
        before(self.device)
        environment = " ".join(f"{name}={value}" for name, value in self.device.environment.items())
        start = self.root.path / "intercepted"
        start.write_text(f"#!/bin/sh\nulimit -n {self.descriptors}\n"
                         f"exec env {environment} LD_PRELOAD={CALLS} {NetCase.program} \"$@\"\n")
        start.chmod(0o755)
        self.program = start
        self.begin_between(smtp)

    def wait_no_handle(self):
        """The device is released by the end of each session."""
        harness.wait_until(lambda: self.device.held == 0, "the release of the device")

    def test_a_session_is_transparent_from_end_to_end(self):
        self.begin()
        client = self.client()
        self.assertRegex(client.mail(body("clean")), r"^250 ")
        self.assertIn(b"clean", self.sink.wait_messages(1)[0].content)
        self.assertEqual(self.sink.peers, [network.CLIENT_ADDRESS])
        facts = self.session()
        self.assertEqual(facts["connection_type"], "Transparent")
        self.assertEqual((facts["destination_ip"], int(facts["destination_port"])), (network.SERVER_ADDRESS, MAIL))
        client.close()
        self.wait_no_handle()

    def test_the_device_is_asked_by_the_client_and_told_what_the_server_is_to_see(self):
        self.begin()
        client = self.client()
        self.assertRegex(client.mail(), r"^250 ")
        [info] = self.device.asked(CONNECTION_INFO)
        self.assertEqual(info.address()[1:], client.socket.getsockname())
        [told] = self.device.asked(SET_SOURCE)
        local, source, target = told.record()
        self.assertEqual((local.family, local.ip), (2, network.OUTER_ADDRESS))
        self.assertEqual(source, (0, *client.socket.getsockname()))
        self.assertEqual(target, (0, network.SERVER_ADDRESS, MAIL))

    def test_many_sessions_leave_no_handle(self):
        self.begin()
        clients = [self.client() for _ in range(12)]
        for client in clients:
            self.assertRegex(client.mail(), r"^250 ")
        self.assertEqual(len(self.device.asked(SET_SOURCE)), len(clients))
        self.assertEqual(set(self.sink.peers), {network.CLIENT_ADDRESS})
        self.assertGreaterEqual(self.device.held, len(clients))
        for client in clients:
            client.close()
        self.wait_no_handle()

    def test_a_virus_is_refused_and_the_server_gets_none_of_it(self):
        self.begin()
        self.provokes(VIRUS, REFUSED, POLICY_REFUSED)
        self.assertRegex(self.client().mail(with_attachment(EICAR)), r"^554 5\.7\.1 ")
        self.noted(REFUSED)
        self.assertEqual((self.sink.messages, self.sink.peers), ([], []))

    def test_the_answer_one_makes_a_session_of_the_gateway_that_keeps_its_handle(self):
        self.begin({"RelayHost": network.SERVER_ADDRESS, "RelayPort": MAIL}, lambda device: setattr(device, "info", 1))
        client = self.client()
        self.assertEqual(self.session()["connection_type"], "Proxy")
        self.assertEqual(self.device.held, 1)
        self.assertRegex(client.mail(), r"^250 ")
        self.assertEqual((self.sink.peers, self.device.asked(SET_SOURCE)), ([network.OUTER_ADDRESS], []))
        client.close()
        self.wait_no_handle()

    def test_an_answer_that_is_a_failure_closes_the_connection_without_a_word(self):
        self.begin()
        for answer in (-1, 3, 4, 100):
            self.device.info = answer
            self.assertEqual(self.client().greeting, "", answer)
            self.wait_no_handle()
        self.assertEqual((self.events(*SESSION_ACCEPTED), self.sink.peers), ([], []))
        self.device.info = 2
        self.assertRegex(self.client().mail(), r"^250 ")

    def test_a_connection_for_which_the_device_cannot_be_opened_counts_as_not_intercepted(self):
        self.begin({"RelayHost": network.SERVER_ADDRESS, "RelayPort": MAIL})
        for error in (errno.ENODEV, errno.EACCES, errno.EMFILE):
            self.device.refusal = error
            self.assertTrue(self.client().greeting.startswith("220 "), error)
            self.assertEqual(self.session(len(self.events(*SESSION_ACCEPTED)) or 1)["connection_type"], "Proxy")
        self.assertEqual(self.device.requests, [])

    def test_a_device_that_goes_away_during_a_session_keeps_the_mail_with_the_client(self):
        self.begin()
        client = self.client()
        self.device.refusal = errno.ENODEV
        self.provokes(FAILED, DEFERRED)
        self.assertRegex(client.mail(), r"^451 4\.4\.1 ")
        self.assertEqual(self.sink.peers, [])

    def test_without_the_status_entry_nothing_is_intercepted_for_the_life_of_the_worker(self):
        self.begin(before=lambda device: device.remove("status"))
        self.client()
        self.device.write("status", "")
        self.client()
        self.assertEqual([one["values"]["connection"]["connection_type"] for one in
                          self.wait_event(*SESSION_ACCEPTED, count=2)], ["Proxy", "Proxy"])
        self.assertEqual(self.device.opened, 0)

    def test_an_entry_of_one_address_leaves_interception_off(self):
        self.begin(before=lambda device: device.write("interfaces", "0a020001\n"))
        self.client()
        self.assertEqual(self.session()["connection_type"], "Proxy")
        self.assertEqual(self.device.opened, 0)


class MoreDescriptors(Device):
    descriptors = 4096


if __name__ == "__main__":
    net_case.skip_where_forbidden()
    unittest.main()
