#!/usr/bin/env python3
"""demo.py BUILD [--farm] [--keep]: what ./demo runs once the gateway is built there."""
import base64
import dataclasses
import email.message
import email.policy
import json
import os
import pathlib
import random
import shutil
import signal
import smtplib
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))
import demo_farm  # noqa: E402
import mail_sink  # noqa: E402

PROXY = "demo-smtp"
PRODUCT = "velt"
SENDER = "alice@outside.example"
STAFF = "bob@inside.example"
BOARD = "carol@board.inside.example"
EICAR = rb"X5O!P%@AP[4\PZX54(P^)7CC)7}$" + b"EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"

POLICIES = """
  <!-- What is scanned for, and what happens then. Actions stand from weak to strong; the strongest one wins. -->
  <policy name="content" base="base">
    <actions><action>LOG</action><action>CLEAN</action><action>REPLACE</action><action>DENY</action></actions>
    <settings section="KORAVScanner">
      <set name="Enabled">true</set>
      <set name="Action">DENY</set>
    </settings>
    <settings section="KORContentScanner">
      <rule name="project-name" where="subject,body" match="project nightingale" weight="1" action="DENY"/>
    </settings>
  </policy>

  <!-- Mail from outside. The board may read of the project; all else holds for it too. -->
  <policy name="content_in" base="content">
    <identity name="board">
      <settings section="KORContentScanner"><set name="Enabled">false</set></settings>
    </identity>
  </policy>
  <policy name="content_out" base="content"/>
"""

RULES = """<?xml version="1.0"?>
<!-- The settings. A policy inherits what it does not say itself from its base. -->
<rules version="1">
  <policy name="base">
    <settings section="network">
      <list name="BindAddress"><item>127.0.0.1</item></list>
      <list name="BindPorts"><item>{port}</item></list>
      <set name="MaxConnections">32</set>            <!-- sessions at once in a worker -->
      <set name="NetMem">64</set>                    <!-- KiB of input buffer for each connection -->
      <set name="ForbidReverseLookups">true</set>
    </settings>
    <settings section="process">
      <!-- Off for the demo alone: while it is on, whoever connects from 127.0.0.1 is taken for a health check. -->
      <set name="MonitorHealth">false</set>
      <set name="MemoryLimit">0</set>
    </settings>
    <settings section="scanning">
      <set name="MaxScanMem">512</set>               <!-- KiB; a larger message is spooled to disk -->
      <!-- Who scans: true, the gateway itself; false, the scanner daemons, where there is a resource manager. -->
      <set name="LSDisabled">{alone}</set>
    </settings>
    <settings section="smtp">
      <set name="RelayHost">127.0.0.1</set>          <!-- the next server, which gets what passes -->
      <set name="RelayPort">{sink}</set>
      <set name="GreetingName">gateway.demo.example</set>
      <!-- Recipients of different identities in one message: "split" treats each as policy says, "defer" makes the
           client send to each identity in a message of its own. -->
      <set name="DifferentIdentity">split</set>
    </settings>
  </policy>
""" + POLICIES + "</rules>\n"

IDENTITIES = """<?xml version="1.0"?>
<!-- Who is who: the first identity of a policy whose expression holds is the one. -->
<identities version="1">
  <identity name="board">eto IS "*@board.inside.example"</identity>
</identities>
"""

LOGGING = """<?xml version="1.0"?>
<!-- Where the records of events go. -->
<logging version="1">
  <sink type="json" file="{events}"/>
</logging>
"""


@dataclasses.dataclass
class Case:
    title: str
    recipients: list
    content: bytes
    code: int            # what the client must be told at the end
    delivered: list      # to whom the message must go on
    notified: bool = False
    text: str = ""       # a part of what the client must be told


def crlf(message):
    return message.as_bytes(policy=email.policy.SMTP)


def message(subject, text, attachment=None, filename=None):
    made = email.message.EmailMessage()
    made["From"], made["To"], made["Subject"] = SENDER, STAFF, subject
    made["Message-ID"] = f"<{abs(hash(subject))}@outside.example>"
    made.set_content(text)
    if attachment is not None:
        made.add_attachment(attachment, maintype="application", subtype="octet-stream", filename=filename)
    return crlf(made)


