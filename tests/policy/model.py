"""A random configuration, and what it means: policies with identities, inheritance, windows and values of the library's
settings, conditions on addresses and mail patterns, network lists. The meaning is worked out here once more, from the
manual, so that what a gateway does and what a tool says of it are not compared with each other alone."""
import dataclasses
import ipaddress
import pathlib
import re
import time
from xml.sax.saxutils import escape, quoteattr

from harness import settings_xml

ROOT = pathlib.Path(__file__).resolve().parents[2]
KINDS = ("connection", "content", "transport", "protocol", "const", "machine", "network", "system")
SLOTS = ("base", *KINDS)
DAYS = ("mon", "tue", "wed", "thu", "fri", "sat", "sun")
FLAGS = {"1": "true", "true": "true", "yes": "true", "on": "true", "0": "false", "false": "false", "no": "false",
         "off": "false"}


# --- settings ---

@dataclasses.dataclass(frozen=True)
class Setting:
    name: str  # "section/key"
    type: str
    default: str
    low: int
    high: int
    slot: str

    def effective(self, raw):
        """What a reader gets for the store's text."""
        if raw is None:
            return self.default
        if self.type == "text":
            return raw
        if self.type == "bool":
            return FLAGS.get(raw, self.default)
        return self.default if self.unreadable(raw) else str(min(max(int(raw), self.low), self.high))

    def unreadable(self, raw):
        """Whether the text is no number of the type."""
        least, most = (-2**31, 2**31 - 1) if self.type == "int" else (0, 2**32 - 1)
        return not re.fullmatch(r"-?[0-9]+", raw) or not least <= int(raw) <= most

    def verdict(self, raw):
        """Whether the value is clamped, and whether the default counts."""
        if raw is None:
            return False, True
        if self.type == "text":
            return False, False
        if self.type == "bool":
            return False, raw not in FLAGS
        unreadable = self.unreadable(raw)
        return not unreadable and int(raw) != int(self.effective(raw)), unreadable

    def random(self, random):
        if self.type == "text":
            return random.choice(("", "a", "some text", "x<y & \"z\"", "\u00e4\u00f6"))
        if self.type == "bool":
            return random.choice((*FLAGS, "maybe", ""))
        inside = str(random.randint(self.low, min(self.high, 10**6)))
        return random.choice((inside, inside, inside, "0", "-3", "5000", "70000", "4294967295", "4294967296", "12x",
                              ""))


DAEMONS = ("scannerd", "smtp")  # whose sections the library does not have


def settings():
    """Those of the library that are no lists, from the generated page."""
    found = []
    page = (ROOT / "docs/settings.md").read_text()
    for title, section in re.findall(r"^## (\w+)\n(.*?)(?=^## |\Z)", page, re.M | re.S):
        if title in DAEMONS:
            continue
        for key, kind, default, bounds, slot in re.findall(
                r"^\| `(\w+)` \| ([\w ]+) \|([^|]*)\|([^|]*)\|[^|]*\| (\w+) \|", section, re.M):
            if kind.startswith("list"):
                continue
            low, high = map(int, bounds.strip().split(" to ")) if " to " in bounds else (0, 0)
            found.append(Setting(f"{title}/{key}", kind, default.strip().strip('"'), low, high, slot))
    return found


# --- conditions ---

def quoted(value):
    return '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'


def same_network(value, address):
    """As a condition compares: the written address is not masked."""
    text, _, count = value.partition("/")
    mask = 2**32 - 2**(32 - int(count)) if count else 2**32 - 1
    return int(ipaddress.IPv4Address(address)) & mask == int(ipaddress.IPv4Address(text))


def fits(pattern, address):
    if pattern.startswith("regex:"):
        return bool(re.fullmatch(pattern[6:], address, re.IGNORECASE))
    parts = {"*": ".*", "?": "."}
    return bool(re.fullmatch("".join(parts.get(c, re.escape(c)) for c in pattern), address, re.IGNORECASE))


@dataclasses.dataclass
class Atom:
    subject: str
    op: str
    value: str

    def holds(self, query):
        end = {"FROM": query.client, "TO": query.server or "0.0.0.0"}
        mail = {"efrom": query.sender, "eto": query.recipient}
        if self.subject == "con" and self.op in end:
            return same_network(self.value, end[self.op])
        return self.subject in mail and self.op == "IS" and fits(self.value, mail[self.subject])

    def text(self):
        return f"{self.subject} {self.op} {quoted(self.value)}"

    def xml(self):
        return f"<is subject={quoteattr(self.subject)} op={quoteattr(self.op)} value={quoteattr(self.value)}/>"


@dataclasses.dataclass
class Junction:
    word: str
    parts: list

    def holds(self, query):
        return (all if self.word == "and" else any)(part.holds(query) for part in self.parts)

    def text(self):
        return "(" + f" {self.word} ".join(part.text() for part in self.parts) + ")"

    def xml(self):
        return f"<{self.word}>" + "".join(part.xml() for part in self.parts) + f"</{self.word}>"


