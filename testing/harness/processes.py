"""What the kernel tells of a process. Of one that has gone: None, or nothing."""
import contextlib
import os
import pathlib


def process_fields(pid):
    """(state, parent, group, session), or None."""
    try:
        text = pathlib.Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return None
    state, *numbers = text.rsplit(")", 1)[1].split()[:4]  # the name before it may hold anything
    return (state, *map(int, numbers))


def process_numbers():
    return [int(entry) for entry in os.listdir("/proc") if entry.isdigit()]


def has_environment(pid, entry):
    """A process that has ended and was not waited for has no environment."""
    with contextlib.suppress(OSError):
        return entry in pathlib.Path(f"/proc/{pid}/environ").read_bytes().split(b"\0")
    return False


def command_of(pid):
    with contextlib.suppress(OSError):
        return pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().replace(b"\0", b" ").decode().strip()
    return "gone"


def descriptors(pid):
    """{number: what it leads to}."""
    found = {}
    with contextlib.suppress(OSError):
        for number in os.listdir(f"/proc/{pid}/fd"):
            with contextlib.suppress(OSError):
                found[int(number)] = os.readlink(f"/proc/{pid}/fd/{number}")
    return found


def resident_kib(pid):
    """VmRSS."""
    with contextlib.suppress(OSError):
        for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return None
