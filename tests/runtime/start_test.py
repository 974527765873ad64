"""Starting: in the foreground, as a service, with ports that are taken, with configuration that cannot be used."""
import os
import signal
import socket
import subprocess
import unittest

import echo_case
import harness


class Start(echo_case.EchoCase):
    def test_foreground_daemon_serves_a_client(self):
        daemon = self.start()
        with self.connect() as client:
            self.assertEqual(client.ask("hello"), "hello")
            self.assertEqual(client.ask(""), "")
        self.assertEqual(self.events(10000, 46)[0]["values"]["velt_command_line"],
                         f"{self.program} -d echo product ")
        harness.wait_until(lambda: "10003:68" in daemon.stderr(), "the event on standard error")
        self.stop()
        self.assertEqual(daemon.wait(), 0)

    def test_configured_number_of_workers_runs(self):
        daemon = self.start(network={"AcceptCount": 3})
        self.assertEqual(len(daemon.workers()), 3)

    def test_port_in_use_is_reported_and_the_others_serve(self):
        with socket.socket() as taken:
            taken.bind((harness.SERVER, 0))
            taken.listen()
            busy = taken.getsockname()[1]
            settings = self.settings(2)
            settings["network"]["BindPorts"] = [self.ports[0], busy, self.ports[1]]
            self.configure(settings)
            self.launch()
            self.wait_event(10000, 54)
            failures = self.wait_event(10001, 60)
            self.assertEqual(len(failures), 1)
            self.assertEqual(failures[0]["values"]["velt_listen_port"], busy)
            self.assertEqual(failures[0]["values"]["velt_socket_operation"], "bind")
            for port in self.ports:
                with self.connect(port) as client:
                    self.assertEqual(client.ask("served"), "served")

    @unittest.skipUnless(os.getuid() == 0, "only root can change its identity")
    def test_rights_are_given_up_after_the_ports_are_open(self):
        daemon = self.start(process={"UserId": "65534", "GroupId": "65533"})
        with open(f"/proc/{daemon.workers()[0]}/status") as status:
            identity = {line.split(":")[0]: line.split()[1:] for line in status}
        self.assertEqual(set(identity["Uid"]), {"65534"})
        self.assertEqual(set(identity["Gid"]), {"65533"})
        with self.connect() as client:
            self.assertEqual(client.ask("hello"), "hello")

    def test_unknown_user_is_reported_and_the_daemon_runs_on_as_it_was(self):
        daemon = self.start(process={"UserId": "nobody-of-this-name", "GroupId": "nor-of-this"})
        self.assertEqual(self.wait_event(10000, 56)[0]["values"]["velt_id"], "nobody-of-this-name")
        self.assertEqual(self.events(10000, 57) + self.events(10000, 58), [])
        self.assertEqual(os.stat(f"/proc/{daemon.workers()[0]}").st_uid, os.getuid())

    def test_malformed_rules_end_start_up_with_file_line_and_column(self):
        self.configure({}, rules='<rules version="1">\n  <policy name="base">\n    <settings section="network"\n')
        daemon = self.launch()
        self.assertEqual(daemon.wait(), 255)
        self.assertRegex(daemon.stderr(), r"rules\.xml")
        self.assertRegex(daemon.stderr(), r"line:\d+")
        self.assertRegex(daemon.stderr(), r"column:\d+")

    def test_unreadable_rules_end_start_up_with_a_report_of_the_file(self):
        self.configure(self.settings())
        rules = self.root.path / "config/qxxmlconf/rules.xml"
        rules.unlink()
        rules.mkdir()  # there, and not to be read, also for root
        daemon = self.launch()
        self.assertEqual(daemon.wait(), 255)
        self.assertRegex(daemon.stderr(), r"rules\.xml")

    def test_unreadable_network_lists_run_no_session_and_do_not_hang(self):
        self.configure(self.settings())
        for name in ("inside.txt", "outside.txt"):
            path = self.root.path / "config/qxxmlconf" / name
            path.unlink()
            path.mkdir()
        self.launch()
        self.wait_event(10000, 54)
        with self.connect() as client:
            self.assertTrue(client.closed_by_peer())

    def test_malformed_identities_end_start_up_with_one_report_of_the_place(self):
        identities = '<identities version="1">\n  <identity name="staff">{}</identity>\n</identities>\n'
        rules = '<rules version="1"><policy name="content_in"><identity name="staff"/></policy></rules>\n'
        for expression, report in (('eto IS "a" and', r"identities\.xml:2:40: the expression ends"),
                                   ('eto IS "regex:("', r"identities\.xml:2:26: identity 'staff' has a value")):
            with self.subTest(expression):
                self.configure({}, rules=rules)
                self.root.write("identities.xml", identities.format(expression))
                daemon = self.launch()
                self.assertEqual(daemon.wait(), 255)
                self.assertRegex(daemon.stderr(), report)
                self.assertEqual(daemon.stderr().count("identities.xml"), 1)

    def test_malformed_logging_is_told_and_the_daemon_starts(self):
        self.configure(self.settings())
        self.root.write("echo-logging.xml", "<logging><sink")
        daemon = self.launch()
        client = harness.wait_until(self._connected, "an open port")
        self.assertEqual(client.ask("hello"), "hello")
        client.close()
        self.assertIn("Failure during initialisation of the logging system: ", daemon.stderr())
        self.assertIn("Will attempt to continue.", daemon.stderr())

    def test_missing_network_lists_start_a_daemon_that_runs_no_session(self):
        self.configure(self.settings())
        for name in ("inside.txt", "outside.txt"):
            (self.root.path / "config/qxxmlconf" / name).unlink()
        self.launch()
        self.wait_event(10000, 54)
        with self.connect() as client:
            self.assertTrue(client.closed_by_peer())

    def test_other_service_type_opens_no_port_and_retries(self):
        self.configure(self.settings())
        self.launch(options=("-d", "-s", "anything"))
        self.wait_event(70002, 119)
        with self.assertRaises(ConnectionRefusedError):
            self.connect()

    def test_single_process_mode_of_the_tcp_service_ends_at_once(self):
        self.configure(self.settings())
        daemon = self.launch(options=("-d", "-p"))
        self.assertEqual(daemon.wait(), 0)
        self.assertEqual(self.events(10000, 54), [])

    def test_no_arguments_are_a_line_on_standard_error_and_success(self):
        bare = subprocess.run([self.program], capture_output=True, text=True)
        self.assertEqual((bare.returncode, bare.stderr), (0, "Not enough arguments\n"))

    def test_health_is_told_to_the_local_monitor_only(self):
        self.start()
        with self.connect(source=harness.SERVER) as monitor:
            monitor.file.write(b"GET / HTTP/1.0\r\n\r\n")
            monitor.file.flush()
            answer = monitor.file.read().decode()
        self.assertRegex(answer, r"^HTTP/1\.0 200 OK\r\n\r\nHealth: OK\r\nName: echo\r\nStart: \d+\r\n$")
        with self.connect() as client:
            self.assertEqual(client.ask("GET / HTTP/1.0"), "GET / HTTP/1.0")

    def _connected(self):
        try:
            return self.connect()
        except ConnectionRefusedError:
            return None


class Service(echo_case.EchoCase):
    """Without -d the daemon detaches: launcher, supervisor, monitor, workers."""

    def start_service(self):
        self.assertEqual(self.start(options=()).wait(), 0)

    def test_launcher_leaves_and_the_service_serves(self):
        self.start_service()
        with self.connect() as client:
            self.assertEqual(client.ask("hello"), "hello")
        self.assertEqual(os.readlink(f"/proc/{self.monitor()}/fd/0"), "/dev/null")
        self.stop_service()

    def test_hangup_of_the_monitor_restarts_the_service(self):
        self.start_service()
        monitor, workers = self.monitor(), self.workers()
        self.expect_end(monitor)
        os.kill(monitor, signal.SIGHUP)
        self.wait_event(10000, 46, count=2)
        self.wait_event(10000, 54, count=2)
        self.wait_gone(workers[0])
        self.assertEqual(harness.process_fields(self.monitor())[1], self.supervisor())
        self.assertEqual(harness.process_fields(self.wait_worker()[0])[1], self.monitor())
        self.stop_service()


if __name__ == "__main__":
    unittest.main()
