"""Small objects that unpack to more than anybody can hold. As a program it writes them into a folder."""
import bz2
import gzip
import io
import lzma
import pathlib
import struct
import sys
import tarfile
import zipfile
import zlib

from mails import HEAD, attached, parts
from scan_case import MIB, VIRUS, zipped

ZEROS = bytes(16 * MIB)


def overlapping_zip(entries, content):
    """One content that every entry of the directory points at."""
    packed = zlib.compressobj(9, zlib.DEFLATED, -15)
    data = packed.compress(content) + packed.flush()
    sums = struct.pack("<III", zlib.crc32(content), len(data), len(content))
    local = b"PK\x03\x04" + struct.pack("<HHHHH", 20, 0, 8, 0, 0) + sums + struct.pack("<HH", 1, 0) + b"x"
    directory = b"".join(
        b"PK\x01\x02" + struct.pack("<HHHHHH", 20, 20, 0, 8, 0, 0) + sums + struct.pack("<HHHHHII", 8, 0, 0, 0, 0, 0, 0)
        + b"%08d" % number for number in range(entries))
    end = b"PK\x05\x06" + struct.pack("<HHHHIIH", 0, 0, entries, entries, len(directory), len(local + data), 0)
    return local + data + directory + end


def nested_zips(levels, copies, leaf):
    for _ in range(levels):
        leaf = zipped({f"{number}.zip": leaf for number in range(copies)})
    return leaf


def tar_of(content, copies):
    made = io.BytesIO()
    with tarfile.open(fileobj=made, mode="w") as archive:
        for number in range(copies):
            entry = tarfile.TarInfo(f"{number}")
            entry.size = len(content)
            archive.addfile(entry, io.BytesIO(content))
    return made.getvalue()


def deep_mail(levels):
    mail = HEAD
    for level in range(levels):
        mail += b"Content-Type: multipart/mixed; boundary=%d\r\n\r\n--%d\r\n" % (level, level)
    return mail + b"\r\nAt last.\r\n"


def forty_two():
    """16^5 times 16 MiB."""
    return nested_zips(5, 16, zipped({"zeros": ZEROS}))


# Each is made when it is wanted. Compressed files may stand one behind the other.
BOMBS = {
    "zips_in_zips": forty_two,
    "zips_in_zips_in_mail": lambda: attached(forty_two(), "42.zip"),
    "gzip": lambda: gzip.compress(ZEROS) * 64,
    "gzip_in_bzip2": lambda: bz2.compress(gzip.compress(ZEROS) * 64),
    "bzip2": lambda: bz2.compress(ZEROS) * 4000,
    "xz": lambda: lzma.compress(ZEROS) * 200,
    "tar_in_gzip": lambda: gzip.compress(tar_of(bytes(MIB), 256)),
    "more_entries_than_anybody_has": lambda: zipped({f"{number}": b"" for number in range(20_000)}, zipfile.ZIP_STORED),
    "deep_zips": lambda: nested_zips(60, 1, b"at last"),
    "deep_mail": lambda: deep_mail(500),
    "more_parts_than_anybody_reads": lambda: parts(*[b"\r\nx"] * 20_000),
}
OTHERS = {
    "one_for_many": lambda: overlapping_zip(2000, bytes(4 * MIB)),
    "one_virus_for_many": lambda: overlapping_zip(2000, bytes(4 * MIB) + VIRUS),
}


if __name__ == "__main__":
    for name, make in {**BOMBS, **OTHERS}.items():
        (pathlib.Path(sys.argv[1]) / name).write_bytes(make())
