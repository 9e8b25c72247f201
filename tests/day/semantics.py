"""What a program may rely on in a provided tree: one function for each sentence, or group of
sentences, of docs/semantics.md, which names it. A function gets a Case: a directory of its own, with
its counterpart at the origin. Functions of ALONE get a world of their own and may end its daemons.
"""
import ctypes
import errno
import fcntl
import mmap
import os
import random
import shutil
import socket
import stat
import subprocess
import threading
import time

import people
import work
from book import digest
from people import RENAME_EXCHANGE, TimeIsUp, eventually, read, read_open, rename2, run
from work import Save, put

TOGETHER, ALONE = [], []


def together(function):
    TOGETHER.append(function)
    return function


def alone(function):
    ALONE.append(function)
    return function


TIME = 10**18 + 123456789
USUAL_SIZE = 300_000  # More than is brought in ahead of a program that goes through a tree.


def content(name, size=USUAL_SIZE):
    """No byte of it is zero."""
    return random.Random(name).randbytes(size).replace(b"\0", b"\1")


def expect(condition, what):
    if not condition:
        raise AssertionError(what)


def refuses(call, *numbers):
    try:
        call()
    except OSError as error:
        expect(not numbers or error.errno in numbers, f"failed with {errno.errorcode.get(error.errno)}")
        return
    raise AssertionError("was not refused")


class Case:
    def __init__(self, world, name):
        self.world, self.name = world, name
        self.here, self.there = f"{world.docs}/{name}", f"{world.origin}/{name}"
        self.aside = f"{world.home}/aside-{name}"
        os.makedirs(self.aside, exist_ok=True)

    def given(self, *names, size=USUAL_SIZE, mode=0o644):
        """Documents at the origin, and here placeholders."""
        os.makedirs(self.there, exist_ok=True)
        for name in names:
            path = f"{self.there}/{name}"
            os.makedirs(os.path.dirname(path), exist_ok=True)
            put(path + ".new", content(name, size))
            os.utime(path + ".new", ns=(10**18, TIME))
            os.chmod(path + ".new", mode)
            os.rename(path + ".new", path)
        # As it is there in the end: what is renamed there may have been seen before.
        for name in names:
            eventually(lambda: os.path.exists(f"{self.here}/{name}") and
                       os.stat(f"{self.here}/{name}").st_mtime_ns == TIME, f"{name} does not appear")
        return f"{self.here}/{names[0]}" if names else self.here

    def started(self):
        """A directory that is on both sides."""
        os.makedirs(self.here, exist_ok=True)
        eventually(lambda: os.path.isdir(self.there), "the directory does not arrive")

    def want(self, *names):
        for name in names:
            problem = self.world.bring_in(f"{self.here}/{name}")
            if problem:
                raise OSError(errno.EAGAIN, f"docsource get {name}: {problem}")

    def state(self, name):
        import json
        answer = json.loads(self.world.tool("status", "--json", f"{self.here}/{name}").text)
        return answer["documents"][0]["state"]

    def is_placeholder(self, name):
        return self.state(name) == "placeholder"

    def arrives(self, name, expected, patience=None):
        def same():
            try:
                return read(f"{self.there}/{name}") == expected
            except FileNotFoundError:
                return False

        def what():
            try:
                got = read(f"{self.there}/{name}")
                return f"{name} at the origin has {len(got)} bytes ({got.count(0)} zero), expected {len(expected)}: {self.report(name)}"
            except OSError as error:
                return f"{name} does not arrive at the origin: {error.strerror}: {self.report(name)}"
        eventually(same, what, patience)

    def report(self, name):
        return self.world.tool("status", f"{self.here}/{name}", check=False).text.strip()[-200:]

    def leaves(self, name, patience=None):
        eventually(lambda: not os.path.lexists(f"{self.there}/{name}"), lambda: f"{name} stays at the origin: {self.report(name)}", patience)

    def comes(self, name, expected):
        """A change made at the origin is seen here."""
        def same():
            try:
                self.want(name)
                return read(f"{self.here}/{name}") == expected
            except OSError:
                return False
        eventually(same, lambda: f"{name} does not change here: {self.report(name)}")

    def origin_names(self):
        return sorted(os.listdir(self.there))


def accepted(c, program):
    """Statuses. With "open" a mark is gone at the opening that rsync has listed before; it says so (23)."""
    return (0, 23) if program == "rsync" and c.world.mode == "open" else (0,)


# Looking, opening, reading


@together
def looking_brings_nothing_in(c):
    c.given("a.txt", "d/b.txt")
    for command in (["ls", "-laR"], ["find", ".", "-size", "+1"], ["du", "-a"], ["stat", "a.txt"]):
        run(*command, cwd=c.here)
    status = os.stat(f"{c.here}/a.txt")
    expect((status.st_size, status.st_mtime_ns) == (USUAL_SIZE, TIME), f"size and time are {status}")
    expect(status.st_blocks * 512 <= 8192, f"it occupies {status.st_blocks * 512} bytes")
    expect(c.is_placeholder("a.txt") and c.is_placeholder("d/b.txt"), "was brought in by looking")


