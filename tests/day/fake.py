"""A stand-in for an account: keeps a plain directory and the origin in agreement, both ways, by
looking through both all the time. It is what the day's work is tried on to know that the day finds
losses: with a fault it loses something, in one of the ways of FAULTS, and the day has to notice.

Not a model of the product: renames are removals and new files, everything is read and hashed.

  fake.py DOCS ORIGIN STATE-DIRECTORY NAME FAULT
"""
import fcntl
import hashlib
import json
import os
import sys
import time

from people import RENAME_EXCHANGE, RENAME_NOREPLACE, rename2

FAULTS = {
    "unseen": "overwrites what a colleague wrote meanwhile",
    "torn": "carries the first half of a file over, now and then",
    "zeros": "brings in zeros instead of content, now and then",
    "forgets": "does not carry an edit over, now and then",
    "reverts": "prefers the origin's version after a restart",
    "removes": "removes what was edited when the other side removed it",
    "undead": "does not carry removals over, now and then",
}
IGNORED = (".fake-", ".~lock.", ".goutputstream-")


def is_ignored(name):
    return (name.startswith(IGNORED) or name.endswith(("~", ".tmp", ".swp", ".lock")) or
            (name.startswith("sed") and len(name) == 9) or name == "4913")


class Side:
    def __init__(self, top):
        self.top, self.hashes = top, {}

    def scan(self):
        items = {}
        stack = [""]
        while stack:
            directory = stack.pop()
            try:
                entries = list(os.scandir(os.path.join(self.top, directory)))
            except OSError:
                raise OSError("changes while it is looked through") from None
            for entry in entries:
                path = os.path.join(directory, entry.name)
                if is_ignored(entry.name):
                    continue
                try:
                    status = entry.stat(follow_symlinks=False)
                    if entry.is_dir(follow_symlinks=False):
                        items[path] = ["d", "", status.st_mode & 0o7777]
                        stack.append(path)
                    elif entry.is_file(follow_symlinks=False):
                        items[path] = ["f", self.hash(path, status), status.st_mode & 0o7777]
                except FileNotFoundError:
                    items.pop(path, None)
        return items

    def hash(self, path, status):
        key = (status.st_ino, status.st_size, status.st_mtime_ns, status.st_ctime_ns)
        if self.hashes.get(path, (None,))[0] != key:
            with open(os.path.join(self.top, path), "rb") as file:
                self.hashes[path] = (key, hashlib.sha256(file.read()).hexdigest())
        return self.hashes[path][1]

    @staticmethod
    def look(path):
        """One item as scan() has it."""
        if not os.path.lexists(path):
            return None
        mode = os.stat(path).st_mode & 0o7777
        if os.path.isdir(path):
            return ["d", "", mode]
        with open(path, "rb") as file:
            return ["f", hashlib.sha256(file.read()).hexdigest(), mode]

    def rests(self, path):
        return time.time() - os.lstat(os.path.join(self.top, path)).st_ctime > 0.7


