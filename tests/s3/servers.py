#!/usr/bin/env python3
"""Runs one S3 server as an ordinary process, for a test.

    servers.py KIND DIRECTORY

KIND is moto or s3rver. `./dev` installs both into build/servers; what is there on the PATH does as
well. They have one bucket, "docs". Prints its address when the server answers, or "missing WHAT" when
it is not installed, and ends it when standard input ends.
"""
import os, shutil, sys, urllib.request

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from serverprocess import free_port, serve

INSTALLED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../build/servers")


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


def main():
    kind, top = sys.argv[1], os.path.abspath(sys.argv[2])
    os.makedirs(top, exist_ok=True)
    port = free_port()
    address = f"http://127.0.0.1:{port}"

    def make_bucket():
        if kind == "moto":
            urllib.request.urlopen(urllib.request.Request(address + "/docs", method="PUT")).read()

    # s3rver makes its continuation tokens with DES, which OpenSSL 3 has among what is old.
    serve(kind, top, port, command(kind, top, port), {"NODE_OPTIONS": "--openssl-legacy-provider"}, address,
          make_bucket)


main()
