"""What the kernel tells of a process. Of one that has gone: None, or nothing."""
import contextlib
import os
import pathlib


def _fields(pid):
    """The fields of its status from the state on, as text; the name before them may hold anything."""
    with contextlib.suppress(OSError):
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return None


def process_fields(pid):
    """(state, parent, group, session), or None."""
    fields = _fields(pid)
    return fields and (fields[0], *map(int, fields[1:4]))


def process_numbers():
    return [int(entry) for entry in os.listdir("/proc") if entry.isdigit()]


def start_of(pid):
    """When it began, in ticks since the machine did; tells it from another one that gets its number later. Or None."""
    fields = _fields(pid)
    return fields and fields[19]


def holds_files(pid):
    """Whether any of its threads has still to let go of what was open.

    A killed process first loses its memory, and with it its environment, then its files, thread by thread."""
    fields = _fields(pid)
    return bool(fields) and not (fields[0] in "ZX" and int(fields[17]) <= 1)


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
