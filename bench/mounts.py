"""Documents on a server of this machine, as an account of ours and as others' programs mount them."""

import contextlib
import json
import os
import pathlib
import shutil
import subprocess
import sys
import time

top = pathlib.Path(__file__).resolve().parent.parent


class Missing(Exception):
    """A program or a right that this machine does not have."""


def need(program):
    found = shutil.which(program, path=os.environ["PATH"] + ":/usr/sbin:/sbin")
    if not found:
        raise Missing(f"{program} is not installed")
    return found


@contextlib.contextmanager
def child(*words, **options):
    """A process that prints where it serves, and ends with its standard input."""
    process = subprocess.Popen([str(word) for word in words], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               text=True, **options)
    try:
        address = process.stdout.readline().strip()
        if not address.startswith("http"):
            raise Missing(address or f"{words[0]} has failed")
        yield address
    finally:
        process.stdin.close()
        process.wait()


@contextlib.contextmanager
def webdav(place, kind="lighttpd"):
    with child(sys.executable, top / "tests/webdav/servers.py", kind, place) as address:
        yield address, pathlib.Path(place) / "files"


@contextlib.contextmanager
def s3(place):
    with child(sys.executable, top / "tests/s3/servers.py", "s3rver", place) as address:
        yield address


@contextlib.contextmanager
def proxy(address, settings):
    """In front of a server, as slow as the settings say."""
    port = address.rstrip("/").rsplit(":", 1)[1]
    with child(sys.executable, top / "tests/support/proxy.py", port, settings) as slow:
        yield slow + "/"


class Account:
    """An account of ours at a WebDAV server, in daemons of its own."""

    def __init__(self, build, place):
        self.bin, self.place = build / "bin", pathlib.Path(place)
        self.home, self.running = self.place / "home", []
        self.home.mkdir(parents=True)
        self.environment = dict(os.environ, HOME=str(self.home), DOCSOURCE_LOG="fault",
                                DOCSOURCE_ROOT=str(self.place / "root"))
        (self.place / "root").mkdir()

    def __enter__(self):
        for program in ("platformd", "docsourced"):
            self.running.append(subprocess.Popen([str(self.bin / program)], env=self.environment))
        self.wait(lambda: self.tool("wake-up", check=False).returncode == 0, "docsourced answers")
        return self

    def __exit__(self, *_):
        for process in reversed(self.running):
            process.terminate()
            process.wait()

    @staticmethod
    def wait(condition, what, limit=60, every=0.01):
        deadline = time.monotonic() + limit
        while not condition():
            if time.monotonic() > deadline:
                raise RuntimeError(f"waited in vain: {what}")
            time.sleep(every)

    def tool(self, *words, check=True):
        done = subprocess.run([str(self.bin / "docsource"), *map(str, words)], env=self.environment,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if check and done.returncode != 0:
            raise RuntimeError(f"docsource {' '.join(map(str, words))}: {done.stdout}")
        return done

    def health(self, name):
        listed = json.loads(self.tool("accounts", "--json", check=False).stdout or "{}")
        return next((each for each in listed.get("accounts", []) if each["name"] == name), {})

    def add(self, name, address):
        self.tool("add", "webdav", name, address)
        return self.home / "DocSource" / name


@contextlib.contextmanager
def mounted(words, mountpoint, unmount):
    process = subprocess.Popen([str(word) for word in words], stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 20
        while not os.path.ismount(mountpoint):
            if process.poll() not in (None, 0) or time.monotonic() > deadline:
                raise Missing(f"{words[0]} does not mount")
            time.sleep(0.01)
        yield mountpoint
    finally:
        if os.path.ismount(mountpoint):
            subprocess.run([*unmount, str(mountpoint)], check=False)
        process.wait()


def prepared(place):
    """A directory with one in it to mount on."""
    place = pathlib.Path(place)
    mountpoint = place / "mount"
    mountpoint.mkdir(parents=True)
    return place, mountpoint


@contextlib.contextmanager
def rclone(place, address):
    """rclone mount with its full cache, which is empty."""
    place, mountpoint = prepared(place)
    with mounted([need("rclone"), "mount", f":webdav,url='{address}',vendor=other:", mountpoint,
                  "--vfs-cache-mode", "full", "--cache-dir", place / "cache", "--config", "/dev/null"],
                 mountpoint, ["fusermount3", "-u"]):
        yield mountpoint


@contextlib.contextmanager
def davfs2(place, address):
    place, mountpoint = prepared(place)
    (place / "cache").mkdir()
    # It becomes the user of that name.
    need("mount.davfs")
    shutil.chown(place / "cache", group="davfs2")
    (place / "cache").chmod(0o775)
    (place / "conf").write_text(f"ask_auth 0\nuse_locks 0\ncache_dir {place}/cache\ncache_size 8192\n")
    with mounted([need("mount.davfs"), address, mountpoint, "-o", f"conf={place}/conf"],
                 mountpoint, ["umount"]):
        yield mountpoint


@contextlib.contextmanager
def s3fs(place, address):
    place, mountpoint = prepared(place)
    secret = place / "secret"
    secret.write_text("S3RVER:S3RVER\n")
    secret.chmod(0o600)
    with mounted([need("s3fs"), "docs", mountpoint, "-f", "-o", f"passwd_file={secret}", "-o", f"url={address}",
                  "-o", "use_path_request_style"], mountpoint, ["fusermount", "-u"]):
        yield mountpoint
