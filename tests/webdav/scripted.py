#!/usr/bin/env python3
"""A WebDAV server in memory that does wrong what it is told to.

    scripted.py KIND DIRECTORY

KIND is "plain", or "cloud" for one with identifiers, tags of directories and uploads in parts. Prints
its URL. Each line of standard input is an object in JSON; what it has is set, and the requests since
the last line are answered as a list of "METHOD path". Ends with standard input.

"faults" is a list of what becomes of the requests to come: each has "method", perhaps "path" and
"times" (else for good), and

    status, headers, body   answered instead; "#" in the body is the number of the request
    also                    carried out nevertheless, before that answer
    cut                     the connection ends after so many bytes of the content
    lie                     so many bytes more are announced than come, and then nothing comes
    replace                 afterwards somebody else writes this into the same file, or into the file
                            "late" of the same directory
    href                    "absolute", "raw" or "lower": how names are written
    child                   this name has no status but this one: ["name", 403]; or, in quotes, this
                            length
    drip                    the content comes byte by byte, so many seconds apart
    weak, norange, notag    tags are weak; ranges are ignored; GET says no tag

Other members: "files" (path to content, "/" at the end makes a directory), "clock" (seconds that
the server is wrong), "digest" (wants a digest), "secret" (the password), "agreed" (somebody has
agreed to a login; what the server then calls itself, or nothing).
"""
import email.utils, hashlib, json, re, select, socket, socketserver, sys, threading, time, urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

cloud = sys.argv[1] == "cloud"
lock = threading.RLock()
tree = {"/": None}  # path without a slash at the end -> dict of a file, None for a directory
tags, ids, requests, settings = {}, {}, [], {"faults": []}
counter = [0]
BASE = "/remote.php/dav/files/user" if cloud else "/dav"


def changed(path, content=None, mtime=None):
    counter[0] += 1
    if content is not None:
        tree[path] = {"content": content, "mtime": mtime or 1700000000 + counter[0]}
    while True:
        tags[path] = f'"t{counter[0]}"'
        ids.setdefault(path, f"{len(ids) + 1:08d}oc")
        if path == "/" or not path:
            return
        path = path.rsplit("/", 1)[0] or "/"


def remove(path):
    for each in [p for p in tree if p == path or p.startswith(path + "/")]:
        tree.pop(each), tags.pop(each, 0), ids.pop(each, 0)
    changed(path.rsplit("/", 1)[0] or "/")


