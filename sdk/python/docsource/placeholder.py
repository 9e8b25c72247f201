"""Placeholders: files with the name, size and times of a document, and none of its content.

The form of the mark and the order of the steps are those of docs/provider.md: the mark is durable
before content goes, and content before the mark does, so that a crash at any moment leaves a
placeholder or the whole document. Where nobody keeps readers waiting, a placeholder has no
permissions, and content comes and goes with a file that takes the other one's place.

Files are named by path, or by a descriptor for `state` and `shape_of`. The caller owns them. What
fails raises OSError. One thread at a time for each file.
"""

from __future__ import annotations

import contextlib
import ctypes
import enum
import errno
import fcntl
import os
import re
import signal
import socket
import stat
import struct
import subprocess
import sys
import uuid
from dataclasses import dataclass, replace
from typing import Any, BinaryIO, Callable, Iterator, Union

from . import _conduit

SIDE_NAME = ".docsource-"
"""How the names of files begin that lie beside a document for a moment; after a crash for longer."""

Path = Union[str, "os.PathLike[str]"]

_MARK = "user.docsource.placeholder"
_PIECE = 1 << 20
_NO_REPLACE, _EXCHANGE = 1, 2  # renameat2(2)
_libc = ctypes.CDLL(None, use_errno=True)


class State(enum.Enum):
    PRESENT = "present"
    PLACEHOLDER = "placeholder"
    PROVIDING = "providing"


class Eviction(enum.Enum):
    EVICTED = "evicted"
    NOT_PRESENT = "not present"
    IN_USE = "in use"
    """Some program has it open or mapped."""
    CHANGED = "changed"
    """It is not of the shape that was provided."""


@dataclass(frozen=True)
class Shape:
    """What a placeholder shows of its document: bytes, nanoseconds since 1970, permissions (None:
    as they are; 0644 for a new one)."""

    size: int
    modified: int
    mode: int | None = None


def state(file: int | Path) -> State:
    """Nothing is opened for that, and nothing brought in."""
    with _looking_at(file) as number:
        return _state(number)


def shape_of(file: int | Path) -> Shape:
    """Of a document or placeholder."""
    with _looking_at(file) as number:
        return _shape(number)


def make(path: str, shape: Shape) -> None:
    """A placeholder that appears at once and whole. FileExistsError when something is there."""
    mode = 0o644 if shape.mode is None else shape.mode
    made = os.open(os.path.dirname(path) or ".", os.O_TMPFILE | os.O_RDWR | os.O_CLOEXEC, 0o600)
    try:
        if _is_cooperative():
            _make_hidden(made, shape)
        else:
            _make_sparse(made, shape, True)
            _set_mark(made, "placeholder", None)
            os.fchmod(made, mode)
        os.fsync(made)
        _link(made, path)
    finally:
        os.close(made)


@contextlib.contextmanager
def fill(path: str, shape: Shape | None = None) -> Iterator[BinaryIO]:
    """A file to write the whole content to. Leaving the context makes it the document, durably, of
    that shape (or the placeholder's own); leaving it with an exception leaves a placeholder."""
    with _looking_at(path) as old:
        was = _shape(old)
        shape = was if shape is None else shape
        if shape.mode is None:
            shape = replace(shape, mode=was.mode)
        way = _filled_beside if _is_unguarded(old) else _filled_in_place
        with way(path, old, shape) as content:
            yield content


