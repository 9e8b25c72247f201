"""File URLs, as they travel: `file://` and the absolute path, percent-encoded byte by byte."""

from __future__ import annotations

import os
import urllib.parse

import cbor2

_TAG = 32


def url_of(path: str | os.PathLike[str]) -> cbor2.CBORTag:
    absolute = os.path.abspath(os.fspath(path))
    return cbor2.CBORTag(_TAG, "file://" + urllib.parse.quote_from_bytes(os.fsencode(absolute)))


def is_url(value: object) -> bool:
    return isinstance(value, cbor2.CBORTag) and value.tag == _TAG


def path_of(url: cbor2.CBORTag) -> str:
    """Without a slash at its end. ValueError for what is no absolute path of this machine."""
    parts = urllib.parse.urlsplit(url.value)
    if parts.scheme != "file" or parts.netloc not in ("", "localhost") or parts.path[:1] != "/":
        raise ValueError(f"{url.value} is no file of this machine")
    return os.fsdecode(urllib.parse.unquote_to_bytes(parts.path)).rstrip("/") or "/"
