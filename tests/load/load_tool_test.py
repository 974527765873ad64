"""The load tool counts what becomes of its sessions as it should: each kind of failure by a server that brings it about."""
import json
import os
import socket
import struct
import subprocess
import tempfile
import threading
import unittest

import harness

TOOL = os.environ.get("VELT_LOAD")


class Server:
    """Answers each connection in its turn with what the test says."""

    def __init__(self, behave, path=None):
        self.behave = behave
        if path:
            self.listener = socket.socket(socket.AF_UNIX)
            self.listener.bind(path)
            self.listener.listen()
        else:
            self.listener = socket.create_server(("127.0.0.1", 0), backlog=128)
            self.port = self.listener.getsockname()[1]
        self.held = []
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            self.behave(self, client)

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()
        for client in self.held:
            client.close()


def echo(server, client):
    client.sendall(client.recv(100))
    client.close()


def echo_and_keep(server, client):
    client.sendall(client.recv(100))
    server.held.append(client)


def reset(server, client):
    client.recv(100)
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def cut(server, client):
    client.sendall(client.recv(100)[:4])
    client.close()


def garble(server, client):
    client.sendall(b"X" * len(client.recv(100)))
    client.close()


def silent(server, client):
    server.held.append(client)


class MailServer:
    """Takes one message a session, and answers as it is told where it is told something else."""

    def __init__(self, **answers):
        self.answers = {"greeting": "220 ready", "EHLO": "250-here\r\n250 there", "MAIL": "250 yes", "RCPT": "250 yes",
                        "DATA": "354 go on", "end": "250 taken", "QUIT": "221 bye", **answers}
        self.bodies = []
        self.sessions = 0

    def __call__(self, _, client):
        self.sessions += 1
        with client, client.makefile("rwb", 0) as stream:
            if self.say(stream, "greeting"):
                while line := stream.readline():
                    if not self.take(stream, line[:4].decode()):
                        return

    def say(self, stream, step):
        answer = self.answers[step]
        if answer:
            stream.write(answer.encode() + b"\r\n")
        return bool(answer)

    def take(self, stream, step):
        if step != "DATA":
            return self.say(stream, step)
        self.say(stream, step)
        lines = []
        while (line := stream.readline()) != b".\r\n":
            if not line:
                return False
            lines.append(line)
        self.bodies.append(b"".join(lines))
        return self.say(stream, "end")


class Engine:
    """Says of each stream how long it is, and that it is clean."""

    def __init__(self, verdict=b"OK"):
        self.verdict = verdict
        self.seen = []

    def __call__(self, _, client):
        with client, client.makefile("rwb", 0) as stream:
            if self.exactly(stream, 11) != b"zIDSESSION\0":
                return
            for number in range(1, 1000):
                if self.exactly(stream, 10) != b"zINSTREAM\0":
                    return
                self.seen.append(self.content(stream))
                stream.write(b"%d: stream: %s\0" % (number, self.verdict))

    def content(self, stream):
        content = b""
        while length := struct.unpack("!I", self.exactly(stream, 4))[0]:
            content += self.exactly(stream, length)
        return content

    def exactly(self, stream, count):
        got = b""
        while len(got) < count and (piece := stream.read(count - len(got))):
            got += piece
        return got