class Fake:
    def __init__(self, docs, origin, state, name, fault):
        self.here, self.there = Side(docs), Side(origin)
        self.state, self.name, self.fault, self.count = f"{state}/base.json", name, fault, 0
        self.base, self.intent = json.load(open(self.state)) if os.path.exists(self.state) else ({}, None)
        self.was_restarted = bool(self.base)
        if self.intent:  # Carried out, perhaps, before the end came.
            path, new, target = self.intent
            if Side.look(os.path.join(docs if target == "here" else origin, path)) == new:
                self.base.pop(path, None) if new is None else self.base.update({path: new})

    def sometimes(self, fault):
        if self.fault != fault:
            return False
        self.count += 1
        return self.count % 7 == 0

    def save(self):
        with open(self.state + ".new", "w") as file:
            json.dump([self.base, self.intent], file)
        os.rename(self.state + ".new", self.state)

    def round(self):
        here, there = self.here.scan(), self.there.scan()
        paths = sorted(set(here) | set(there) | set(self.base))
        # Directories are made before what is in them, and removed after it.
        removed = [path for path in paths if self.base.get(path, "f")[0] == "d" and not (path in here and path in there)]
        for path in [path for path in paths if path not in removed] + removed[::-1]:
            try:
                self.agree(path, here.get(path), there.get(path), self.base.get(path))
            except OSError:
                pass  # Somebody was faster; the next round sees what is there then.
        self.was_restarted = False
        self.save()

    def agree(self, path, here, there, base):
        if here == there:
            self.base.pop(path, None) if here is None else self.base.update({path: here})
            return
        if base is not None and here is None and there is None:
            return
        if self.fault == "reverts" and self.was_restarted and base and here and there and here != there:
            self.carry(path, self.there, self.here, there, here)
        elif here == base:
            self.carry(path, self.there, self.here, there, here)
        elif there == base:
            if self.sometimes("forgets"):
                self.base[path] = there = here
            self.carry(path, self.here, self.there, here, there)
        elif here is None or there is None:  # An edit outlives a removal.
            if self.fault == "removes":
                source, target = (self.there, self.here) if there is None else (self.here, self.there)
                self.carry(path, source, target, None, here or there)
            elif here is None:
                self.carry(path, self.there, self.here, there, here)
            else:
                self.carry(path, self.here, self.there, here, there)
        elif self.fault == "unseen":
            self.carry(path, self.here, self.there, here, there)
        elif here[:2] == there[:2]:  # Permissions.
            self.carry(path, self.there, self.here, there, here)
        else:
            stem, dot, extension = path.rpartition(".")
            copy = f"{stem or path} (conflict {self.name} {time.time_ns()}){dot}{extension if dot else ''}"
            rename2(os.path.join(self.here.top, path), os.path.join(self.here.top, copy), RENAME_NOREPLACE)
            self.carry(path, self.there, self.here, there, None)

    def carry(self, path, source, target, new, old):
        """Makes `target` have what `source` has, provided that `target` still has `old`."""
        self.intent = [path, new, "here" if target is self.here else "there"]
        self.save()
        to = os.path.join(target.top, path)
        aside = "old" if new is None else "new"
        side = os.path.join(os.path.dirname(to), f".fake-{aside}-{self.name}-{os.path.basename(path)}"[:250])
        if new is None:
            if self.sometimes("undead"):
                del self.base[path]
                return
            if old[0] == "d":
                os.rmdir(to)
            else:
                rename2(to, side, RENAME_NOREPLACE)
                self.check_or_restore(side, to, target, old)
            self.base.pop(path, None)
            return
        if new[0] == "d":
            os.mkdir(to, new[2]) if old is None else os.chmod(to, new[2])
        elif old and old[:2] == new[:2]:
            os.chmod(to, new[2])
        else:
            if source is self.here and not source.rests(path):
                return
            with open(os.path.join(source.top, path), "rb") as file:
                content, status = file.read(), os.fstat(file.fileno())
            if hashlib.sha256(content).hexdigest() != new[1]:
                return
            if self.sometimes("torn"):
                content = content[:len(content) // 2]
            if target is self.here and self.sometimes("zeros"):
                content = bytes(len(content))
            with open(side, "wb") as file:
                file.write(content)
                os.fchmod(file.fileno(), new[2])
            os.utime(side, ns=(status.st_mtime_ns, status.st_mtime_ns))
            if old is None:
                rename2(side, to, RENAME_NOREPLACE)
            else:
                self.exchange(side, to, old)
        self.base[path] = new

    def exchange(self, side, to, old):
        with open(to, "rb") as file:
            # Who has it open is not disturbed: whoever opens it now waits for the end of the lease.
            fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_WRLCK)
            if self.fault != "unseen" and hashlib.sha256(file.read()).hexdigest() != old[1]:
                raise OSError("changed")
            before = os.fstat(file.fileno()).st_ino
            rename2(side, to, RENAME_EXCHANGE)
            if os.stat(side).st_ino != before:
                rename2(side, to, RENAME_EXCHANGE)
                raise OSError("changed")
            os.unlink(side)

    def check_or_restore(self, side, to, target, old):
        with open(side, "rb") as file:
            try:
                fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_WRLCK)
                is_as_seen = hashlib.sha256(file.read()).hexdigest() == old[1]
            except OSError:
                is_as_seen = False
            if self.fault != "removes" and not is_as_seen:
                rename2(side, to, RENAME_NOREPLACE)
                raise OSError("changed")
            os.unlink(side)


if __name__ == "__main__":
    fake = Fake(*sys.argv[1:6])
    os.umask(0)
    for top in (fake.here.top, fake.there.top):  # What a kill left behind.
        for directory, _, names in os.walk(top):
            for name in names:
                path = os.path.join(directory, name)
                if name.startswith(f".fake-new-{fake.name}-"):
                    os.unlink(path)
                elif name.startswith(old := f".fake-old-{fake.name}-"):
                    if not os.path.exists(to := os.path.join(directory, name[len(old):])):
                        os.rename(path, to)
    while True:
        try:
            fake.round()
        except OSError:
            pass
        time.sleep(0.05)
