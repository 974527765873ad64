"""Sends mails to a gateway from a process of its own, each until it was told 250.

    mails.py PORT COUNT SESSIONS

So many sessions at once send the mails 0 to COUNT-1, a few on each connection. Each try has a Message-ID of its own,
"<NUMBER.TRY@outside.example>": what was not told 250 may have arrived or not, and is not what is sent again. One mail in
ten is so large that a gateway spools it to disk. On standard output, one JSON object a line, as it happens:
    {"taken": "NUMBER.TRY"}                   it was told 250
    {"untaken": "NUMBER.TRY", "why": text}    it was not: the reply, or how the connection ended
"""
import asyncio
import itertools
import json
import random
import sys

LIMIT = 60.0  # seconds for one reply
SERVER = "127.0.0.1"
CLIENTS = [f"127.0.0.{last}" for last in range(2, 18)]  # many, or their ports would run out
MAILS = 5  # on one connection
SMALL, LARGE = 3, 1500  # lines
LINE = b"a line of a mail that is told apart by its number alone\r\n"


class Refused(Exception):
    """A reply that is not the one hoped for."""


class Mails:
    def __init__(self, port, count):
        self.port = port
        self.left = iter(range(count))
        self.again = []  # (number, try) that were not taken
        self.sources = itertools.cycle(CLIENTS)
        self.random = random.Random(count)

    def next(self):
        if self.again:
            return self.again.pop()
        number = next(self.left, None)
        return None if number is None else (number, 0)

    @staticmethod
    def tell(**what):
        print(json.dumps(what), flush=True)

    async def session(self):
        while mail := self.next():
            await self.connection(mail)

    async def connection(self, mail):
        """One mail, and more while all goes well."""
        writer = None
        try:
            source = (next(self.sources), 0)
            reader, writer = await asyncio.open_connection(SERVER, self.port, local_addr=source)
            await self.ask(reader, None, None, b"220")
            await self.ask(reader, writer, b"EHLO client.example\r\n", b"250")
            for _ in range(MAILS):
                await self.mail(reader, writer, *mail)
                self.tell(taken="%d.%d" % mail)
                mail = self.next()
                if not mail:
                    return
            self.again.append(mail)  # its first try is still to come
        except (OSError, EOFError, asyncio.TimeoutError, Refused) as why:
            self.tell(untaken="%d.%d" % mail, why=str(why) or type(why).__name__)
            self.again.append((mail[0], mail[1] + 1))
            await asyncio.sleep(0.02)  # a port that refuses is not stormed
        finally:
            if writer:
                writer.close()

    async def mail(self, reader, writer, number, attempt):
        for command, wanted in ((b"MAIL FROM:<alice@outside.example>", b"250"),
                                (b"RCPT TO:<bob@inside.example>", b"250"), (b"DATA", b"354")):
            await self.ask(reader, writer, command + b"\r\n", wanted)
        lines = LARGE if self.random.random() < 0.1 else SMALL
        head = f"Message-ID: <{number}.{attempt}@outside.example>\r\nSubject: {number}\r\n\r\n".encode()
        await self.ask(reader, writer, head + LINE * lines + b".\r\n", b"250")

    @staticmethod
    async def ask(reader, writer, what, wanted):
        if what:
            writer.write(what)
        line = b"   -"
        while line[3:4] == b"-":
            line = await asyncio.wait_for(reader.readuntil(b"\n"), LIMIT)
        if not line.startswith(wanted):
            raise Refused(line.decode("latin-1").strip())


async def main(port, count, sessions):
    mails = Mails(port, count)
    await asyncio.gather(*(mails.session() for _ in range(sessions)))


if __name__ == "__main__":
    asyncio.run(main(*map(int, sys.argv[1:])))