@dataclasses.dataclass
class Not:
    part: object

    def holds(self, query):
        return not self.part.holds(query)

    def text(self):
        return "not " + self.part.text()

    def xml(self):
        return f"<not>{self.part.xml()}</not>"


def random_atom(random):
    first, second, third = random.randrange(8), random.randrange(4), random.randrange(1, 6)
    network = random.choice((f"127.{first}.0.0/16", f"127.{first}.{second}.0/24", f"127.{first}.{second}.{third}",
                             f"127.{first}.{second}.{third}/16", "127.0.0.0/8"))
    there = random.choice((f"10.{first}.0.0/16", f"10.{first}.{second}.{third}", "0.0.0.0/0", f"10.{first}.1.1/8"))
    pattern = random.choice((f"*@d{first}.test", f"U{second}@*", f"u?@d{first}.test", f"u{second}@D{first}.TEST",
                             f"regex:u[0-{second}]@d{first}\\.test"))
    return random.choice((Atom("con", "FROM", network), Atom("con", "FROM", network), Atom("con", "TO", there),
                          Atom("eto", "IS", pattern), Atom("eto", "IS", pattern), Atom("efrom", "IS", pattern),
                          Atom("eto", "IN", f"directory.test.group{first}"), Atom("efrom", "LIKE", pattern)))


def random_condition(random, depth=0):
    kind = random.random()
    if depth > 2 or kind < 0.45:
        return random_atom(random)
    if kind < 0.6:
        return Not(random_condition(random, depth + 1))
    return Junction(random.choice(("and", "and", "or")), [random_condition(random, depth + 1)
                                                         for _ in range(random.randrange(2, 4))])


# --- the store ---

@dataclasses.dataclass
class Value:
    text: str
    window: str = None
    open: bool = True


class Scope:
    """What one policy, or one identity of it, has of its own: for each setting values with windows, and one without."""

    def __init__(self):
        self.own = {}  # name: [Value], in the order of the file
        self.later = {}  # of the file that wins

    def find(self, name):
        own, later = self.own.get(name, []), self.later.get(name, [])
        if any(not value.window for value in later):
            own = []  # a plain value of a later file replaces all that earlier ones said
        for value in (*later, *own):
            if value.window and value.open:
                return value.text
        return next((value.text for value in (*later, *own) if not value.window), None)

    @staticmethod
    def xml(values, indent):
        lines = []
        for name, several in values.items():
            section, key = name.split("/")
            lines.append(f"{indent}<settings section={quoteattr(section)}>")
            for value in several:
                when = f" when={quoteattr(value.window)}" if value.window else ""
                lines.append(f"{indent}  <set name={quoteattr(key)}{when}>{escape(value.text)}</set>")
            lines.append(f"{indent}</settings>")
        return lines


class Member:
    """An identity in a policy."""

    def __init__(self, name):
        self.name, self.inherits, self.scope = name, [], Scope()


class Policy:
    def __init__(self, name, base):
        self.name, self.base, self.scope, self.members = name, base, Scope(), {}

    def scopes(self, identity):
        """In the order in which they are searched."""
        found = []

        def enter(name):
            if name not in found:
                found.append(name)
                for inherited in self.members[name].inherits:
                    enter(inherited)
        if identity:
            enter(identity)
        yield from (self.members[name].scope for name in found)
        policy = self
        while policy:
            yield policy.scope
            policy = policy.base


@dataclasses.dataclass
class Query:
    client: str
    server: str
    sender: str
    recipient: str
    setting: Setting
    slot: str


