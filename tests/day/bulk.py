"""Repositories from two machines, load generators that verify, a database, and figures."""
import os
import random
import time
from concurrent.futures import ThreadPoolExecutor

from book import differences, tree
from people import as_root, eventually, run
from semantics import content
from work import at_rest, put, text
from world import children, resident


def repositories(worlds, base, seed, count=5, commits=50, turn=5):
    """Each machine's work trees in turn; then every repository is whole everywhere."""
    r, findings = random.Random(seed), []
    environment = {**worlds[0].environment, "GIT_OPTIONAL_LOCKS": "0", "GIT_AUTHOR_NAME": "N", "GIT_COMMITTER_NAME": "N",
                   "GIT_AUTHOR_EMAIL": "e@example.org", "GIT_COMMITTER_EMAIL": "e@example.org"}

    def git(world, number, *arguments, check=True):
        return run("git", "-C", f"{world.docs}/repository{number}", *arguments, env=environment, check=check)
    for done in range(0, commits, turn):
        world = worlds[done // turn % len(worlds)]
        for number in range(count):
            top = f"{world.docs}/repository{number}"
            if done == 0:
                run("git", "init", "-q", "-b", "main", top, env=environment)
            world.bring_in(top)
            status = git(world, number, "status", "--porcelain", check=False)
            if status.returncode or status.text:
                findings.append(f"{world.name} repository{number} after {done} commits: {status.text[:300]} {status.problem[:300]}")
            for step in range(turn):
                name = f"{top}/{r.choice('abcd')}/f{r.randrange(20)}"
                os.makedirs(os.path.dirname(name), exist_ok=True)
                put(name, text(r, 20))
                git(world, number, "add", "-A")
                git(world, number, "commit", "-q", "-m", f"commit {done + step}")
                if r.random() < 0.1:
                    git(world, number, "gc", "-q")
                if r.random() < 0.2:
                    git(world, number, "checkout", "-q", "-b", f"branch{done + step}")
        restless = at_rest(worlds)
        if restless:
            return findings + restless
    for world in worlds:
        world.bring_in(world.docs)
        for number in range(count):
            fsck, log = git(world, number, "fsck", "--full", "--strict", check=False), git(world, number, "rev-list", "--count", "HEAD")
            if fsck.returncode or fsck.problem.replace("notice: HEAD points to an unborn branch", ""):
                findings.append(f"{world.name} repository{number}: {fsck.text} {fsck.problem}")
            if log.text.strip() != str(commits):
                findings.append(f"{world.name} repository{number} has {log.text.strip()} commits")
            if git(world, number, "status", "--porcelain").text:
                findings.append(f"{world.name} repository{number} is not clean")
    findings += differences(tree(worlds[0].docs), tree(worlds[1].docs), [world.name for world in worlds])
    return findings


STRESSORS = ["access", "chmod", "copy-file", "dentry", "dir", "dirdeep", "dup", "fallocate", "fcntl", "fiemap", "file-ioctl", "filename",
             "flock", "fpunch", "fstat", "getdent", "hdd", "io", "lease", "link", "locka", "lockf", "lockofd", "mknod", "mmap", "msync",
             "open", "readahead", "rename", "seek", "sendfile", "splice", "symlink", "sync-file", "touch", "truncate", "unlink", "utime", "xattr"]


def generators(worlds, base, seed, seconds=3):
    """Load generators that check what they read, and a database under two writers."""
    world, findings = worlds[0], []
    top = f"{world.docs}/load"
    os.makedirs(top)
    common = ["fio", f"--directory={top}", "--verify=crc32c", "--verify_fatal=1", "--size=8m", "--minimal", f"--randseed={seed}",
              "--fallocate=none", "--allow_file_create=1"]
    jobs = {"sequential": ["--rw=write", "--bs=64k"], "random": ["--rw=randwrite", "--bs=4k"],
            "mapped": ["--rw=randwrite", "--bs=4k", "--ioengine=mmap"], "sparse": ["--rw=randwrite", "--bs=4k", "--io_size=1m"],
            "several": ["--rw=randrw", "--bs=16k", "--numjobs=3", "--nrfiles=4"]}
    for name, options in jobs.items():
        done = run(*common, f"--name={name}", *options, check=False)
        if done.returncode:
            findings.append(f"fio {name}: {done.problem[-300:]}")
    findings += at_rest(worlds)
    # The same data once more, brought in from the origin.
    for name in ("sequential", "random", "mapped"):
        world.give_back(top)
        world.bring_in(top)
        done = run(*common, f"--name={name}", *jobs[name], "--verify_only", check=False)
        if done.returncode:
            findings.append(f"fio {name}, brought in again: {done.problem[-300:]}")
    stress = f"{world.docs}/stress"
    os.makedirs(stress)
    for stressor in STRESSORS:
        done = run("stress-ng", f"--{stressor}", "2", "--timeout", str(seconds), "--verify", "--temp-path", stress,
                   "--hdd-bytes", "8m", "--quiet", check=False, patience=120)
        if done.returncode not in (0, 4):  # 4: not to be had here.
            findings.append(f"stress-ng {stressor}: {done.returncode} {done.problem[-300:]} {done.text[-300:]}")
    findings += at_rest(worlds)
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
    return findings


def figures(world, count):
    """One line: what an account of so many items takes. The origin is filled before the account is added."""
    figure, begun = {}, time.monotonic()

    def lap(name):
        nonlocal begun
        figure[name] = f"{time.monotonic() - begun:.2f} s"
        begun = time.monotonic()

    def memory(when):
        parts = {"account": world.process("account"), "docsourced": world.process("docsourced"),
                 "holder": world.process("holder"), "worker": world.process("worker")}
        figure[f"memory {when}"] = ", ".join(f"{name} {as_root(resident, process) / 1024:.0f} MB" for name, process in parts.items() if process)
    world.start()
    eventually(lambda: len(tree(world.docs, content=False)) >= count, lambda: f"{len(tree(world.docs, content=False))} of {count}", 900)
    lap("until all are shown")
    eventually(world.is_idle, "not idle", 600)
    lap("until idle")
    run("find", world.docs + "/", "-printf", "%s\\n")
    lap("listing")
    memory("afterwards")
    world.synchronise()
    lap("sync without changes")
    world.stop()
    begun = time.monotonic()
    world.start()
    lap("start")
    world.synchronise()
    lap("first sync")
    memory("after a start")
    return ", ".join(f"{name} {value}" for name, value in figure.items())


def fill(origin, count):
    for number in range(count):
        if number % 100 == 0:
            os.makedirs(f"{origin}/d{number // 10000}/d{number // 100}", exist_ok=True)
        put(f"{origin}/d{number // 10000}/d{number // 100}/f{number}.txt", content(str(number), 200))
