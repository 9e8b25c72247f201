#!/usr/bin/env python3
"""A client of the document broker that needs nothing but Python's standard library.

    docsource_client.py providers
    docsource_client.py resolve BOOKMARK      the document's URL and the token for it
    docsource_client.py read URL              a coordinated read, to standard output
    docsource_client.py consume TOKEN         redeems a token, the document to standard output

The services are AF_UNIX stream sockets in the runtime directory. Either side sends frames: a
4-byte big-endian length and one CBOR item (RFC 8949), here [1, id, operation, arguments], answered
by [2, id, reply arguments] or [3, id, error].
"""

import array
import os
import socket
import struct
import sys
import urllib.parse

TIMEOUT = 30  # seconds; the broker does not answer at all for a provider that is not installed
URL, UUID, ERROR, DESCRIPTOR = 32, 37, 17746, 17988  # the tags of the conduit


class Tag:
    def __init__(self, number, value):
        self.number, self.value = number, value

    def __repr__(self):
        return self.value if self.number == URL else f"{self.number}({self.value!r})"


class BrokerError(Exception):
    def __init__(self, tag):
        domain, code, info = tag.value
        text = f"{domain} {code}: {info.get('description')}"
        if "underlyingError" in info:
            text += f" ({BrokerError(info['underlyingError'])})"
        super().__init__(text)


def encode(item):
    def head(major, number):
        for bits, form, limit in ((24, ">B", 8), (25, ">H", 16), (26, ">I", 32), (27, ">Q", 64)):
            if number < 24:
                return bytes([major << 5 | number])
            if number < 1 << limit:
                return bytes([major << 5 | bits]) + struct.pack(form, number)

    if item is None or isinstance(item, bool):
        return {None: b"\xf6", False: b"\xf4", True: b"\xf5"}[item]
    if isinstance(item, int):
        return head(0, item) if item >= 0 else head(1, -1 - item)
    if isinstance(item, bytes):
        return head(2, len(item)) + item
    if isinstance(item, str):
        return head(3, len(item.encode())) + item.encode()
    if isinstance(item, list):
        return head(4, len(item)) + b"".join(map(encode, item))
    if isinstance(item, Tag):
        return head(6, item.number) + encode(item.value)
    raise TypeError(item)


def decode(data, at=0):
    """The item at `at`, and where the next one begins."""
    major, info = data[at] >> 5, data[at] & 31
    at += 1
    if major == 7:
        if info in (20, 21, 22):
            return {20: False, 21: True, 22: None}[info], at
        form, size = {25: (">e", 2), 26: (">f", 4), 27: (">d", 8)}[info]
        return struct.unpack_from(form, data, at)[0], at + size
    number = info
    if info >= 24:
        form, size = {24: (">B", 1), 25: (">H", 2), 26: (">I", 4), 27: (">Q", 8)}[info]
        number, at = struct.unpack_from(form, data, at)[0], at + size
    if major in (0, 1):
        return (number if major == 0 else -1 - number), at
    if major in (2, 3):
        content = data[at : at + number]
        return (content if major == 2 else content.decode()), at + number
    if major == 6:
        value, at = decode(data, at)
        return Tag(number, value), at
    items = []
    for _ in range(number * (2 if major == 5 else 1)):
        item, at = decode(data, at)
        items.append(item)
    return (items if major == 4 else dict(zip(items[::2], items[1::2]))), at


def runtime_directory():
    if "DOCSOURCE_ROOT" in os.environ:
        return os.path.join(os.environ["DOCSOURCE_ROOT"], "run")
    parent = "/run" if os.geteuid() == 0 else os.environ["XDG_RUNTIME_DIR"]
    return os.path.join(parent, "docsource")


def call(service, operation, *arguments):
    """Calls one operation on a connection of its own; its reply arguments and the descriptors."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
        connection.settimeout(TIMEOUT)
        connection.connect(os.path.join(runtime_directory(), service))
        message = encode([1, 1, operation, list(arguments)])
        connection.sendall(struct.pack(">I", len(message)) + message)
        data, descriptors = b"", array.array("i")
        while len(data) < 4 or len(data) < 4 + struct.unpack(">I", data[:4])[0]:
            part, ancillary, _, _ = connection.recvmsg(1 << 16, socket.CMSG_SPACE(16 * 4))
            if not part:
                raise ConnectionError(f"{service} closed the connection")
            data += part
            for level, kind, content in ancillary:
                if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
                    descriptors.frombytes(content)
        kind, _, answer = decode(data[4:])[0]
        if kind == 3:
            raise BrokerError(answer)
        for argument in answer:
            if isinstance(argument, Tag) and argument.number == ERROR:
                raise BrokerError(argument)
        return answer, descriptors


def main(arguments):
    if arguments == ["providers"]:
        (_, providers), _ = call("com.veltro.DocSource", "providersCompletionHandler:")
        for provider in providers.values():
            print(provider["providerIdentifier"], provider.get("documentStorageURL"))
    elif len(arguments) == 2 and arguments[0] == "resolve":
        (url, token, *_), _ = call(
            "com.veltro.DocSource", "documentURLFromBookmarkableString:completion:", arguments[1])
        print(url, token.decode() if token else "(no token)")
    elif len(arguments) == 2 and arguments[0] == "read":
        call("com.veltro.FileCoordination", "coordinateReadingItemAtURL:completion:",
             Tag(URL, arguments[1]))
        path = urllib.parse.unquote(urllib.parse.urlsplit(arguments[1]).path)
        with open(path, "rb") as document:
            sys.stdout.buffer.write(document.read())
    elif len(arguments) == 2 and arguments[0] == "consume":
        (_, descriptor), descriptors = call(
            "com.veltro.Sandbox", "consumeExtension:completion:", arguments[1].encode())
        with os.fdopen(descriptors[descriptor.value], "rb") as document:
            sys.stdout.buffer.write(document.read())
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except BrokerError as error:
        sys.exit(str(error))
    except OSError as error:
        print(error, file=sys.stderr)
        sys.exit(3)
