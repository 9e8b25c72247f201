"""A program's side of the broker."""

from __future__ import annotations

import errno
import fcntl
import io
import os
import time
from dataclasses import dataclass
from typing import Any, Union

from . import _conduit, _urls, placeholder
from ._errors import Error

Path = Union[str, "os.PathLike[str]"]

_BROKER = "com.veltro.DocSource"
_GRANTS = "com.veltro.DocSource.Grants"
_SANDBOX = "com.veltro.Sandbox"
_COORDINATION = "com.veltro.FileCoordination"


@dataclass(frozen=True)
class SandboxExtension:
    """Tokens of a document and of its hidden sibling, the file of the same name with a "." in front;
    None where there is no such file. Whoever has a token redeems it, until the machine restarts."""

    token: str | None
    sibling: str | None
    sibling_token: str | None


@dataclass(frozen=True)
class ResolvedBookmark:
    path: str
    extension: SandboxExtension


@dataclass(frozen=True)
class ProviderInfo:
    identifier: str
    storage: str | None
    """The directory with its documents; None for a provider that has none."""


@dataclass(frozen=True)
class Grant:
    provider: str
    item: str
    consumer: str
    path: str | None
    """Where the item is; None where its provider could not tell, or not in time."""


class Client:
    """The operations of the broker. Each waits for its answer, for `timeout` seconds (None: for
    ever), and raises Error when there is none or when it is an error. Nothing is retried.

    A call has a connection of its own, so any thread may call. Who may call what depends on the
    bundle of the program, which is that of its executable: of a script, the interpreter
    (docs/client.md).
    """

    def __init__(self, timeout: float | None = 30) -> None:
        self.timeout = timeout

    def wake_up(self) -> None:
        """Answers once the broker serves calls."""
        self._call(_BROKER, "wakeUpCompletion:")

    def providers(self) -> list[ProviderInfo]:
        """In the order of their identifiers."""
        problem, found = self._call(_BROKER, "providersCompletionHandler:")
        _check(problem)
        return [ProviderInfo(name, _path(found[name].get("documentStorageURL")))
                for name in sorted(found or {})]

    def extend_sandbox(self, path: Path, provider: str, consumer: str) -> SandboxExtension:
        """Records that the consumer may have the document, and gives the tokens for it."""
        problem, *extension = self._call(
            _BROKER, "extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:",
            _urls.url_of(path), provider, consumer)
        _check(problem)
        return _extension(*extension)

    def provide_placeholder(self, path: Path, provider: str, consumer: str) -> None:
        self._item("providePlaceholderFor", path, provider, consumer)

    def start_providing(self, path: Path, provider: str, consumer: str) -> None:
        """Afterwards the content of the document is there."""
        self._item("startProviding", path, provider, consumer)

    def stop_providing(self, path: Path, provider: str, consumer: str) -> None:
        """The consumer needs the document no longer."""
        self._item("stopProviding", path, provider, consumer)

    def extend_bookmark(self, path: Path, consumer: str) -> str:
        """Records that the consumer may have the document, and gives a bookmark for it."""
        bookmark, problem = self._call(
            _BROKER, "extendBookmarkForFileURL:toConsumerID:completionHandler:",
            _urls.url_of(path), consumer)
        _check(problem)
        return str(_present(bookmark))

    def bookmarkable_string(self, path: Path) -> str | None:
        """None for a file that belongs to no provider. Grants nothing."""
        bookmark, problem = self._call(
            _BROKER, "bookmarkableStringFromDocumentURL:completion:", _urls.url_of(path))
        _check(problem)
        return None if bookmark is None else str(bookmark)

    def resolve_bookmark(self, bookmark: str) -> ResolvedBookmark:
        """The broker never answers when the provider is not installed: a timeout ends that."""
        url, token, sibling, sibling_token, problem = self._call(
            _BROKER, "documentURLFromBookmarkableString:completion:", bookmark)
        _check(problem)
        return ResolvedBookmark(_present(_path(url)), _extension(token, sibling, sibling_token))

    def grants(self) -> list[Grant]:
        problem, found = self._call(_GRANTS, "grantsCompletion:")
        _check(problem)
        return [Grant(each["providerIdentifier"], each["itemIdentifier"],
                      each["consumerIdentifier"], _path(each.get("URL"))) for each in found or []]

    def revoke(self, item: str | None, provider: str, consumer: str) -> None:
        """Takes a grant back, with the tokens of the document; without an item, all that the
        consumer has of the provider."""
        (problem,) = self._call(_GRANTS, "revokeItemWithID:ofProviderID:forConsumerID:completion:",
                                item, provider, consumer)
        _check(problem)

    def redeem(self, token: str) -> io.FileIO:
        """The document, open for reading, or for reading and writing where the token grants it."""
        problem, descriptor = self._call(_SANDBOX, "consumeExtension:completion:", token.encode())
        _check(problem)
        number = _present(descriptor).take()
        is_writable = fcntl.fcntl(number, fcntl.F_GETFL) & os.O_ACCMODE == os.O_RDWR
        return io.FileIO(number, "r+b" if is_writable else "rb")

    def coordinate_reading(self, path: Path) -> None:
        """Has the provider bring the content in, where there is one; then the document may be
        read."""
        (problem,) = self._call(_COORDINATION, "coordinateReadingItemAtURL:completion:",
                                _urls.url_of(path))
        _check(problem)

    def open(self, path: Path) -> io.FileIO:
        """coordinate_reading(), then the document open for reading. A document that is a placeholder
        still is an Error over EAGAIN."""
        self.coordinate_reading(path)
        name = os.fspath(path)
        try:
            file = io.FileIO(name, "rb")
        except OSError as problem:
            raise Error.file(problem.errno or errno.EIO, name) from problem
        if placeholder.state(file.fileno()) is not placeholder.State.PRESENT:
            file.close()
            raise Error.file(errno.EAGAIN, name)
        return file

    def finished_writing(self, path: Path) -> None:
        """Tells the provider of the document that it was changed; after the file is closed or in its
        place."""
        (problem,) = self._call(_COORDINATION, "didFinishWritingItemAtURL:completion:",
                                _urls.url_of(path))
        _check(problem)

    def _item(self, what: str, path: Path, provider: str, consumer: str) -> None:
        (problem,) = self._call(
            _BROKER, f"{what}ItemAtURL:fromProviderID:forConsumerID:completionHandler:",
            _urls.url_of(path), provider, consumer)
        _check(problem)

    def _call(self, service: str, operation: str, *arguments: Any) -> list[Any]:
        deadline = None if self.timeout is None else time.monotonic() + self.timeout
        connection = _conduit.connect(service, service in (_SANDBOX, _COORDINATION))
        try:
            connection.send([_conduit.CALL, 1, operation, list(arguments)])
            message = connection.receive(deadline)
        except TimeoutError as problem:
            raise Error(Error.LIBRARY, 1, f"{service} did not answer in time.") from problem
        except OSError:
            message = None
        except ValueError as problem:
            raise Error(Error.CONDUIT, 3, str(problem)) from problem
        finally:
            connection.close()
        if message is None:
            raise Error(Error.CONDUIT, 4, f"The connection to {service} was lost.")
        if message[0] == _conduit.FAILURE and isinstance(message[-1], Error):
            raise message[-1]
        if message[:2] != [_conduit.REPLY, 1] or not isinstance(message[-1], list):
            raise Error(Error.CONDUIT, 3, f"The reply of {service} does not match.")
        return message[-1]


def _check(problem: Error | None) -> None:
    if problem is not None:
        raise problem


def _present(value: Any) -> Any:
    if value is None:
        raise Error(Error.LIBRARY, 3, "The service answered with neither a value nor an error.")
    return value


def _path(url: Any) -> str | None:
    return _urls.path_of(url) if url is not None else None


def _extension(token: bytes | None, sibling: Any, sibling_token: bytes | None) -> SandboxExtension:
    return SandboxExtension(token.decode() if token is not None else None, _path(sibling),
                            sibling_token.decode() if sibling_token is not None else None)