class LoadTool(unittest.TestCase):
    def serve(self, behave):
        server = Server(behave)
        self.addCleanup(server.close)
        return server.port

    def run_tool(self, command, port, *arguments, stdin=subprocess.DEVNULL):
        done = subprocess.run([TOOL, command, "--to", f"127.0.0.1:{port}", *map(str, arguments)], stdin=stdin,
                              capture_output=True, text=True, timeout=60, check=True)
        return [json.loads(line) for line in done.stdout.splitlines()]

    def failures(self, result):
        return {kind: count for kind, count in result["failed"].items() if count}

    def test_good_sessions_are_counted_and_timed(self):
        [result] = self.run_tool("connect", self.serve(echo), "--sessions", 50, "--clients", 5)
        self.assertEqual(result["sessions"], 50)
        self.assertEqual(self.failures(result), {})
        self.assertGreater(result["latency_us"]["max"], 0)
        self.assertLessEqual(result["latency_us"]["p50"], result["latency_us"]["max"])

    def test_each_kind_of_failure_has_its_count(self):
        for behave, kind in ((reset, "reset"), (cut, "truncated"), (garble, "other")):
            with self.subTest(kind):
                [result] = self.run_tool("connect", self.serve(behave), "--sessions", 10, "--clients", 2)
                self.assertEqual((result["sessions"], self.failures(result)), (0, {kind: 10}))

    def test_refused_connects_are_counted(self):
        [port] = harness.free_ports(1)
        [result] = self.run_tool("connect", port, "--sessions", 10, "--clients", 2)
        self.assertEqual((result["sessions"], self.failures(result)), (0, {"refused": 10}))

    def test_silent_server_is_a_timeout(self):
        [result] = self.run_tool("connect", self.serve(silent), "--sessions", 4, "--clients", 4, "--timeout-ms", 200)
        self.assertEqual(self.failures(result), {"timeout": 4})

    def test_rate_is_kept_and_failures_are_logged_with_their_source_port(self):
        log = os.path.join(self.enterContext(tempfile.TemporaryDirectory()), "failures")
        [result] = self.run_tool("connect", self.serve(cut), "--rate", 100, "--seconds", 1, "--log-failures", log)
        self.assertLessEqual(result["failed"]["truncated"], 101)
        with open(log) as lines:
            for line in lines:
                moment, port, kind = line.split()
                self.assertGreater(float(moment), 0)
                self.assertGreater(int(port), 0)
                self.assertEqual(kind, "truncated")

    def held(self, command, port, *arguments):
        tool = subprocess.Popen([TOOL, command, "--to", f"127.0.0.1:{port}", *map(str, arguments)],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(tool.stdout.close)
        return tool, json.loads(tool.stdout.readline())

    def test_idle_sessions_are_held_until_standard_input_ends(self):
        tool, ready = self.held("idle", self.serve(echo_and_keep), "--connections", 20, "--abandon")
        self.assertEqual(ready["ready"], 20)
        self.assertIsNone(tool.poll())
        tool.stdin.close()
        self.assertEqual(json.loads(tool.stdout.readline())["alive"], 20)
        self.assertEqual(tool.wait(), 0)

    def test_idle_sessions_that_were_closed_are_not_alive(self):
        tool, ready = self.held("idle", self.serve(echo), "--connections", 5)
        self.assertEqual(ready["ready"], 5)
        tool.stdin.close()
        end = json.loads(tool.stdout.readline())
        failures = self.failures(end)  # the end is read first, or the answer to what was sent after it
        self.assertEqual((end["alive"], sum(failures.values())), (0, 5))
        self.assertLessEqual(failures.keys(), {"truncated", "reset"})
        tool.wait()

    def test_idle_sessions_count_once_whether_refused_reset_or_never_answered(self):
        turn = iter(range(100))

        def behave(server, client):
            if next(turn) % 2:
                reset(server, client)
            else:
                echo_and_keep(server, client)

        tool, ready = self.held("idle", self.serve(behave), "--connections", 10, "--timeout-ms", 500)
        self.assertEqual((ready["ready"], self.failures(ready)), (5, {"reset": 5}))
        tool.stdin.close()
        end = json.loads(tool.stdout.readline())
        self.assertEqual((end["alive"], self.failures(end)), (0, {"timeout": 5}))
        tool.wait()

    def test_idle_sessions_answer_again_at_the_end(self):
        def serve_on(server, client):
            threading.Thread(target=lambda: [client.sendall(block) for block in iter(lambda: client.recv(100), b"")]).start()
            server.held.append(client)

        tool, ready = self.held("idle", self.serve(serve_on), "--connections", 10)
        self.assertEqual(ready["ready"], 10)
        tool.terminate()
        end = json.loads(tool.stdout.readline())
        self.assertEqual((end["alive"], self.failures(end)), (10, {}))
        tool.stdin.close()
        self.assertEqual(tool.wait(), 0)

    def test_slow_clients_end_no_line(self):
        said = []

        def listen(server, client):
            server.held.append(client)
            said.append(client.recv(100))

        tool, ready = self.held("slow", self.serve(listen), "--connections", 3, "--interval-ms", 50)
        harness.wait_until(lambda: len(said) == 3, "a byte of each")
        tool.stdin.close()
        self.assertEqual(json.loads(tool.stdout.readline())["connected"], 3)
        tool.wait()
        self.assertNotIn(b"\n", b"".join(said))

    def test_slow_clients_that_were_refused_are_not_connected(self):
        [port] = harness.free_ports(1)
        _, result = self.run_tool("slow", port, "--connections", 5, "--seconds", 0.3)
        self.assertEqual((result["connected"], result["closed_by_peer"], self.failures(result)), (0, 0, {"refused": 5}))

    def test_slow_clients_notice_that_they_were_closed(self):
        tool, _ = self.held("slow", self.serve(reset), "--connections", 5, "--interval-ms", 20, "--seconds", 1)
        result = json.loads(tool.stdout.readline())
        tool.stdin.close()
        tool.wait()
        self.assertEqual((result["connected"], result["closed_by_peer"], self.failures(result)), (5, 5, {}))

    def test_bare_loop_echoes(self):
        bare = subprocess.Popen([TOOL, "serve", "--port", "0"], stdout=subprocess.PIPE, text=True)
        try:
            port = int(bare.stdout.readline().split()[1])
            [result] = self.run_tool("connect", port, "--sessions", 100)
            self.assertEqual(result["sessions"], 100)
        finally:
            bare.terminate()
            bare.stdout.close()
            bare.wait()

    def file(self, text):
        path = os.path.join(self.enterContext(tempfile.TemporaryDirectory()), "text")
        with open(path, "w") as out:
            out.write(text)
        return path

    def send_mail(self, server, text="Subject: x\n\n.dot\nend\n", count=6):
        [result] = self.run_tool("mail", self.serve(server), "--file", self.file(text), "--sessions", count, "--clients", 2)
        return result["messages"], result["failed"]

    def test_messages_arrive_as_they_should(self):
        server = MailServer()
        self.assertEqual(self.send_mail(server), (6, 0))
        self.assertEqual(set(server.bodies), {b"Subject: x\r\n\r\n..dot\r\nend\r\n"})
        self.assertEqual((len(server.bodies), server.sessions), (6, 6))

    def test_message_that_is_not_taken_has_failed(self):
        for step, answer in (("MAIL", "451 later"), ("DATA", "250 what"), ("end", "554 no"), ("end", ""), ("RCPT", "")):
            with self.subTest(step, answer=answer):
                self.assertEqual(self.send_mail(MailServer(**{step: answer})), (0, 6))

    def test_session_without_a_greeting_is_made_anew(self):
        server = MailServer()

        def leave_first(_, client):
            if server.sessions == 0:
                server.sessions += 1
                client.close()
            else:
                server(_, client)
        self.assertEqual(self.send_mail(leave_first), (6, 0))
        self.assertEqual(server.sessions, 7)

    def scan(self, engine, text):
        path = os.path.join(self.enterContext(tempfile.TemporaryDirectory()), "socket")
        server = Server(engine, path)
        self.addCleanup(server.close)
        done = subprocess.run([TOOL, "scan", "--socket", path, "--file", self.file(text), "--sessions", "5", "--clients",
                               "1"], capture_output=True, text=True, timeout=60, check=True)
        result = json.loads(done.stdout)
        return result["scans"], result["failed"]

    def test_contents_are_scanned_in_one_session(self):
        engine = Engine()
        self.assertEqual(self.scan(engine, "some text"), (5, 0))
        self.assertEqual(engine.seen, [b"some text"] * 5)

    def test_content_that_is_not_clean_has_failed(self):
        self.assertEqual(self.scan(Engine(b"Test FOUND"), "some text"), (0, 5))

    def test_bad_usage_ends_with_two(self):
        for arguments in ([], ["connect"], ["connect", "--to", "nowhere"], ["other", "--port", "1"],
                          ["connect", "--to", "127.0.0.1:70000", "--sessions", "1"],
                          ["connect", "--to", "127.0.0.1:1"], ["idle", "--to", "127.0.0.1:1"], ["slow", "--connections", "1"],
                          ["mail", "--to", "127.0.0.1:1", "--sessions", "1"], ["scan", "--sessions", "1", "--file", "/dev/null"],
                          ["serve", "--port", "70000"], ["serve", "--port", "some"]):
            self.assertEqual(subprocess.run([TOOL, *arguments], capture_output=True).returncode, 2)


if __name__ == "__main__":
    unittest.main()