def cases():
    rnd = random.Random(7)
    return [
        Case("clean text", [STAFF], message("hello", "Hello Bob,\n\n.a line that begins with a dot\n..and another\n"),
             250, [STAFF]),
        Case("MIME with an attachment", [STAFF], message("minutes", "See attachment.\n", rnd.randbytes(30000), "m.bin"),
             250, [STAFF]),
        Case("EICAR in a base64 attachment", [STAFF], message("invoice", "Please pay.\n", EICAR, "invoice.com"),
             554, [], text="EICAR"),
        Case("a phrase that policy forbids", [STAFF], message("plans", "News of Project Nightingale.\n"), 554, []),
        Case("20 MiB, spooled to disk", [STAFF], message("film", "Watch this.\n", rnd.randbytes(15 * 1024 * 1024), "f.mp4"),
             250, [STAFF]),
        Case("clean, to two identities", [STAFF, BOARD], message("lunch", "At noon?\n"), 250, [STAFF, BOARD]),
        Case("the phrase, to two identities", [STAFF, BOARD], message("report", "Project Nightingale is on time.\n"),
             250, [BOARD], notified=True),
        Case("EICAR, to two identities", [STAFF, BOARD], message("offer", "Look.\n", EICAR, "offer.com"),
             554, [], text="EICAR"),
    ]


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Gateway:
    def __init__(self, build, root, sink_port, alone):
        self.build, self.root, self.port = build, root, free_port()
        self.events_path = root / "events.json"
        self.environment = {**os.environ, "VELT_ROOT": str(root)}
        config = root / "config/qxxmlconf"
        (config / "efabric").mkdir(parents=True)
        (root / "scandir").mkdir()
        (config / "rules.xml").write_text(RULES.format(port=self.port, sink=sink_port, alone="true" if alone else "false"))
        (config / "identities.xml").write_text(IDENTITIES)
        (config / "inside.txt").write_text("NETWORK 10.0.0.0/8\n")
        (config / "outside.txt").write_text("NETWORK *\n")
        (config / f"{PROXY}-logging.xml").write_text(LOGGING.format(events=self.events_path))
        self.stderr_path = root / "stderr"
        with open(self.stderr_path, "wb") as stderr:
            self.process = subprocess.Popen([build / "bin/velt-smtp", "-d", PROXY, PRODUCT], stdin=subprocess.DEVNULL,
                                            stdout=stderr, stderr=stderr, env=self.environment, start_new_session=True)

    def connect(self, limit=30):
        deadline = time.monotonic() + limit
        while True:
            try:
                client = smtplib.SMTP(timeout=120)
                client.connect("127.0.0.1", self.port)
                return client
            except OSError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    sys.exit("the gateway did not start:\n" + self.stderr_path.read_text(errors="replace"))
                time.sleep(0.05)

    def events(self):
        lines = self.events_path.read_text().splitlines() if self.events_path.exists() else []
        return [json.loads(line) for line in lines]

    def counters(self):
        shown = subprocess.run([self.build / "bin/velt-counters", PROXY], env=self.environment, capture_output=True,
                               text=True, check=False)
        return shown.stdout + shown.stderr

    def spool_files(self):
        return [file for file in (self.root / "scandir" / PROXY).rglob("*") if file.is_file()]

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGHUP)
            try:
                self.process.wait(15)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)


def send(gateway, case):
    """The reply to the message, or to what was refused before."""
    client = gateway.connect()
    try:
        client.ehlo("client.outside.example")
        replies = [client.mail(SENDER, [f"size={len(case.content)}"])]
        replies += [client.rcpt(recipient) for recipient in case.recipients]
        bad = [reply for reply in replies if reply[0] >= 400]
        return bad[0] if bad else client.data(case.content)
    finally:
        client.close()


def is_notification(stored):
    return stored.sender == "" and b"multipart/report" in stored.content


def judge(case, reply, stored):
    """What is wrong with an outcome; an empty list if nothing is."""
    wrong = []
    text = reply[1].decode()
    mails = [one for one in stored if not is_notification(one)]
    if reply[0] != case.code or case.text not in text:
        wrong.append(f"the client was told {reply[0]} {text}")
    if sorted(address for one in mails for address in one.recipients) != sorted(case.delivered):
        wrong.append("delivered to the wrong recipients")
    for one in mails:
        head, _, rest = one.content.partition(b"From: ")
        if not head.startswith(b"Received: from client.outside.example") or b"From: " + rest != case.content:
            wrong.append("not the same bytes behind the Received: line")
    notifications = [one for one in stored if is_notification(one)]
    if len(notifications) != case.notified or any(one.recipients != [SENDER] for one in notifications):
        wrong.append("wrong notifications")
    return wrong


def shorten(text, width):
    return text if len(text) <= width else text[:width - 3] + "..."


def run_cases(gateway, sink, chosen):
    failures = []
    row = "{:<31} {:<20} {:<62} {:<24} {}"
    print("\n" + row.format("message", "to", "what the client was told", "what the next server got", ""))
    for case in chosen:
        before = len(sink.messages)
        reply = send(gateway, case)
        stored = sink.messages[before:]
        wrong = judge(case, reply, stored)
        got = ", ".join("notification" if is_notification(one) else f"mail for {len(one.recipients)}" for one in stored)
        print(row.format(case.title, ", ".join(to.split("@")[0] for to in case.recipients),
                         shorten(f"{reply[0]} {reply[1].decode()}", 62), got or "nothing", "WRONG" if wrong else "right"))
        failures += [f"{case.title}: {what}" for what in wrong]
    return failures


def scanned_by(gateway):
    """(by itself, by daemons)"""
    counts = dict(line.split() for line in gateway.counters().splitlines() if len(line.split()) == 2)
    return int(counts.get("scanner.inline.scans", 0)), int(counts.get("scanner.conn.scans", 0))