@together
def every_way_to_read_brings_in(c):
    def mapped(path):
        with open(path, "rb") as file, mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ) as memory:
            return bytes(memory)

    def sent(path):
        one, other = socket.socketpair()
        with open(path, "rb") as file, one, other:
            sender = threading.Thread(target=lambda: (one.sendfile(file), one.shutdown(socket.SHUT_WR)))
            sender.start()
            got = b"".join(iter(lambda: other.recv(65536), b""))
            sender.join()
            return got

    def copied(path):
        with open(path, "rb") as file, open(f"{c.aside}/copied", "wb") as to:
            while os.copy_file_range(file.fileno(), to.fileno(), 1 << 20):
                pass
        return read(f"{c.aside}/copied")

    def spliced(path):
        out, into = os.pipe()
        with open(path, "rb") as file, open(out, "rb") as pipe, open(into, "wb") as end:
            pieces = iter(lambda: os.splice(file.fileno(), end.fileno(), 60000), 0)
            return b"".join(pipe.read(size) for size in pieces)

    def directly(path):
        file = os.open(path, os.O_RDONLY | os.O_DIRECT)
        try:
            memory = mmap.mmap(-1, 1 << 20)
            return memory[:os.preadv(file, [memory], 0)]
        finally:
            os.close(file)

    def reopened(path):
        file = os.open(path, os.O_PATH)
        try:
            return read(f"/proc/self/fd/{file}")
        finally:
            os.close(file)

    def program(*command):
        def way(path):
            return run(*[part.format(path) for part in command]).stdout
        return way

    def to(*command):
        def way(path):
            done = run(*[part.format(path, f"{c.aside}/{command[0]}") for part in command], check=False)
            expect(done.returncode in accepted(c, command[0]), f"{command}: {done.problem}")
            return read(f"{c.aside}/{command[0]}")
        return way
    ways = [read, mapped, sent, copied, spliced, directly, reopened, program("cat", "{}"), program("dd", "if={}", "bs=7000", "status=none"),
            program("tail", "-c", "+1", "{}"), to("cp", "--sparse=always", "{0}", "{1}"), to("cp", "--reflink=auto", "-a", "{0}", "{1}"),
            to("install", "{0}", "{1}"), to("rsync", "-aX", "{0}", "{1}"), to("dd", "if={0}", "of={1}", "conv=sparse", "status=none"),
            program("sh", "-c", "tar -S -cf - '{}' 2>/dev/null | tar -xOf -"),
            program("sh", "-c", "bsdtar -cf - '{}' 2>/dev/null | tar -xOf -"),
            program("sh", "-c", "tar --xattrs -cf - '{}' 2>/dev/null | tar -xOf -")]
    names = [f"way{number}" for number in range(len(ways))]
    c.given(*names, size=70000)
    wrong = []
    for name, way in zip(names, ways):
        c.want(name)
        got = way(f"{c.here}/{name}")
        if got != content(name, 70000):
            wrong.append(f"way {name} ({getattr(way, '__name__', way)}): {len(got)} bytes, {got.count(0)} zero")
    expect(not wrong, "; ".join(wrong))


@together
def a_part_is_right_too(c):
    c.given("a", "b", "program")
    c.want("a", "b")
    with open(f"{c.here}/a", "rb") as file:
        expect(os.pread(file.fileno(), 100, 20000) == content("a")[20000:20100], "a part from the middle is wrong")
    expect(run("tail", "-c", "10", f"{c.here}/b").stdout == content("b")[-10:], "the end is wrong")


@together
def a_program_can_be_executed(c):
    os.makedirs(c.there, exist_ok=True)
    put(f"{c.there}/script", b"#!/bin/sh\necho done\n")
    shutil.copy("/bin/true", f"{c.there}/binary")
    for name in ("script", "binary"):
        os.chmod(f"{c.there}/{name}", 0o755)
        eventually(lambda: os.path.exists(f"{c.here}/{name}"), f"{name} does not appear")
        eventually(lambda: os.stat(f"{c.there}/{name}").st_size == os.stat(f"{c.here}/{name}").st_size, "size")
        c.want(name)
    expect(run(f"{c.here}/script").text == "done\n", "the script")
    run(f"{c.here}/binary")


@together
def opening_brings_nothing_in(c):
    if c.world.mode == "access":
        path = c.given("a")
        with open(path, "rb") as file:
            os.fstat(file.fileno())
        expect(c.is_placeholder("a"), "opening brought it in")


@together
def bringing_in_changes_nothing_that_shows(c):
    path, seen, ended = c.given("r", mode=0o444), set(), threading.Event()

    def watch():
        while not ended.is_set():
            seen.add(stat.S_IMODE(os.stat(path).st_mode))
    watcher = threading.Thread(target=watch)
    watcher.start()
    try:
        c.want("r")
        expect(read(path) == content("r"), "the content is wrong")
        eventually(lambda: c.state("r") == "present", "it does not become present")
    finally:
        ended.set()
        watcher.join()
    # Where nobody keeps readers waiting, a placeholder has none.
    allowed = {0o444} | ({0} if c.world.mode == "cooperative" else set())
    expect(seen <= allowed, f"modes {[oct(mode) for mode in seen]} were seen while it was brought in")
    path = c.given("a", mode=0o640)
    before = os.stat(path)
    c.want("a")
    expect(read(path) == content("a"), "the content is wrong")
    after = os.stat(path)
    expect(stat.S_IMODE(after.st_mode) == 0o640, f"mode {oct(after.st_mode)}")
    expect(after.st_mtime_ns == before.st_mtime_ns and after.st_size == before.st_size, "time or size changed")
    if c.world.mode != "cooperative":
        expect(after.st_ino == before.st_ino, "another inode")
    expect(c.state("a") == "present", c.state("a"))


