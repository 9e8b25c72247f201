"""Programs that know nothing of this system, each in a sandbox on a document of an account that is a
placeholder at first: it edits and saves; the document is renamed; its origin is replaced; platformd
is killed while it is shown and while it is saved; its grant is taken back in the middle of a save.
Whatever happens, the document is a whole version and the origin gets it.

usage: programs_test.py PROGRAMS [NAME...]
"""
import contextlib
import json
import os
import plistlib
import re
import select
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time

APPLICATION, ACCOUNT = "org.example.editor", "Archive"
FILLER = b"".join(b"line %d of the document\n" % number for number in range(2000))


def eventually(condition, what):
    deadline = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < deadline, what
        select.select([], [], [], 0.01)


def database(version):
    with tempfile.NamedTemporaryFile() as file:
        with sqlite3.connect(file.name) as base:
            base.execute("create table t (x)")
            base.executemany("insert into t values (?)", [(version,)] * 500)
        base.close()
        return open(file.name, "rb").read()


def rows(content):
    with tempfile.NamedTemporaryFile() as file:
        file.write(content)
        file.flush()
        with sqlite3.connect(file.name) as base:
            assert base.execute("pragma integrity_check").fetchone() == ("ok",)
            found = base.execute("select x from t").fetchall()
        base.close()
        return found


def text(version):
    return b"word %d\n" % version + FILLER


def rich(version):
    return (b"{\\rtf1\\ansi {\\b word %d}\\par " % version + b"some more text of the document\\par " * 500 + b"}")


def picture(version):
    return b"P6\n64 64\n255\n" + bytes([version]) * (64 * 64 * 3)


class Program:
    """What it works on, by versions; how it edits the document "$D"; whether that came of it."""

    def __init__(self, name, document, content, edit, is_edited):
        self.name, self.document, self.content, self.edit = name, document, content, edit
        self.is_edited = is_edited

    def is_whole(self, before, now):
        return now == before or self.is_edited(before, now)


IN_PLACE = """python3 -c 'import sys; f = open(sys.argv[1], "r+b"); f.write(b"WORD"); f.close()' "$D" """
# Types when nano is ready for it; gives up where it says something else.
AT_A_TERMINAL = r"""
import os, pty, signal, sys
process, terminal = pty.fork()
if process == 0: os.execvp("nano", ["nano", sys.argv[1]])
signal.alarm(30)
for shown, typed in (b"Exit", b"TYPED\x0f"), (b"Write", b"\r"), (b"Wrote", b"\x18"):
    seen = b""
    while shown not in seen: seen += os.read(terminal, 4096)
    os.write(terminal, typed)
sys.exit(os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]))
"""
replaced = lambda before, now: now == before.replace(b"word", b"WORD", 1)
PROGRAMS = [
    Program("cat", "cat.txt", text, 'cat "$D" > /tmp/copy && cat /tmp/copy > "$D"', lambda before, now: now == before),
    Program("sed", "sed.txt", text, 'sed -i s/word/WORD/ "$D"', replaced),
    Program("vim", "vim.txt", text,
            "vim -u NONE -es -c 'set backup backupcopy=no backupskip=' -c '%s/word/WORD/' -c wq \"$D\"", replaced),
    Program("nano", "nano.txt", text, f"TERM=xterm python3 -c '{AT_A_TERMINAL}' \"$D\"",
            lambda before, now: now == b"TYPED" + before),
    Program("python3", "python.txt", text, IN_PLACE, replaced),
    Program("sqlite3", "base.db", database, 'sqlite3 "$D" "insert into t values (0)"',
            lambda before, now: rows(now) == rows(before) + [(0,)]),
    Program("mogrify", "picture.ppm", picture, 'mogrify -negate "$D"',
            lambda before, now: now == before[:13] + bytes(255 - byte for byte in before[13:])),
    # Which writes more of its own each time, but the same text.
    Program("soffice", "letter.rtf", rich,
            'soffice --headless --convert-to txt --outdir /tmp "$D" > /dev/null 2>&1 && grep -q word /tmp/*letter.txt && '
            'mkdir -p /tmp/in && cp "$D" /tmp/in && '
            'soffice --headless --convert-to rtf --outdir "${D%/*}" "/tmp/in/${D##*/}" > /dev/null 2>&1',
            lambda before, now: b"LibreOffice" in now and now.rstrip().endswith(b"}") and
            re.search(rb"word \d+", before)[0] in now),
]


