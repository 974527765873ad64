"""Reads the catalogues of events: velt/logging/Events.def, and one ...Events.def for each gateway and tool."""
import pathlib
import re
from typing import NamedTuple

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIBRARY = "velt/logging/Events.def"


class Row(NamedTuple):
    name: str
    number: int
    reason: int | None
    keys: list
    words: str
    advice: str
    section: str

    @property
    def label(self):
        return str(self.number) if self.reason is None else f"{self.number}:{self.reason}"


STRING = r'"((?:[^"\\]|\\.)*)"'
STRINGS = r'"(?:[^"\\]|\\.)*"(?:\s*"(?:[^"\\]|\\.)*")*'
ROW = re.compile(r"^// ---- (?P<section>.+)$"
                 r"|^VELT_EVENT(?:_ALONE)?\(\s*(?P<name>\w+)\s*,\s*(?P<number>\d+)\s*,(?:\s*(?P<reason>\d+)\s*,)?"
                 rf"\s*(?P<keys>{STRINGS})\s*,\s*(?P<words>{STRINGS})\s*,\s*(?P<advice>{STRINGS})\s*\)", re.M)


def joined(literals):
    """The text of one or more string literals that stand side by side."""
    return "".join(re.findall(STRING, literals)).replace('\\"', '"')


def read(path):
    """The rows of one catalogue. A row that cannot be read is an error, never passed over."""
    text = (ROOT / path).read_text()
    rows, section = [], ""
    for match in ROW.finditer(text):
        if match["section"]:
            section = match["section"].strip()
            continue
        keys = [key.strip() for key in joined(match["keys"]).split(",") if key.strip()]
        reason = None if match["reason"] is None else int(match["reason"])
        rows.append(Row(match["name"], int(match["number"]), reason, keys, joined(match["words"]),
                        joined(match["advice"]), section))
    begun = len(re.findall(r"^VELT_EVENT\w*\(", text, re.M))
    if begun != len(rows):
        raise ValueError(f"{path}: {begun} rows begin, {len(rows)} can be read")
    return rows


def catalogues():
    """Path and rows of every catalogue, the library's first."""
    paths = [LIBRARY] + [str(path.relative_to(ROOT)) for folder in ("gateways", "tools")
                         for path in sorted((ROOT / folder).glob("*/*Events.def"))]
    return [(path, read(path)) for path in paths]