def evict(path: str, provided: Shape) -> Eviction:
    """Makes a placeholder of a document again, unless something speaks against it. With another size
    or modification time than `provided` it was changed. A process that has the file open itself
    finds it in use."""
    if state(path) is not State.PRESENT:
        return Eviction.NOT_PRESENT
    with _opened(path, os.O_RDONLY) as file:
        now = os.fstat(file)
        shape = Shape(now.st_size, now.st_mtime_ns, _mode(file))
        try:
            lease = _Lease(file)
        except BlockingIOError:
            return Eviction.IN_USE
        with lease:
            if not _is_of(file, provided):
                return Eviction.CHANGED
            if _is_unguarded(file):
                return _evicted_beside(path, file, shape, provided)
            lease.admit_readers()
            _set_mark(file, "placeholder", None)
            os.fsync(file)
            # Has the kernel tell of every access again (fanotify_mark(2), FAN_MARK_IGNORE).
            os.utime(file, ns=(now.st_atime_ns, now.st_mtime_ns))
            if not (_is_alone(file) and _is_of(file, provided)):
                _as_owner("removexattr", file, _MARK)
                return Eviction.IN_USE
        # There is no way back. Whoever gets at the file from now on waits for its content.
        writable = _as_owner("open", file, os.O_RDWR | os.O_CLOEXEC)
        try:
            _make_sparse(writable, shape, True)
        finally:
            os.close(writable)
        return Eviction.EVICTED


def adapt(path: str) -> None:
    """For each placeholder at set-up: has it fit the way of coordination, which may be another one
    than when it was made. (One that is hidden where readers are kept waiting again gets its
    permissions from platformd.)"""
    with _looking_at(path) as old:
        if _state(old) is State.PRESENT or _mode(old) == 0 or not _is_cooperative():
            return
        shape = _shape(old)
        with _beside(path, old) as new:
            _copy_attributes(old, new)
            _make_hidden(new, shape)


# Marks.


def _is_cooperative() -> bool:
    return _conduit.coordination() not in ("access", "open")


def _is_unguarded(file: int) -> bool:
    """Whether nobody would keep readers of the file waiting if it had permissions: platformd gives
    them to a placeholder that has none as soon as it guards it."""
    return _is_cooperative() or _mode(file) == 0


def _mode(file: int) -> int:
    return stat.S_IMODE(os.fstat(file).st_mode)


def _inode_word(file: int) -> str:
    """The inode by its number and time of birth (statx(2)), as a mark names it."""
    found = ctypes.create_string_buffer(256)
    empty_path, dont_sync, inode_and_birth = 0x1000, 0x4000, 0x900
    if _libc.statx(file, b"", empty_path | dont_sync, inode_and_birth, found) != 0:
        raise _last_error()
    (mask,) = struct.unpack_from("=I", found, 0)
    (number,) = struct.unpack_from("=Q", found, 32)
    seconds, nanoseconds = struct.unpack_from("=qI", found, 80)
    return f"inode:{number}" + (f":{seconds}.{nanoseconds:09}" if mask & 0x800 else "")


def _mark(file: int, as_owner: bool = False) -> str | None:
    """The mark where it counts on the file; empty where it may not be read."""
    status = os.fstat(file)
    if not stat.S_ISREG(status.st_mode):
        return None
    try:
        mark = _attribute(file, _MARK, as_owner).decode(errors="replace")
    except PermissionError:
        return "" if stat.S_IMODE(status.st_mode) == 0 else None
    except OSError:
        return None
    named = re.search(r"(?:^| )(inode:\S*)", mark)
    if named is None:
        return mark if status.st_blocks * 512 < status.st_size else None
    own = _inode_word(file)
    return mark if named[1] in (own, own.rpartition(":")[0]) else None


def _state(file: int) -> State:
    mark = _mark(file)
    if mark is None:
        return State.PRESENT
    filler = re.match(r"providing (\d+) (\d+)(?: |$)", mark)
    if filler and _start_of(filler[1]) == filler[2]:
        return State.PROVIDING
    return State.PLACEHOLDER


def _attribute(file: int, name: str, as_owner: bool) -> bytes:
    if not as_owner:
        return os.getxattr(f"/proc/self/fd/{file}", name)
    value: bytes = _as_owner("getxattr", file, name)
    return value


def _mode_in(mark: str | None) -> int | None:
    found = re.search(r"(?:^| )mode:([0-7]{1,4})(?: |$)", mark or "")
    return int(found[1], 8) & 0o777 if found else None  # who writes the document writes its mark


