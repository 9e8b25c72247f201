"""Completion in the shells themselves: each runs on a terminal, lines are typed with the key Tab in
them, and what the shell then runs is looked at.

usage: completion_test.py PROGRAMS TREE
"""
import fcntl
import os
import pty
import select
import shutil
import subprocess
import sys
import tempfile
import termios
import time

from reading import read

# Whatever is run is only written down; what completion asks is asked of the program.
WRAPPER = '''#!/bin/sh
[ "$1" != --complete ] || exec "{programs}/docsource" "$@"
{{ printf '[%s]' "$@"; echo; }} >>"{place}/ran"
'''
START = {
    "bash": (["bash", "--norc", "--noprofile", "-i"], ". {packaging}/docsource.bash"),
    "zsh": (["zsh", "-f", "-i"],
            "fpath=({place}/functions $fpath); autoload -U compinit && compinit -u -D"),
    "fish": (["fish", "--no-config", "-i"], "source {packaging}/docsource.fish"),
}
# What is typed, and what is run then.
LINES = [
    ("acco\t", "[accounts]"),  # a command
    ("devi\tunl\t", "[device][unlock]"),  # one of a group
    ("sync Let\t", "[sync][Letters]"),  # an account
    ("sync Year\t", "[sync][Year 2026]"),  # with a space
    ("remove Letters --dis\t", "[remove][Letters][--discard]"),  # an option of a command
    ("start x --consumer com.v\t", "[start][x][--consumer][com.veltro.docsource.tool]"),
    ("evict docu\tthe\t", "[evict][documents/the book.txt]"),
    ("add folder New docu\t", "[add][folder][New][documents]"),
]


def test(shell, place, packaging, environment):
    command, prepare = START[shell]
    screen = b""
    leader, terminal = pty.openpty()
    termios.tcsetwinsize(terminal, (50, 200))
    # It is the terminal that controls the shell (ioctl_tty(2)).
    process = subprocess.Popen(command, stdin=terminal, stdout=terminal, stderr=terminal, cwd=place,
                               env=environment, start_new_session=True,
                               preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
    os.close(terminal)

    def until(condition, what):
        nonlocal screen
        deadline = time.monotonic() + 30
        while not condition():
            assert time.monotonic() < deadline, f"{shell}: {what}\n{screen.decode(errors='replace')}"
            try:
                if select.select([leader], [], [], 0.02)[0]:
                    screen += os.read(leader, 65536)
            except OSError:
                raise AssertionError(f"{shell} has ended\n{screen.decode(errors='replace')}") from None

    try:
        os.write(leader, (prepare.format(place=place, packaging=packaging) + "; touch ready\n").encode())
        until(lambda: os.path.exists(f"{place}/ready"), "it does not start")
        for typed, expected in LINES:
            before = read(f"{place}/ran")
            os.write(leader, f"docsource {typed}\n".encode())
            until(lambda: read(f"{place}/ran").endswith("]\n") and read(f"{place}/ran") != before,
                  f"nothing was run of {typed!r}")
            ran = read(f"{place}/ran")[len(before):].strip().replace("/]", "]")  # zsh takes it away
            assert ran == expected, f"{shell}: {typed!r} became {ran}, not {expected}"
        os.remove(f"{place}/ready")
        print(f"{shell}: {len(LINES)} lines were completed")
    finally:
        process.kill()  # a shell may take no notice of a hang-up that comes while it begins to read
        process.wait()
        os.close(leader)


def run(programs, tree, place):
    packaging = f"{tree}/packaging"
    for directory in ("bin", "functions", "documents", "root"):
        os.mkdir(f"{place}/{directory}")
    with open(f"{place}/bin/docsource", "w", encoding="utf-8") as file:
        file.write(WRAPPER.format(programs=programs, place=place))
    os.chmod(f"{place}/bin/docsource", 0o755)
    os.symlink(f"{packaging}/docsource.zsh", f"{place}/functions/_docsource")
    with open(f"{place}/documents/the book.txt", "w", encoding="utf-8"):
        pass
    environment = {"PATH": f"{place}/bin:{os.environ['PATH']}", "HOME": place, "TERM": "xterm",
                   "DOCSOURCE_ROOT": f"{place}/root", "LC_ALL": "C.UTF-8"}
    daemons = [subprocess.Popen([f"{programs}/{name}"], env=environment, stderr=subprocess.DEVNULL)
               for name in ("platformd", "docsourced")]
    try:
        for name in ("Letters", "Year 2026"):
            subprocess.run([f"{programs}/docsource", "add", "folder", name, f"{place}/documents"],
                           env=environment, check=True, stdout=subprocess.DEVNULL, timeout=60)
        for shell in START:
            if shutil.which(shell):
                test(shell, place, packaging, environment)
            else:
                print(f"left out: {shell} is not there")
    finally:
        for daemon in daemons:
            daemon.terminate()
            daemon.wait(30)


if __name__ == "__main__":
    with tempfile.TemporaryDirectory(prefix="docsource-completion-") as directory:
        run(*sys.argv[1:3], directory)
