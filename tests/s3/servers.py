#!/usr/bin/env python3
"""Runs one S3 server as an ordinary process, for a test.

    servers.py KIND DIRECTORY

KIND is moto or s3rver. `./dev` installs both into build/servers; what is there on the PATH does as
well. They have one bucket, "docs". Prints its address when the server answers, or "missing WHAT" when
it is not installed, and ends it when standard input ends.
"""
import ctypes, os, shutil, signal, socket, subprocess, sys, time, urllib.request

INSTALLED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../build/servers")


def free_port():
    with socket.socket() as trial:
        trial.bind(("127.0.0.1", 0))
        return trial.getsockname()[1]


def command(kind, top, port):
    """The program and its arguments; None when it is not installed."""
    if kind == "moto":
        program, place = "moto_server", INSTALLED + "/moto/bin"
        arguments = ["-H", "127.0.0.1", "-p", str(port)]
    else:
        program, place = "s3rver", INSTALLED + "/s3rver/node_modules/.bin"
        arguments = ["-d", top + "/files", "-a", "127.0.0.1", "-p", str(port), "--no-vhost-buckets",
                     "--configure-bucket", "docs"]
        os.makedirs(top + "/files", exist_ok=True)
    found = shutil.which(program, path=place) or shutil.which(program)
    return [found] + arguments if found else None


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)


def answers(port):
    try:
        socket.create_connection(("127.0.0.1", port), 1).close()
        return True
    except OSError:
        return False


def main():
    kind, top = sys.argv[1], os.path.abspath(sys.argv[2])
    os.makedirs(top, exist_ok=True)
    port = free_port()
    words = command(kind, top, port)
    if words is None:
        print("missing", kind, flush=True)
        return
    output = open(top + "/output", "ab")
    # s3rver makes its continuation tokens with DES, which OpenSSL 3 has among what is old.
    environment = {**os.environ, "NODE_OPTIONS": "--openssl-legacy-provider"}
    server = subprocess.Popen(words, env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                              preexec_fn=die_with_parent)
    while not answers(port):
        if server.poll() is not None:
            print("failed", kind, open(top + "/output").read().replace("\n", " "), flush=True)
            return
        time.sleep(0.01)
    if kind == "moto":
        request = urllib.request.Request(f"http://127.0.0.1:{port}/docs", method="PUT")
        urllib.request.urlopen(request).read()
    print(f"http://127.0.0.1:{port}", flush=True)
    sys.stdin.read()
    server.terminate()
    server.wait()


main()
