"""Health requests to a running gateway, by curl and by hand: what is answered, what is not, and that nothing is reported."""
import os
import socket
import subprocess
import unittest

import echo_case
import harness

COUNTERS = os.environ.get("VELT_COUNTERS")


class HealthCase(echo_case.EchoCase):
    def curl(self, *options, path="/", port=None):
        return subprocess.run(["curl", "--silent", "--show-error", "--max-time", "10", *options,
                               f"http://127.0.0.1:{port or self.port}{path}"], capture_output=True, text=True)

    def exchange(self, request, source=harness.SERVER, end=True):
        """All that comes back for these bytes."""
        with socket.create_connection((harness.SERVER, self.port), timeout=harness.LIMIT,
                                      source_address=(source, 0)) as client:
            client.sendall(request)
            if end:
                client.shutdown(socket.SHUT_WR)
            answer = b""
            try:
                while block := client.recv(4096):
                    answer += block
            except ConnectionResetError:
                pass  # closed with bytes of ours unread
            return answer

    def counters(self):
        """Those of the gateway; what the log counts of itself is left out."""
        shown = subprocess.run([COUNTERS, self.proxy], capture_output=True, text=True, check=True,
                               env={**os.environ, "VELT_ROOT": str(self.root.path)}).stdout
        return [line for line in shown.splitlines() if not line.startswith("logging.")]

    def reported_since(self, before):
        return [(event["event"], event["reason"]) for event in self.events()[before:]]


class Health(HealthCase):
    def test_curl_shows_the_health_lines(self):
        self.start()
        shown = self.curl("--http1.0", "--include")
        self.assertEqual(shown.returncode, 0, shown.stderr)
        self.assertRegex(shown.stdout, r"^HTTP/1\.0 200 OK\r?\n\r?\nHealth: OK\r?\nName: echo\r?\nStart: [0-9]+\r?\n$")

    def test_monitoring_switched_off_makes_the_local_client_an_ordinary_one(self):
        self.start(process={"MonitorHealth": False})
        self.assertEqual(self.exchange(b"GET / HTTP/1.0\r\n\r\n"), b"GET / HTTP/1.0\r\n\r\n")

    def test_every_other_address_is_an_ordinary_client(self):
        self.start()
        for source in ("127.0.0.2", "127.255.255.254"):
            self.assertEqual(self.exchange(b"GET / HTTP/1.0\r\n\r\n", source), b"GET / HTTP/1.0\r\n\r\n")

    def test_checks_run_beside_sessions_and_beside_each_other(self):
        self.start(process={"PermThreads": 4})
        with self.connect() as client:
            silent = [self.connect(source=harness.SERVER) for _ in range(2)]
            self.assertEqual(self.curl("--http1.0").returncode, 0)
            self.assertEqual(client.ask("still"), "still")
            for one in silent:
                one.close()

    def test_what_is_asked_wrongly_gets_no_answer_no_report_and_no_count(self):
        self.start()
        before = len(self.events())
        self.assertIn(b"Health: OK", self.exchange(b"GET / HTTP/1.0\r\n\r\n"))
        self.wait_event(10003, 68)
        of_a_good_one, counters = self.reported_since(before), self.counters()
        for request, end in ((b"GET / HTTP/1.0\r\n", False),  # silence: no blank line within a second
                             (b"GET / HTTP/1.0\r\n", True),   # the end, and no blank line
                             (b"G" * 1023, False),             # no line within the room
                             (b"POST / HTTP/1.0\r\n\r\n", True),
                             (b"GET /status HTTP/1.0\r\n\r\n", True),
                             (b"GET /" + b"x" * 200 + b" HTTP/1.0\r\n\r\n", True)):
            with self.subTest(request):
                before, ends = len(self.events()), len(self.events(10003, 68))
                self.assertEqual(self.exchange(request, end=end), b"")
                self.wait_event(10003, 68, count=ends + 1)
                self.assertEqual(self.reported_since(before), of_a_good_one)
        self.assertEqual(self.counters(), counters)

    def test_checks_count_towards_the_share_of_a_worker(self):
        self.start(process={"ProxyRefreshRate": 3})
        for _ in range(4):
            self.curl("--http1.0")
        self.assertEqual(self.wait_event(10000, 71)[0]["values"]["velt_max_connections"], 4)
        self.wait_event(10000, 54, count=2)


class EarlyHealth(HealthCase):
    """A host that watches its health before its ports are opened."""

    program = os.environ.get("VELT_EARLY_HEALTH")
    proxy = "early"

    def test_ports_are_listed_and_a_taken_one_makes_the_gateway_unwell(self):
        with socket.create_server((harness.SERVER, 0)) as taken:
            busy = taken.getsockname()[1]
            settings = self.settings(2)
            settings["network"]["BindPorts"] = [self.ports[0], busy, self.ports[1]]
            self.configure(settings)
            self.launch()
            self.wait_event(10001, 60)
            self.wait_event(10000, 54)
            shown = self.curl("--http1.0").stdout.splitlines()
        self.assertEqual(shown[:2], ["Health: NOTOK", "Name: early"])
        self.assertEqual(shown[3:], [f"Listening: {self.ports[0]}", f"FailedPort: {busy}",
                                     f"Listening: {self.ports[1]}"])

    def test_gateway_with_all_of_its_ports_is_well(self):
        self.start(2)
        shown = self.curl("--http1.0").stdout.splitlines()
        self.assertEqual([shown[0], *shown[3:]],
                         ["Health: OK", f"Listening: {self.ports[0]}", f"Listening: {self.ports[1]}"])


if __name__ == "__main__":
    unittest.main()