@together
def without_coordination_a_placeholder_is_refused(c):
    if c.world.mode != "cooperative":
        return
    path = c.given("a", "b")
    refuses(lambda: read(path), errno.EACCES)
    refuses(lambda: put(path, b"x", "ab"), errno.EACCES)
    expect(c.world.tool("read", f"{c.here}/b").stdout == content("b"), "docsource read")
    c.want("a")
    expect(read(path) == content("a"), "after docsource get")


@together
def many_readers_at_once(c):
    names = [f"n{number}" for number in range(10)]
    c.given(*names, size=200000)
    c.want(*names)
    wrong = []

    def reader(name):
        try:
            if read(f"{c.here}/{name}") != content(name, 200000):
                wrong.append(name)
        except OSError as error:
            wrong.append(f"{name}: {error.strerror}")
    threads = [threading.Thread(target=reader, args=(name,)) for name in names * 5]
    [thread.start() for thread in threads]
    [thread.join() for thread in threads]
    expect(not wrong, f"wrong: {wrong}")


# Writing


@together
def writing_into_a_placeholder_keeps_the_rest(c):
    c.given("middle", "end", "shorter", "emptied", "mapped", "punched", "longer")
    c.want("middle", "end", "shorter", "emptied", "mapped", "punched", "longer")
    at = {name: f"{c.here}/{name}" for name in ("middle", "end", "shorter", "emptied", "mapped", "punched", "longer")}
    with open(at["middle"], "r+b") as file:
        os.pwrite(file.fileno(), b"HERE", 10000)
    put(at["end"], b"END", "ab")
    os.truncate(at["shorter"], 12345)
    os.truncate(at["longer"], USUAL_SIZE + 10000)
    put(at["emptied"], b"new")
    with open(at["mapped"], "r+b") as file, mmap.mmap(file.fileno(), 0) as memory:
        memory[5:9] = b"HERE"
    run("fallocate", "-p", "-o", "4096", "-l", "8192", at["punched"])
    was = content
    c.arrives("middle", was("middle")[:10000] + b"HERE" + was("middle")[10004:])
    c.arrives("end", was("end") + b"END")
    c.arrives("shorter", was("shorter")[:12345])
    c.arrives("longer", was("longer") + bytes(10000))
    c.arrives("emptied", b"new")
    c.arrives("mapped", was("mapped")[:5] + b"HERE" + was("mapped")[9:])
    c.arrives("punched", was("punched")[:4096] + bytes(8192) + was("punched")[12288:])


@together
def every_way_to_save_arrives(c):
    ways = [way for name, way in vars(Save).items() if not name.startswith("_") and name != "any"]
    ways = [way.__func__ for way in ways]
    names = [f"{way.__name__}.txt" for way in ways]
    os.makedirs(c.there, exist_ok=True)
    for name in names:
        put(f"{c.there}/{name}", b"line\n" * 3000)
        eventually(lambda: os.path.exists(f"{c.here}/{name}") and os.path.getsize(f"{c.here}/{name}") == 15000, name)
    c.want(*names)
    for turn in range(2):
        for way, name in zip(ways, names):
            way(f"{c.here}/{name}", lambda old: f"turn {turn}\n".encode() + old, random.Random(f"{turn}{name}"))
            c.want(name)
        for name in names:
            expected = read(f"{c.here}/{name}")
            expect(expected.endswith(b"line\n" * 3000), f"{name} lost content here")
            c.arrives(name, expected)
    # While a document is being carried there is a hidden file beside it.
    eventually(lambda: set(c.origin_names()) <= set(names), lambda: f"stray at the origin: {set(c.origin_names()) - set(names)}")


@together
def new_files_arrive(c):
    c.started()
    put(f"{c.here}/empty", b"")
    put(f"{c.here}/small", b"x")
    put(f"{c.here}/big", content("big", 40 << 20))
    os.close(os.open(f"{c.here}/exclusive", os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o600))
    nameless = os.open(c.here, os.O_TMPFILE | os.O_RDWR, 0o644)
    os.write(nameless, b"nameless")
    people.libc.linkat(-100, f"/proc/self/fd/{nameless}".encode(), -100, f"{c.here}/linked".encode(), 0x400)
    os.close(nameless)
    os.makedirs(f"{c.here}/one/two/three")
    put(f"{c.here}/one/two/three/deep", b"deep")
    for name, expected in {"empty": b"", "small": b"x", "exclusive": b"", "linked": b"nameless", "one/two/three/deep": b"deep",
                           "big": content("big", 40 << 20)}.items():
        c.arrives(name, expected)


@together
def nothing_half_written_arrives(c):
    path = c.given("a", size=30000)
    c.want("a")
    old, new = content("a", 30000), content("new", 60000)
    seen, over = set(), threading.Event()

    def watch():
        while not over.wait(0.02):
            try:
                seen.add(digest(read(f"{c.there}/a")))
            except FileNotFoundError:
                seen.add("nothing")
    watcher = threading.Thread(target=watch)
    watcher.start()
    try:
        with open(path, "r+b") as file:
            for at in range(0, len(new), 6000):
                os.pwrite(file.fileno(), new[at:at + 6000], at)
                over.wait(0.6)
        c.arrives("a", new)
    finally:
        over.set()
        watcher.join()
    expect(seen <= {digest(old), digest(new)}, f"{len(seen)} versions were seen at the origin")


