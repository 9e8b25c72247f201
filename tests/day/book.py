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

    def __init__(self, compares=True):
        self.lock = threading.Lock()
        self.written, self.seen_off, self.findings, self.failed_saves = {}, set(), [], 0
        # What a store of somebody else's was seen to have kept half of.
        self.torn = set()
        # Whether the origin compares versions in one step with what it does; otherwise: which content
        # each was written over, and which machines have removed or renamed a content.
        self.compares, self.bases, self.left = compares, {}, {}

    def wrote(self, content, who, over=None):
        with self.lock:
            self.written[digest(content)] = f"{time.time():.3f} {who} ({len(content)} bytes)"
            if over is not None:
                self.seen_off.add(digest(over))
                self.bases[digest(content)] = digest(over), who[0]

    def leaves(self, content, who):
        """Its name is taken away, with the document or for another."""
        with self.lock:
            self.left.setdefault(digest(content), set()).add(who[0])

    def was_removed_unseen(self, key):
        """Whether another machine took away what this was written over, at a store that compares
        nothing: it looked, this was written, and it removed. No client can tell those apart."""
        who = None
        while not self.compares and key in self.bases and who in (None, self.bases[key][1]):
            key, who = self.bases[key]
            if self.left.get(key, set()) - {who}:
                return True
        return False

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
                if key not in self.seen_off and key not in present and not self.was_removed_unseen(key)]
