"""How each contender is set up, started, told of one more program, and ended.

Each gets its fastest settings that its manual allows: no log, no pause that can be switched off,
and `run` is the program itself where others put a script that would have to exec it.

Inside a world (see world_init.py) the directory `root` holds
  program               the supervised program
  events, spin, ready   see bench/programs/bench_program.cpp
  p/NAME                links to the program, for those who are given paths
  s/NAME/run            links to the program, for those who scan a directory
"""

import http.client
import os
import signal
import socket
import subprocess
import time
import xmlrpc.client

import procfs
from tool import Tool


class Contender(Tool):
    """Base: knows its place in the world and starts one process."""

    title = ""
    most_programs = None  # a limit that is built in
    patience = None  # with more programs it takes minutes, and is not asked
    takes_additions = True
    process = None

    def prepare(self, names):
        """Writes the configuration for these programs."""
        for name in names:
            self.link_program(name)

    def link_program(self, name):
        os.link(self.path("program"), self.path("p", name))
        return self.path("p", name)

    def command(self):
        raise NotImplementedError

    def working_directory(self):
        return self.root

    def start(self):
        self.process = subprocess.Popen(
            self.command(), cwd=self.working_directory(), env=self.environment(),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)

    def save_offset(self, number):
        """How much later than the others a save is made, in seconds."""
        return 0

    def prepare_addition(self, name):
        """Gets everything ready for one more program that `add` then saves by a rename."""

    def add(self):
        """Saves what was prepared. The clock starts when this is called."""

    def has_failed(self):
        """Whether the contender has ended although it was not asked to."""
        return self.process.poll() is not None

    def daemon(self):
        """The process that supervises, once it is there."""
        return self.process.pid

    def has_loaded(self):
        """Whether the list of programs has been gone through for the first time."""
        return True

    def reload(self):
        """Begins to bring everything in line with the list again.

        @return a function that tells whether that is over; None for those who have no list.
        """
        return None

    def end(self):
        """Asks the contender to end itself and all programs. Does not wait."""
        self.process.send_signal(signal.SIGTERM)


class Floor(Contender):
    """No supervisor at all: bench/programs/floor_loop.cpp."""

    takes_additions = False
    variables = ()
    mode = ""

    def prepare(self, names):
        super().prepare(names)
        self.names = list(names)

    def command(self):
        return [self.tools["FLOOR_LOOP"], self.mode, *(self.path("p", name) for name in self.names)]


class FloorExec(Floor):
    name = "floor-exec"
    title = "fork, exec, wait"
    mode = "exec"


class FloorSystem(Floor):
    name = "floor-system"
    title = "fork, system, wait"
    mode = "system"


class Keelmond(Contender):
    name = "keelmond"
    title = "keelmond"
    executables = ("pgrep",)
    variables = ()
    build = None  # another executable than that of this tree
    known_daemon = None

    def prepare(self, names):
        super().prepare(names)
        self.names = list(names)
        os.makedirs(self.path("k", "config"))
        os.mkdir(self.path("k", "notify"))
        self._write("server.ini")

    def _write(self, file):
        lines = ["[keelmond]", f"linux={len(self.names)}"]
        lines += [f"svr{i}={name}" for i, name in enumerate(self.names, 1)]
        for name in self.names:
            lines += [f"[{name}]", f"exepath={self.path('p', name)}", "state=run"]
        with open(self.path("k", "config", file), "w", encoding="ascii") as out:
            out.write("\n".join(lines) + "\n")

    def working_directory(self):
        return self.path("k")

    def command(self):
        return [self.tools["KEELMOND"]]

    def has_failed(self):
        # The process that was started ends at once, and leaves a daemon.
        return self.process.poll() not in (None, 0)

    def prepare_addition(self, name):
        self.link_program(name)
        self.names.append(name)
        self._write("server.ini.new")

    def add(self):
        listed = self.path("k", "config", "server.ini")
        os.rename(listed + ".new", listed)

    def daemon(self):
        # Looked for once more only if the first find was on its way to become one: a look takes
        # time among ten thousand processes.
        if self.known_daemon is None or procfs.is_zombie(self.known_daemon):
            self.known_daemon = self._find_daemon()
        return self.known_daemon

    def _find_daemon(self):
        # The process that its starter left to the namespace's first one.
        for pid in procfs.pids():
            try:
                executable = os.readlink(f"/proc/{pid}/exe")
            except OSError:
                continue
            if executable == self.tools["KEELMOND"] and procfs.parent(pid) == 1:
                return pid
        return None

    def has_loaded(self):
        # It watches the list as soon as it has gone through it.
        daemon = self.daemon()
        return daemon is not None and procfs.watches_files(daemon)

    def reload(self):
        last = self.path("k", "notify", f"{self.names[-1]}.dat")
        os.remove(last)
        os.kill(self.daemon(), signal.SIGUSR1)
        return lambda: os.path.exists(last)

    def end(self):
        os.kill(self.daemon(), signal.SIGUSR2)


