"""A provider's side of the broker."""

from __future__ import annotations

import errno
import os
import plistlib
import signal
import socket
import sys
import traceback
from concurrent.futures import ThreadPoolExecutor
from typing import Any, Callable

import cbor2

from . import _conduit, _urls
from ._errors import Error


class Provider:
    """A provider extension: derive from this class, implement the seven operations, and let the
    program of the bundle end with `run()`.

    Documents are named by absolute path and lie below `storage`, a directory that is the provider's
    to make. Any path and identifier may be asked about, so each operation checks its own. What an
    operation raises is its answer: Error as it is, OSError as an error of the file that it names,
    and anything else as an error, with its traceback in the broker's log. The process may be killed
    in the middle of an operation (docs/provider.md).
    """

    def __init__(self) -> None:
        self.identifier = os.environ.get("QX_EXTENSION_IDENTIFIER", "")
        """That of the bundle; empty where the broker did not start the program."""
        self.storage = os.environ.get("QX_DOCUMENT_STORAGE", "")
        """Without a slash at its end; empty where the provider has none. It may not exist yet."""

    def info(self, key: str) -> Any:
        """What Info.plist holds in its QXExtension dictionary or else at the top level, or None."""
        with open("Info.plist", "rb") as file:
            plist = plistlib.load(file)
        return plist.get("QXExtension", {}).get(key, plist.get(key))

    def perform_initial_setup(self) -> None:
        """Makes the storage, and what should be visible in it. Comes at each start of the broker."""
        raise NotImplementedError

    def provide_placeholder(self, path: str) -> None:
        """Has something of the name, size and dates of the item there; fine when it is already."""
        raise NotImplementedError

    def start_providing(self, path: str) -> None:
        """Has the whole content there; fine when it is already."""
        raise NotImplementedError

    def item_changed(self, path: str) -> None:
        """Takes over what somebody else changed."""
        raise NotImplementedError

    def stop_providing(self, path: str) -> None:
        """The space may be given back."""
        raise NotImplementedError

    def identifier_for_item(self, path: str) -> str:
        """The same as long as the item exists, whatever it is called."""
        raise NotImplementedError

    def path_for_item(self, identifier: str) -> str:
        """Error.no_such_item where there is none."""
        raise NotImplementedError

    def run(self, concurrency: int = 1) -> int:
        """Serves the broker until it closes the connection or the process gets SIGTERM; operations
        that have begun are waited for. At most `concurrency` run at a time, each on a thread that is
        not the caller's. Once, on the main thread; the status for sys.exit()."""
        number = os.environ.get("QX_EXTENSION_CONNECTION")
        if number is None:
            print("This program is started by docsourced.", file=sys.stderr)
            return 2
        connection = _conduit.Connection(socket.socket(fileno=int(number)))
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
        workers = ThreadPoolExecutor(concurrency)
        try:
            while message := connection.receive():
                if message[0] == _conduit.CALL and len(message) >= 4:
                    workers.submit(self._answer, connection, *message[1:4])
        except (OSError, ValueError) as problem:
            print(f"The connection to the broker ended: {problem}", file=sys.stderr)
        finally:
            workers.shutdown(cancel_futures=True)
        return 0

    def _answer(self, connection: _conduit.Connection, call: int, operation: str,
                arguments: list[Any]) -> None:
        carry_out = _OPERATIONS.get(operation)
        try:
            if carry_out is None:
                message = _failure(call, 1, f"There is no operation {operation}.")
            else:
                message = [_conduit.REPLY, call, carry_out(self, arguments)]
            connection.send(message)
        except _Mismatch:
            connection.send(_failure(call, 2, f"The arguments of {operation} do not match."))
        except OSError:
            pass  # Nobody is left who wants the answer; run() sees that too.


class _Mismatch(Exception):
    pass


def _failure(call: int, code: int, description: str) -> list[Any]:
    problem = _conduit.error_value(Error(Error.CONDUIT, code, description))
    return [_conduit.FAILURE, call, problem]


def _error_of(problem: Exception) -> Error:
    if isinstance(problem, Error):
        return problem
    if isinstance(problem, OSError):
        number = problem.errno or errno.EIO
        name = problem.filename
        return Error.file(number, name) if isinstance(name, str) else Error.posix(number)
    traceback.print_exception(problem)
    return Error(Error.LIBRARY, 0, f"{type(problem).__name__}: {problem}")


def _outcome(operation: Callable[[], Any]) -> tuple[Any, cbor2.CBORTag | None]:
    """What it returned, and its error."""
    try:
        return operation(), None
    except Exception as problem:
        return None, _conduit.error_value(_error_of(problem))


def _path(arguments: list[Any]) -> str:
    if len(arguments) != 1 or not _urls.is_url(arguments[0]):
        raise _Mismatch
    try:
        return _urls.path_of(arguments[0])
    except ValueError as problem:
        raise _Mismatch from problem


def _set_up(provider: Provider, arguments: list[Any]) -> list[Any]:
    if arguments:
        raise _Mismatch
    return [None, None, _outcome(provider.perform_initial_setup)[1]]


def _provide_placeholder(provider: Provider, arguments: list[Any]) -> list[Any]:
    path = _path(arguments)
    problem = _outcome(lambda: provider.provide_placeholder(path))[1]
    return [None if problem else arguments[0], problem]


def _identifier(provider: Provider, arguments: list[Any]) -> list[Any]:
    path = _path(arguments)
    found, problem = _outcome(lambda: provider.identifier_for_item(path))
    return [problem, found]


def _location(provider: Provider, arguments: list[Any]) -> list[Any]:
    if len(arguments) != 1 or not isinstance(arguments[0], str):
        raise _Mismatch
    found, problem = _outcome(lambda: _urls.url_of(provider.path_for_item(arguments[0])))
    return [problem, found]


def _plain(operation: Callable[[Provider, str], None]) -> Callable[[Provider, list[Any]], list[Any]]:
    def carry_out(provider: Provider, arguments: list[Any]) -> list[Any]:
        path = _path(arguments)
        return [_outcome(lambda: operation(provider, path))[1]]

    return carry_out


_OPERATIONS: dict[str, Callable[[Provider, list[Any]], list[Any]]] = {
    "_performInitialSetupWithCompletion:": _set_up,
    "_providePlaceholderAtURL:completion:": _provide_placeholder,
    "_startProvidingItemAtURL:completion:": _plain(lambda it, path: it.start_providing(path)),
    "_itemChangedAtURL:completion:": _plain(lambda it, path: it.item_changed(path)),
    "_stopProvidingItemAtURL:completion:": _plain(lambda it, path: it.stop_providing(path)),
    "_identifierForItemAtURL:completion:": _identifier,
    "_URLForItemIdentifier:completion:": _location,
}
