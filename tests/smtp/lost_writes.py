"""What a loss of power leaves of a folder: the calls that changed it are played on a disk that keeps for sure only what
was flushed."""
import itertools
from typing import NamedTuple


class Call(NamedTuple):
    """One that went through."""
    kind: str
    inode: int
    at: int
    path: str
    data: bytes


def calls_in(record):
    """What the library wrote down, in its order."""
    calls = []
    while record:
        head, record = record.split(b"\n", 1)
        kind, inode, at, path, data = head.split(b" ")
        path, data = int(path), int(data)
        calls.append(Call(kind.decode(), int(inode), int(at), record[:path].decode(), record[path:path + data]))
        record = record[path + data:]
    return calls


class File:
    def __init__(self, content=b""):
        self.sure, self.pending = content, []

    def content(self, choose):
        content = bytearray(self.sure)
        for at, data in choose(self.pending):
            if data is None:
                del content[at:]
            content += bytes(max(0, at - len(content)))
            content[at:at + len(data or b"")] = data or b""
        return bytes(content)

    def flush(self):
        self.sure, self.pending = self.content(all_of), []


class Disk:
    """A folder on a disk that keeps for sure what was flushed: of a file its bytes, of the folder its names. Of what came
    after that anything may be there or not."""

    def __init__(self, folder, files=()):
        self.folder = str(folder).rstrip("/") + "/"
        self.sure = {name: File(content) for name, content in dict(files).items()}
        self.pending = []  # (name, its file or None), what belongs together in one tuple
        self._inodes = {}

    def names(self, choose):
        names = dict(self.sure)
        for change in choose(self.pending):
            for name, file in change:
                names.pop(name, None)
                if file:
                    names[name] = file
        return names

    def follow(self, call):
        if call.path.rstrip("/") + "/" == self.folder and call.kind == "flushed":
            self.sure, self.pending = self.names(all_of), []
        elif call.path.startswith(self.folder):
            getattr(self, "_" + call.kind)(call, call.path[len(self.folder):])

    def _opened(self, call, name):
        if name not in self.names(all_of):
            self._inodes[call.inode] = File()
            self.pending.append([(name, self._inodes[call.inode])])

    def _truncated(self, call, name):
        self._opened(call, name)
        self._file(call, name).pending.append((0, None))

    def _file(self, call, name):
        return self._inodes.setdefault(call.inode, self.names(all_of).get(name) or File())

    def _written(self, call, name):
        self._file(call, name).pending.append((call.at, call.data))

    def _cut(self, call, name):
        self._file(call, name).pending.append((call.at, None))

    def _flushed(self, call, name):
        self._file(call, name).flush()

    def _linked(self, call, name):
        self.pending.append([(call.data.decode()[len(self.folder):], self.names(all_of)[name])])

    def _renamed(self, call, name):
        self.pending.append([(name, None), (call.data.decode()[len(self.folder):], self.names(all_of)[name])])

    def _unlinked(self, call, name):
        self._inodes = {inode: file for inode, file in self._inodes.items() if file is not self.names(all_of).get(name)}
        self.pending.append([(name, None)])

    def left(self, names, bytes_of):
        """What a loss of power leaves, by what is chosen of what is not sure."""
        return {name: file.content(bytes_of) for name, file in self.names(names).items()}


def all_of(changes):
    return changes


def none_of(changes):
    return []


def torn(begin, end):
    """Of the last write only this part goes through, in shares of its length."""
    def choose(changes):
        if not changes or changes[-1][1] is None:
            return changes
        at, data = changes[-1]
        begins, ends = int(begin * len(data)), int(end * len(data))
        return [*changes[:-1], (at + begins, data[begins:ends])]
    return choose


def some_of(chance):
    return lambda changes: [change for change in changes if chance.random() < 0.5]


def losses(disk, chance, draws):
    """States of the folder, each once."""
    parts = [torn(0, 0.02), torn(0, 0.5), torn(0.02, 1), torn(0.5, 1)]
    choices = [*itertools.product((none_of, all_of), (none_of, all_of, *parts)), *[(some_of(chance),) * 2] * draws]
    seen = []
    for names, bytes_of in choices:
        left = disk.left(names, bytes_of)
        if left not in seen:
            seen.append(left)
            yield left