class Scanning(Contender):
    """Those who supervise whatever lies in one directory."""

    def prepare(self, names):
        for name in names:
            self._service("s", name)

    def _service(self, directory, name):
        os.makedirs(self.path(directory, name))
        os.link(self.path("program"), self.path(directory, name, "run"))

    def prepare_addition(self, name):
        self._service("new", name)
        self.added = name

    def add(self):
        os.rename(self.path("new", self.added), self.path("s", self.added))


class Polling(Scanning):
    """Those who look at that directory once in five seconds."""

    most_programs = 1000

    def prepare(self, names):
        super().prepare(names)
        # A directory that was changed within this very second is looked at a second later.
        an_hour_ago = time.time() - 3600
        os.utime(self.path("s"), (an_hour_ago, an_hour_ago))

    def save_offset(self, number):
        # Not always the same time after they have looked.
        return 0.9 * (number % 3)


class Runit(Polling):
    name = "runit"
    title = "runit"
    executables = ("runsvdir", "runsv")

    def command(self):
        return [self.find("runsvdir"), self.path("s")]

    def end(self):
        self.process.send_signal(signal.SIGHUP)


class S6(Scanning):
    name = "s6"
    title = "s6"
    executables = ("s6-svscan", "s6-supervise", "s6-svscanctl")
    variables = ("PATH", "LD_LIBRARY_PATH")

    def prepare(self, names):
        super().prepare(names)
        with open(self.path("ready"), "w", encoding="ascii"):
            pass
        # The path of this one is built in. Nothing is put there but in our own mount namespace.
        built_in = "/usr/bin/s6-supervise"
        if not os.path.exists(built_in):
            layers = f"{os.path.dirname(self.find('s6-supervise'))}:/usr/bin"
            subprocess.run(["mount", "-t", "overlay", "overlay", "-o", f"lowerdir={layers}",
                            "/usr/bin"], check=True)

    def _service(self, directory, name):
        super()._service(directory, name)
        # Only a program that has told that it is ready is started again without a pause.
        with open(self.path(directory, name, "notification-fd"), "w", encoding="ascii") as file:
            file.write("3\n")

    def command(self):
        return [self.find("s6-svscan"), "-c", "5000", self.path("s")]

    def add(self):
        super().add()
        subprocess.run([self.find("s6-svscanctl"), "-a", self.path("s")],
                       env=self.environment(), check=True)


class Daemontools(Polling):
    name = "daemontools"
    title = "daemontools"
    executables = ("svscan", "supervise", "svc")

    def command(self):
        return [self.find("svscan"), self.path("s")]

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()
        services = sorted(os.listdir(self.path("s")))
        subprocess.run([self.find("svc"), "-dx", *services], cwd=self.path("s"), check=False,
                       env=self.environment())


class _UnixTransport(xmlrpc.client.Transport):
    """XML-RPC over a socket in the file system."""

    def __init__(self, path):
        super().__init__()
        self._path = path

    def make_connection(self, host):
        connection = http.client.HTTPConnection("localhost")
        connection.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connection.sock.connect(self._path)
        return connection


