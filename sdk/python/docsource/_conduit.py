"""Connections: frames of one CBOR item each over AF_UNIX sockets (docs/protocol.md).

A connection belongs to whoever made it; one thread reads at a time, any thread may send.
"""

from __future__ import annotations

import array
import os
import socket
import struct
import threading
import time
from typing import Any

import cbor2

from ._errors import Error

CALL, REPLY, FAILURE, BEGIN_REQUEST, END_REQUEST = 1, 2, 3, 4, 5

_ERROR_TAG, _DESCRIPTOR_TAG = 17746, 17988
_LARGEST_FRAME = 16 << 20
_MOST_DESCRIPTORS = 16


class Descriptor:
    """A descriptor that came with a frame; closed with it unless it is taken."""

    def __init__(self, number: int) -> None:
        self._number = number

    def take(self) -> int:
        taken, self._number = self._number, -1
        return taken

    def __del__(self) -> None:
        if self._number >= 0:
            os.close(self._number)


def error_value(error: Error) -> cbor2.CBORTag:
    info = {key: error_value(value) if isinstance(value, Error) else value
            for key, value in error.info.items() if value is not None}
    return cbor2.CBORTag(_ERROR_TAG, [error.domain, error.code, info])


class Connection:
    def __init__(self, connected: socket.socket) -> None:
        self._socket = connected
        self._sending = threading.Lock()
        self._received = bytearray()
        self._descriptors: list[Descriptor] = []

    def close(self) -> None:
        self._socket.close()

    def send(self, message: list[Any]) -> None:
        """OSError when the connection is over; ValueError for more than a frame holds."""
        frame = cbor2.dumps(message)
        if len(frame) > _LARGEST_FRAME:
            raise ValueError("The message is larger than a frame")
        with self._sending:
            self._socket.sendall(struct.pack(">I", len(frame)) + frame)

    def receive(self, deadline: float | None = None) -> list[Any] | None:
        """The next message, or None when the other side closed the connection. `deadline` is one
        of time.monotonic(); TimeoutError after it. ValueError for what is malformed."""
        header = self._take(4, deadline)
        if header is None:
            return None
        (length,) = struct.unpack(">I", header)
        if not 0 < length <= _LARGEST_FRAME:
            raise ValueError(f"A frame of {length} bytes")
        frame = self._take(length, deadline)
        if frame is None:
            return None
        descriptors, self._descriptors = self._descriptors, []

        def value_of(_: cbor2.CBORDecoder, tag: cbor2.CBORTag) -> Any:
            if tag.tag == _DESCRIPTOR_TAG:
                return descriptors[tag.value]
            if tag.tag == _ERROR_TAG:
                domain, code, info = tag.value
                return Error(domain, code, info.get("description", ""), **info)
            return tag

        try:
            message = cbor2.loads(frame, tag_hook=value_of)
        except Exception as problem:
            raise ValueError(f"A malformed frame: {problem}") from problem
        if not isinstance(message, list) or len(message) < 2:
            raise ValueError("A frame that is no message")
        return message

    def _take(self, count: int, deadline: float | None) -> bytes | None:
        while len(self._received) < count:
            if deadline is not None:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError
                self._socket.settimeout(left)
            room = socket.CMSG_SPACE(_MOST_DESCRIPTORS * array.array("i").itemsize)
            part, ancillary, _, _ = self._socket.recvmsg(1 << 16, room, socket.MSG_CMSG_CLOEXEC)
            for level, kind, content in ancillary:
                if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
                    numbers = array.array("i")
                    numbers.frombytes(content[: len(content) - len(content) % numbers.itemsize])
                    self._descriptors += [Descriptor(number) for number in numbers]
            if not part:
                return None
            self._received += part
        taken = bytes(self._received[:count])
        del self._received[:count]
        return taken


def _runtime_directories(is_machine_too: bool) -> list[str]:
    root = os.environ.get("DOCSOURCE_ROOT")
    machine = os.environ.get("DOCSOURCE_MACHINE")
    if root is not None:
        directories = [os.path.join(root, "run")]
    else:
        own = os.environ.get("XDG_RUNTIME_DIR") or f"/run/user/{os.geteuid()}"
        # The second is all that a sandbox of another program's may show.
        directories = [os.path.join(own, "docsource"), os.path.join(own, "docsource", "sandbox")]
    if is_machine_too and machine is not None:
        directories.append(os.path.join(machine, "run"))
    elif is_machine_too and root is None:
        directories.append("/run/docsource")
    return directories


def coordination() -> str | None:
    """Which coordination runs: "access", "open", "cooperative", or None when none does."""
    for directory in _runtime_directories(True):
        try:
            with open(os.path.join(directory, "coordination"), encoding="ascii") as file:
                return file.read().rstrip("\n")
        except OSError:
            continue
    return None


def connect(service: str, is_machine_too: bool) -> Connection:
    """To a service by its name, in the first place where it is served. Error LIBRARY 2 where it is
    not."""
    problem: OSError | None = None
    for directory in _runtime_directories(is_machine_too):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            # Through a descriptor: a socket address has no room for a long path (unix(7)).
            place = os.open(directory, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
            try:
                connection.connect(f"/proc/self/fd/{place}/{service}")
            finally:
                os.close(place)
            return Connection(connection)
        except OSError as found:
            connection.close()
            problem = found
    assert problem is not None
    raise Error(Error.LIBRARY, 2, f"The service {service} cannot be reached.",
                underlyingError=Error.posix(problem.errno or 0)) from problem
