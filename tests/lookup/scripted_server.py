"""A name server that says what a test wants it to, right or wrong, over UDP and TCP.

    server = ScriptedServer()
    server.says("a.test", lambda query: query.message(answers=[mx(10, name("b.test"))]))

An answer is made for each query anew. It is the whole message; over UDP one above 512 bytes is cut off there and marked
so, as real servers do. None is no answer at all. A name that nobody was told about is refused.
"""
import contextlib
import socket
import struct
import threading

A, CNAME, PTR, MX, TXT = 1, 5, 12, 15, 16
OWNER = b"\xc0\x0c"  # a pointer to the name in the question
HEADER = 12
UDP_LIMIT = 512
TRUNCATED = 0x0200


def name(text):
    return b"".join(bytes([len(label)]) + label.encode("latin-1") for label in text.split(".") if label) + b"\0"


def pointer(offset):
    return struct.pack("!H", 0xC000 | offset)


def record(owner, kind, data):
    return owner + struct.pack("!HHIH", kind, 1, 60, len(data)) + data


def mx(preference, target, owner=OWNER):
    return record(owner, MX, struct.pack("!H", preference) + target)


def address(owner, text):
    return record(owner, A, socket.inet_aton(text))


class Query:
    def __init__(self, data, tcp, number):
        self.data, self.tcp, self.number = data, tcp, number  # the number counts whole answers to this name
        end = HEADER
        labels = []
        while data[end]:
            labels.append(data[end + 1:end + 1 + data[end]].decode("latin-1"))
            end += data[end] + 1
        self.name = ".".join(labels)
        self.kind = struct.unpack("!H", data[end + 1:end + 3])[0]
        self.question = data[HEADER:end + 5]

    @property
    def next_offset(self):
        """Where the first record of the answer stands."""
        return HEADER + len(self.question)

    def message(self, answers=(), additional=(), code=0, counts=None, tail=b"", size=0):
        """A message; with a size, filled up to it with text records."""
        additional = list(additional)

        def whole():
            numbers = counts or (1, len(answers), 0, len(additional))
            return (self.data[:2] + struct.pack("!HHHHH", 0x8180 | code, *numbers) + self.question +
                    b"".join(answers) + b"".join(additional) + tail)
        while len(whole()) < size:
            left = size - len(whole())
            length = min(left, 1000)
            length -= 12 if 0 < left - length < 12 else 0
            additional.append(record(b"\0", TXT, b"x" * (length - 11)))
        return whole()


class ScriptedServer:
    def __init__(self, host="127.0.0.1", port=53):
        self.answers, self.asked = {}, {}  # by name; asked counts whole answers
        self._udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._udp.bind((host, port))
        self._tcp = socket.create_server((host, port))
        self._threads = [threading.Thread(target=serve, daemon=True) for serve in (self._datagrams, self._connections)]
        for thread in self._threads:
            thread.start()

    def says(self, text, answer):
        self.answers[text] = answer
        self.asked[text] = 0

    def _answer(self, data, tcp):
        query = Query(data, tcp, self.asked.get(Query(data, tcp, 0).name, 0) + 1)
        make = self.answers.get(query.name, lambda query: query.message(code=5))
        whole = make(query)
        if whole is None:
            return None
        if not tcp and len(whole) > UDP_LIMIT:
            return whole[:2] + struct.pack("!H", struct.unpack("!H", whole[2:4])[0] | TRUNCATED) + whole[4:UDP_LIMIT]
        self.asked[query.name] = query.number
        return whole

    def _datagrams(self):
        while True:
            data, sender = self._udp.recvfrom(4096)
            if not data:
                return
            answer = self._answer(data, False)
            if answer is not None:
                self._udp.sendto(answer, sender)

    def _connections(self):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self._tcp.accept()
                with connection, contextlib.suppress(OSError):
                    self._talk(connection)

    def _talk(self, connection):
        data = connection.recv(4096)
        while len(data) >= 2:
            answer = self._answer(data[2:], True)
            if answer is None:
                return
            stated, answer = answer if isinstance(answer, tuple) else (len(answer), answer)
            connection.sendall(struct.pack("!H", stated) + answer)
            if stated != len(answer):
                return
            data = connection.recv(4096)

    def close(self):
        self._tcp.shutdown(socket.SHUT_RDWR)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as last:
            last.sendto(b"", self._udp.getsockname())
        for thread in self._threads:
            thread.join()
        self._udp.close()
        self._tcp.close()