@together
def a_document_that_is_open_is_not_changed(c):
    path = c.given("a")
    c.want("a")
    with open(path, "rb") as file:
        expect(read_open(file) == content("a"), "first")
        put(f"{c.aside}/new", b"new version")
        os.rename(f"{c.aside}/new", f"{c.there}/a")
        c.given("marker")  # Changes at the origin have been seen.
        time.sleep(2)
        expect(os.pread(file.fileno(), 2 * USUAL_SIZE, 0) == content("a"), "it changed under its reader")
    c.comes("a", b"new version")


@together
def what_changes_at_the_origin_comes(c):
    path = c.given("present", "absent", "same")
    c.want("present")
    read(path)
    c.want("same")
    inode = (read(f"{c.here}/same"), os.stat(f"{c.here}/same").st_mtime_ns)[1]
    for name in ("present", "absent"):
        put(f"{c.there}/{name}", b"written in place at the origin, " + name.encode())
    for name in ("present", "absent"):
        c.comes(name, b"written in place at the origin, " + name.encode())
    expect(os.stat(f"{c.here}/same").st_mtime_ns == inode, "an untouched document changed")


# Renaming


@together
def renames_arrive(c):
    names = ["a", "b", "over1", "over2", "x", "y", "Case", "d/1", "d/2", "d/sub/3", "into/4"]
    c.given(*names)
    c.want("b", "over1", "x", "d/2")
    for name in ("b", "over1", "x", "d/2"):
        read(f"{c.here}/{name}")
    h = c.here
    os.rename(f"{h}/a", f"{h}/a2")  # A placeholder.
    os.rename(f"{h}/b", f"{h}/into/b2")
    os.rename(f"{h}/over1", f"{h}/over2")
    rename2(f"{h}/x", f"{h}/y", RENAME_EXCHANGE)
    os.rename(f"{h}/Case", f"{h}/case")
    os.rename(f"{h}/d", f"{h}/into/e")
    expected = {"a2": "a", "into/b2": "b", "over2": "over1", "x": "y", "y": "x", "case": "Case", "into/e/1": "d/1",
                "into/e/2": "d/2", "into/e/sub/3": "d/sub/3", "into/4": "into/4"}
    for name, was in expected.items():
        c.arrives(name, content(was))
    for name in ("a", "b", "over1", "Case", "d"):
        c.leaves(name)
    expect(c.is_placeholder("a2") and c.is_placeholder("into/e/1"), "renaming brought a placeholder in")
    for name, was in expected.items():
        c.want(name)
        expect(read(f"{h}/{name}") == content(was), f"{name} here is wrong")


@together
def three_renames_exchange_two_documents(c):
    c.given("a", "b")
    for old, new in (("a", "t"), ("b", "a"), ("t", "b")):
        os.rename(f"{c.here}/{old}", f"{c.here}/{new}")
    c.arrives("a", content("b"))
    c.arrives("b", content("a"))
    c.leaves("t")
    c.want("a", "b")
    expect(read(f"{c.here}/a") == content("b"), "here")


@together
def renames_at_the_origin_come(c):
    c.given("a", "d/1", "d/2")
    os.rename(f"{c.there}/a", f"{c.there}/a2")
    os.rename(f"{c.there}/d", f"{c.there}/e")
    eventually(lambda: sorted(os.listdir(c.here)) == ["a2", "e"], lambda: f"here are {os.listdir(c.here)}")
    for name, was in (("a2", "a"), ("e/1", "d/1"), ("e/2", "d/2")):
        c.comes(name, content(was))


@together
def moving_in_and_out(c):
    c.given("present", "absent", "dir/absent")
    c.want("present")
    read(f"{c.here}/present")
    put(f"{c.aside}/new", b"from outside")
    os.makedirs(f"{c.aside}/newdir/sub")
    put(f"{c.aside}/newdir/sub/f", b"in a directory")
    for name in ("new", "newdir"):
        os.rename(f"{c.aside}/{name}", f"{c.here}/{name}")
    c.arrives("new", b"from outside")
    c.arrives("newdir/sub/f", b"in a directory")
    os.rename(f"{c.here}/present", f"{c.aside}/present")
    c.leaves("present")
    expect(read(f"{c.aside}/present") == content("present"), "what was moved out changed")
    for name in ("absent", "dir/absent"):
        out = f"{c.aside}/{name.replace('/', '-')}"
        os.rename(f"{c.here}/{name}", out)
        try:
            got = read(out)
        except OSError:
            got = None
        expect(got in (None, content(name)), f"a placeholder that was moved out reads as {got and got[:20]!r}")
        time.sleep(4)
        if got is None:
            expect(os.path.exists(f"{c.there}/{name}"), "a placeholder was moved out and its content is nowhere any more")


# Removing


