"""A small disk of a test's own, in a mount namespace that nobody else sees."""
import ctypes
import errno
import os
import subprocess

_LIBC = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNS = 0x20000


def permitted():
    """Whether this process may mount, in a namespace of its own from now on, which its children share."""
    if _LIBC.unshare(_CLONE_NEWNS):
        return False
    return subprocess.run(["mount", "--make-rprivate", "/"], capture_output=True, check=False).returncode == 0


class SmallDisk:
    """A file system of this size and so many inodes, in the place of a folder."""

    def __init__(self, folder, size="128k", inodes=64):
        self.folder = folder
        folder.mkdir(parents=True, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},nr_inodes={inodes},mode=700", "small", str(folder)],
                       check=True)

    def close(self):
        subprocess.run(["umount", "-l", str(self.folder)], check=True)

    def fill(self):
        """So that no byte more goes in."""
        with open(self.folder / "filler", "wb", buffering=0) as file:
            for size in (4096, 1):
                while self._takes(lambda: file.write(bytes(size))):
                    pass

    def use_inodes(self):
        """So that no file more can be made."""
        number = 0
        while self._takes((self.folder / f"filler{number}").touch):
            number += 1

    def free(self):
        for path in self.folder.glob("filler*"):
            path.unlink()

    @staticmethod
    def _takes(act):
        try:
            act()
        except OSError as error:
            if error.errno != errno.ENOSPC:
                raise
            return False
        return True
