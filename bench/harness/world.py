"""Starts worlds (see world_init.py) and talks to them."""

import json
import os
import shutil
import subprocess
import sys
import tempfile

from contenders import Keelmond

HERE = os.path.dirname(os.path.abspath(__file__))


def namespace_command(realtime):
    """Runs what follows as the first process of new PID and mount namespaces.

    When we die, setpriv's signal ends unshare, and unshare's ends the namespace.

    @param realtime whether everything in it goes before whatever else the machine has to do.
    """
    first = ["chrt", "--rr", "1"] if realtime else []
    user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    return ["setpriv", "--pdeathsig", "KILL", "unshare", *user, "--pid", "--fork", "--mount",
            "--mount-proc", "--kill-child=KILL", *first]


def namespaces_work(realtime):
    return subprocess.run([*namespace_command(realtime), "true"], check=False,
                          capture_output=True).returncode == 0


class World:
    """One contender with one number of programs. A context: everything in it ends with it."""

    def __init__(self, contender, count, tools, realtime):
        self.contender = contender
        self.count = count
        self.failed = False
        self._tools = tools
        self._kind = contender.name
        if issubclass(contender, Keelmond) and contender.build is not None:
            self._tools = {**tools, "KEELMOND": contender.build}
            self._kind = Keelmond.name
        self._realtime = realtime
        self._root = None
        self._process = None

    def __enter__(self):
        self._root = tempfile.mkdtemp(prefix="keelmond-bench-")
        description = {"contender": self._kind, "count": self.count,
                       "root": self._root, "tools": self._tools}
        self._process = subprocess.Popen(
            [*namespace_command(self._realtime), sys.executable, "-B",
             os.path.join(HERE, "world_init.py"), json.dumps(description)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, start_new_session=True)
        return self

    def __exit__(self, *unused):
        self._process.kill()
        self._process.stdout.read()
        self._process.wait()
        for pipe in (self._process.stdin, self._process.stdout):
            try:
                pipe.close()
            except BrokenPipeError:
                pass  # It was told something after its end.
        shutil.rmtree(self._root, ignore_errors=True)

    def ask(self, phase, **arguments):
        """Runs one phase of world_init.py.

        @return its figures, or None when it failed. It has then said why on standard error, and
        everything that is asked of this world later fails too.
        """
        if self.failed:
            return None
        try:
            self._process.stdin.write(json.dumps({"phase": phase, **arguments}) + "\n")
            self._process.stdin.flush()
        except BrokenPipeError:
            pass  # There is no answer either.
        answer = self._process.stdout.readline()
        self.failed = not answer
        return json.loads(answer) if answer else None
