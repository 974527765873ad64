"""The XML files of a configuration, judged twice: by the readers of a gateway, and by the schemas that are shipped."""
import os
import pathlib
import re
import shutil
import subprocess
import xml.etree.ElementTree as ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCHEMAS = ROOT / "packaging/schemas"
SAMPLES = ROOT / "packaging/samples"
KINDS = ("rules", "identities", "logging")  # by the root element, and so is the schema called


def kind_of(text):
    return ElementTree.fromstring(text).tag


def samples():
    """{path: text} of the XML files of the sample configurations."""
    return {path: path.read_text() for path in sorted(SAMPLES.rglob("*.xml"))}


def examples():
    """{"page, line": text} of the whole files that the pages show."""
    found = {}
    for page in sorted((ROOT / "docs").rglob("*.md")):
        text = page.read_text()
        for block in re.finditer(r"^```xml[^\n]*\n(.*?)^```$", text, re.M | re.S):
            line = text.count("\n", 0, block.start()) + 1
            found[f"{page.relative_to(ROOT)}, line {line}"] = block[1]
    return found


def judged_by_readers(kind, paths):
    """For each file "ok" or a complaint."""
    lines = "".join(f"{kind} {path}\n" for path in paths)
    done = subprocess.run([os.environ["VELT_READ_FORMS"]], input=lines, capture_output=True, text=True, check=True)
    return done.stdout.splitlines()


def judged_by_schema(kind, paths):
    """For each file "ok" or a complaint."""
    if not shutil.which("xmllint"):
        raise AssertionError("xmllint is not installed: scripts/install-dependencies check")
    done = subprocess.run(["xmllint", "--noout", "--nonet", "--schema", SCHEMAS / f"{kind}.xsd", *paths], check=False,
                          stdin=subprocess.DEVNULL, capture_output=True, text=True)
    valid = set(re.findall(r"^(.*) validates$", done.stderr, re.M))
    complaints = [line for line in done.stderr.splitlines() if not line.endswith((" validates", " fails to validate"))]
    return ["ok" if str(path) in valid else
            next((line for line in complaints if line.startswith(f"{path}:")), done.stderr) for path in paths]