def run_farm_cases(gateway, sink, farm, chosen):
    """The cases, and who scanned them; a daemon that does not run has nothing to do with it."""
    before = farm.items()
    failures = run_cases(gateway, sink, chosen)
    shares = {name: count - before[name] for name, count in farm.items().items()}
    print("scanned: " + ", ".join(f"{count} by {name}" for name, count in shares.items()))
    if sum(shares.values()) != len(chosen):
        failures.append(f"{len(chosen)} mails, and the daemons scanned {shares}")
    return failures


def run_farm(gateway, sink, farm):
    """Two daemons; one of them; the other one, after a restart."""
    first, second = farm.daemons
    every = cases()
    failures = run_farm_cases(gateway, sink, farm, every)
    some = [case for case in every if len(case.content) < 1 << 20]
    for victim in (first, second):
        victim.kill()
        print(f"\n{victim.name} was killed")
        failures += run_farm_cases(gateway, sink, farm, some)
        victim.start()
        print(f"\n{victim.name} is back, and has found the test file")
    alone, together = scanned_by(gateway)
    print(f"scans by daemons: {together}, by the gateway itself: {alone}")
    return failures + ([f"the gateway scanned {alone} mails itself"] if alone or not together else [])


def show_session(gateway):
    """The events of the session whose message went to one identity and not to the other."""
    def values(event):
        inner = event["values"].get("connection")
        return {**event["values"], **(inner if isinstance(inner, dict) else {})}

    deadline = time.monotonic() + 10
    while True:
        events = gateway.events()
        chosen = [values(event).get("audit_conv_id") for event in events if (event["event"], event["reason"]) == (60000, 8)]
        mine = [event for event in events if chosen and values(event).get("audit_conv_id") == chosen[0]]
        if any((event["event"], event["reason"]) == (60000, 1) for event in mine) or time.monotonic() > deadline:
            break
        time.sleep(0.05)
    print("\nthe events of the session that sent the phrase to two identities:")
    for event in mine:
        told = ("smtp_", "scan_", "content_") if event["event"] != 19000 else ("destination_ip", "destination_port")
        if event["event"] == 10003:
            told = ("source_ip", "source_port", "conversation_policy")
        shown = {key: value for key, value in values(event).items() if key.startswith(told)}
        text = " ".join(f"{key}={value}" for key, value in shown.items())
        number = f"{event['event']}" if event["reason"] is None else f"{event['event']}:{event['reason']}"
        print(f"  {number:<10} {event.get('words', '')}  {shorten(text, 130)}".rstrip())
    return [] if mine else ["no events of the session were found"]


def advise(gateway, sink, root):
    print(f"""
Still running. The gateway listens on 127.0.0.1:{gateway.port}, the next server on 127.0.0.1:{sink.port}.
  swaks --server 127.0.0.1:{gateway.port} --from {SENDER} --to {STAFF} --body 'hello'
  swaks --server 127.0.0.1:{gateway.port} --from {SENDER} --to {STAFF},{BOARD} --body 'project nightingale'
  printf '%s' 'X5O!P%@AP[4\\PZX54(P^)7CC)7}}$''EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*' >/tmp/eicar.com
  swaks --server 127.0.0.1:{gateway.port} --from {SENDER} --to {STAFF} --attach @/tmp/eicar.com
What the next server got: {root}/sink.  Configuration: {root}/config/qxxmlconf.  Events: {gateway.events_path}
Counters: VELT_ROOT={root} {gateway.build}/bin/velt-counters {PROXY}
Ctrl-C ends it.""", flush=True)
    try:
        signal.pause()
    except KeyboardInterrupt:
        print()


def main():
    build, keep, wanted = pathlib.Path(sys.argv[1]).resolve(), "--keep" in sys.argv[2:], "--farm" in sys.argv[2:]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    signal.signal(signal.SIGINT, signal.default_int_handler)  # also when started in the background
    root = pathlib.Path(tempfile.mkdtemp(prefix="velt-demo-"))
    root.chmod(0o755)
    (root / "sink").mkdir()
    gateway = farm = None
    try:
        sink = mail_sink.MailSink(directory=root / "sink")
        farm = demo_farm.Farm(build, root, POLICIES, [free_port(), free_port()]) if wanted else None
        gateway = Gateway(build, root, sink.port, alone=not farm)
        gateway.connect().close()
        print(f"gateway on 127.0.0.1:{gateway.port}, next server on 127.0.0.1:{sink.port}, everything in {root}")
        failures = run_farm(gateway, sink, farm) if farm else run_cases(gateway, sink, cases())
        failures += show_session(gateway)
        print("\ncounters:\n" + "\n".join("  " + line for line in gateway.counters().splitlines() if not line.endswith(" 0")))
        left = gateway.spool_files()
        failures += [f"spool file left behind: {file}" for file in left]
        print("\n" + ("every outcome was right" if not failures else "WRONG:\n  " + "\n  ".join(failures)))
        if keep and not failures:
            advise(gateway, sink, root)
        return 1 if failures else 0
    finally:
        for one in (gateway, farm):
            if one:
                one.stop()
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