class Configuration:
    def __init__(self, random, running, identities=100):
        """`running`: the settings that the gateway itself runs by, {section: {key: value or list}}."""
        self.random, self.running = random, running
        self.settings = settings()
        self.conditions = {f"id{number:02}": random_condition(random) for number in range(identities)}
        self.without = set(random.sample(sorted(self.conditions), identities // 20))  # in no identities.xml
        self.inside, self.outside = self.network_list(0), self.network_list(1)
        self.policies = {"base": Policy("base", None)}
        for kind in KINDS:
            self.policies[kind] = Policy(kind, self.policies["base"])
            for direction in ("_in", "_out"):
                policy = Policy(kind + direction, self.policies[kind])
                for name in random.sample(sorted(self.conditions), random.randrange(10, 40)):
                    policy.members[name] = Member(name)
                self.policies[policy.name] = policy
        self.draw_values()

    def network_list(self, sure):
        """Networks of a list, and their widths. No list has 127.7.0.0/16."""
        found = [(f"127.{first}.0.0", 16) for first in range(7) if first == sure or self.random.random() < 0.7]
        return found + [(f"127.{self.random.randrange(7)}.{self.random.randrange(4)}.9", 24) for _ in range(6)]

    # --- values, anew for each reload ---

    def draw_values(self):
        for policy in self.policies.values():
            self.draw(policy.scope, 12)
            rank = self.random.sample(sorted(policy.members), len(policy.members))
            for place, name in enumerate(rank):
                member = policy.members[name]
                below = rank[place + 1:]
                member.inherits = self.random.sample(below, min(len(below), self.random.choice((0, 0, 1, 2))))
                self.draw(member.scope, 8)

        base = self.policies["base"].scope
        base.own, base.later = {f"{section}/{key}": [Value(str(value))] for section, keys in self.running.items()
                                for key, value in keys.items() if not isinstance(value, list)}, {}

    def draw(self, scope, most):
        scope.own, scope.later = self.drawn(most), self.drawn(most // 3)

    def drawn(self, most):
        return {setting.name: self.values(setting) for setting in
                self.random.sample(self.settings, self.random.randint(0, most))}

    def values(self, setting):
        found = []
        for _ in range(self.random.choice((0, 0, 0, 1, 2))):
            is_open = self.random.random() < 0.5
            found.append(Value(setting.random(self.random), self.window(is_open), is_open))
        if not found or self.random.random() < 0.7:
            found.insert(self.random.randint(0, len(found)), Value(setting.random(self.random)))
        return found

    def window(self, is_open):
        if is_open:
            return self.random.choice(("mon-sun", "00:00-24:00", "Mon-Wed,thu-SUN 00:00-12:00,12:00-24:00"))
        return DAYS[(time.localtime().tm_wday + 3) % 7] + self.random.choice(("", " 08:00-18:00"))

    # --- files ---

    def rules(self):
        return self._rules(lambda scope: scope.own, whole=True)

    def later_rules(self):
        return self._rules(lambda scope: scope.later, whole=False)

    def _rules(self, values_of, whole):
        lines = ['<rules version="1">']
        for policy in self.policies.values():
            lines.append(f"  <policy name={quoteattr(policy.name)}>")
            lines += [settings_xml(self.lists())] if whole and policy.name == "base" else []
            lines += Scope.xml(values_of(policy.scope), "    ")
            for member in policy.members.values():
                inherits = f" inherits={quoteattr(', '.join(member.inherits))}" if whole and member.inherits else ""
                lines.append(f"    <identity name={quoteattr(member.name)}{inherits}>")
                lines += Scope.xml(values_of(member.scope), "      ")
                lines.append("    </identity>")
            lines.append("  </policy>")
        return "\n".join((*lines, "</rules>\n"))

    def lists(self):
        return {section: {key: value for key, value in keys.items() if isinstance(value, list)}
                for section, keys in self.running.items()}

    def identities(self):
        """One in two in the form of elements."""
        lines = ['<identities version="1">']
        for number, (name, condition) in enumerate(self.conditions.items()):
            if name not in self.without:
                inner = condition.xml() if number % 2 else escape(condition.text())
                lines.append(f"  <identity name={quoteattr(name)}>{inner}</identity>")
        return "\n".join((*lines, "</identities>\n"))

    @staticmethod
    def list_text(networks):
        return "".join(f"NETWORK {address}/{width}\n" for address, width in networks)

    # --- questions and answers ---

    def query(self):
        random = self.random
        setting = random.choice(self.settings)
        slot = setting.slot if random.random() < 0.1 else random.choice(SLOTS)
        return Query(client=f"127.{random.randrange(8)}.{random.randrange(4)}.{random.randrange(1, 6)}",
                     server=random.choice(("", f"10.{random.randrange(8)}.{random.randrange(4)}.1")),
                     sender=self.address(), recipient=self.address(), setting=setting, slot=slot)

    def address(self):
        random = self.random
        user = random.choice("uU") + str(random.randrange(6))
        return random.choice(("", *[f"{user}@{random.choice('dD')}{random.randrange(8)}.test"] * 9))

    @staticmethod
    def score(networks, client):
        address = ipaddress.ip_address(client)
        return max((width for network, width in networks
                    if address in ipaddress.ip_network(f"{network}/{width}", strict=False)), default=-1)

    def direction(self, client):
        """None: the client is let go."""
        inside, outside = self.score(self.inside, client), self.score(self.outside, client)
        if max(inside, outside) == -1:
            return None
        return "in" if inside <= outside else "out"

    def answer(self, query):
        direction = self.direction(query.client)
        if direction is None:
            return None
        policy = self.policies[query.slot if query.slot == "base" else f"{query.slot}_{direction}"]
        identity = next((name for name in policy.members
                         if name not in self.without and self.conditions[name].holds(query)), None)
        raw = next((text for text in (scope.find(query.setting.name) for scope in policy.scopes(identity))
                    if text is not None), None)
        return {"direction": direction, "slot": query.slot, "policy": policy.name, "identity": identity, "raw": raw,
                "value": query.setting.effective(raw)}
