"""The interception device as a gateway finds it: two /proc entries and a descriptor that answers requests. What the kernel
module does to packets nftables does here: rules lead connections to the gateway, and a map has for each port of the
gateway the address that its server is to see."""
import contextlib
import errno
import itertools
import os
import selectors
import socket
import struct
import threading
from typing import NamedTuple

from harness import network

_NAMES = itertools.count()
_QUESTION, _ANSWER = struct.Struct("=II48s"), struct.Struct("=ii48s")
_ADDRESS = struct.Struct("=H2s4s8x")
SET_SOURCE, CONNECTION_INFO = 0, 2

SOURCES = """
table ip velt_device {
    map sources { type inet_service : ipv4_addr; }
    chain out {
        type nat hook postrouting priority srcnat; policy accept;
        snat to tcp sport map @sources
    }
}
"""


class Address(NamedTuple):
    family: int
    ip: str
    port: int


def address_in(raw, offset=0):
    family, port, ip = _ADDRESS.unpack_from(raw, offset)
    return Address(family, socket.inet_ntoa(ip), int.from_bytes(port, "big"))


class Request(NamedTuple):
    number: int
    handle: int  # the how manieth device that was opened
    argument: bytes

    def address(self):
        return address_in(self.argument)

    def record(self):
        """local, source, target."""
        return tuple(address_in(self.argument, 16 * index) for index in range(3))


class DeviceModel:
    """Answers in a thread of its own until it is closed. `info` is what it answers to connection information; `refusal` an
    errno that opening it fails with."""

    def __init__(self, root, interface):
        self.info, self.refusal = 2, 0
        self.requests, self.opened, self.held = [], 0, 0
        self.name = f"velt-device-{os.getpid()}-{next(_NAMES)}"
        self.proc = root.path / "qxnat"
        self.write("interfaces", socket.inet_aton(interface).hex() + " 0\n")
        self.write("status", "")
        network.ThreeNetworks.load(SOURCES)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._listener.bind("\0" + self.name)
        self._listener.listen(64)
        self._wake, self._woken = socket.socketpair()
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def close(self):
        self._wake.close()
        self._thread.join()
        self._listener.close()
        self._woken.close()

    def write(self, entry, text):
        self.proc.mkdir(exist_ok=True)
        (self.proc / entry).write_text(text)

    def remove(self, entry):
        (self.proc / entry).unlink()

    @property
    def environment(self):
        return {"VELT_DEVICE_MODEL": self.name, "VELT_DEVICE_PROC": str(self.proc)}

    def asked(self, number):
        return [request for request in self.requests if request.number == number]

    def _serve(self):
        with selectors.DefaultSelector() as selector:
            selector.register(self._listener, selectors.EVENT_READ, None)
            selector.register(self._woken, selectors.EVENT_READ, None)
            while True:
                for key, _ in selector.select():
                    if key.fileobj is self._woken:
                        return
                    if key.fileobj is self._listener:
                        self._open(selector)
                    else:
                        self._hear(selector, key.fileobj, key.data)

    def _open(self, selector):
        handle, _ = self._listener.accept()
        handle.send(struct.pack("=i", self.refusal))
        if self.refusal:
            handle.close()
            return
        selector.register(handle, selectors.EVENT_READ, self.opened)
        self.opened += 1
        self.held += 1

    def _hear(self, selector, handle, number):
        question = b""
        with contextlib.suppress(ConnectionResetError):
            question = handle.recv(_QUESTION.size)
        if not question:
            selector.unregister(handle)
            handle.close()
            self.held -= 1
            return
        request, length, argument = _QUESTION.unpack(question)
        asked = Request(request, number, argument[:length])
        result, error = self._answer(asked)
        self.requests.append(asked)
        handle.send(_ANSWER.pack(result, error, argument))

    def _answer(self, asked):
        if asked.number == CONNECTION_INFO:
            return self.info, 0
        if asked.number != SET_SOURCE:
            return -1, errno.EINVAL
        local, source, _ = asked.record()
        network.run("nft", "add", "element", "ip", "velt_device", "sources", f"{{ {local.port} : {source.ip} }}")
        return 0, 0
