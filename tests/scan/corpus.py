"""Mails of every shape, made by chance from a seed, with known texts and known viruses in known places.

What is planted: phrases in subjects, in other headers, in texts and in names of attachments, each phrase in a context of
its own rule; and the test virus in some parts. Each part has a field X-Part with a number, by which it is known again.
"""
import base64
import binascii
import dataclasses
import random
import re
import string
import urllib.parse

from scan_case import VIRUS, zipped

LATIN, CYRILLIC, JAPANESE = "éèüñçß", "абвгдежзиклмнопрстуфх", "日本語文字漢和平山川"
# By script: how many phrases, of which letters, and which character sets have them.
SCRIPTS = {
    "plain": (24, string.ascii_lowercase, ("us-ascii", "utf-8", "iso-8859-1", "windows-1252", "koi8-r", "iso-2022-jp",
                                           "shift_jis", "utf-7", "utf-16", "utf-16le", "utf-16be", "utf-32")),
    "latin": (8, LATIN, ("utf-8", "iso-8859-1", "iso-8859-15", "windows-1252", "utf-7", "utf-16")),
    "cyrillic": (8, CYRILLIC, ("utf-8", "koi8-r", "windows-1251", "iso-8859-5", "utf-16")),
    "japanese": (8, JAPANESE, ("utf-8", "iso-2022-jp", "shift_jis", "euc-jp", "utf-16")),
}
WIDE = ("utf-16", "utf-16le", "utf-16be", "utf-32")
CONTEXTS = ("subject", "header", "body", "attachment")
FILLER = "the quick brown fox jumps over a lazy dog while it rains in spain and so on to the end of this line".split()


def phrases():
    """{script: phrases}, the same in every run. No phrase is within another one, nor in what stands around them."""
    chance = random.Random(1)
    def word(letters, length):
        return "".join(chance.choice(letters) for _ in range(length))
    made = {}
    for script, (count, letters, _) in SCRIPTS.items():
        long = 4 if script == "japanese" else 7
        made[script] = [word("qxzj", 3) + word(letters, long) + " " + word(letters, long) if script != "japanese"
                        else word(letters, 8) for _ in range(count)]
    return made


PHRASES = phrases()
NUMBERS = {phrase: number for number, phrase in enumerate(one for many in PHRASES.values() for one in many)}


def rule(context, phrase):
    return f"{context}-{NUMBERS[phrase]}"


@dataclasses.dataclass
class Mail:
    name: str
    content: bytes = b""
    planted: set = dataclasses.field(default_factory=set)   # names of rules
    infected: set = dataclasses.field(default_factory=set)  # numbers of the parts that hold the virus, or are within one
    infections: int = 0
    parts: int = 0
    # A message that is encoded as a whole is a text to who does not decode it: its fields are in the body's context, too.
    maybe: set = dataclasses.field(default_factory=set)
    # Of a mail without an end, an archive is also found in a second look, and there no part of it can be cut out.
    zipped: bool = False
    unended: bool = False


@dataclasses.dataclass
class Entity:
    fields: list        # lines, without their ends
    body: bytes
    numbers: list       # of this part and of all within
    infected: bool = False