@together
def removals_arrive(c):
    others = [f"other{number}" for number in range(12)]  # So that it is not most of the account.
    c.given("present", "absent", "d/1", "d/2", "open", "again", *others)
    c.want("present", "open", "again")
    read(f"{c.here}/present")
    read(f"{c.here}/open")
    with open(f"{c.here}/open", "rb") as file:
        os.unlink(f"{c.here}/open")
        expect(read_open(file) == content("open"), "a removed file that is open reads wrong")
    if c.world.mode == "access":
        with open(f"{c.here}/absent", "rb") as file:
            os.unlink(f"{c.here}/absent")
            try:
                expect(read_open(file) == content("absent"), "a removed placeholder that is open reads wrong")
            except OSError:
                pass
    run("rm", "-f", "present", "absent", "again", cwd=c.here)
    put(f"{c.here}/again", b"a new document of that name")
    run("rm", "-r", f"{c.here}/d")
    for name in ("present", "absent", "d", "open"):
        c.leaves(name)
    c.arrives("again", b"a new document of that name")
    time.sleep(1)
    expect(set(os.listdir(c.here)) == {"again", *others}, f"came back: {os.listdir(c.here)}")


@together
def removals_at_the_origin_come(c):
    others = [f"other{number}" for number in range(12)]
    c.given("present", "absent", "d/1", *others)
    c.want("present")
    read(f"{c.here}/present")
    shutil.rmtree(f"{c.there}/d")
    for name in ("present", "absent"):
        os.unlink(f"{c.there}/{name}")
    eventually(lambda: set(os.listdir(c.here)) == set(others), lambda: f"here are {os.listdir(c.here)}")


@together
def an_edit_outlives_a_removal(c):
    c.given("edited", "removed")
    c.want("edited")
    put(f"{c.here}/edited", b"EDIT", "ab")
    os.unlink(f"{c.there}/edited")
    put(f"{c.there}/removed", b"EDIT")
    os.unlink(f"{c.here}/removed")
    c.arrives("edited", content("edited") + b"EDIT")
    c.comes("removed", b"EDIT")


# Conflicts, copies


@together
def both_versions_of_a_conflict_are_kept(c):
    path = c.given("plan.txt")
    c.want("plan.txt")
    put(f"{c.aside}/n", b"ours")
    shutil.copy(path, f"{c.aside}/old")
    os.rename(f"{c.aside}/n", path)
    put(f"{c.there}/plan.txt", b"the colleague's")
    def both():
        names = c.origin_names()
        copies = [name for name in names if name.startswith("plan (conflict ") and name.endswith(").txt")]
        return len(names) == 2 and copies
    copy = eventually(both, lambda: f"at the origin are {c.origin_names()}")[0]
    c.arrives("plan.txt", b"the colleague's")
    c.arrives(copy, b"ours")
    c.comes("plan.txt", b"the colleague's")
    expect(copy in c.world.tool("conflicts").text, "docsource conflicts does not list it")


@together
def a_copy_is_a_document_of_its_own(c):
    c.given("a", "b", "d/c")
    c.want("a", "d/c")
    read(f"{c.here}/a")
    run("cp", "-a", "a", "a2", cwd=c.here)
    put(f"{c.here}/a2", b"EDIT", "ab")
    c.want("b")
    copied = run("rsync", "-aX", "b", "b2", cwd=c.here, check=False)
    expect(copied.returncode in accepted(c, "rsync"), copied.problem)
    run("cp", "-a", "d", "d2", cwd=c.here)
    put(f"{c.here}/d2/c", b"EDIT", "ab")
    for name, expected in {"a": content("a"), "a2": content("a") + b"EDIT", "b2": content("b"), "b": content("b"),
                           "d/c": content("d/c"), "d2/c": content("d/c") + b"EDIT"}.items():
        c.arrives(name, expected)
        expect(read(f"{c.here}/{name}") == expected, f"{name} here")


@together
def a_copied_mark_means_nothing(c):
    """Archives and backups that carry extended attributes, made of content and of placeholders."""
    c.given("a", "b", "x", "y")
    c.want("a", "b")
    run("tar", "--xattrs", "-cf", f"{c.aside}/one.tar", "a", "b", cwd=c.here)
    run("rsync", "-aX", f"{c.here}/a", f"{c.here}/b", f"{c.aside}/")
    if c.world.mode != "cooperative":
        mark = os.getxattr(f"{c.here}/x", "user.docsource.placeholder")
        os.makedirs(f"{c.aside}/marked", exist_ok=True)
        for name in ("m1", "m2"):
            put(f"{c.aside}/{name}", b"real content")
            os.setxattr(f"{c.aside}/{name}", "user.docsource.placeholder", mark)
        run("cp", "-a", f"{c.aside}/m1", f"{c.here}/m1")
        run("rsync", "-aX", f"{c.aside}/m2", f"{c.here}/m2")
        for name in ("m1", "m2"):
            c.arrives(name, b"real content")
            expect(read(f"{c.here}/{name}") == b"real content", f"{name} here")
    os.unlink(f"{c.here}/a")
    c.leaves("a")
    run("tar", "--xattrs", "-xf", f"{c.aside}/one.tar", cwd=c.here)
    c.arrives("a", content("a"))
    run("rsync", "-aX", "--ignore-times", f"{c.aside}/a", f"{c.aside}/b", f"{c.here}/")
    for name in ("a", "b"):
        expect(read(f"{c.here}/{name}") == content(name), f"{name} here")
        c.arrives(name, content(name))


# Links, special files


