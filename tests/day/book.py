"""What the day's work is measured against: what trees hold, and what became of every content."""
import hashlib
import os
import re
import stat
import threading
import time

from people import read

# Names that stay where they were made: what editors make on the way, links and special files.
_STAYS = re.compile(r"~$|\.tmp$|\.sw[a-p]$|^\.~lock\.|^\.goutputstream-|^4913$|^sed\w{6}$|^~\$|^~WR|^\.#|"
                    r"^\.fake-|^index\.lock$|\.lock$|^\.docsource|-journal$|-wal$|-shm$")


def stays_here(name):
    return bool(_STAYS.search(name))


def digest(content):
    return hashlib.sha256(content).hexdigest()


def tree(top, content=True, everything=False):
    """What is below `top`: for each path a kind, the permissions, and the digest or the size of a
    file or where a link leads. Without `everything`, what the other side should have too."""
    found, stack = {}, [""]
    while stack:
        directory = stack.pop()
        for entry in os.scandir(os.path.join(top, directory)):
            if not everything and stays_here(entry.name):
                continue
            path = os.path.join(directory, entry.name)
            status = entry.stat(follow_symlinks=False)
            if stat.S_ISDIR(status.st_mode):
                found[path] = ("directory", status.st_mode & 0o7777)
                stack.append(path)
            elif stat.S_ISREG(status.st_mode):
                if content:
                    what = digest(read(entry.path))
                else:
                    what = status.st_size
                found[path] = ("file", status.st_mode & 0o7777, what)
            elif everything:
                found[path] = ("link", os.readlink(entry.path) if entry.is_symlink() else None)
    return found


def differences(one, other, names=("here", "there")):
    lines = []
    for path in sorted(set(one) | set(other)):
        if one.get(path) != other.get(path):
            lines.append(f"{path!r}: {names[0]} {one.get(path)}, {names[1]} {other.get(path)}")
    return lines


class Book:
    """Every content that was written where several people work on the same documents.

    A content may be gone only when somebody replaced or removed it who had seen it."""

    def __init__(self):
        self.lock = threading.Lock()
        self.written, self.seen_off, self.findings, self.failed_saves = {}, set(), [], 0
        # What a store of somebody else's was seen to have kept half of.
        self.torn = set()

    def wrote(self, content, who, over=None):
        with self.lock:
            self.written[digest(content)] = f"{time.time():.3f} {who} ({len(content)} bytes)"
            if over is not None:
                self.seen_off.add(digest(over))

    def failed(self, content):
        """Its program was told that it could not be saved; it may be somewhere all the same."""
        with self.lock:
            self.failed_saves += 1
            self.seen_off.add(digest(content))

    def removed(self, content):
        with self.lock:
            self.seen_off.add(digest(content))

    def check(self, content, where):
        """Somebody read this: it must be something that somebody wrote."""
        with self.lock:
            if content and digest(content) not in self.written and digest(content) not in self.torn:
                zeros = content.count(0)
                self.findings.append(f"{where}: read {len(content)} bytes that nobody wrote, {zeros} of them zero: "
                                     f"{content[:60]!r}")

    def missing(self, present):
        return [f"{who}: {key[:12]} is nowhere" for key, who in self.written.items()
                if key not in self.seen_off and key not in present]
