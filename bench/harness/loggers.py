"""What writes the log of a program to rotated files, each as its manual makes it fastest.

All rotate at 10 MB and keep five files. Each is given the command of a program, runs it, or reads
from a pipe what it prints, and ends when the program has ended and all of it is written.
"""

import os
import subprocess
import time

from tool import Tool

SIZE = 10_000_000
KEEP = 5


class Logger(Tool):
    """Base: reads from a pipe, which is what most do."""

    has_stamps = True
    runs_program = False

    def command(self, stamp):
        raise NotImplementedError

    def start(self, program, stamp):
        """@return the process of the logger and that of the program, which may be the same one."""
        quiet = {"stderr": subprocess.DEVNULL, "env": self.environment(), "cwd": self.root}
        if self.runs_program:
            process = subprocess.Popen(self.command(program, stamp), stdin=subprocess.DEVNULL,
                                       stdout=self.output(), **quiet)
            return process, process
        logger = subprocess.Popen(self.command(stamp), stdin=subprocess.PIPE,
                                  stdout=self.output(), **quiet)
        source = subprocess.Popen(program, stdin=subprocess.DEVNULL, stdout=logger.stdin, **quiet)
        logger.stdin.close()
        return logger, source

    def output(self):
        return subprocess.DEVNULL

    def end(self, process, has_ended):
        """Has the logger end once `has_ended` tells that the program has, or is about to."""


class File(Logger):
    """No logger: the program has the file itself."""

    name = "the file itself"
    has_stamps = False
    runs_program = True

    def command(self, program, stamp):
        return program

    def output(self):
        return os.open(self.path("log"), os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC)


class Cat(Logger):
    """The least that a logger can do: no lines, no rotation."""

    name = "cat"
    executables = ("cat",)
    has_stamps = False

    def command(self, stamp):
        return [self.find("cat")]

    def output(self):
        return os.open(self.path("log"), os.O_WRONLY | os.O_CREAT | os.O_APPEND | os.O_CLOEXEC)


class KeelmondRun(Logger):
    name = "keelmond-run"
    runs_program = True

    @classmethod
    def is_available(cls, tools):
        return os.access(tools["KEELMOND_RUN"], os.X_OK)

    def command(self, program, stamp):
        file = self.path("kmd_log")
        with open(file, "w", encoding="ascii") as out:
            out.write(f"#!{self.tools['KEELMOND_RUN']}\n[program]\ncommand = {' '.join(program)}\n"
                      f"[log]\nfile = {self.path('log')}\nsize = {SIZE}\nkeep = {KEEP}\n"
                      f"stamp = {'yes' if stamp else 'no'}\n[restart]\non = never\n")
        os.chmod(file, 0o755)
        return [file]

    def end(self, process, has_ended):
        # By itself it stays, because whoever supervises it would start it again.
        while not has_ended() and process.poll() is None:
            time.sleep(0.001)
        process.terminate()


class Svlogd(Logger):
    name = "svlogd"
    executables = ("svlogd",)

    def command(self, stamp):
        os.mkdir(self.path("log"))
        with open(self.path("log", "config"), "w", encoding="ascii") as out:
            out.write(f"s{SIZE}\nn{KEEP}\n")
        return [self.find("svlogd"), "-b", "65536", *(["-t"] if stamp else []), self.path("log")]


class S6Log(Logger):
    name = "s6-log"
    executables = ("s6-log",)
    variables = ("PATH", "LD_LIBRARY_PATH")

    def command(self, stamp):
        return [self.find("s6-log"), f"n{KEEP}", f"s{SIZE}", *(["t"] if stamp else []),
                self.path("log")]


class Multilog(Logger):
    name = "multilog"
    executables = ("multilog",)

    def command(self, stamp):
        return [self.find("multilog"), *(["t"] if stamp else []), f"s{SIZE}", f"n{KEEP}",
                self.path("log")]


ALL = [File, Cat, KeelmondRun, Svlogd, S6Log, Multilog]