@together
def links_and_special_files_stay_here(c):
    c.given("a")
    os.symlink("a", f"{c.here}/link")
    os.symlink("nowhere", f"{c.here}/dangling")
    os.mkfifo(f"{c.here}/pipe")
    c.want("link")
    expect(read(f"{c.here}/link") == content("a"), "through the link")
    put(f"{c.here}/last", b"last")
    c.arrives("last", b"last")
    expect(c.origin_names() == ["a", "last"], f"at the origin are {c.origin_names()}")
    expect(os.readlink(f"{c.here}/dangling") == "nowhere" and stat.S_ISFIFO(os.stat(f"{c.here}/pipe").st_mode), "changed")
    for name in ("link", "pipe"):
        expect("here" in c.report(name) or "local" in c.report(name), f"status does not tell: {c.report(name)}")


@together
def a_second_name_is_the_same_file(c):
    path = c.given("a")
    c.want("a")
    os.link(path, f"{c.aside}/second")
    expect(read(f"{c.aside}/second") == content("a"), "through the second name")
    put(f"{c.aside}/second", b"EDIT", "ab")
    with open(path, "rb"):
        pass
    c.arrives("a", content("a") + b"EDIT", patience=120)
    os.link(path, f"{c.here}/inside")
    eventually(lambda: "second name" in c.report("inside"), lambda: f"status does not tell: {c.report('inside')}")
    os.unlink(path)
    c.arrives("inside", content("a") + b"EDIT")
    c.leaves("a")


# Permissions, times, attributes


@together
def permissions_go_both_ways(c):
    c.given("a", "b", "d/c")
    os.chmod(f"{c.there}/b", 0o755)
    c.want("a", "b")
    os.chmod(f"{c.here}/a", 0o600)
    os.chmod(f"{c.here}/d", 0o700)
    eventually(lambda: stat.S_IMODE(os.stat(f"{c.there}/a").st_mode) == 0o600, "a file's permissions do not arrive")
    eventually(lambda: stat.S_IMODE(os.stat(f"{c.there}/d").st_mode) == 0o700, "a directory's permissions do not arrive")
    eventually(lambda: stat.S_IMODE(os.stat(f"{c.here}/b").st_mode) == 0o755, "the origin's permissions do not come")
    expect(read(f"{c.here}/a") == content("a"), "a chmod changed the content")
    os.mkdir(f"{c.here}/private", 0o700)
    put(f"{c.here}/private/f", b"x")
    c.arrives("private/f", b"x")
    expect(stat.S_IMODE(os.stat(f"{c.there}/private").st_mode) == 0o700, "a new directory is open to others at the origin")


@together
def what_may_not_be_written_can_be_read_and_replaced(c):
    path = c.given("a", mode=0o444)
    c.want("a")
    expect(read(path) == content("a"), "reading")
    refuses(lambda: put(path, b"x"), errno.EACCES)
    put(f"{c.here}/n", b"replaced")
    os.rename(f"{c.here}/n", path)
    c.arrives("a", b"replaced")


@together
def times_go_both_ways(c):
    path = c.given("a")
    c.want("a")
    expect(os.stat(path).st_mtime_ns == TIME, "the origin's time is not here")
    os.utime(path, ns=(5 * 10**17, 5 * 10**17 + 987654321))
    eventually(lambda: os.stat(f"{c.there}/a").st_mtime_ns == 5 * 10**17 + 987654321, "a time that was set does not arrive")
    put(path, b"edited")
    c.arrives("a", b"edited")
    eventually(lambda: os.stat(f"{c.there}/a").st_mtime_ns == os.stat(path).st_mtime_ns, "the time of an edit does not arrive")


@together
def attributes_stay_with_the_file_here(c):
    path = c.given("a")
    c.want("a")
    read(path)
    os.setxattr(path, "user.comment", b"mine")
    put(path, b"EDIT", "ab")
    c.arrives("a", content("a") + b"EDIT")
    expect(os.getxattr(path, "user.comment") == b"mine", "the attribute is gone")


# Locks, leases, holes


@together
def locks_work_between_programs_of_this_machine(c):
    path = c.given("a")
    c.want("a")
    with open(path, "r+b") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        expect(run("flock", "-n", path, "true", check=False).returncode == 1, "flock lets a second one in")
        fcntl.flock(file, fcntl.LOCK_UN)
        fcntl.lockf(file, fcntl.LOCK_EX)
        other = subprocess.run([people.PYTHON, "-c", "import fcntl,sys; fcntl.lockf(open(sys.argv[1],'r+b'), fcntl.LOCK_EX|fcntl.LOCK_NB)",
                                path], stderr=subprocess.DEVNULL)
        expect(other.returncode == 1, "fcntl lets a second one in")
        os.pwrite(file.fileno(), b"LOCKED", 0)
    c.arrives("a", b"LOCKED" + content("a")[6:])


@together
def holes_are_content(c):
    c.started()
    expected = bytes(3 << 20) + b"end"
    with open(f"{c.here}/sparse", "wb") as file:
        os.pwrite(file.fileno(), b"end", 3 << 20)
    with open(f"{c.here}/only-a-hole", "wb") as file:
        os.ftruncate(file.fileno(), 1 << 20)
    with open(f"{c.here}/reserved", "wb") as file:
        os.posix_fallocate(file.fileno(), 0, 1 << 20)
    c.arrives("sparse", expected)
    c.arrives("only-a-hole", bytes(1 << 20))
    c.arrives("reserved", bytes(1 << 20))
    expect(read(f"{c.here}/sparse") == expected and read(f"{c.here}/only-a-hole") == bytes(1 << 20), "here")
    expect(c.state("sparse") == "present" and c.state("only-a-hole") == "present", "counts as a placeholder")


