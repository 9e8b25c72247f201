"""The Python package with the daemons: the provider of docs/provider.md, and a client that belongs to
a bundle, all of an ordinary user's, where the kernel keeps readers waiting and where nobody does.

usage: package_test.py PROGRAMS TREE
"""
import errno
import os
import plistlib
import re
import select
import shutil
import subprocess
import sys
import tempfile
import threading
import time

PROVIDER, CLIENT, GROUP = "org.example.notes", "org.example.client", "group.org.example.notes"
TEXT = b"A note.\n" * 4096
USER = 34567


def eventually(condition, what):
    deadline = time.monotonic() + 30
    while not condition():
        assert time.monotonic() < deadline, what
        select.select([], [], [], 0.005)


def fails(operation, domain, code):
    import docsource
    try:
        operation()
    except docsource.Error as problem:
        assert (problem.domain, problem.code) == (domain, code), problem
        return problem
    raise AssertionError("it did not fail")


def client(mode, storage, origin):
    """What runs as the program of a bundle."""
    import docsource
    from docsource import Error, placeholder
    broker = docsource.Client()
    note, other, empty = (os.path.join(storage, name) for name in ("n\u00f6te.txt", "other.txt", "empty"))
    eventually(lambda: PROVIDER in [each.identifier for each in broker.providers()], "no provider")
    eventually(lambda: os.path.exists(other) and os.path.exists(note) and os.path.exists(empty), "no documents")
    assert docsource.ProviderInfo(PROVIDER, storage) in broker.providers()
    is_of = lambda path, state: placeholder.state(path) is placeholder.State(state)
    assert is_of(note, "placeholder") and os.stat(note).st_size == len(TEXT)

    # A program that asks, and one that does not.
    eventually(lambda: registered(broker, note), "not coordinated")
    with broker.open(note) as file:
        assert file.read() == TEXT and is_of(note, "present")
        assert os.fstat(file.fileno()).st_mtime_ns == os.stat(f"{origin}/n\u00f6te.txt").st_mtime_ns
        broker.stop_providing(note, PROVIDER, CLIENT)
        assert is_of(note, "present"), "its space was taken while it is open"
    # Whoever watches over it may look at it for a moment longer, and who looks is in the way.
    eventually(lambda: broker.stop_providing(note, PROVIDER, CLIENT) or is_of(note, "placeholder"),
               "its space was not given back")
    assert os.stat(note).st_blocks * 512 <= 8192
    reader = subprocess.run(["cat", note], capture_output=True)
    if mode == "cooperative":
        assert reader.returncode != 0 and reader.stdout == b"", "zeros"
    else:
        assert reader.stdout == TEXT
        eventually(lambda: is_of(note, "present"), "nobody has said that all of it is here")
        # Others open a document to read it, without waiting, while its mark gets to the disk.
        mine, read, sync = storage + ".mine", [], os.fsync
        shutil.copyfile(note, mine)

        def read_and_sync(file):
            read.append(subprocess.run(["dd", f"if={mine}", "iflag=nonblock", "count=0", "status=none"]).returncode)
            sync(file)
        os.fsync = read_and_sync
        assert placeholder.evict(mine, placeholder.shape_of(mine)) is placeholder.Eviction.EVICTED
        os.fsync = sync
        assert is_of(mine, "placeholder") and read == [0], read

    # Nobody sees that a document is made writable, in order to be filled and emptied.
    fixed, seen, over = os.path.join(storage, "fixed.txt"), set(), threading.Event()

    def watch():
        while not over.is_set():
            seen.add(os.stat(fixed).st_mode & 0o777)
    watcher = threading.Thread(target=watch)
    watcher.start()
    try:
        broker.extend_sandbox(fixed, PROVIDER, CLIENT)
        for _ in range(3):
            broker.start_providing(fixed, PROVIDER, CLIENT)
            assert open(fixed, "rb").read() == TEXT and is_of(fixed, "present")
            eventually(lambda: broker.stop_providing(fixed, PROVIDER, CLIENT) or is_of(fixed, "placeholder"),
                       "a read-only document was not given back")
    finally:
        over.set()
        watcher.join()
    assert seen == ({0o444, 0} if mode == "cooperative" else {0o444}), [oct(each) for each in seen]
    broker.revoke("fixed.txt", PROVIDER, CLIENT)

    # Grants, bookmarks and tokens, until they are taken back.
    bookmark = broker.bookmarkable_string(note)
    fails(lambda: broker.resolve_bookmark(bookmark), Error.BROKER, 3)
    assert broker.extend_sandbox(note, PROVIDER, CLIENT).sibling == os.path.join(storage, ".n\u00f6te.txt")
    assert [(each.item, each.consumer, each.path) for each in broker.grants()] == [("n\u00f6te.txt", CLIENT, note)]
    broker.start_providing(note, PROVIDER, CLIENT)
    resolved = broker.resolve_bookmark(bookmark)
    assert resolved.path == note
    with broker.redeem(resolved.extension.token) as file:
        assert file.read() == TEXT
        file.write(b"One more.\n")
    broker.finished_writing(note)
    arrived = lambda: open(f"{origin}/n\u00f6te.txt", "rb").read() == TEXT + b"One more.\n"
    eventually(arrived, "the change did not arrive")
    broker.revoke("n\u00f6te.txt", PROVIDER, CLIENT)
    assert broker.grants() == []
    fails(lambda: broker.resolve_bookmark(bookmark), Error.BROKER, 3)
    fails(lambda: broker.redeem(resolved.extension.token), Error.POSIX, errno.EBADMSG)

    # What is changed here stays until it is there; what cannot be brought in stays a placeholder.
    with open(note, "r+b") as file:
        file.write(b"Mine")
    os.rename(f"{origin}/other.txt", f"{origin}/away")
    broker.stop_providing(note, PROVIDER, CLIENT)
    arrived = lambda: open(f"{origin}/n\u00f6te.txt", "rb").read(4) == b"Mine"
    assert is_of(note, "present") or arrived()
    broker.extend_sandbox(other, PROVIDER, CLIENT)
    problem = fails(lambda: broker.start_providing(other, PROVIDER, CLIENT), Error.BROKER, 8)
    assert problem.underlying.code == 260 and is_of(other, "placeholder")
    os.truncate(f"{origin}/away", 0)
    fails(lambda: broker.extend_sandbox(storage + "/nothing", PROVIDER, CLIENT), Error.BROKER, 8)
    short = docsource.Client(timeout=0)
    assert fails(short.wake_up, Error.LIBRARY, 1).is_timeout
    with broker.open(empty) as file:
        assert file.read() == b""


