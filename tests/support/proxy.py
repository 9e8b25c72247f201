#!/usr/bin/env python3
"""A proxy before one server, that is as slow or as broken as it is told to be.

    proxy.py PORT [SETTINGS [LOG]]

Prints its own address. It is a proxy as a browser has one as well (CONNECT too), whatever host it is asked
for. SETTINGS, and each line of standard input, is an object in JSON; what it has is
set, and the line is answered with how many bytes of answers were passed on since the last one.

    delay    so many seconds pass before a request is passed on
    rate     so many bytes of answers a second, on each connection
    most     so many bytes of answers are passed on, on each connection, then it waits until told otherwise
    faults   what becomes of the requests to come, one each: "reset", a status (503, with a body and
             Retry-After: 0), "repeat": the server gets it twice and its second answer is passed on, or an
             object with "cut": the connection is reset after so many bytes of the answer, or with
             "corrupt": some bytes of the answer from there on are no characters; of a document only of
             what comes before it. null is no fault

LOG is a file to which each request and each answer is added in a line. Ends with standard input.
"""
import json, socket, struct, sys, threading, time

settings = {"delay": 0, "rate": 0, "most": 0, "faults": []}
passed = [0]
lock = threading.Lock()


def note(connection, text):
    if len(sys.argv) > 3:
        with open(sys.argv[3], "ab") as log:
            log.write(b"%.3f %d %s\n" % (time.time(), connection.fileno(), text))


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def answers(server, client, limit, damage):
    """Passes answers on until either side ends."""
    due, count = time.monotonic(), 0
    try:
        while True:
            while 0 < settings["most"] <= count:
                time.sleep(0.01)
            rate = settings["rate"]
            piece = server.recv(min(65536, max(1024, int(rate / 50))) if rate else 262144)
            if not piece:
                break
            if rate:
                due = max(due, time.monotonic() - 0.05) + len(piece) / rate
                time.sleep(max(0, due - time.monotonic()))
            if piece.startswith(b"HTTP/1."):
                note(client, b"  " + piece[9:12])
            if damage[0] is not None:
                if damage[0] < len(piece):
                    piece = piece[:damage[0]] + bytes(min(8, len(piece) - damage[0])) + piece[damage[0] + 8:]
                damage[0] = damage[0] - len(piece) if damage[0] >= len(piece) else None
            if limit[0] is not None:
                piece = piece[:limit[0]]
                limit[0] -= len(piece)
            client.sendall(piece)
            count += len(piece)
            with lock:
                passed[0] += len(piece)
            if limit[0] == 0:
                break
    except OSError:
        pass
    for each in (server, client):
        try:
            reset(each) if limit[0] == 0 else each.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def repeat(piece, client, port):
    """Has the server do what the request says once before, and forgets the answer. All of the request."""
    head = piece.partition(b"\r\n\r\n")[0].lower()
    if b"\nexpect:" in head:
        return piece  # its content has not been sent yet
    length = next((int(line[15:]) for line in head.split(b"\r\n") if line.startswith(b"content-length:")), 0)
    while len(piece) < len(head) + 4 + length and (more := client.recv(262144)):
        piece += more
    with socket.create_connection(("127.0.0.1", port)) as first:
        first.sendall(piece.replace(b"\r\n", b"\r\nConnection: close\r\n", 1))
        while first.recv(262144):
            pass
    return piece


def serve(client, port):
    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    server = socket.create_connection(("127.0.0.1", port))
    server.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    limit, damage = [None], [None]
    threading.Thread(target=answers, args=(server, client, limit, damage), daemon=True).start()
    methods = (b"GET ", b"PUT ", b"POST ", b"HEAD ", b"DELETE ", b"OPTIONS ", b"PROPFIND ", b"MKCOL ",
               b"MOVE ", b"COPY ", b"PROPPATCH ")
    try:
        while piece := client.recv(262144):
            if piece.startswith(b"CONNECT "):
                client.sendall(b"HTTP/1.1 200 Connected\r\n\r\n")
                continue
            if piece.startswith(methods):
                note(client, piece.partition(b" HTTP/")[0][:2000])
                time.sleep(settings["delay"])
                with lock:
                    fault = settings["faults"].pop(0) if settings["faults"] else None
                damage[0] = None  # what went beyond the end of the last answer
                if fault == "reset":
                    return reset(client)
                if isinstance(fault, int):
                    text = b"<html>The proxy is tired.</html>"
                    client.sendall(b"HTTP/1.1 %d Tired\r\nRetry-After: 0\r\nContent-Type: text/html\r\n"
                                   b"Connection: close\r\nContent-Length: %d\r\n\r\n" % (fault, len(text)) + text)
                    break
                if fault == "repeat":
                    piece = repeat(piece, client, port)
                elif fault and "corrupt" in fault:
                    is_listing = piece.startswith(b"PROPFIND ") or b"list-type=" in piece.partition(b"\r\n")[0]
                    damage[0] = fault["corrupt"] if is_listing else fault["corrupt"] % 100
                elif fault:
                    limit[0] = fault["cut"]
            server.sendall(piece)
    except OSError:
        pass
    for each in (server, client):
        try:
            each.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def listen(listener, port):
    while True:
        threading.Thread(target=serve, args=(listener.accept()[0], port), daemon=True).start()


settings.update(json.loads(sys.argv[2]) if len(sys.argv) > 2 else {})
listener = socket.create_server(("127.0.0.1", 0), backlog=128)
threading.Thread(target=listen, args=(listener, int(sys.argv[1])), daemon=True).start()
print(f"http://127.0.0.1:{listener.getsockname()[1]}", flush=True)
for line in sys.stdin:
    with lock:
        settings.update(json.loads(line))
        count, passed[0] = passed[0], 0
    print(count, flush=True)
