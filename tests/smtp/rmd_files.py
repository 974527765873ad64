"""Files of mail that waits, made by hand, in the form of docs/formats/rmd.md."""
import time
import zlib

SLOT = 480  # bytes, and one for each recipient


def summed(content):
    return b"%08x" % zlib.crc32(content)


def slot(recipients, tries, reason):
    told = b"0 %d %d 0 . %s %s" % (tries, int(time.time()), b"w" * recipients, reason)
    content = told.ljust(SLOT + recipients - 10) + b"\n"
    return summed(content) + b" " + content


def rmd(name, server="", content=b"Subject: test\r\n\r\nhello\r\n", recipients=("bob@inside.example",), tries=0,
        sender="alice@outside.example", age=0):
    """The bytes of a file, of a mail that was taken so many seconds ago. Of no tries yet: it is due at once."""
    envelope = (f"id {name}\nsession {name}\nsender {sender}\nhello client.example\nclient 127.0.0.2\nserver {server}\n"
                f"engines \ntaken {int(time.time()) - age}\ninbound\n" +
                "".join(f"recipient {one} \n" for one in recipients)).encode()
    status = slot(len(recipients), tries, b"451 4.4.1 away")
    first = b"VELTRMD 1 %010d %010d %020d %s %s " % (len(envelope), len(status), len(content), summed(envelope),
                                                     summed(content))
    return first + summed(first) + b"\n" + envelope + status + status + content


def is_whole(content):
    """By what the file says of itself."""
    if len(content) < 80 or not content.startswith(b"VELTRMD 1 "):
        return False
    envelope, status, message = (int(content[at:at + size]) for at, size in ((10, 10), (21, 10), (32, 20)))
    head, end = content[:71], 80 + envelope
    return (len(content) == end + 2 * status + message and content[71:79] == summed(head) and
            content[53:61] == summed(content[80:end]) and content[62:70] == summed(content[end + 2 * status:]))


def status(content):
    """The fields of the slot that holds, with its sum."""
    at, size = 80 + int(content[10:20]), int(content[21:31])
    slots = (content[begin:begin + size] for begin in (at, at + size))
    fields = [one.split(b" ") for one in slots if one[:8] == summed(one[9:])]
    return max(fields, key=lambda one: int(one[1]))


def states(content):
    """A letter for each recipient."""
    return status(content)[6].split(b"@")[0]


def unsure(content):
    """b"?" or b".", as an earlier try may have brought it."""
    return status(content)[5][:1]
