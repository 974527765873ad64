"""Limits and addresses that all tests share, and the waiting."""
import contextlib
import os
import select
import socket
import time
from xml.sax.saxutils import escape, quoteattr

SANITIZED = os.environ.get("VELT_SANITIZE", "")  # by what the daemons under test are watched, as -fsanitize= takes it
COUNTED = os.environ.get("VELT_COVERAGE") == "1"  # each process writes which lines it ran when it ends
FULL = bool(os.environ.get("FULL"))  # the full sizes are run, on a machine that does nothing else
LIMIT = 60.0 if SANITIZED or COUNTED else 20.0  # seconds that a test waits for what has to happen
CLIENT = "127.0.0.2"  # where test clients come from: 127.0.0.1 is the health monitor's
SERVER = "127.0.0.1"


def bound(seconds):
    """How long what was promised within so many seconds may take here. The promise itself is held at full size only: on a
    machine with other work, or watched by a sanitizer, any time may pass, and the figure is printed."""
    return seconds if FULL and not SANITIZED and not COUNTED else max(LIMIT, seconds)


def wait_until(condition, what, limit=LIMIT):
    """Calls the condition until it gives something true, and gives that."""
    deadline = time.monotonic() + limit
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {limit} s for {what}")
        select.select([], [], [], 0.01)


def free_ports(count):
    """Ports that nobody listens on. They are held together, so that no two are the same."""
    with contextlib.ExitStack() as held:
        ports = []
        for _ in range(count):
            probe = held.enter_context(socket.socket())
            probe.bind((SERVER, 0))
            ports.append(probe.getsockname()[1])
        return ports


def settings_xml(sections):
    """<settings> elements of {section: {key: value or list of values}}."""
    parts = []
    for section, keys in sections.items():
        parts.append(f"    <settings section={quoteattr(section)}>")
        for key, value in keys.items():
            if isinstance(value, (list, tuple)):
                items = "".join(f"<item>{escape(str(item))}</item>" for item in value)
                parts.append(f"      <list name={quoteattr(key)}>{items}</list>")
            else:
                text = {True: "true", False: "false"}.get(value, value) if isinstance(value, bool) else value
                parts.append(f"      <set name={quoteattr(key)}>{escape(str(text))}</set>")
        parts.append("    </settings>")
    return "\n".join(parts)