class Supervisor(Contender):
    name = "supervisor"
    title = "supervisor"
    executables = ("supervisord",)
    variables = ("PATH", "PYTHONPATH")

    def prepare(self, names):
        super().prepare(names)
        self.names = list(names)
        self._write("supervisord.conf")

    def _write(self, file):
        # The descriptors up to minfds are closed one by one before a program is run. The real
        # limit is raised by whoever starts supervisord.
        lines = ["[supervisord]", "nodaemon=true", "logfile=/dev/null", "logfile_maxbytes=0",
                 "loglevel=critical", f"pidfile={self.path('supervisord.pid')}", "minfds=64",
                 f"directory={self.root}", "[unix_http_server]",
                 f"file={self.path('supervisor.sock')}", "[rpcinterface:supervisor]",
                 "supervisor.rpcinterface_factory = "
                 "supervisor.rpcinterface:make_main_rpcinterface"]
        for name in self.names:
            lines += [f"[program:{name}]", f"command={self.path('p', name)}", "autorestart=true",
                      "startsecs=0", "startretries=1000000000", "stdout_logfile=NONE",
                      "stderr_logfile=NONE"]
        with open(self.path(file), "w", encoding="ascii") as out:
            out.write("\n".join(lines) + "\n")

    def command(self):
        return [self.tools["PYTHON"], self.find("supervisord"), "-c", self.path("supervisord.conf")]

    def prepare_addition(self, name):
        self.link_program(name)
        self.names.append(name)
        self._write("supervisord.conf.new")
        self.added = name

    def add(self):
        os.rename(self.path("supervisord.conf.new"), self.path("supervisord.conf"))
        server = xmlrpc.client.ServerProxy(
            "http://localhost/RPC2", transport=_UnixTransport(self.path("supervisor.sock")))
        server.supervisor.reloadConfig()
        server.supervisor.addProcessGroup(self.added)


class Monit(Contender):
    """It does not start programs as its children: each has a file with its process id, and once in
    a second, which is the least, all of them are looked at.
    """

    name = "monit"
    title = "monit"
    patience = 100
    executables = ("monit",)
    variables = ("PATH",)

    def prepare(self, names):
        super().prepare(names)
        self.names = list(names)
        self._write("monitrc")

    def _pid_file(self, name):
        return self.path("p", name + ".pid")

    def _write(self, file):
        lines = ["set daemon 1", f"set pidfile {self.path('monit.pid')}",
                 f"set idfile {self.path('monit.id')}", f"set statefile {self.path('monit.state')}",
                 f"set httpd unixsocket {self.path('monit.sock')} allow bench:bench"]
        for name in self.names:
            program, pid_file = self.path("p", name), self._pid_file(name)
            lines += [f"check process {name} with pidfile {pid_file}",
                      f"  start program = \"/bin/sh -c '{program} & echo $! >{pid_file}'\"",
                      # For so long nothing else is looked at when it ends at once.
                      "    with timeout 1 seconds",
                      f"  stop program = \"/bin/sh -c 'kill $(cat {pid_file})'\""]
        with open(self.path(file), "w", encoding="ascii") as out:
            # It reads no file that others may read.
            os.fchmod(out.fileno(), 0o600)
            out.write("\n".join(lines) + "\n")

    def command(self):
        return [self.find("monit"), "-I", "-c", self.path("monitrc")]

    def prepare_addition(self, name):
        self.link_program(name)
        self.names.append(name)
        self._write("monitrc.new")

    def add(self):
        os.rename(self.path("monitrc.new"), self.path("monitrc"))
        self.process.send_signal(signal.SIGHUP)

    def end(self):
        # Its own end leaves the programs running.
        subprocess.run([self.find("monit"), "-c", self.path("monitrc"), "stop", "all"],
                       env=self.environment(), check=True, stdout=subprocess.DEVNULL)
        for name in self.names:
            with open(self._pid_file(name), encoding="ascii") as file:
                pid = int(file.read())
            while not procfs.is_zombie(pid):
                time.sleep(0.005)
        self.process.send_signal(signal.SIGTERM)


ALL = [FloorExec, FloorSystem, Keelmond, Runit, S6, Daemontools, Supervisor, Monit]
BY_NAME = {contender.name: contender for contender in ALL}


def add_build(label, executable):
    """Makes another build of keelmond a contender, next to the one of this tree."""
    build = type("Build", (Keelmond,), {"name": label, "title": label})
    build.build = os.path.abspath(executable)
    ALL.insert(ALL.index(Keelmond) + 1, build)
    BY_NAME[label] = build
