"""Who does something in these tests: threads that are ordinary users, and waiting for conditions.

The tests run as root where they can, because platformd coordinates every program only then. What
people do is done by threads that gave that up: credentials belong to threads in Linux (the libc
makes them belong to processes, so the system calls are made directly), and programs that a thread
starts inherit its own.
"""
import concurrent.futures
import ctypes
import os
import platform
import subprocess
import sys
import time

libc = ctypes.CDLL(None, use_errno=True)
RENAME_NOREPLACE, RENAME_EXCHANGE = 1, 2
_CALLS = {"x86_64": (116, 119, 117), "aarch64": (159, 149, 147)}
IS_ROOT = os.geteuid() == 0
USER = 23117 if IS_ROOT else os.geteuid()
PATIENCE = float(os.environ.get("DAY_PATIENCE", "60"))
# Not the one of a home directory that a user by number may not look into.
PYTHON = "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable


def become_user():
    """The calling thread is USER from now on, without groups and capabilities."""
    if not IS_ROOT:
        return
    groups, gid, uid = _CALLS[platform.machine()]
    for call in ((groups, 0, None), (gid, USER, USER, USER), (uid, USER, USER, USER)):
        if libc.syscall(*call) != 0:
            raise OSError(ctypes.get_errno(), "cannot become an ordinary user")


def people(count):
    """Threads of ordinary users."""
    return concurrent.futures.ThreadPoolExecutor(count, initializer=become_user)


_root = concurrent.futures.ThreadPoolExecutor(1)
_root.submit(int).result()  # Begun now, by a thread that is root itself.


def as_root(function, *arguments):
    """Carried out by a thread that is still root, for a thread that is not."""
    return _root.submit(function, *arguments).result()


def rename2(old, new, flags):
    if libc.renameat2(-100, os.fsencode(old), -100, os.fsencode(new), flags) != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), old, None, new)


def read_open(file):
    """All of a file that is open, from where it is. Python's own read() says None to EAGAIN, which is
    what a placeholder is that nobody can bring in."""
    return b"".join(iter(lambda: os.read(file if isinstance(file, int) else file.fileno(), 1 << 20), b""))


def read(path):
    with open(path, "rb", buffering=0) as file:
        return read_open(file)


class TimeIsUp(Exception):
    pass


def eventually(condition, what, patience=None):
    """Waits until `condition()` is true and returns what it returned."""
    end = time.monotonic() + (patience or PATIENCE)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise TimeIsUp(what() if callable(what) else what)
        time.sleep(0.05)


def run(*command, cwd=None, env=None, data=None, check=True, patience=180):
    """Runs a program to its end; its output as text where it is text."""
    done = subprocess.run([os.fspath(part) for part in command], cwd=cwd, env=env, input=data,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=patience)
    done.text = done.stdout.decode(errors="surrogateescape")
    done.problem = done.stderr.decode(errors="surrogateescape").strip()
    if check and done.returncode != 0:
        raise OSError(0, f"{' '.join(map(str, command))}: status {done.returncode}: {done.problem[-600:]}")
    return done
