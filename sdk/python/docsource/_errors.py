"""Errors as the services give them: a domain, a code, and what else is known."""

from __future__ import annotations

import errno
import os
from typing import Any, Mapping

from . import _urls


class Error(Exception):
    """An answer that is an error, or a service that gives none.

    The domains and codes are those of the C++ library (`docsource/error.h`). `info` holds
    "description", one sentence for a person, and what else the domain says.
    """

    BROKER = "DSErrorDomain"
    CONDUIT = "QXConduitErrorDomain"
    FILES = "QXStandardErrorDomain"
    POSIX = "QXPOSIXErrorDomain"
    LIBRARY = "DocSourceLibraryErrorDomain"

    def __init__(self, domain: str, code: int, description: str, /, **info: Any) -> None:
        self.domain = domain
        self.code = code
        self.info: Mapping[str, Any] = {**info, "description": description}
        super().__init__(domain, code, description)

    @property
    def description(self) -> str:
        return str(self.info["description"])

    @property
    def underlying(self) -> Error | None:
        found = self.info.get("underlyingError")
        return found if isinstance(found, Error) else None

    @property
    def is_timeout(self) -> bool:
        """No answer came in time; the operation may still be carried out."""
        return (self.domain, self.code) == (self.LIBRARY, 1)

    @property
    def is_connection_failure(self) -> bool:
        """The service could not be reached, or went away while the call was in flight."""
        return (self.domain, self.code) in ((self.LIBRARY, 2), (self.CONDUIT, 4))

    def __str__(self) -> str:
        text = f"{self.domain} {self.code}: {self.description}"
        return f"{text} ({self.underlying})" if self.underlying else text

    @classmethod
    def no_such_item(cls, identifier: str) -> Error:
        return cls(cls.BROKER, 1, f"There is no item {identifier}.", identifier=identifier)

    @classmethod
    def posix(cls, number: int, description: str | None = None) -> Error:
        return cls(cls.POSIX, number, description or os.strerror(number))

    @classmethod
    def file(cls, number: int, path: str) -> Error:
        """What a system call said of a file."""
        what = {"QXURLErrorKey": _urls.url_of(path)}
        if number == errno.ENOENT:
            return cls(cls.FILES, 260, f"There is no file {path}.", **what)
        return cls(cls.FILES, 256, f"{path} could not be used.",
                   underlyingError=cls.posix(number), **what)