# Names, limits


STRANGE = ["new\nline", "tab\t", "back\\slash", "quote'\"`", "-dash", "*?[x]", "trailing ", "dot.", "..double", "%41", "CON",
           "a:b", b"latin-\xe4".decode(errors="surrogateescape"), "e\u0301", "\u00e9", "\U0001f600", "x" * 255, "\u00e9" * 127,
           "#hash", "~tilde", "Ordner mit Namen"]


@together
def names_are_bytes(c):
    c.started()
    os.makedirs(f"{c.there}/o")
    for number, name in enumerate(STRANGE):
        put(f"{c.here}/{name}", b"h%d" % number)
        put(f"{c.there}/o/{name}", b"o%d" % number)
    for number, name in enumerate(STRANGE):
        c.arrives(name, b"h%d" % number)
        c.comes(f"o/{name}", b"o%d" % number)


@together
def names_of_editors_stay_here(c):
    c.started()
    names = ["a.txt~", ".a.txt.swp", ".#a.txt", ".~lock.a.odt#", ".goutputstream-ABCDEF", "4913", "~$a.docx"]
    for name in names:
        put(f"{c.here}/{name}", b"x") if name != ".#a.txt" else os.symlink("x@y", f"{c.here}/{name}")
    put(f"{c.here}/.docsourceignore", b"*.o\n/build/\n!keep.o\n")
    os.mkdir(f"{c.here}/build")
    for name in ("x.o", "keep.o", "build/y", "z"):
        put(f"{c.here}/{name}", b"x")
    c.arrives("z", b"x")
    c.arrives("keep.o", b"x")
    time.sleep(3)
    arrived = set(c.origin_names()) - {".docsourceignore"}
    expect(arrived == {"z", "keep.o"}, f"at the origin are {arrived}")
    expect(set(names) <= set(os.listdir(c.here)), "something vanished here")


@together
def many_entries_and_deep_paths(c):
    c.started()
    os.mkdir(f"{c.here}/many")
    for number in range(1500):
        put(f"{c.here}/many/n{number}", b"%d" % number)
    deep = "/".join(["d" * 60] * 20)
    os.makedirs(f"{c.here}/{deep}")
    put(f"{c.here}/{deep}/f", b"deep")
    c.arrives(f"{deep}/f", b"deep")
    eventually(lambda: os.path.isdir(f"{c.there}/many") and len(os.listdir(f"{c.there}/many")) == 1500, lambda:
               f"{len(os.listdir(f'{c.there}/many'))} of 1500 have arrived")
    os.makedirs(f"{c.there}/more")
    for number in range(1500):
        put(f"{c.there}/more/n{number}", b"%d" % number)
    eventually(lambda: os.path.isdir(f"{c.here}/more") and len(os.listdir(f"{c.here}/more")) == 1500, "not all come")
    run("rm", "-r", f"{c.here}/{deep.split('/')[0]}")
    c.leaves(deep.split("/")[0])


# Giving back


@together
def giving_back_frees_the_space(c):
    path = c.given("a", "b", size=1 << 20)
    c.want("a", "b")
    for name in ("a", "b"):
        read(f"{c.here}/{name}")
    c.world.tool("evict", path)
    expect(c.is_placeholder("a"), "it is no placeholder")
    status = os.stat(path)
    expect(status.st_blocks * 512 <= 8192 and status.st_size == 1 << 20 and status.st_mtime_ns == TIME, f"{status}")
    c.want("a")
    expect(read(path) == content("a", 1 << 20), "its content afterwards")
    with open(f"{c.here}/b", "rb") as file:
        expect(not c.world.give_back(f"{c.here}/b"), "evicted while it is open")
        expect(read_open(file) == content("b", 1 << 20), "the content of one that is open")
    put(f"{c.here}/b", b"EDIT", "ab")
    c.world.give_back(f"{c.here}/b")
    c.arrives("b", content("b", 1 << 20) + b"EDIT")
    c.world.tool("pin", f"{c.here}/b")
    expect(not c.world.give_back(f"{c.here}/b"), "evicted although it is pinned")


# With daemons that end and an origin that goes


@alone
def edits_while_nothing_runs_arrive(c):
    names = ["edited", "saved", "renamed", "removed", "d/1", "d/2"]
    c.given(*names)
    c.want(*names)
    for name in names:
        read(f"{c.here}/{name}")
    c.world.stop()
    put(f"{c.here}/edited", b"EDIT", "ab")
    Save.aside(f"{c.here}/saved", lambda old: old + b"EDIT", random.Random(1))
    os.rename(f"{c.here}/renamed", f"{c.here}/renamed2")
    os.rename(f"{c.here}/d", f"{c.here}/e")
    os.unlink(f"{c.here}/removed")
    put(f"{c.here}/new", b"new")
    run("cp", "-a", "edited", "copy", cwd=c.here)
    c.world.start()
    expected = {"edited": content("edited") + b"EDIT", "saved": content("saved") + b"EDIT", "renamed2": content("renamed"),
                "e/1": content("d/1"), "e/2": content("d/2"), "new": b"new", "copy": content("edited") + b"EDIT"}
    for name, text in expected.items():
        c.arrives(name, text)
    for name in ("renamed", "removed", "d"):
        c.leaves(name)
    for name, text in expected.items():
        c.want(name)
        expect(read(f"{c.here}/{name}") == text, f"{name} here")


