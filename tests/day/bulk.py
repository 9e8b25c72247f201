"""Repositories from two machines, load generators that verify, a database, and figures."""
import os
import random
import time
from concurrent.futures import ThreadPoolExecutor

from book import differences, tree
from people import as_root, eventually, run
from semantics import content
from work import at_rest, put, text
from world import own_memory, processor_time


def repositories(worlds, base, seed, count=5, commits=50, turn=5):
    """Each machine's work trees in turn; then every repository is whole everywhere, with all that was committed."""
    r, findings, made, begun = random.Random(seed), [], {}, time.monotonic()
    took = {"working": 0.0, "until both machines agree": 0.0}
    environment = {**worlds[0].environment, "GIT_AUTHOR_NAME": "N", "GIT_COMMITTER_NAME": "N",
                   "GIT_AUTHOR_EMAIL": "e@example.org", "GIT_COMMITTER_EMAIL": "e@example.org"}

    def git(world, number, *arguments, check=True):
        return run("git", "-C", f"{world.docs}/repository{number}", *arguments, env=environment, check=check)

    def lap(name):
        nonlocal begun
        took[name] += time.monotonic() - begun
        begun = time.monotonic()
    for done in range(0, commits, turn):
        world = worlds[done // turn % len(worlds)]
        for number in range(count):
            top = f"{world.docs}/repository{number}"
            if done == 0:
                run("git", "init", "-q", "-b", "main", top, env=environment)
            problem = world.bring_in(top)
            if problem:
                findings.append(f"{top} cannot be brought in: {problem}")
            status = git(world, number, "status", "--porcelain", check=False)
            if status.returncode or status.text:
                findings.append(f"{world.name} repository{number} after {done} commits: {status.text[:300]} {status.problem[:300]}")
            for _ in range(turn):
                name = f"{top}/{r.choice('abcd')}/f{r.randrange(20)}"
                os.makedirs(os.path.dirname(name), exist_ok=True)
                put(name, text(r, 20))
                git(world, number, "add", "-A")
                git(world, number, "commit", "-q", "-m", "commit")
                made.setdefault(number, []).append(git(world, number, "rev-parse", "HEAD").text.strip())
                if r.random() < 0.1:
                    git(world, number, "gc", "-q")
                if r.random() < 0.2:
                    git(world, number, "checkout", "-q", "-b", f"branch{len(made[number])}")
        lap("working")
        restless = at_rest(worlds)
        lap("until both machines agree")
        if restless:
            return findings + restless, ""
    environment["GIT_OPTIONAL_LOCKS"] = "0"  # Both look at the same time, and neither is to write meanwhile.
    for world in worlds:
        world.bring_in(world.docs)
        for number in range(count):
            fsck, log = git(world, number, "fsck", "--full", "--strict", check=False), git(world, number, "log", "--format=%H", check=False)
            if fsck.returncode or fsck.problem.replace("notice: HEAD points to an unborn branch", ""):
                findings.append(f"{world.name} repository{number}: {fsck.text} {fsck.problem}")
            if log.text.split() != made[number][::-1]:
                findings.append(f"{world.name} repository{number} has {len(log.text.split())} commits, or others than were made: {log.problem}")
            if git(world, number, "status", "--porcelain").text:
                findings.append(f"{world.name} repository{number} is not clean")
    findings += differences(tree(worlds[0].docs), tree(worlds[1].docs), [world.name for world in worlds])
    return findings, f"{sum(map(len, made.values()))} commits, " + ", ".join(f"{value:.0f} s {name}" for name, value in took.items())


# Those of stress-ng's class of file systems, less what is about the system (mounts, devices, system
# directories), and those of other classes that work on files.
NOT_FILES = {"bind-mount", "binderfs", "chattr", "dnotify", "dup", "eventfd", "fanotify", "inotify", "ioprio", "procfs", "verity"}
ALSO_FILES = {"aio", "mmap", "msync", "readahead", "revio", "seek", "sendfile", "splice", "truncate", "unlink"}


def stressors():
    listed = run("stress-ng", "--class", "filesystem?", check=False)
    return sorted(set((listed.text + listed.problem).split(":", 1)[1].split()) - NOT_FILES | ALSO_FILES)


def generators(worlds, base, seed, seconds=2):
    """Load generators that check what they read, and a database under several writers. What fails in
    a plain directory of the same file system too is no finding."""
    world, findings, passed, failing = worlds[0], [], [], []
    alive = {(one.name, which): one.process(which) for one in worlds for which in ("holder", "worker", "docsourced", "account")}
    plain = f"{world.home}/plain"
    os.makedirs(plain)

    def compared(name, *command):
        """In the tree and, when it fails, in a plain directory. `{}` stands for the directory."""
        def tried(directory):
            os.makedirs(directory, exist_ok=True)
            return run(*[part.format(directory) for part in command], check=False, patience=300)
        done = tried(f"{world.docs}/load")
        if done.returncode == 0:
            passed.append(name)
        elif tried(plain).returncode != 0:
            failing.append(name)
        else:
            findings.append(f"{name}: {done.returncode} {done.problem[-300:]} {done.text[-300:]}")

    fio = ["fio", "--directory={}", "--verify=crc32c", "--verify_fatal=1", "--size=8m", "--minimal", f"--randseed={seed}", "--allow_file_create=1"]
    jobs = {"sequential": ["--rw=write", "--bs=64k"], "random": ["--rw=randwrite", "--bs=4k", "--fsync=64"],
            "mapped": ["--rw=randwrite", "--bs=4k", "--ioengine=mmap"], "sparse": ["--rw=randwrite", "--bs=4k", "--io_size=1m", "--fallocate=none"],
            "asynchronous": ["--rw=randwrite", "--bs=4k", "--ioengine=libaio", "--iodepth=8"],
            "several": ["--rw=randrw", "--bs=16k", "--numjobs=4", "--nrfiles=4", "--fdatasync=16"]}
    for name, options in jobs.items():
        compared(f"fio {name}", *fio, f"--name={name}", *options)
    findings += at_rest(worlds)
    # The same data once more, brought in from the origin, and by the other machine.
    for name in ("sequential", "random", "mapped", "asynchronous"):
        for one in worlds:
            one.give_back(f"{one.docs}/load")
            one.bring_in(f"{one.docs}/load")
            done = run(*[part.format(f"{one.docs}/load") for part in fio], f"--name={name}", *jobs[name], "--verify_only", check=False)
            if done.returncode:
                findings.append(f"fio {name}, brought in by {one.name}: {done.problem[-300:]}")
    findings += at_rest(worlds)
    for stressor in stressors():
        compared(f"stress-ng {stressor}", "stress-ng", f"--{stressor}", "2", "--timeout", str(seconds), "--verify",
                 "--temp-path", "{}", "--hdd-bytes", "8m", *(["--mmap-file", "--mmap-bytes", "8m"] if stressor == "mmap" else []), "--quiet")
    findings += at_rest(worlds, confirms=True)  # They remove thousands of items at once.
    database = f"{world.docs}/table.db"
    run("sqlite3", database, "pragma journal_mode=wal; create table t(k,v)")
    with ThreadPoolExecutor(3) as writers:
        list(writers.map(lambda writer: [run("sqlite3", "-cmd", ".timeout 20000", database, f"insert into t values({writer},{number})")
                                         for number in range(60)], range(3)))
    run("sqlite3", database, "pragma journal_mode=delete")
    findings += at_rest(worlds)
    for one in worlds:
        one.bring_in(f"{one.docs}/table.db")
        said = run("sqlite3", f"{one.docs}/table.db", "pragma integrity_check; select count(*) from t").text.split()
        if said != ["ok", "180"]:
            findings.append(f"{one.name}: the database says {said}")
    world.bring_in(world.docs)
    findings += differences(tree(world.docs), tree(world.origin), (world.name, "origin"))
    for one in worlds:
        findings += [f"{which} of {name} is another process than before" for (name, which), process in alive.items()
                     if name == one.name and one.process(which) != process]
    return findings, f"{len(passed)} loads; not to be had in a plain directory either: {', '.join(failing) or 'none'}"


PROCESSES = ("account", "docsourced", "holder", "worker")
FIGURES = ("Items", "All are shown", "Listing", "Sync without changes", "Start, until all is known", "Processor time of the start",
           *(f"Own memory: {which}" for which in PROCESSES))


def figures(world, count):
    """What an account of so many items takes, in the order of FIGURES. The origin is filled before the account is added."""
    patience = 900

    def timed(work):
        begun = time.monotonic()
        work()
        return f"{time.monotonic() - begun:.2f} s"

    def ready():
        world.start(patience)
        eventually(lambda: world.accounts().get("items", 0) > count and world.is_idle(), lambda: f"not ready: {world.accounts()}", patience)

    def of_all(measure):
        return [as_root(measure, world.process(which)) for which in PROCESSES]
    def synchronise():
        world.tool("sync", world.account, patience=patience)
    row = [f"{count:,}", timed(lambda: (ready(), synchronise())), timed(lambda: run("find", world.docs + "/", "-printf", "%s\\n")), timed(synchronise)]
    if len(tree(world.docs, content=False)) <= count:
        raise RuntimeError(f"{len(tree(world.docs, content=False))} of {count} are shown")
    world.stop()
    row += [timed(ready), f"{sum(of_all(processor_time)):.2f} s"]
    synchronise()
    return row + [f"{own / 1024:.1f} MiB" for own in of_all(own_memory)]


def fill(origin, count):
    for number in range(count):
        if number % 100 == 0:
            os.makedirs(f"{origin}/d{number // 10000}/d{number // 100}", exist_ok=True)
        put(f"{origin}/d{number // 10000}/d{number // 100}/f{number}.txt", content(str(number), 200))