def registered(broker, path):
    """Whether its directory is coordinated already: only then a read has the content brought in."""
    from docsource import placeholder
    broker.coordinate_reading(path)
    return placeholder.state(path) is placeholder.State.PRESENT


def run(programs, tree, mode):
    with tempfile.TemporaryDirectory(prefix="docsource-python-") as place:
        root, origin = place + "/root", place + "/origin"
        storage = f"{root}/Containers/Group/{GROUP}/Doc Source Storage"
        for made in (root, origin):
            os.makedirs(made)
        for name, text in (("n\u00f6te.txt", TEXT), ("other.txt", TEXT), ("fixed.txt", TEXT), ("empty", b"")):
            with open(f"{origin}/{name}", "wb") as file:
                file.write(text)
        os.chmod(f"{origin}/fixed.txt", 0o444)
        bundle(f"{root}/Extensions/Notes.docext", "notes", {
            "QXBundleIdentifier": PROVIDER, "NotesOrigin": origin,
            "QXExtension": {"QXExtensionPointName": "com.veltro.docsource-nonui",
                            "QXExtensionDocSourceDocumentGroup": GROUP},
        }, {"com.veltro.application-groups": [GROUP]})
        with open(f"{tree}/docs/provider.md", encoding="utf-8") as page:
            (code,) = re.findall(r"```python\n(#!/usr/bin/python3\n.*?)```", page.read(), re.DOTALL)
        with open(f"{root}/Extensions/Notes.docext/notes", "w", encoding="utf-8") as file:
            file.write(code)
        os.chmod(f"{root}/Extensions/Notes.docext/notes", 0o755)
        # A program of its own, for its identity: of a script it is the interpreter.
        bundle(f"{root}/Applications/Client.app", "client", {"QXBundleIdentifier": CLIENT},
               {"com.veltro.docsource.acl-write": True})
        shutil.copy(os.path.realpath("/usr/bin/python3"), f"{root}/Applications/Client.app/client")
        user = dict(user=USER, group=USER, extra_groups=[]) if os.geteuid() == 0 else {}
        if user:
            os.chmod(place, 0o755)
            subprocess.run(["chown", "-R", f"{USER}:{USER}", root, origin], check=True)
        environment = {"PATH": os.environ["PATH"], "DOCSOURCE_ROOT": root, "LANG": "C.UTF-8",
                       "DOCSOURCE_COORDINATION": mode, "PYTHONPATH": f"{tree}/sdk/python",
                       "PYTHONDONTWRITEBYTECODE": "1"}
        log = open(f"{place}/log", "w+")
        daemons = []

        def start(name, place, **who):
            daemons.append(subprocess.Popen([f"{programs}/{name}"], env=environment, stdout=log, stderr=log, **who))
            eventually(lambda: os.path.exists(f"{root}/run/{place}"), f"no {place}")
        try:
            # The places of the daemon of a user are the user's.
            start("docsourced", "notify", **user)
            start("platformd", "com.veltro.DocSource", **(user if mode == "cooperative" else {}))
            subprocess.run([f"{root}/Applications/Client.app/client", __file__, mode, storage, origin],
                           env=environment, check=True, timeout=150, **user)
            print(f"{mode}: good")
        except BaseException:
            log.seek(0)
            sys.stderr.write(log.read())
            raise
        finally:
            for daemon in daemons:
                daemon.terminate()
            assert [daemon.wait(30) for daemon in daemons] == [0, 0]


def bundle(place, program, info, entitlements):
    os.makedirs(place)
    for name, content in (("Info", {"QXBundleExecutable": program, **info}), ("Entitlements", entitlements)):
        with open(f"{place}/{name}.plist", "wb") as file:
            plistlib.dump(content, file)


if __name__ == "__main__":
    if len(sys.argv) == 4:
        client(*sys.argv[1:])
    else:
        try:
            import cbor2  # noqa: F401
        except ImportError:
            sys.exit("skipped: python3-cbor2 is not there")
        for each in ("access", "open", "cooperative") if os.geteuid() == 0 else ("cooperative",):
            run(*sys.argv[1:], each)