def _set_mark(file: int, what: str, mode: int | None) -> None:
    text = f"{what} {_inode_word(file)}" + (f" mode:{mode:o}" if mode is not None else "")
    _as_owner("setxattr", file, _MARK, text.encode())


def _start_of(process: str) -> str | None:
    """proc_pid_stat(5), field 22; None of a process that is gone or over."""
    try:
        with open(f"/proc/{process}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
    except OSError:
        return None
    return None if fields[0] in "ZX" else fields[19]


def _shape(file: int) -> Shape:
    status = os.fstat(file)
    mark = _mark(file)
    mode = stat.S_IMODE(status.st_mode)
    known = _mode_in(mark) if mark else mode
    return Shape(status.st_size, status.st_mtime_ns, None if mark == "" else known or mode)


def _is_of(file: int, shape: Shape) -> bool:
    status = os.fstat(file)
    return (status.st_size, status.st_mtime_ns) == (shape.size, shape.modified)


# Content.


def _make_sparse(file: int, shape: Shape, has_first_block: bool) -> None:
    """Zeros in the first block, for programs that copy files and skip holes: they wait there."""
    os.ftruncate(file, shape.size)
    status = os.fstat(file)
    first = min(shape.size, status.st_blksize) if has_first_block and shape.size >= 512 else 0
    if status.st_blocks and shape.size > first:
        keep_size, punch_hole = 1, 2
        end = shape.size - first + (1 << 20)
        if _libc.fallocate64(file, keep_size | punch_hole, ctypes.c_int64(first),
                             ctypes.c_int64(end)) != 0:
            raise _last_error()
    os.pwrite(file, bytes(first), 0)
    _set_times(file, shape)


def _make_hidden(new: int, shape: Shape) -> None:
    """Of a file that has no name yet: a placeholder where nobody keeps readers waiting."""
    _make_sparse(new, shape, False)
    _set_mark(new, "placeholder", 0o644 if shape.mode is None else shape.mode)
    os.fchmod(new, 0)


def _set_times(file: int, shape: Shape) -> None:
    os.utime(file, ns=(os.fstat(file).st_atime_ns, shape.modified))


@contextlib.contextmanager
def _filled_in_place(path: str, _: int, shape: Shape) -> Iterator[BinaryIO]:
    with _opened(path, os.O_RDWR) as file:
        was, before = _shape(file), _mode(file)
        is_present = _state(file) is State.PRESENT
        _set_mark(file, f"providing {os.getpid()} {_start_of(str(os.getpid()))}", None)
        if is_present:
            os.fsync(file)
        else:
            _make_sparse(file, was, True)
        try:
            with os.fdopen(os.dup(file), "r+b", buffering=_PIECE) as content:
                yield content
            if _state(file) is State.PRESENT:
                raise OSError(errno.ESTALE, "A program has emptied the document", path)
            os.ftruncate(file, shape.size)
            _set_times(file, shape)
            os.fsync(file)
            _as_owner("removexattr", file, _MARK)
        except BaseException:
            # Without the mark it is what a program has written after it emptied it.
            if _state(file) is not State.PRESENT:
                _make_sparse(file, was, True)
                _set_mark(file, "placeholder", None)
            raise
        # What somebody has given it meanwhile stays. Without any, it was hidden by who guarded it.
        if _mode(file) in (0, before):
            os.fchmod(file, before if shape.mode is None else shape.mode)


@contextlib.contextmanager
def _filled_beside(path: str, old: int, shape: Shape) -> Iterator[BinaryIO]:
    mode, before = shape.mode, _mode(old)

    def settles(new: int) -> bool:
        given = _mode(old)  # to the placeholder until this moment
        # It keeps having no permissions: who was about to open it by its name would read zeros.
        mark = _mark(old)
        if mark == "" and (mark := _mark(old, as_owner=True)) is None:
            return False
        word = _mode_in(mark)
        _copy_attributes(old, new)
        if given not in (0, before):
            os.fchmod(new, given)
        elif mode is None:
            os.fchmod(new, 0o644 if word is None else word)
        return True

    with _beside(path, old, settles) as new:
        with os.fdopen(os.dup(new), "r+b", buffering=_PIECE) as content:
            yield content
        os.ftruncate(new, shape.size)
        os.fchmod(new, 0o600 if mode is None else mode)
        _set_times(new, shape)


def _evicted_beside(path: str, file: int, shape: Shape, provided: Shape) -> Eviction:
    if os.fstat(file).st_nlink > 1:
        return Eviction.IN_USE

    def settles(_: int) -> bool:
        return _is_alone(file) and _is_of(file, provided) and _mode(file) == shape.mode
    try:
        with _beside(path, file, settles) as new:
            _copy_attributes(file, new)
            _make_hidden(new, shape)
    except BlockingIOError:
        return Eviction.IN_USE
    return Eviction.EVICTED


# Files.


@contextlib.contextmanager
def _looking_at(file: int | Path) -> Iterator[int]:
    """A descriptor that is in nobody's way."""
    if isinstance(file, int):
        yield file
        return
    number = os.open(file, os.O_PATH | os.O_NOFOLLOW | os.O_CLOEXEC)
    try:
        yield number
    finally:
        os.close(number)


@contextlib.contextmanager
def _opened(path: str, flags: int) -> Iterator[int]:
    """The file, also where its permissions deny its owner the access."""
    with _looking_at(path) as place:
        file = _as_owner("open", place, flags | os.O_CLOEXEC)
    try:
        yield file
    finally:
        os.close(file)


def _as_owner(call: str, file: int, *arguments: Any) -> Any:
    """os.call(file, arguments), though the permissions of the file may deny it to its owner. Nobody
    sees others meanwhile: a process for that one call has all power over its user's files, in a
    user namespace of its own (user_namespaces(7)). Where there is none to be had, the owner is given
    the permissions for that moment."""
    path = f"/proc/self/fd/{file}"
    try:
        return getattr(os, call)(path, *arguments)
    except PermissionError as problem:
        if problem.errno != errno.EACCES or os.fstat(file).st_uid != os.geteuid():
            raise
    done = _in_namespace(call, file, arguments)
    if done is not None:
        return done
    mode = _mode(file)
    given = mode | 0o600
    os.chmod(path, given)
    try:
        return getattr(os, call)(path, *arguments)
    finally:
        if _mode(file) == given:
            os.chmod(path, mode)


_ONE_CALL = """
import ctypes, os, socket, sys
call, file, arguments = eval(sys.argv[1])
user, group, new_user = os.geteuid(), os.getegid(), 0x10000000
if ctypes.CDLL(None).unshare(new_user) != 0:
    sys.exit(1)
for name, text in ("uid_map", f"{user} {user} 1"), ("setgroups", "deny"), ("gid_map", f"{group} {group} 1"):
    with open("/proc/self/" + name, "w") as settings:
        settings.write(text)
result = getattr(os, call)(f"/proc/self/fd/{file}", *arguments)
is_open = isinstance(result, int)
socket.send_fds(socket.socket(fileno=0), [b"done" + (b"" if is_open else result or b"")], [result] if is_open else [])
"""


def _in_namespace(call: str, file: int, arguments: tuple[Any, ...]) -> int | bytes | None:
    """The descriptor or the bytes that the call returns; None when it was not made. The process
    executes what this one does, and so platformd takes it for this one."""
    if not sys.executable or getattr(sys, "frozen", False):
        return None
    ours, theirs = socket.socketpair()
    with ours:
        with theirs:
            # The user of the file may not be allowed to execute the interpreter.
            with contextlib.suppress(OSError):
                subprocess.run([sys.executable, "-I", "-S", "-c", _ONE_CALL, repr((call, file, arguments))],
                               stdin=theirs.fileno(), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               pass_fds=[file], check=False)
        said = b""
        descriptors: list[int] = []
        while (part := socket.recv_fds(ours, _PIECE, 1))[0]:
            said += part[0]
            descriptors += part[1]
    if not said:
        return None
    return descriptors[0] if descriptors else said.removeprefix(b"done")


class _Lease:
    """The file for oneself, from when nobody else has it open or mapped; BlockingIOError where
    somebody has. Others that want to open it wait."""

    def __init__(self, file: int) -> None:
        self._file = file
        # Instead of SIGIO, which ends a process that does not expect it.
        fcntl.fcntl(file, fcntl.F_SETSIG, signal.SIGURG)
        fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_WRLCK)

    def __enter__(self) -> None:
        pass

    def __exit__(self, *_: object) -> None:
        fcntl.fcntl(self._file, fcntl.F_SETLEASE, fcntl.F_UNLCK)

    def admit_readers(self) -> None:
        """Lets others open the file to read it. The kernel does so too when it tells platformd of
        them, and where it would have to wait, it refuses them instead. With a descriptor that can
        write this is not possible."""
        fcntl.fcntl(self._file, fcntl.F_SETLEASE, fcntl.F_RDLCK)