@alone
def an_origin_that_is_away_changes_nothing(c):
    c.given("present", "absent", "edited", "saved")
    c.want("present", "edited")
    for name in ("present", "edited"):
        read(f"{c.here}/{name}")
    c.world.stop()
    os.rename(c.world.origin, c.world.origin + ".away")
    as_before = sorted(os.listdir(c.here))
    begun = time.monotonic()
    c.world.start_daemons()
    expect(time.monotonic() - begun < 20, "the start waits for the origin")
    expect(read(f"{c.here}/present") == content("present"), "what is present")
    refuses(lambda: (c.want("absent"), read(f"{c.here}/absent")))
    run("sed", "-i", "1i edited", f"{c.here}/saved", check=False)
    expect(c.world.tool("read", f"{c.here}/absent", check=False, patience=90).stdout in (b"",), "docsource read gives content")
    put(f"{c.here}/edited", b"EDIT", "ab")
    put(f"{c.here}/new", b"new")
    # A share that is not mounted: the directory is there, and empty.
    people.as_root(make_directory_of_user, c.world.origin)
    c.world.tool("sync", c.world.account, check=False, patience=60)
    expect(set(as_before) <= set(os.listdir(c.here)), f"vanished here: {set(as_before) - set(os.listdir(c.here))}")
    expect(os.listdir(c.world.origin) == [], f"written below the mount point: {os.listdir(c.world.origin)}")
    expect("ok" != c.world.accounts().get("state"), "the account says it is well")
    people.as_root(os.rmdir, c.world.origin)
    people.as_root(os.rename, c.world.origin + ".away", c.world.origin)
    c.arrives("edited", content("edited") + b"EDIT", patience=150)
    c.arrives("new", b"new", patience=150)
    c.comes("absent", content("absent"))
    expect(read(f"{c.there}/saved") == content("saved"), "an edit of zeros was uploaded")


def make_directory_of_user(path):
    os.mkdir(path)
    if people.IS_ROOT:
        os.chown(path, people.USER, people.USER)


@alone
def many_removals_wait_for_a_word(c):
    names = [f"n{number}" for number in range(40)]
    c.given(*names)
    c.want("n0")
    read(f"{c.here}/n0")
    for name in names:
        os.rename(f"{c.there}/{name}", f"{c.aside}/{name}")
    c.world.tool("sync", c.world.account, check=False, patience=60)
    time.sleep(3)
    expect(len(os.listdir(c.here)) == 40, f"{40 - len(os.listdir(c.here))} were removed without asking")
    for name in names[:20]:
        os.rename(f"{c.aside}/{name}", f"{c.there}/{name}")
    c.comes("n1", content("n1"))


@alone
def the_guard_outlives_what_it_guards(c):
    """Placeholders are guarded while their provider and the daemons are away, and content is not."""
    c.given("a", "b", "c", "moved/d")
    ended, refused, ends = threading.Event(), [], 8

    def go_on():
        while not ended.is_set():
            try:
                put(f"{c.here}/busy.tmp", b"busy")
                read(f"{c.here}/busy.tmp")
            except OSError as problem:
                refused.append(str(problem))
    going_on = threading.Thread(target=go_on)  # the same user as this one
    going_on.start()
    try:
        for _ in range(ends):
            c.world.kill("holder")
    finally:
        ended.set()
        going_on.join()
    # An answer that is on its way when the holder falls is lost with it, and a thread waits for one.
    expect(len(refused) <= ends, f"content was refused {len(refused)} times in {ends} ends of the holder: {refused[:3]}")
    for which in ("account", "docsourced", "worker", "holder"):
        c.world.kill(which)
        try:
            c.want("a")
            got = read(f"{c.here}/a")
        except OSError:
            got = None
        expect(got in (None, content("a")), f"after the end of {which}: {got and got.count(0)} zeros")
    people.as_root(c.world.stop_one, "docsourced")
    os.rename(f"{c.here}/moved", f"{c.here}/moved2")
    refuses(lambda: read(f"{c.here}/moved2/d"))
    people.as_root(c.world.stop_one, "platformd")
    refuses(lambda: read(f"{c.here}/b"))
    if c.world.is_machine:
        people.as_root(c.world._start_platformd)
        refuses(lambda: read(f"{c.here}/c"))
        people.as_root(c.world.stop_one, "platformd")
    c.world.start()
    for name, was in {"a": "a", "b": "b", "c": "c", "moved2/d": "moved/d"}.items():
        c.comes(name, content(was))


def failed(problem):
    import traceback
    frames = [frame for frame in traceback.extract_tb(problem.__traceback__) if frame.filename.endswith("semantics.py")]
    return f"{type(problem).__name__} {problem} (line {', '.join(str(frame.lineno) for frame in frames[:2])})"


def named_in(document):
    """The functions that the document names, so that neither has what the other lacks."""
    import re
    return set(re.findall(r"`([a-z_]+)`$", open(document).read(), re.MULTILINE))
