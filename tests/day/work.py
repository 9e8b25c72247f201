"""A day's work: what people do with documents, with the programs and the ways that they use.

Everybody has a desk of their own, on which the same is done in a plain directory beside: at rest
the desk must look like that on every machine. And all work on shared documents, with a Book.
"""
import os
import random
import tempfile
import threading
import time

import people
from book import Book, differences, digest, stays_here, tree
from people import RENAME_EXCHANGE, TimeIsUp, eventually, read, read_open, rename2, run


def text(r, lines=None):
    """Some content that is written only once."""
    body = "".join(f"{r.getrandbits(64):016x} {'lorem ipsum ' * r.randrange(6)}\n" for _ in range(lines or r.randrange(1, 400)))
    return f"written {r.getrandbits(128):032x}\n{body}".encode()


def put(path, content, mode="wb"):
    with open(path, mode) as file:
        file.write(content)


class Save:
    """The ways in which programs save a document. The new content is made by `change` of the old."""

    @staticmethod
    def in_place(path, change, r):
        with open(path, "r+b") as file:
            content = change(read_open(file))
            file.seek(0)
            file.truncate()
            file.write(content)

    @staticmethod
    def backup_by_renaming(path, change, r):
        content, mode = change(read(path)), os.stat(path).st_mode & 0o777
        os.rename(path, path + "~")
        put(path, content)
        os.chmod(path, mode)

    @staticmethod
    def _aside(path, aside, change):
        content, mode = change(read(path)), os.stat(path).st_mode & 0o777
        with open(aside, "wb") as file:
            file.write(content)
            os.fchmod(file.fileno(), mode)
            os.fsync(file.fileno())
        os.rename(aside, path)

    @staticmethod
    def aside(path, change, r):
        Save._aside(path, f"{os.path.dirname(path)}/.goutputstream-{r.getrandbits(24):06X}", change)

    @staticmethod
    def office(path, change, r):
        directory, name = os.path.split(path)
        put(f"{directory}/.~lock.{name}#", b",somebody,;")
        Save._aside(path, f"{directory}/lu{r.getrandbits(24):06x}.tmp", change)
        os.unlink(f"{directory}/.~lock.{name}#")

    @staticmethod
    def office_by_two_renames(path, change, r):
        directory, name = os.path.split(path)
        content, mode = change(read(path)), os.stat(path).st_mode & 0o777
        new, old = (f"{directory}/~WR{letter}{r.getrandbits(16):04d}.tmp" for letter in "DL")
        put(f"{directory}/~${name}", b"somebody")
        put(new, content)
        os.chmod(new, mode)
        os.rename(path, old)
        os.rename(new, path)
        os.unlink(old)
        os.unlink(f"{directory}/~${name}")

    @staticmethod
    def sed(path, change, r):
        run("sed", "-i", f"1i edited {r.getrandbits(64):016x}", path)

    @staticmethod
    def vim(path, change, r):
        run("vim", "-es", "-u", "NONE", "-i", "NONE", "-N", "-c", f"normal ggOvim {r.getrandbits(64):016x}", "-c", "wq", path,
            env={"PATH": os.environ["PATH"], "HOME": "/nonexistent", "TERM": "dumb"}, patience=60)

    @staticmethod
    def ed(path, change, r):
        run("ed", "-s", path, data=f"1i\ned {r.getrandbits(64):016x}\n.\nw\nq\n".encode())

    @staticmethod
    def any(r):
        return r.choice([Save.in_place, Save.backup_by_renaming, Save.aside, Save.office, Save.office_by_two_renames,
                         Save.sed, Save.vim, Save.ed])