def _is_alone(file: int) -> bool:
    """Whether nobody came since the lease was taken, not even to wait."""
    try:
        fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_WRLCK)
    except BlockingIOError:
        return False
    return True


@contextlib.contextmanager
def _beside(path: str, old: int, settles: Callable[[int], bool] = lambda _: True) -> Iterator[int]:
    """A new file without a name, which takes the place of the old one, durably, when the context is
    left. `settles` looks at both when they have changed places. Where it says no, or something else
    than the old one was found at the path, that has its place again, with BlockingIOError."""
    directory, name = os.path.split(path)
    place = os.open(directory or ".", os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
    new = -1
    side = SIDE_NAME + str(uuid.uuid4())
    try:
        new = os.open(".", os.O_TMPFILE | os.O_RDWR | os.O_CLOEXEC, 0o600, dir_fd=place)
        yield new
        os.fsync(new)
        _link(new, side, place)
        try:
            _rename(place, side, name, _EXCHANGE)
            if not _is_named(place, side, old) or not settles(new):
                _give_back(place, side, name, new)
                raise BlockingIOError(errno.EAGAIN, os.strerror(errno.EAGAIN), path)
        finally:
            if _is_named(place, side, new) or _is_named(place, side, old):
                os.unlink(side, dir_fd=place)
    finally:
        if new >= 0:
            os.close(new)
        os.close(place)


def _give_back(place: int, side: str, name: str, new: int) -> None:
    """Should a program have replaced the new file in this moment, its file has the path, and the
    other one a name that can be seen."""
    try:
        _rename(place, side, name, _EXCHANGE)
    except FileNotFoundError:
        _rename(place, side, name, _NO_REPLACE)
        return
    if not _is_named(place, side, new):
        _rename(place, side, name, _EXCHANGE)
        _rename(place, side, name + side, _NO_REPLACE)


def _is_named(place: int, name: str, file: int) -> bool:
    try:
        return os.path.samestat(os.stat(name, dir_fd=place, follow_symlinks=False), os.fstat(file))
    except FileNotFoundError:
        return False


def _link(file: int, name: str, place: int | None = None) -> None:
    """Gives a file a name that has none (open(2), O_TMPFILE). With a directory, though the path is
    absolute, Python calls linkat(2), which follows it."""
    root = os.open("/", os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        os.link(f"/proc/self/fd/{file}", name, src_dir_fd=root, dst_dir_fd=place)
    finally:
        os.close(root)


def _rename(place: int, old: str, new: str, flags: int) -> None:
    if _libc.renameat2(place, os.fsencode(old), place, os.fsencode(new), flags) != 0:
        raise _last_error()


def _copy_attributes(old: int, new: int) -> None:
    for name in os.listxattr(f"/proc/self/fd/{old}"):
        if name.startswith("user.") and name != _MARK:
            with contextlib.suppress(OSError):
                os.setxattr(new, name, _as_owner("getxattr", old, name))


def _last_error() -> OSError:
    number = ctypes.get_errno()
    return OSError(number, os.strerror(number))