class Maker:
    """One mail. Every choice is that of `chance`."""

    def __init__(self, name, seed, line_end=None):
        self.chance = random.Random(f"{seed}-{name}")
        self.mail = Mail(name)
        self.end = line_end or self.chance.choice((b"\r\n", b"\r\n", b"\n"))
        self.boundaries = 0

    def make(self):
        virus = self.chance.random() < 0.4
        entity = self.message_content(depth=0, virus=virus)
        self.mail.content = self.text(self.message_fields() + entity.fields) + self.end + entity.body
        return self.mail

    # --- pieces ---

    def some(self, probability):
        return self.chance.random() < probability

    def text(self, lines):
        return b"".join((one if isinstance(one, bytes) else one.encode()) + self.end for one in lines)

    def spelled(self, text):
        return self.chance.choice((str, str, str.lower, str.upper, str.title))(text)

    def number(self):
        self.mail.parts += 1
        return self.mail.parts

    def plant(self, context, phrase):
        self.mail.planted.add(rule(context, phrase))
        if context == "subject":  # which is one of the headers
            self.mail.planted.add(rule("header", phrase))
        return phrase

    def words(self, count):
        return [self.chance.choice(FILLER) for _ in range(count)]

    def script(self):
        return self.chance.choice(("plain", "plain", "latin", "cyrillic", "japanese"))

    # --- headers ---

    def message_fields(self):
        fields = ["From: a@example.test", "To: b@example.test", "Date: Sun, 22 Nov 2026 10:00:00 +0000"]
        if self.some(0.7):
            fields.append(self.header("Subject", "subject"))
        if self.some(0.4):
            fields.append(self.header("X-Note", "header"))
        if self.some(0.1):
            fields.append("X-Long: " + "x" * 900)
        fields.append("MIME-Version: 1.0")
        self.chance.shuffle(fields)
        return fields

    def header(self, name, context):
        script = self.script()
        text = self.plant(context, self.chance.choice(PHRASES[script]))
        words = self.words(self.chance.randrange(4)) + [text] + self.words(self.chance.randrange(4))
        colon = self.chance.choice((": ", ":", ":\t", ":  "))
        if script == "plain" and self.some(0.6):
            return self.spelled(name) + colon + self.folded(" ".join(words))
        return self.spelled(name) + colon + self.encoded_words(" ".join(words), script)

    def folded(self, text):
        """At some of the blanks."""
        ends = [" ", " ", f"{self.end.decode()} ", f"{self.end.decode()}\t"]
        return "".join(self.chance.choice(ends) if one == " " else one for one in text)

    def encoded_words(self, text, script):
        charset = self.chance.choice([one for one in SCRIPTS[script][2] if one not in (*WIDE, "utf-7", "us-ascii")])
        pieces = []
        while text:
            length = self.chance.randrange(4, 14)
            piece, text = text[:length], text[length:]
            raw = piece.encode(charset)
            if self.some(0.5):
                pieces.append(f"=?{charset}?{self.chance.choice('Bb')}?{base64.b64encode(raw).decode()}?=")
            else:
                coded = "".join(chr(one) if chr(one) in string.ascii_letters else "_" if one == 32 else f"={one:02X}"
                                for one in raw)
                pieces.append(f"=?{charset}?{self.chance.choice('Qq')}?{coded}?=")
        return self.chance.choice((f"{self.end.decode()} ", " ", f"{self.end.decode()}\t")).join(pieces)

    # --- transfer encodings ---

    def transfer(self, content, plain=True, lines=True):
        """The field and the encoded content. `lines`: its line ends are those of a text."""
        kinds = ["base64", "base64", "quoted-printable", "x-uuencode"]
        if plain:
            kinds += ["7bit" if max(content, default=0) < 128 else "8bit", "binary"]
        kind = self.chance.choice(kinds)
        encode = {"base64": self.base64, "x-uuencode": self.uuencoded}
        body = self.quoted(content, lines) if kind[0] == "q" else encode[kind](content) if kind in encode else content
        if kind in ("7bit", "8bit") and self.some(0.4):
            return [], body
        return ["Content-Transfer-Encoding: " + self.spelled(kind)], body

    def base64(self, content):
        raw = base64.b64encode(content)
        width = self.chance.choice((76, 76, 60, 4, 77, 998, len(raw) + 1))
        lines = [raw[at:at + width] for at in range(0, len(raw), width)]
        return self.end.join(lines)

    def quoted(self, content, lines):
        """Some characters are encoded that need not be, and lines are broken anywhere."""
        out, line = [], b""
        for at, one in enumerate(content):
            if lines and content[at:at + 2] == b"\r\n":
                continue
            if lines and one == 10:
                out.append(line)
                line = b""
                continue
            safe = 33 <= one < 127 and one != 61 or one == 32 and content[at + 1:at + 2] not in (b"\r", b"\n", b"")
            hexed = (f"={one:02X}" if self.some(0.9) else f"={one:02x}").encode()
            line += bytes([one]) if safe and self.some(0.9) else hexed
            if len(line) > 70 or self.some(0.02):
                out.append(line + b"=")
                line = b""
        return self.end.join(out + [line])

    def uuencoded(self, content):
        lines = [binascii.b2a_uu(content[at:at + 45]).rstrip(b"\n") for at in range(0, len(content), 45)]
        return self.end.join([b"begin 644 file", *lines, b"`", b"end"])

    # --- parts ---

    def text_part(self, virus=False, allow_plain=True):
        script = self.script()
        charset = self.chance.choice(SCRIPTS[script][2])
        html = self.some(0.3)
        planted = self.chance.sample(PHRASES[script], self.chance.randrange(1, 4))
        for one in planted:
            self.plant("body", one)
        sentences = [*planted, *(" ".join(self.words(6)) for _ in range(self.chance.randrange(8)))]
        self.chance.shuffle(sentences)
        text = self.html(sentences) if html else "\r\n".join(self.wrapped(one) for one in sentences) + "\r\n"
        content = text.encode(charset)
        if virus:  # in the text, as old mail programs put files there
            content = content.rstrip() + b"\r\n\r\n" + self.uuencoded(VIRUS) + b"\r\n"
        plain = allow_plain and charset not in WIDE
        kind = "html" if html else self.chance.choice(("plain", "plain", "x-notes"))
        fields, body = self.transfer(content, plain=plain, lines=charset not in WIDE)
        if plain and self.end == b"\n" and not fields:
            body = body.replace(b"\r\n", b"\n")
        default = kind == "plain" and charset == "us-ascii" and self.some(0.5)
        if not default:
            shown = self.chance.choice((charset, f'"{charset}"', charset.upper()))
            fields.append(f"Content-Type: text/{kind};{self.chance.choice((' ', self.end.decode() + ' ', ''))}charset={shown}")
        return self.entity(fields, body, virus)

    def wrapped(self, text):
        """A phrase is the same where a line ends within it."""
        return text.replace(" ", "\r\n") if text in NUMBERS and self.some(0.2) else text

    def html(self, sentences):
        out = []
        for one in sentences:
            if one in NUMBERS and self.some(0.4):  # hidden from who does not read it as its reader does
                at = self.chance.randrange(1, len(one))
                one = one[:at] + self.chance.choice(("<b></b>", "<!-- x -->", "&shy;", "<span style='x'></span>")) + one[at:]
            elif one in NUMBERS and self.some(0.4):
                one = "".join(f"&#{ord(c)};" if c != " " and self.some(0.5) else c for c in one)
            out.append(f"<p>{one}</p>")
        return "<html><body>\r\n" + "\r\n".join(out) + "\r\n</body></html>\r\n"

    def entity(self, fields, body, infected=False):
        number = self.number()
        self.mail.infections += infected
        if infected:
            self.mail.infected.add(number)
        self.chance.shuffle(fields)
        return Entity([*fields, f"X-Part: {number}"], body, [number], infected)

    def attachment(self, virus):
        content = self.chance.randbytes(self.chance.randrange(1, 400))
        # As bytes they begin neither like an archive nor like a mail.
        content = b"\x01" + content.replace(b"\n", b"\x0b")
        if virus:
            archive = self.some(0.2)
            content = zipped({"x.com": VIRUS}) if archive else self.chance.choice((VIRUS, content + VIRUS, VIRUS + content))
            self.mail.zipped |= archive
        script = self.script()
        name = self.plant("attachment", self.chance.choice(PHRASES[script])) + ".bin"
        fields, body = self.transfer(content, plain=False, lines=False)
        return self.entity([*fields, *self.named(name, script)], body, virus)

    def named(self, name, script):
        """The fields that give a part its name, in the ways there are."""
        charset = self.chance.choice([one for one in SCRIPTS[script][2] if one not in (*WIDE, "utf-7", "us-ascii", "iso-2022-jp")])
        where, kind = self.chance.choice((("Content-Disposition: attachment", "filename"),
                                          ("Content-Type: application/octet-stream", "name")))
        between = self.chance.choice((" ", f"{self.end.decode()} ", f"{self.end.decode()}\t"))
        ways = ["extended", "continued"]
        ways += ["quoted", "quoted_in_pieces"] if script == "plain" else ["word"]
        way = self.chance.choice(ways)
        percent = urllib.parse.quote_from_bytes(name.encode(charset), safe="")
        if way == "quoted":
            given = [f'{kind}="{name}"']
        elif way == "quoted_in_pieces":
            given = [f'{kind}*{at}="{name[at * 6:at * 6 + 6]}"' for at in range((len(name) + 5) // 6)]
        elif way == "extended":
            given = [f"{kind}*={charset}'{self.chance.choice(('', 'en'))}'{percent}"]
        elif way == "word":  # not allowed there, and usual
            given = [f'{kind}="=?{charset}?B?{base64.b64encode(name.encode(charset)).decode()}?="']
        else:
            cut = re.findall(r"(?:%..|[^%]){1,6}", percent)  # also within a character of several bytes
            given = [f"{kind}*{at}*=" + (f"{charset}''" if at == 0 else "") + piece for at, piece in enumerate(cut)]
        fields = [where + ";" + between + f";{between}".join(given)]
        if where.startswith("Content-D") and self.some(0.7):
            fields.append("Content-Type: application/octet-stream")
        elif where.startswith("Content-D"):
            fields.append("Content-Type: image/x-thing")
        return fields

    # --- structure ---

    def message_content(self, depth, virus):
        if self.some(0.25):
            return self.text_part(virus)
        return self.multipart(depth, virus)

    def boundary(self, outer):
        self.boundaries += 1
        plain = f"cut{self.boundaries}-" + "".join(self.chance.choice(string.ascii_letters) for _ in range(6))
        ways = [plain, f"=_{plain}", f"a b {plain}", f"'()+_,-./:=?{plain}", plain + "x" * (70 - len(plain)), "-" * 20 + plain]
        if outer:
            ways += [outer + "x", f"{outer}-{self.boundaries}"]
        return self.chance.choice([one for one in ways if len(one) <= 70])

    def multipart(self, depth, virus, outer=""):
        boundary = self.boundary(outer)
        count = self.chance.randrange(1, 5)
        at = self.chance.randrange(count) if virus else -1
        digest = self.some(0.1)
        children = [self.digested(depth) if digest and number != at else self.child(depth + 1, number == at, boundary)
                    for number in range(count)]
        kind = "digest" if digest else self.chance.choice(("mixed", "mixed", "alternative", "related", "x-unknown"))
        lines = [self.end + b"A preamble." + self.end] if self.some(0.3) else []
        mark = b"--" + boundary.encode()
        blanks = b"  " if self.some(0.1) else b""
        out = b"".join(lines)
        for child in children:
            out += mark + blanks + self.end + self.text(child.fields) + self.end + child.body + self.end
        ended = self.some(0.8)
        self.mail.unended |= not ended
        if ended:
            out += mark + b"--" + self.end
            if self.some(0.3):
                out += b"An epilogue." + self.end
        numbers = [number for child in children for number in child.numbers]
        shown = f'"{boundary}"' if set(boundary) & set(" ()<>@,;:\\/[]?='") or self.some(0.5) else boundary
        field = f"Content-Type: multipart/{kind};{self.chance.choice((' ', self.end.decode() + chr(9)))}boundary={shown}"
        return Entity([field], out, numbers)

    def child(self, depth, virus, outer):
        roll = self.chance.random()
        if depth < 4 and roll < 0.2:
            return self.multipart(depth, virus, outer)
        if depth < 4 and roll < 0.35:
            return self.nested_message(depth, virus)
        if roll < 0.65 and not (virus and self.some(0.7)):
            return self.text_part(virus)
        return self.attachment(virus)

    def digested(self, depth):
        """A message, as is each part of a digest that says nothing else."""
        inner = self.text_part()
        return Entity([], self.text(self.message_fields() + inner.fields) + self.end + inner.body, inner.numbers)

    def nested_message(self, depth, virus):
        inner = self.message_content(depth + 1, virus)
        body = self.text(self.message_fields() + inner.fields) + self.end + inner.body
        fields = ["Content-Type: message/rfc822"]
        if self.some(0.3):  # not allowed, and done
            body = self.base64(body)
            self.mail.maybe.update(rule("body", one) for one in NUMBERS)
            fields.append("Content-Transfer-Encoding: base64")
            if virus:  # nothing of it can be cut out alone
                self.mail.infected.update(inner.numbers)
        return Entity(fields, body, inner.numbers)


def mails(seed, count):
    return [Maker(f"{number:03}.eml", seed).make() for number in range(count)]