class Steps:
    """What is done on a desk. `files` and `directories` are what is there, relative to `top`; the same
    step with the same random numbers does the same in every directory that holds the same, and may be
    done once more when it failed half-way."""

    def write(top, r, files, directories):
        put(f"{top}/{r.choice(directories)}/{r.choice('abcdefgh')}{r.getrandbits(20):x}.txt", text(r))

    def save(top, r, files, directories):
        path, how = f"{top}/{r.choice(files)}", Save.any(r)
        addition = text(r, 3)
        how(path, lambda old: addition + old[len(old) // 3:], r)

    def append(top, r, files, directories):
        path, addition = f"{top}/{r.choice(files)}", text(r, 2)
        if not read(path).endswith(addition):
            put(path, addition, "ab")

    def truncate(top, r, files, directories):
        path = f"{top}/{r.choice(files)}"
        os.truncate(path, r.randrange(0, 2000))
        put(path, text(r, 5))

    def overwrite_a_part(top, r, files, directories):
        with open(f"{top}/{r.choice(files)}", "r+b") as file:
            file.seek(r.randrange(0, 3000))
            file.write(text(r, 4))

    def make_directory(top, r, files, directories):
        os.makedirs(f"{top}/{r.choice(directories)}/d{r.getrandbits(16):x}", exist_ok=True)

    def move(top, r, files, directories):
        old, new = r.choice(files), f"{r.choice(directories)}/m{r.getrandbits(20):x}.txt"
        if os.path.exists(f"{top}/{old}"):
            os.rename(f"{top}/{old}", f"{top}/{new}")

    def move_over(top, r, files, directories):
        old, new = r.choice(files), r.choice(files)
        if old != new and os.path.exists(f"{top}/{old}"):
            os.rename(f"{top}/{old}", f"{top}/{new}")

    def move_directory(top, r, files, directories):
        old, into = r.choice(directories), r.choice(directories)
        if old != "." and not f"{into}/".startswith(f"{old}/") and os.path.exists(f"{top}/{old}"):
            os.rename(f"{top}/{old}", f"{top}/{into}/n{r.getrandbits(16):x}")

    def remove(top, r, files, directories):
        run("rm", "-f", f"{top}/{r.choice(files)}")

    def remove_directory(top, r, files, directories):
        directory = r.choice(directories)
        if directory != "." and sum(file.startswith(f"{directory}/") for file in files) < 6:
            run("rm", "-rf", f"{top}/{directory}")

    def copy_and_edit(top, r, files, directories):
        old, new = f"{top}/{r.choice(files)}", f"{top}/{r.choice(directories)}/c{r.getrandbits(20):x}.txt"
        run("cp", "-a", old, new)
        addition = text(r, 3)
        Save.aside(new, lambda content: addition + content, r)

    def change_mode(top, r, files, directories):
        os.chmod(f"{top}/{r.choice(files)}", r.choice([0o644, 0o600, 0o755, 0o640, 0o664]))
        os.chmod(f"{top}/{r.choice(directories)}", r.choice([0o755, 0o700, 0o750]))

    def set_time(top, r, files, directories):
        os.utime(f"{top}/{r.choice(files)}", ns=(10**18, 10**18 + r.getrandbits(58)))

    def link(top, r, files, directories):
        path = f"{top}/link{r.randrange(5)}"
        if os.path.lexists(path):
            os.unlink(path)
        os.symlink(r.choice(files), path)

    def archive_and_put_back(top, r, files, directories):
        source, way = f"{top}/{r.choice(directories)}", r.choice(["tar", "bsdtar", "rsync", "zip"])
        with tempfile.TemporaryDirectory() as place:
            archive = f"{place}/archive"
            if way == "tar":
                run("tar", "-S", "--xattrs", "-cf", archive, "-C", source, ".")
                run("tar", "--xattrs", "-xf", archive, "-C", source)
            elif way == "bsdtar":
                run("bsdtar", "-cf", archive, "-C", source, ".")
                run("bsdtar", "-xf", archive, "-C", source)
            elif way == "rsync":
                run("rsync", "-aX", f"{source}/", f"{archive}/")
                run("rsync", "-aX", "--inplace", "--ignore-times", f"{archive}/", f"{source}/")
            elif os.listdir(source):
                run("zip", "-qry", f"{archive}.zip", ".", cwd=source)
                run("unzip", "-qo", f"{archive}.zip", "-d", source)

    def build(top, r, files, directories):
        project = f"{top}/project"
        os.makedirs(project, exist_ok=True)
        put(f"{project}/part{r.randrange(3)}.c", f"int part_{r.getrandbits(32)}() {{ return {r.getrandbits(20)}; }}\n".encode())
        put(f"{project}/Makefile", b"all: $(patsubst %.c,%.o,$(wildcard *.c))\n\tcat $^ > all.bin\n%.o: %.c\n\tcc -c -o $@ $<\n")
        run("make", "-B", "-s", cwd=project, env={"PATH": os.environ["PATH"]})

    def commit(top, r, files, directories):
        repository = f"{top}/repository"
        date = "2026-01-01T00:00:00Z"
        git = ["git", "-C", repository, "-c", "user.name=N", "-c", "user.email=e@example.org", "-c", "gc.auto=0"]
        environment = {"PATH": os.environ["PATH"], "HOME": "/nonexistent", "GIT_CONFIG_GLOBAL": "/dev/null",
                       "GIT_AUTHOR_DATE": date, "GIT_COMMITTER_DATE": date}
        os.makedirs(repository, exist_ok=True)
        if not os.path.exists(f"{repository}/.git/HEAD"):
            run("git", "init", "-q", "-b", "main", repository, env=environment)
        put(f"{repository}/file{r.randrange(6)}", text(r, 10))
        lock = f"{repository}/.git/index.lock"
        if os.path.exists(lock):  # Of an attempt that failed.
            os.unlink(lock)
        run(*git, "add", "-A", env=environment)
        run(*git, "commit", "-q", "--allow-empty", "-m", f"{r.getrandbits(32)}", env=environment)

    def database(top, r, files, directories):
        rows = ";".join(f"insert or ignore into t values({r.getrandbits(40)},'{text(r, 2).decode()}')" for _ in range(5))
        run("sqlite3", f"{top}/table.db", f"create table if not exists t(k integer primary key,v); begin; {rows}; commit;")


STEPS = [(name, step) for name, step in vars(Steps).items() if not name.startswith("_")]
WEIGHTS = {"write": 6, "save": 12, "append": 3, "make_directory": 2, "build": 1, "commit": 2, "archive_and_put_back": 1}


class Desk:
    def __init__(self, world, name, shadow, seed):
        self.world, self.name, self.seed = world, name, seed
        self.top, self.shadow = f"{world.docs}/desk-{name}", f"{shadow}/desk-{name}"
        self.count, self.failures, self.findings = 0, 0, []
        os.makedirs(self.top)
        os.makedirs(self.shadow)

    def step(self):
        self.count += 1
        seed = f"{self.seed} {self.name} {self.count}"
        r = random.Random(seed)
        items = tree(self.shadow, content=False, everything=True)
        files = sorted(path for path, item in items.items() if item[0] == "file" and not stays_here(os.path.basename(path))
                       and not path.startswith(("repository", "project", "table.db")))
        directories = ["."] + sorted(path for path, item in items.items()
                                     if item[0] == "directory" and not path.startswith(("repository", "project")))
        name, step = r.choices(STEPS, [WEIGHTS.get(name, 2) for name, _ in STEPS])[0]
        if len(files) < 4 or (len(files) > 60 and name in ("write", "copy_and_edit")):
            name, step = ("write", Steps.write) if len(files) < 4 else ("remove", Steps.remove)
        state = r.getrandbits(64)
        what = f"desk-{self.name} step {self.count} ({name})"
        step(self.shadow, random.Random(state), files, directories)
        after = tree(self.shadow, content=False, everything=True)
        with open(f"{self.world.directory}/steps", "a") as log:
            log.write(f"{time.time():.3f} {what}: gone {sorted(set(items) - set(after))}, new {sorted(set(after) - set(items))}\n")
        problem = None

        def attempt():
            nonlocal problem
            try:
                if problem is None:
                    step(self.top, random.Random(state), files, directories)
                else:
                    # A program that was told that it failed has perhaps emptied its document before,
                    # or left a lock: doing the same once more would not be the same.
                    run("rsync", "-a", "--checksum", "--delete", f"{self.shadow}/", f"{self.top}/")
                return True
            except OSError as error:
                problem = error
                self.failures += 1
                with open(f"{self.world.directory}/tried-again", "a") as log:
                    log.write(f"{time.time():.3f} {what}: {error}\n")
                self.world.bring_in(self.top)
                return False
        try:
            # However long the first attempt took, there is a second one.
            attempt() or eventually(attempt, lambda: f"{what} cannot be done: {problem}")
        except TimeIsUp as error:
            self.findings.append(str(error))

    def tidy(self, r):
        files = [path for path, item in tree(self.top, content=False).items() if item[0] == "file"]
        if files:
            self.world.give_back(f"{self.top}/{r.choice(files)}")


class Shared:
    """Documents that all edit. Who edits one has it open meanwhile and has read it, so that what is
    replaced is what was seen."""

    def __init__(self, book):
        self.book, self.locks, self.guard = book, {}, threading.Lock()

    def step(self, world, who, r):
        with self.guard:
            lock = self.locks.setdefault(world.name, threading.Lock())
        with lock:
            directory = f"{world.docs}/shared"
            names = [name for name in sorted(os.listdir(directory)) if not stays_here(name)]
            if len(names) < 5 or (r.random() < 0.1 and len(names) < 25):
                content = text(r)
                path = f"{directory}/s{r.getrandbits(20):x}.txt"
                put(path, content)
                self.book.wrote(content, f"{who} new {os.path.basename(path)}")
                return
            path = f"{directory}/{r.choice(names)}"
            world.bring_in(path)
            try:
                with open(path, "rb") as held:
                    old = read_open(held)
                    self.book.check(old, f"{who} {path}")
                    if os.stat(path).st_ino == os.fstat(held.fileno()).st_ino:
                        self.change(path, old, who, r)
            except OSError:
                pass  # Removed by somebody meanwhile, or not to be had at the moment.

    def change(self, path, old, who, r):
        what, name = r.random(), os.path.basename(path)
        if what < 0.08:
            os.unlink(path)
            self.book.removed(old)
            self.book.leaves(old, who)
        elif what < 0.16:
            self.book.leaves(old, who)
            os.rename(path, f"{os.path.dirname(path)}/r{r.getrandbits(20):x}.txt")
        else:
            how = r.choice([Save.in_place, Save.aside, Save.office, Save.office_by_two_renames, Save.backup_by_renaming])
            new = text(r)
            # Told before: the new content may be read by others as soon as it is there.
            self.book.wrote(new, f"{who} {how.__name__} {name}", over=old)
            try:
                how(path, lambda _: new, r)
            except OSError:
                self.book.failed(new)
                raise

    def colleague(self, origin, aside, r):
        """Somebody who works right at the origin, with none of our programs; looks at what was
        replaced and puts it back under another name when it was not what had been read."""
        directory = f"{origin}/shared"
        names = [name for name in sorted(os.listdir(directory)) if not stays_here(name)]
        new, path = text(r), f"{directory}/{r.choice(names)}" if names else None
        if not path or r.random() < 0.15:
            put(f"{directory}/o{r.getrandbits(20):x}.txt", new)
            self.book.wrote(new, "colleague new")
            return
        try:
            old = read(path)
            self.book.check(old, f"colleague {path}")
            put(aside, new)
            self.book.wrote(new, f"colleague {os.path.basename(path)}")
            rename2(aside, path, RENAME_EXCHANGE)
            if read(aside) == old:
                self.book.removed(old)
                os.unlink(aside)
            else:
                os.rename(aside, f"{directory}/other{r.getrandbits(20):x}.txt")
        except OSError:
            self.book.removed(new)


def at_rest(worlds, patience=4 * people.PATIENCE, confirms=False):
    """Waits until nothing is under way; the trees without content say whether sides still differ.
    Removals of much at once wait for a word, which is given when it `confirms`."""
    def shown(world, origin):
        """A placeholder that nobody guards has no permissions, and gets its document's with the content."""
        items = world.here(content=False)
        if world.mode == "cooperative":
            for path, item in items.items():
                if item[:2] == ("file", 0) and origin.get(path, item)[0::2] == item[0::2]:
                    items[path] = origin.get(path, item)
        return items

    def settled():
        looks = []
        for _ in range(2):
            for world in worlds:
                world.synchronise(*["--confirm-deletions"] * confirms)
            if not all(world.is_idle() for world in worlds):
                return False
            try:
                origin = worlds[0].at_origin(content=False)
                looks.append([origin] + [shown(world, origin) for world in worlds])
            except OSError:
                return False
        return looks[0] == looks[1] and all(look == looks[0][0] for look in looks[0])
    try:
        eventually(settled, "", patience)
        return []
    except TimeIsUp:
        lines = [f"{world.name} does not come to rest" for world in worlds if not world.is_idle()]
        origin = worlds[0].at_origin(content=False)
        for world in worlds:
            lines += differences(shown(world, origin), origin, (world.name, "origin"))
        return lines


def compare(worlds, shadow, desks, book, unanswered=frozenset()):
    """Everything that must hold at rest; what does not, in lines. A document that is `unanswered` may be
    there: a store kept it and said that it did not, and what is done to it afterwards is not done there."""
    findings = list(book.findings)
    for world in worlds:
        if problem := world.bring_in(world.docs):
            findings.append(f"{world.name} cannot bring everything in: {problem}")
    if len(findings) > len(book.findings):
        return findings
    trees = {"origin": worlds[0].at_origin(), **{world.name: world.here() for world in worlds}}
    for world in worlds:
        findings += differences(trees[world.name], trees["origin"], (world.name, "origin"))
    for desk in desks:
        findings += desk.findings
        top, expected = f"desk-{desk.name}/", tree(shadow)
        for side, items in trees.items():
            def own(all_items):
                return {path: item for path, item in all_items.items() if path.startswith(top)
                        and (path in expected or (path, item[-1]) not in unanswered)
                        and "/repository/.git" not in path and not path.endswith("/table.db")}
            findings += differences(own(items), own(desk.world.kept(expected)), (side, "expected"))
        for world in worlds:
            for tops in ((f"{world.docs}/desk-{desk.name}", f"{shadow}/desk-{desk.name}"),):
                findings += same_by_programs(world, *tops)
    present = {item[-1] for items in trees.values() for item in items.values() if item[0] == "file"}
    findings += book.missing(present)
    for path, item in trees["origin"].items():
        if path.startswith("shared/") and item[0] == "file" and item[-1] not in book.written:
            findings.append(f"{path}: a content that nobody wrote: {read(f'{worlds[0].docs}/{path}')[:60]!r}")
    return findings


def same_by_programs(world, top, expected):
    """A repository and a database, as the programs that they belong to see them."""
    findings = []
    questions = {"repository/.git": [["git", "-C", "{}/repository", "fsck", "--full", "--strict"],
                                     ["git", "-C", "{}/repository", "log", "--format=%H"],
                                     ["git", "-C", "{}/repository", "status", "--porcelain"]],
                 "table.db": [["sqlite3", "{}/table.db", "pragma integrity_check; select * from t"]]}
    for name, commands in questions.items():
        if os.path.exists(f"{expected}/{name}"):
            for command in commands:
                here, there = (run(*[part.format(place) for part in command], env=world.environment, check=False)
                               for place in (top, expected))
                if (here.returncode, here.text) != (there.returncode, there.text):
                    findings.append(f"{world.name} {command[0]} {command[-1]}: {here.returncode} {here.problem[:300]} "
                                    f"{here.text[:200]!r}, expected {there.text[:200]!r}")
    return findings


def day(worlds, base, seed, seconds, killer, workers=2, pause=0.2):
    """The findings and what was done. Somebody works right at an origin that is a directory."""
    shadow, book = f"{base}/expected", Book(getattr(killer, "compares", True))
    book.torn = getattr(killer, "torn", book.torn)
    shared, desks, ended = Shared(book), [], threading.Event()
    pool = people.people(len(worlds) * workers + 2)
    origin = worlds[0].origin

    def begin():
        if origin:
            os.makedirs(f"{origin}/shared", exist_ok=True)
        for world in worlds:
            if not origin:
                os.makedirs(f"{world.docs}/shared", exist_ok=True)
            eventually(lambda: os.path.isdir(f"{world.docs}/shared"), "the origin's directory does not appear")
        for world in worlds:
            for number in range(workers):
                desks.append(Desk(world, f"{world.name}{number}", shadow, seed))
    pool.submit(begin).result()

    def person(desk):
        r = random.Random(f"{seed} {desk.name}")
        while not ended.is_set():
            what = r.random()
            if what < 0.7:
                desk.step()
            elif what < 0.9:
                shared.step(desk.world, desk.name, r)
            elif what < 0.95:
                desk.tidy(r)
            ended.wait(r.random() * pause)

    def colleague():
        r = random.Random(f"{seed} colleague")
        while not ended.is_set():
            shared.colleague(origin, f"{shadow}/aside", r)
            ended.wait(r.random() * 2)

    with killer:
        running = [pool.submit(person, desk) for desk in desks] + [pool.submit(colleague)] * bool(origin)
        try:
            ended.wait(seconds)
        finally:
            ended.set()
        problems = []
        for one in running:
            try:
                one.result()
            except Exception as problem:  # noqa: BLE001: told as a finding
                problems.append(f"{type(problem).__name__}: {problem}")

    def end():
        return at_rest(worlds) or compare(worlds, shadow, desks, book, getattr(killer, "unanswered", set()))
    findings = problems + pool.submit(end).result()
    done = f"{sum(desk.count for desk in desks)} steps ({sum(desk.failures for desk in desks)} tried again), " \
           f"{len(book.written)} contents of shared documents ({book.failed_saves} saves failed), killed: {killer.victims}"
    return findings, done
