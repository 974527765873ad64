#!/usr/bin/env python3
"""A mail server for tests and the demo: it takes messages, keeps them, and misbehaves on demand.

As a module: MailSink() listens on a free port of 127.0.0.1, or of another host; messages are in .messages, every
connection's talk in .talks.
As a program: mail_sink.py [--port N] [--directory D] prints the port, then a line for each message, and stores them.

Behaviour, all optional, may be changed while it runs:
    extensions   what EHLO offers; None refuses EHLO
    greeting     the first line; one that does not begin with 2 is followed by hanging up
    replies      {"MAIL" | "DATA" | "END": reply, "RCPT <address>": reply}; a callable is called with the Session
    fault        "die-in-data", "stall-in-data", "die-at-end", "die-stored", "stall-at-end", "stall-at-greeting",
                 or None
"""
import argparse
import contextlib
import dataclasses
import json
import pathlib
import re
import socket
import threading


@dataclasses.dataclass
class Stored:
    sender: str
    recipients: list
    content: bytes  # dots unstuffed, with its CRLFs
    parameters: str = ""


class Session:
    """One client."""

    def __init__(self, sink, connection):
        self.sink, self.connection = sink, connection
        self.file = connection.makefile("rb")
        self.talk = []
        self.sender, self.recipients, self.parameters = None, [], ""

    def say(self, text):
        self.connection.sendall(text.encode() + b"\r\n")

    def reply(self, key, default):
        answer = self.sink.replies.get(key, default)
        answer = answer(self) if callable(answer) else answer
        self.say(answer)
        return answer.startswith(("2", "3"))

    def stall(self):
        self.sink.stalled.set()
        self.sink.closing.wait()

    def serve(self):
        if self.sink.fault == "stall-at-greeting":
            return self.stall()
        self.say(self.sink.greeting)
        if not self.sink.greeting.startswith("2"):
            return
        for line in self.file:
            command = line.decode("latin-1").rstrip("\r\n")
            self.talk.append(command)
            if not self.command(command):
                return

    def command(self, command):
        verb = command[:4].upper()
        if verb == "EHLO":
            self.ehlo()
        elif verb == "HELO":
            self.say("250 sink")
        elif verb == "MAIL":
            match = re.fullmatch(r"MAIL FROM:<(.*?)>(.*)", command, re.IGNORECASE)
            if self.reply("MAIL", "250 2.1.0 ok"):
                self.sender, self.parameters, self.recipients = match[1], match[2].strip(), []
        elif verb == "RCPT":
            address = re.fullmatch(r"RCPT TO:<(.*)>", command, re.IGNORECASE)[1]
            if self.reply(f"RCPT {address}", "250 2.1.5 ok"):
                self.recipients.append(address)
        elif verb == "DATA":
            return self.data()
        elif verb == "RSET":
            self.sender, self.recipients = None, []
            self.say("250 2.0.0 ok")
        elif verb == "QUIT":
            self.say("221 2.0.0 bye")
            return False
        else:
            self.say("500 5.5.2 what?")
        return True

    def ehlo(self):
        extensions = self.sink.extensions
        if extensions is None:
            return self.say("502 5.5.1 no")
        lines = ["sink", *extensions]
        for index, line in enumerate(lines):
            self.say(f"250{' ' if index == len(lines) - 1 else '-'}{line}")

    def data(self):
        if not self.recipients:
            self.say("554 5.5.1 no valid recipients")
            return True
        if not self.reply("DATA", "354 go on"):
            return True
        if self.sink.fault == "die-in-data":
            self.file.readline()
            return self.hang_up()
        if self.sink.fault == "stall-in-data":
            self.file.readline()
            self.stall()
            return False
        content = self.content()
        if content is None:
            self.sink.unfinished += 1
            return False
        if self.sink.fault == "die-at-end":
            return self.hang_up()
        if self.sink.fault == "die-stored":
            self.sink.store(Stored(self.sender, list(self.recipients), content, self.parameters))
            return self.hang_up()
        if self.sink.fault == "stall-at-end":
            self.stall()
            return False
        accepted = self.sink.replies.get("END", "250 2.0.0 stored")
        accepted = accepted(self) if callable(accepted) else accepted
        if accepted.startswith("2"):
            self.sink.store(Stored(self.sender, list(self.recipients), content, self.parameters))
        self.say(accepted)
        self.sender, self.recipients = None, []
        return True

    def hang_up(self):
        """At once, without reading what is on its way: the client sees a reset."""
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        return False

    def content(self):
        lines = []
        for line in self.file:
            if line == b".\r\n":
                return b"".join(lines)
            lines.append(line[1:] if line.startswith(b".") else line)
        return None


class MailSink:
    def __init__(self, port=0, directory=None, on_message=None, host="127.0.0.1"):
        self.extensions = ["PIPELINING", "SIZE 104857600", "8BITMIME", "ENHANCEDSTATUSCODES"]
        self.greeting = "220 sink ESMTP"
        self.replies, self.fault = {}, None
        self.messages, self.talks, self.unfinished = [], [], 0
        self.peers = []  # the address of each client, in the order in which they came
        self.directory, self.on_message = directory, on_message
        self.stalled, self.closing = threading.Event(), threading.Event()
        self.changed = threading.Condition()
        self.open = set()
        self.listener = socket.create_server((host, port), backlog=128)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                connection, peer = self.listener.accept()
            except OSError:
                return
            self.peers.append(peer[0])
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        with self.changed:
            self.open.add(connection)
        session = Session(self, connection)
        self.talks.append(session.talk)
        with connection, contextlib.suppress(OSError):
            try:
                session.serve()
            finally:
                session.file.close()
        with self.changed:
            self.open.discard(connection)
            self.changed.notify_all()

    def store(self, message):
        with self.changed:
            self.messages.append(message)
            number = len(self.messages)
            self.changed.notify_all()
        if self.directory:
            stem = pathlib.Path(self.directory) / f"{number:04}"
            stem.with_suffix(".eml").write_bytes(message.content)
            stem.with_suffix(".json").write_text(json.dumps({"sender": message.sender, "recipients": message.recipients}))
        if self.on_message:
            self.on_message(number, message)

    def wait_messages(self, count, limit=20.0):
        with self.changed:
            if not self.changed.wait_for(lambda: len(self.messages) >= count, limit):
                raise AssertionError(f"{len(self.messages)} messages after {limit} s, not {count}")
            return list(self.messages)

    def wait_idle(self, limit=20.0):
        with self.changed:
            if not self.changed.wait_for(lambda: not self.open, limit):
                raise AssertionError(f"{len(self.open)} connections still open after {limit} s")

    def refuse_connections(self):
        """From now on nobody listens on the port."""
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)  # closing alone does not end a thread that waits in accept
        self.listener.close()

    def close(self):
        self.closing.set()
        self.refuse_connections()


def subject_of(content):
    match = re.search(rb"^Subject: *(.*?)\r$", content, re.MULTILINE | re.IGNORECASE)
    return match[1].decode("latin-1") if match else ""


def main():
    options = argparse.ArgumentParser(description="A mail server that keeps what it gets.")
    options.add_argument("--port", type=int, default=0)
    options.add_argument("--directory")
    given = options.parse_args()

    def tell(number, message):
        print(f"sink: message {number} from <{message.sender}> to {', '.join(message.recipients)}: "
              f"{len(message.content)} bytes, \"{subject_of(message.content)}\"", flush=True)

    sink = MailSink(given.port, given.directory, tell)
    print(sink.port, flush=True)
    threading.Event().wait()


if __name__ == "__main__":
    main()