for made in [BASE, "/remote.php/dav/uploads/user"] if cloud else [BASE]:
    tree[made] = None
    changed(made)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    wbufsize = 65536

    def log_message(self, *_):
        pass

    def date_time_string(self, timestamp=None):
        return email.utils.formatdate(time.time() + settings.get("clock", 0), usegmt=True)

    def answer(self, status, headers=(), body=b"", announced=None):
        self.send_response(status)
        for name, value in dict(headers).items():
            self.send_header(name, value)
        self.send_header("Content-Length", announced or len(body))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    def fault(self):
        for fault in settings["faults"]:
            if fault["method"] == self.command and re.fullmatch(fault.get("path", ".*"), self.at) \
                    and fault.get("times", 1) > 0:
                if "times" in fault:
                    fault["times"] -= 1
                return fault
        return {}

    def handle_request(self):
        with lock:
            path = urllib.parse.unquote(self.path, errors="surrogateescape").rstrip("/") or "/"
            self.at = path[len(BASE):].lstrip("/") if path.startswith(BASE) else path
            requests.append(f"{self.command} {self.at}")
            number = len(requests)
            fault = self.fault()
        length = int(self.headers.get("Content-Length") or 0)
        if self.headers.get("Accept-Encoding") or self.headers.get("Depth") == "infinity":
            return self.answer(500, body=b"asked for what nobody should")
        if settings.get("digest") and self.command != "POST" and not self.digest_is_right():
            self.rfile.read(length)
            return self.answer(401, {"WWW-Authenticate":
                                     'Digest realm="docs", nonce="n", qop="auth", algorithm=MD5'})
        body = self.rfile.read(length)
        if len(body) < length:
            self.close_connection = True
            return
        if "status" in fault and not fault.get("also"):
            return self.answer(fault["status"], fault.get("headers", {}),
                               fault.get("body", "").replace("#", str(number)).encode())
        with lock:
            status, headers, content = getattr(self, "do" + self.command)(path, body, fault)
            if fault.get("replace") is not None:
                into = self.destination() if self.command == "MOVE" else path
                changed(into + "/late" if tree.get(into, 0) is None else into,
                        fault["replace"].encode())
        if "status" in fault:
            return self.answer(fault["status"], fault.get("headers", {}),
                               fault.get("body", "").encode())
        if "drip" in fault:
            self.answer(status, headers, b"", len(content))
            for byte in content:
                self.wfile.write(bytes([byte]))
                self.wfile.flush()
                if select.select([self.connection], [], [], fault["drip"])[0]:
                    break  # the other side has had enough
        elif "cut" in fault:
            self.answer(status, headers, content[:fault["cut"]], len(content))
            self.wfile.flush()
            self.close_connection = True
            self.connection.shutdown(socket.SHUT_RDWR)
        elif "lie" in fault:
            self.answer(status, headers, content, len(content) + fault["lie"])
            self.wfile.flush()
            self.rfile.read(1)  # until the other side has had enough
        else:
            self.answer(status, headers, content)

    do_GET = do_PUT = do_PROPFIND = do_OPTIONS = do_MKCOL = do_MOVE = do_DELETE = do_PROPPATCH = \
        do_POST = do_HEAD = handle_request

    def digest_is_right(self):
        text = self.headers.get("Authorization") or ""
        part = dict(re.findall(r'(\w+)="?([^",]*)', text))
        md5 = lambda words: hashlib.md5(words.encode()).hexdigest()
        right = md5(":".join([md5("user:docs:" + settings["secret"]), "n", part.get("nc", ""),
                              part.get("cnonce", ""), "auth",
                              md5(f"{self.command}:{part.get('uri')}")]))
        return text.startswith("Digest") and part.get("response") == right

    def tag(self, path, fault={}):
        return ("W/" if fault.get("weak") else "") + tags[path]

    def holds(self, path, fault):
        """Whether the conditions of the request hold."""
        match, none = self.headers.get("If-Match"), self.headers.get("If-None-Match")
        tagged = re.fullmatch(r"If: <.*> \(\[(.*)\]\)", "If: " + (self.headers.get("If") or ""))
        target = path
        if tagged:
            target = urllib.parse.unquote(urllib.parse.urlparse(
                self.headers["If"].split("<")[1].split(">")[0]).path).rstrip("/")
            match = tagged[1]
        if match and (target not in tree or match != self.tag(target, fault)
                      or fault.get("weak")):
            return False
        return not (none == "*" and path in tree)

    def doOPTIONS(self, path, body, fault):
        return 200, {"DAV": "1"}, b""

    def doPROPFIND(self, path, body, fault):
        if path not in tree:
            return 404, {}, b""
        entries = [path]
        if self.headers.get("Depth") == "1":
            entries += [p for p in tree if p != path and p.rsplit("/", 1)[0] == path]
        text = '<?xml version="1.0"?><x:multistatus xmlns:x="DAV:" xmlns:oc="http://owncloud.org/ns">'
        for entry in entries:
            href = urllib.parse.quote(entry, errors="surrogateescape")
            if tree[entry] is None:
                href += "/"
            kind = fault.get("href")
            if kind == "absolute":
                href = f"http://{self.headers['Host']}{href}"
            elif kind == "lower":
                href = re.sub("%..", lambda m: m[0].lower(), href)
            elif kind == "raw":
                href = entry.replace("&", "&amp;").replace("<", "&lt;").replace("%", "%25")
            name, child = fault.get("child") or ("", "")
            isChild = name and entry.endswith("/" + name)
            if isChild and isinstance(child, int):
                text += (f"<x:response><x:href>{href}</x:href>"
                         f"<x:status>HTTP/1.1 {child} No</x:status></x:response>")
                continue
            text += f"\n<x:response>\n <x:href>\n{href}</x:href><x:propstat><x:prop>"
            lacking = ""
            if tree[entry] is None:
                text += "<x:resourcetype><x:collection/></x:resourcetype>"
                lacking += "<x:getcontentlength/>"
            else:
                file = tree[entry]
                length = child if isChild else len(file["content"])
                text += (f"<x:resourcetype/><x:getcontentlength>{length}"
                         f"</x:getcontentlength><x:getlastmodified>"
                         f"{email.utils.formatdate(file['mtime'], usegmt=True)}</x:getlastmodified>")
            if cloud or tree[entry] is not None:
                text += f"<x:getetag>{self.tag(entry, fault)}</x:getetag>"
            if cloud:
                text += f"<oc:id>{ids[entry]}</oc:id>"
            else:
                lacking += "<oc:id/><x:getetag>\"not this\"</x:getetag>"
            text += ("</x:prop><x:status>HTTP/1.1 200 OK</x:status></x:propstat><x:propstat><x:prop>"
                     f"{lacking}</x:prop><x:status>HTTP/1.1 404 Not Found</x:status></x:propstat>"
                     "</x:response>")
        return 207, {"Content-Type": "application/xml"}, \
            (text + "</x:multistatus>").encode(errors="surrogateescape")

    def doGET(self, path, body, fault):
        if tree.get(path) is None:
            return 404, {}, b""
        content = tree[path]["content"]
        headers = {} if fault.get("notag") else {"ETag": self.tag(path, fault)}
        part = re.fullmatch(r"bytes=(\d+)-(\d+)", self.headers.get("Range") or "")
        if part and not fault.get("norange"):
            first, last = int(part[1]), min(int(part[2]), len(content) - 1)
            headers["Content-Range"] = f"bytes {first}-{last}/{len(content)}"
            return 206, headers, content[first:last + 1]
        return 200, headers, content

    def doPUT(self, path, body, fault):
        if tree.get(path.rsplit("/", 1)[0], 0) is not None:
            return 409, {}, b""
        if not self.holds(path, fault):
            return 412, {}, b""
        new = path not in tree
        mtime = self.headers.get("X-OC-Mtime") if cloud else None
        changed(path, body, int(mtime) if mtime else None)
        return 201 if new else 204, {"ETag": tags[path]} if cloud else {}, b""

    def doMKCOL(self, path, body, fault):
        if path in tree:
            return 405, {}, b""
        tree[path] = None
        changed(path)
        return 201, {}, b""

    def destination(self):
        return urllib.parse.unquote(urllib.parse.urlparse(self.headers["Destination"]).path,
                                    errors="surrogateescape").rstrip("/")

    def doMOVE(self, path, body, fault):
        to = self.destination()
        if not self.holds(path, fault):
            return 412, {}, b""
        if path.endswith("/.file"):
            parts = path[:-len("/.file")]
            if parts not in tree:
                return 404, {}, b""
            content = b"".join(tree[p]["content"] for p in sorted(tree) if p.startswith(parts + "/"))
            if self.headers["OC-Checksum"] != "SHA1:" + hashlib.sha1(content).hexdigest() or \
                    int(self.headers["OC-Total-Length"]) != len(content):
                return 400, {}, b"checksum"
        if to in tree and self.headers.get("Overwrite") == "F":
            return 412, {}, b""
        new = to not in tree
        if path.endswith("/.file"):
            remove(parts)
            changed(to, content)
            return 201 if new else 204, {"ETag": tags[to]}, b""
        if path not in tree:
            return 404, {}, b""
        if not new:
            remove(to)
        for each in [p for p in tree if p == path or p.startswith(path + "/")]:
            target = to + each[len(path):]
            tree[target], tags[target], ids[target] = tree.pop(each), tags.pop(each), ids.pop(each)
        changed(path.rsplit("/", 1)[0])
        changed(to.rsplit("/", 1)[0])
        return 201 if new else 204, {}, b""

    def doDELETE(self, path, body, fault):
        if path not in tree:
            return 404, {}, b""
        if not self.holds(path, fault):
            return 412, {}, b""
        remove(path)
        return 204, {}, b""

    def doPOST(self, path, body, fault):
        top = "http://" + self.headers["Host"]
        if path.endswith("/login/v2"):
            return 200, {}, json.dumps({"poll": {"token": "secret/token", "endpoint": top + "/poll"},
                                        "login": top + "/page"}).replace("/", "\\/").encode()
        if body != b"token=secret/token" or settings.get("agreed") is None:
            return 404, {}, b"[]"
        return 200, {}, json.dumps({"server": settings["agreed"] or top, "loginName": "user",
                                    "appPassword": "for this \" account"}).encode()

    def doPROPPATCH(self, path, body, fault):
        tree[path]["mtime"] = int(re.search(rb"lastmodified>(\d+)<", body)[1])
        changed(path)
        return 207, {}, b'<?xml version="1.0"?><d:multistatus xmlns:d="DAV:"/>'


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, *_):
        pass


server = Server(("127.0.0.1", 0), Handler)
threading.Thread(target=server.serve_forever, daemon=True).start()
print(f"http://127.0.0.1:{server.server_port}{BASE}/", flush=True)
for line in sys.stdin:
    told = json.loads(line)
    with lock:
        for path, content in told.pop("files", {}).items():
            if path.endswith("/"):
                tree[BASE + "/" + path.rstrip("/")] = None
                changed(BASE + "/" + path.rstrip("/"))
            elif content is None:
                remove(BASE + "/" + path)
            else:
                changed(BASE + "/" + path, content.encode())
        settings.update(told)
        said, requests[:] = json.dumps(requests), []
    print(said, flush=True)