class World:
    def __init__(self, programs, place):
        self.programs, self.root, self.home = programs, f"{place}/root", f"{place}/home"
        self.origin, self.documents = f"{place}/origin", f"{place}/home/DocSource/{ACCOUNT}"
        for made in (self.root, self.home, self.origin):
            os.makedirs(made)
        self.environment = {"PATH": os.environ["PATH"], "DOCSOURCE_ROOT": self.root, "HOME": self.home,
                            "LANG": "C.UTF-8", "DOCSOURCE_LOG": "default"}
        self.log = open(f"{place}/log", "w+")
        self.platformd = self.docsourced = None

    def __enter__(self):
        application = f"{self.root}/Applications/Editor.app"
        os.makedirs(application)
        shutil.copy(os.path.realpath("/bin/bash"), f"{application}/editor")
        with open(f"{application}/Info.plist", "wb") as file:
            plistlib.dump({"QXBundleIdentifier": APPLICATION, "QXBundleExecutable": "editor"}, file)
        self.start_platformd()
        self.docsourced = self.start("docsourced")
        eventually(lambda: self.tool("wake-up", check=False).returncode == 0, "no broker")
        self.tool("add", "folder", ACCOUNT, self.origin)
        eventually(lambda: self.tool("sync", ACCOUNT, check=False).returncode == 0, "the account does not run")
        with open(f"{self.root}/run/coordination", encoding="ascii") as file:
            self.is_on_demand = file.read().strip() != "cooperative"
        return self

    def __exit__(self, kind, *_):
        for daemon in (self.docsourced, self.platformd):
            daemon.terminate()
            daemon.wait()
        if kind:
            self.log.seek(0)
            sys.stderr.write(self.log.read())

    def start(self, program):
        return subprocess.Popen([f"{self.programs}/{program}"], env=self.environment, stdout=self.log, stderr=self.log)

    def start_platformd(self):
        self.platformd = self.start("platformd")
        eventually(lambda: os.path.exists(f"{self.root}/run/coordination"), "no coordination")

    def crash_platformd(self):
        self.platformd.kill()
        self.platformd.wait()

    def tool(self, *words, check=True):
        done = subprocess.run([f"{self.programs}/docsource", *words], env=self.environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        assert not check or done.returncode == 0, f"docsource {' '.join(words)}: {done.stdout}"
        return done

    def put(self, name, content):
        """At the origin, as others do; when both sides agree, or both would have changed it."""
        self.tool("sync", ACCOUNT)
        with open(f"{self.origin}/.new", "wb") as file:
            file.write(content)
        os.rename(f"{self.origin}/.new", f"{self.origin}/{name}")
        self.tool("sync", ACCOUNT)

    def at_origin(self, name):
        try:
            with open(f"{self.origin}/{name}", "rb") as file:
                return file.read()
        except FileNotFoundError:
            return b""

    def here(self, name):
        """Who reads while platformd is away is refused, and gets it at another attempt; root, whom
        permissions do not stop, has to look whether there are any."""
        deadline = time.monotonic() + 60
        while True:
            try:
                with open(self.path(name), "rb") as file:
                    if os.fstat(file.fileno()).st_mode & 0o777 == 0:
                        raise PermissionError(name)
                    return file.read()
            except OSError:
                assert time.monotonic() < deadline, f"{name} cannot be read"
                select.select([], [], [], 0.05)

    def path(self, name):
        return os.path.realpath(self.documents) + "/" + name

    def is_placeholder(self, name):
        return '"placeholder"' in self.tool("status", "--json", self.path(name)).stdout

    def evict(self, name):
        self.tool("evict", self.path(name), check=False)

    def revoke(self, name):
        (provider,) = {each["providerIdentifier"] for each in json.loads(self.tool("grants", "--json").stdout)["grants"]}
        self.tool("revoke", self.path(name), "--provider", provider, "--consumer", APPLICATION)


class Sandbox:
    """A shell in one, which is told what to run."""

    def __init__(self, world, document):
        words = [f"{world.programs}/docsource", "run", APPLICATION, "--document", document, "--", "-s"]
        self.process = subprocess.Popen(words, env=world.environment, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        self.process.wait()

    def runs(self):
        """Whether it began; who was told that platformd is away does not."""
        with contextlib.suppress(BrokenPipeError):
            self.begin("true", "")
        return self.end() == "0"

    def begin(self, line, document):
        self.process.stdin.write(f"D='{document}'; ( {line} ) < /dev/null; echo $?\n")
        self.process.stdin.flush()

    def end(self):
        return self.process.stdout.readline().strip()

    def run(self, line, document):
        self.begin(line, document)
        return self.end()


def check(world, program):
    name, other = program.document, "other " + program.document
    edited = lambda name, before: lambda: program.is_edited(before, world.at_origin(name))
    version = [0]

    def whole(before, what):
        # Refused is who reads while platformd or the account comes back.
        eventually(lambda: world.here(other) is not None, "it cannot be read")
        now = world.here(other)
        assert now is not None and program.is_whole(before, now), \
            f"{what}: {(now or b'')[:9]!r} of {len(before)} bytes {before[:9]!r}"

    def replace(name):
        version[0] += 1
        content = program.content(version[0])
        world.put(name, content)
        return content

    # On a placeholder, in a directory in which it sees nothing else.
    content = replace(name)
    eventually(lambda: os.path.exists(world.path(name)), "it does not appear")
    assert world.is_placeholder(name)
    with Sandbox(world, world.path(name)) as sandbox:
        assert sandbox.run('test "$(ls "${D%/*}")" = "${D##*/}"', world.path(name)) == "0", "it sees more"
        assert sandbox.run('test "$(ls "$DOCSOURCE_ROOT/run" | grep -c account)" = 0', "") == "0", "it sees accounts"
        assert sandbox.run(program.edit, world.path(name)) == "0"
        eventually(edited(name, content), "saved, it does not arrive")

        # Its origin is replaced, and then what is new is edited.
        content = replace(name)
        is_new = lambda: sandbox.run('cmp -s "$D" -', world.path(name)) and world.here(name) == content
        eventually(is_new, "the new version does not come")
        assert sandbox.run(program.edit, world.path(name)) == "0"
        eventually(edited(name, content), "saved after a replacement, it does not arrive")

        # It is renamed, and edited under its new name.
        content = world.at_origin(name)
        os.rename(world.path(name), world.path(other))
        eventually(lambda: sandbox.run('test -e "$D"', world.path(other)) == "0", "it is not renamed inside")
        assert sandbox.run('test -e "$D"', world.path(name)) != "0"
        eventually(lambda: world.at_origin(other) == content, "it is not renamed at the origin")
        content = replace(other)
        eventually(lambda: world.here(other) == content, "it does not come")
        assert sandbox.run(program.edit, world.path(other)) == "0"
        eventually(edited(other, content), "saved under its new name, it does not arrive")

    # platformd is killed while it is shown, as a placeholder, and while it is saved.
    content = replace(other)
    if world.is_on_demand:
        world.evict(other)
    sandbox = Sandbox(world, world.path(other))
    world.crash_platformd()
    world.start_platformd()
    while not sandbox.runs():
        sandbox.close()
        whole(content, "half a version is shown")
        sandbox = Sandbox(world, world.path(other))
    with sandbox:
        eventually(lambda: sandbox.run('test -s "$D"', world.path(other)) == "0", "it is not shown")
        sandbox.begin(program.edit, world.path(other))
        world.crash_platformd()
        world.start_platformd()
        status = sandbox.end()
        if status != "0":
            # A reader may have been refused, but nothing is half done.
            whole(content, "half a version")
            eventually(lambda: sandbox.run(program.edit, world.path(other)) == "0", "it cannot be edited any more")
        eventually(edited(other, content), "saved in a crash, it does not arrive")

        # The grant is taken back in the middle of a save.
        content = world.at_origin(other)
        eventually(lambda: world.here(other) == content, "both sides differ")
        sandbox.begin(f"echo begun; {program.edit}", world.path(other))
        assert sandbox.end() == "begun"
        world.revoke(other)
        sandbox.end()
        now = world.here(other)
        assert program.is_whole(content, now), "half a version after a revocation"
        assert os.stat(world.path(other)).st_nlink == 1, "the application has it still"
        assert sandbox.run(program.edit + ' && cmp "$D" "$D"', world.path(other)) is not None
        assert world.here(other) == now, "written after its grant was taken back"
        assert sandbox.run('rm -rf "${D%/*}"/*', world.path(other)) == "0"
    assert world.here(other) == now
    os.remove(world.path(other))
    print(f"{program.name}: good", flush=True)


def main(programs, *names):
    missing = [each for each in ("bwrap", "docsource", "platformd", "docsourced")
               if not shutil.which(each, path=f"{programs}:{os.environ['PATH']}")]
    if missing or subprocess.run(["bwrap", "--unshare-user", "--ro-bind", "/", "/", "true"]).returncode != 0:
        sys.exit("skipped: no sandboxes here " + " ".join(missing))
    with tempfile.TemporaryDirectory(prefix="docsource-programs-") as place, World(programs, place) as world:
        for program in PROGRAMS:
            if names and program.name not in names:
                continue
            if not os.path.exists(f"/usr/bin/{program.name}") and not os.path.exists(f"/bin/{program.name}"):
                print(f"{program.name} is not installed")
                continue
            check(world, program)


if __name__ == "__main__":
    main(*sys.argv[1:])
