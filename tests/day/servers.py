"""Accounts of two machines at one server, which is killed, started again, slowed and filled while they
are used, and to which the line breaks."""
import hashlib
import json
import os
import random
import subprocess
import threading
import time

import people
from book import digest, tree
from people import IS_ROOT, as_root, run
from world import World, children

TESTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")


class Server:
    """One of tests/webdav/servers.py or tests/s3/servers.py behind a proxy; all of it by root."""

    def __init__(self, kind, base):
        self.kind, self.place = kind, f"{base}/server"
        self.script = f"{TESTS}/{'s3' if kind in ('s3rver', 'moto') else 'webdav'}/servers.py"
        os.makedirs(self.place)
        self.is_small = IS_ROOT and kind != "moto"
        if self.is_small:
            run("mount", "-t", "tmpfs", "-o", "size=192m,mode=755", "tmpfs", self.place)
        self.process, self.port = None, None
        self.start()
        proxy = [people.PYTHON, f"{TESTS}/support/proxy.py", self.port, "{}", f"{base}/requests"]
        self.line = subprocess.Popen(proxy, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.address = self.line.stdout.readline().strip()

    def start(self):
        environment = dict(os.environ, **({"SERVER_PORT": self.port} if self.port else {}))
        self.process = subprocess.Popen([people.PYTHON, self.script, self.kind, self.place], env=environment,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        address = self.process.stdout.readline().strip()
        if not address.startswith("http"):
            raise OSError(0, f"{self.kind}: {address}")
        self.port = address.rstrip("/").rsplit(":", 1)[1]

    def kill(self):
        for server in children(self.process.pid):
            os.kill(server, 9)
        self.end_process()

    def revive(self):
        """One that ended by itself, as some do when there is no room."""
        if not any(open(f"/proc/{each}/stat").read().rpartition(")")[2].split()[0] != "Z"
                   for each in children(self.process.pid)):
            self.end_process()
            self.start()

    def end_process(self):
        self.process.stdin.close()
        self.process.wait(180)

    def tell_line(self, **settings):
        self.line.stdin.write(json.dumps(settings) + "\n")
        self.line.stdin.flush()
        self.line.stdout.readline()

    def fill(self):
        with open(f"{self.place}/full", "wb", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(1 << 16))
            except OSError:
                pass

    def empty(self):
        if os.path.exists(f"{self.place}/full"):
            os.unlink(f"{self.place}/full")

    def damage(self):
        """What s3rver has damaged of its own, as its disk shows while it does not run: objects whose
        notes are empty, and objects that it began to write and did not end, which have no digest or
        another one. It answers an upload only after both are written, so whoever sent such an object
        was not told that it is there, and has it still."""
        notes, torn = [], []
        for directory, _, names in os.walk(f"{self.place}/files") if self.kind == "s3rver" else ():
            for name in names:
                path = f"{directory}/{name}"
                if name.endswith("._S3rver_metadata.json") and os.path.getsize(path) == 0:
                    notes.append(path)
                elif name.endswith("._S3rver_object"):
                    known = open(f"{path}.md5").read() if os.path.exists(f"{path}.md5") else ""
                    with open(path, "rb") as file:
                        if "-" not in known and hashlib.md5(file.read()).hexdigest() != known:
                            torn.append(path)
        return notes, torn

    def mend(self):
        """As whoever looks after the store would: what is half goes, and empty notes become notes of nothing.
        Returns the documents that had empty notes, and how many were half."""
        notes, torn = self.damage()
        for path in notes:
            with open(path, "w") as file:
                file.write("{}")
        for path in torn:
            for ending in ("._S3rver_object", "._S3rver_object.md5", "._S3rver_metadata.json"):
                if os.path.exists(path.removesuffix("._S3rver_object") + ending):
                    os.unlink(path.removesuffix("._S3rver_object") + ending)
        top = f"{self.place}/files/docs/deep/"
        return [path.removeprefix(top).removesuffix("._S3rver_metadata.json") for path in notes], len(torn)

    def end(self):
        self.line.stdin.close()
        self.line.wait(30)
        self.end_process()
        if self.is_small:
            run("umount", self.place)

    def files(self, content):
        """What it holds, with the digest or the size of each file."""
        top, ending = f"{self.place}/files", ""
        if self.kind == "s3rver":
            top, ending = f"{top}/docs/deep", "._S3rver_object"
        return {path.removesuffix(ending): ("file", item[2]) for path, item in tree(top, content).items()
                if item[0] == "file" and path.endswith(ending)
                and path.removesuffix(ending).rpartition("/")[2] not in ("", ".docsource-mark")}


class ServerWorld(World):
    """What servers keep of documents: names and contents."""

    def __init__(self, base, name, server, programs, mode):
        super().__init__(base, name, None, programs, mode)
        self.server = server

    def addition(self):
        if self.server.script.endswith("webdav/servers.py"):
            return "webdav", self.account, self.server.address
        key = f"{self.home}/key"
        with open(os.open(key, os.O_WRONLY | os.O_CREAT, 0o600), "w") as file:
            file.write("S3RVER\nS3RVER\n")
        return "s3", self.account, "s3://docs/deep", "--endpoint", self.server.address, "--key-file", key

    @staticmethod
    def kept(items):
        return {path: (item[0], item[2]) for path, item in items.items() if item[0] == "file"}

    def at_origin(self, content=True):
        return self.server.files(content)


class Trouble:
    """For the server and the line to it, and for the machines, until the end of the block."""

    def __init__(self, server, worlds, seed):
        self.server, self.worlds, self.random = server, worlds, random.Random(seed)
        self.victims = {}
        # What the store was seen to have kept half, by its own fault.
        self.torn = set()
        # What was left of uploads to which the store answered with an error, for want of room: it is
        # neither listed nor told of until the store is mended.
        self.unanswered = set()
        self.compares = server.kind != "s3rver"

    def __enter__(self):
        self.stop, self.problem = threading.Event(), None
        self.thread = threading.Thread(target=self._work)
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        self.thread.join()
        if self.problem:
            raise self.problem
        if self.server.kind == "s3rver":
            as_root(self.server.kill)
            as_root(self.note_damage)
            lost, halves = as_root(self.server.mend)
            everything = as_root(self.server.files, True)
            self.unanswered.update((path, everything[path][-1]) for path in lost if path in everything)
            lost = len(lost)
            self.victims["the store's own: notes lost"], self.victims["the store's own: objects kept half"] = lost, halves
            as_root(self.server.start)

    def note_damage(self):
        for path in self.server.damage()[1]:
            with open(path, "rb") as file:
                self.torn.add(digest(file.read()))

    def _work(self):
        try:
            while not self.stop.wait(self.random.uniform(2, 10)):
                what = self.random.choice([self.restart, self.slow, self.late, self.broken, self.full, self.killed])
                self.victims[what.__name__] = self.victims.get(what.__name__, 0) + 1
                begun = time.time()
                what()
                with open(f"{os.path.dirname(self.server.place)}/troubles", "a") as log:
                    log.write(f"{begun:.3f} to {time.time():.3f} {what.__name__}\n")
        except Exception as problem:  # noqa: BLE001: told at the end
            self.problem = problem

    def restart(self):
        as_root(self.server.kill)
        as_root(self.note_damage)
        self.stop.wait(self.random.uniform(0, 10))
        as_root(self.server.start)

    def for_a_while(self, **settings):
        self.server.tell_line(**settings)
        self.stop.wait(self.random.uniform(2, 20))
        self.server.tell_line(delay=0, rate=0, faults=[])

    def slow(self):
        self.for_a_while(rate=self.random.choice([2_000, 20_000, 200_000]))

    def late(self):
        self.for_a_while(delay=self.random.choice([0.05, 0.5, 2]))

    def broken(self):
        kinds = ["reset", 500, 502, 503, 429, "repeat", {"cut": self.random.randrange(1, 300)},
                 {"corrupt": self.random.randrange(2000)}]
        self.for_a_while(faults=[self.random.choice(kinds) for _ in range(self.random.randrange(1, 30))])

    def full(self):
        if self.server.is_small:
            as_root(self.server.fill)
            self.stop.wait(self.random.uniform(2, 20))
            if self.server.kind == "s3rver":
                as_root(self.server.kill)
                as_root(self.note_damage)
            as_root(self.server.empty)
            as_root(self.server.start if self.server.kind == "s3rver" else self.server.revive)

    def killed(self):
        self.random.choice(self.worlds).kill("account")
