"""One person's machine: platformd, docsourced, and an account over a directory, the origin, that is
shown at `docs`. Two of them over one origin are two machines that share documents.

Everything lies in a directory of its own. As root the machine has a platformd of root that serves
an ordinary user (modes "access" and "open"), or everything belongs to that user ("cooperative").
"""
import glob
import json
import os
import random
import signal
import subprocess
import threading

import people
from book import tree
from people import IS_ROOT, USER, TimeIsUp, as_root, eventually, run


def children(process):
    """Of all its threads."""
    found = []
    for file in glob.glob(f"/proc/{process}/task/*/children"):
        try:
            with open(file) as text:
                found += [int(child) for child in text.read().split()]
        except OSError:
            pass
    return found


def own_memory(process):
    """What belongs to it alone, in kilobytes."""
    with open(f"/proc/{process}/smaps_rollup") as file:
        sizes = {line.split()[0]: int(line.split()[1]) for line in file.readlines()[1:]}
    return sizes["Private_Dirty:"] + sizes["Private_Clean:"]


def processor_time(process):
    """Seconds, since it was started."""
    with open(f"/proc/{process}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Side:
    """What is on one machine, and at the origin, as far as it has to be equal."""

    @staticmethod
    def kept(items):
        """Of a tree, what the origin can keep."""
        return items

    def here(self, content=True):
        return self.kept(tree(self.docs, content))

    def at_origin(self, content=True):
        return tree(self.origin, content)


class World(Side):
    def __init__(self, base, name, origin, programs, mode):
        self.name, self.origin, self.programs, self.mode = name, origin, programs, mode
        self.directory = f"{base}/{name}"
        self.account = f"docs-{name}"
        self.home = f"{self.directory}/home"
        for made in (self.directory, self.home):
            os.makedirs(made)
            if IS_ROOT:
                os.chown(made, USER, USER)
        self.environment = {
            "PATH": os.environ["PATH"], "HOME": self.home, "LANG": "C.UTF-8", "USER": "somebody",
            "DOCSOURCE_ROOT": f"{self.directory}/root",
            "XDG_CONFIG_HOME": f"{self.home}/.config", "XDG_DATA_HOME": f"{self.home}/.local/share",
            "XDG_RUNTIME_DIR": f"{self.directory}/runtime",
            "GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1",
            "DOCSOURCE_LOG": os.environ.get("DOCSOURCE_LOG", "default"),
        }
        self.is_root = IS_ROOT and mode != "cooperative"
        self.is_machine = self.is_root and not os.environ.get("DAY_ONE_USER")
        if self.is_machine:
            self.environment["DOCSOURCE_MACHINE"] = f"{self.directory}/machine"
            os.makedirs(f"{self.directory}/machine")
        if mode != "access":
            self.environment["DOCSOURCE_COORDINATION"] = mode
        self.daemons = {}
        self.is_added = False

    @property
    def docs(self):
        return f"{self.home}/DocSource/{self.account}"

    # Daemons: called from any thread, carried out by root.

    def start_daemons(self):
        if self.is_root and not self.is_machine and "docsourced" not in self.daemons:
            as_root(self._start_docsourced)
            eventually(lambda: os.path.exists(f"{self.directory}/root/run/notify"), "no docsourced")
        if "platformd" not in self.daemons:
            as_root(self._start_platformd)
        if "docsourced" not in self.daemons:
            as_root(self._start_docsourced)

    def start(self, patience=None):
        self.start_daemons()
        if not self.is_added:
            self.tool("add", *self.addition())
            self.is_added = True
        eventually(lambda: os.path.isdir(self.docs), f"{self.docs} does not appear", patience)
        self.healthy(patience)

    def addition(self):
        """The words that add the account."""
        return "folder", self.account, self.origin

    def _spawn(self, program, user):
        log = open(f"{self.directory}/{program}.log", "ab")
        self.daemons[program] = subprocess.Popen(
            [f"{self.programs}/{program}"], env=self.environment, stdin=subprocess.DEVNULL, stdout=log,
            stderr=log, start_new_session=True,
            **(dict(user=USER, group=USER, extra_groups=[]) if user and IS_ROOT else {}))
        log.close()

    def _start_platformd(self):
        before = self._announced()
        self._spawn("platformd", not self.is_root)
        eventually(lambda: self._announced() != before or self._ended("platformd"), "platformd does not start")

    def _announced(self):
        for place in ("machine/run", "root/run"):
            try:
                return os.stat(f"{self.directory}/{place}/com.veltro.FileCoordination").st_ino
            except OSError:
                pass
        return None

    def _start_docsourced(self):
        self._spawn("docsourced", True)

    def _ended(self, program):
        if self.daemons[program].poll() is not None:
            raise TimeIsUp(f"{program} ended with {self.daemons[program].returncode}, see {self.directory}")

    def process(self, which):
        """The number of a process: platformd (its holder), worker, docsourced or account."""
        if which == "worker":
            return next(iter(children(self.daemons["platformd"].pid)), None)
        if which == "account":
            return next(iter(children(self.daemons["docsourced"].pid)), None)
        return self.daemons["platformd" if which == "holder" else which].pid

    def kill(self, which, how=signal.SIGKILL):
        """Ends a process; those that nobody else starts again are started again."""
        as_root(self._kill, which, how)

    def _kill(self, which, how):
        worker, process = self.process("worker"), self.process(which)
        if process is None:
            return
        try:
            os.kill(process, how)
        except ProcessLookupError:
            return
        if which in ("worker", "account"):
            return
        program = "docsourced" if which == "docsourced" else "platformd"
        self.daemons[program].wait(60)
        if program == "platformd" and worker:
            # It makes placeholders unreadable before it ends.
            eventually(lambda: not os.path.exists(f"/proc/{worker}"), "the worker does not end")
        (self._start_docsourced if program == "docsourced" else self._start_platformd)()

    def stop(self):
        as_root(self._stop)

    def _stop(self):
        for program in ("docsourced", "platformd"):
            self.stop_one(program)

    def stop_one(self, program):
        """By root."""
        daemon = self.daemons.pop(program, None)
        if not daemon:
            return
        rest = children(daemon.pid)
        daemon.terminate()
        try:
            daemon.wait(30)
        except subprocess.TimeoutExpired:
            print(f"  FINDING {program} of {self.name} does not end on SIGTERM within 30 s", flush=True)
            daemon.kill()
            daemon.wait()
        for process in rest:
            eventually(lambda: not os.path.exists(f"/proc/{process}"), f"a child of {program} does not end", 20)

    # The account, as its user.

    def tool(self, *arguments, check=True, patience=180):
        return run(f"{self.programs}/docsource", *arguments, env=self.environment, check=check, patience=patience)

    def accounts(self):
        """What `docsource accounts` says of this one; empty when nobody answers."""
        done = self.tool("accounts", "--json", check=False)
        if done.returncode != 0:
            return {}
        listed = json.loads(done.text)
        for account in listed.get("accounts", []):
            if account.get("name") == self.account:
                return account
        return {}

    def healthy(self, patience=None):
        eventually(lambda: self.accounts().get("state", self.accounts().get("health")) == "ok",
                   lambda: f"{self.account} does not get well: {self.accounts()}", patience)

    def synchronise(self, *arguments, patience=300):
        return self.tool("sync", self.account, *arguments, check=False, patience=patience)

    def is_idle(self):
        account = self.accounts()
        return account and account.get("waiting") == 0

    def bring_in(self, path):
        """In cooperative mode programs ask; elsewhere reading is asking. Returns what went wrong."""
        if self.mode == "cooperative":
            return self.tool("get", path, check=False).problem

    def give_back(self, path):
        return self.tool("evict", path, check=False).returncode == 0


class Plain(Side):
    """Stands in for a World: `fake.py` copies between a plain directory and the origin."""
    mode = "plain"

    def __init__(self, base, name, origin, fault):
        self.name, self.origin, self.fault = name, origin, fault
        self.directory, self.docs = f"{base}/{name}", f"{base}/{name}/docs"
        os.makedirs(self.docs)
        if IS_ROOT:
            for made in (self.directory, self.docs):
                os.chown(made, USER, USER)
        self.environment = {"PATH": os.environ["PATH"], "HOME": self.directory, "LANG": "C.UTF-8",
                            "GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1"}
        self.process = None

    def start(self):
        as_root(self._start)

    def _start(self):
        self.process = subprocess.Popen(
            [people.PYTHON, os.path.join(os.path.dirname(__file__), "fake.py"), self.docs, self.origin,
             self.directory, self.name, self.fault or "none"], stderr=open(f"{self.directory}/log", "ab"),
            **(dict(user=USER, group=USER, extra_groups=[]) if IS_ROOT else {}))

    def kill(self, which):
        self.stop()
        self.start()

    def stop(self):
        as_root(self.process.kill)
        self.process.wait()

    def synchronise(self, *arguments):
        pass

    def is_idle(self):
        return True

    def bring_in(self, path):
        pass

    def give_back(self, path):
        return False


class Killer:
    """Kills a process of one of the worlds every few seconds until the end of the block."""

    def __init__(self, worlds, seed, victims, pause=(1.0, 5.0)):
        self.worlds, self.random, self.victims_to_be, self.pause = worlds, random.Random(seed), victims, pause
        self.victims = {}

    def __enter__(self):
        self.stop = threading.Event()
        self.problem = None
        self.thread = threading.Thread(target=self._work)
        self.thread.start()
        return self

    def _work(self):
        try:
            while not self.stop.wait(self.random.uniform(*self.pause)):
                world = self.random.choice(self.worlds)
                if not self.victims_to_be:
                    continue
                which = self.random.choice(self.victims_to_be)
                if world.mode == "cooperative" and which == "worker":
                    which = "account"
                self.victims[which] = self.victims.get(which, 0) + 1
                world.kill(which)
        except Exception as problem:  # noqa: BLE001: told at the end
            self.problem = problem

    def __exit__(self, *_):
        self.stop.set()
        self.thread.join()
        if self.problem:
            raise self.problem
