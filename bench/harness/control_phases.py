"""The phases of a world in which keelmondctl is measured."""

import os
import pty
import select
import signal
import subprocess
import time

import procfs

SCREEN = b"\x1b[H"  # what each screen of --watch begins with
DOWN_LIMIT = 600


def _run(command):
    """Runs a command. @return what it took, and fails when it does."""
    before = time.monotonic_ns()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic_ns() - before
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise RuntimeError(f"{command[0]} ended with {process.returncode}")
    return {"wall_ns": wall, "cpu_ns": round((usage.ru_utime + usage.ru_stime) * 1e9)}


class ControlPhases:
    """A part of WorldInit: it has `tools`, `contender`, `names` and `events`."""

    def control(self, *arguments):
        return [self.tools["KEELMONDCTL"], "-C", self.contender.working_directory(), *arguments]

    def measure_status(self):
        """One look, and the processor time that it takes."""
        return _run(self.control("status"))

    def measure_status_floor(self):
        """The same for a loop that only reads. Those who run the world are no programs."""
        return _run([self.tools["PROC_FLOOR"], "keelmond", "python3"])

    def measure_watch(self, seconds):
        """Processor time of `status --watch` in so many seconds, from its first screen on."""
        child, terminal = pty.fork()
        if child == 0:
            os.environ["TERM"] = "xterm"
            os.execv(self.tools["KEELMONDCTL"], self.control("status", "--watch"))
        seen = b""
        while SCREEN not in seen:
            seen += os.read(terminal, 65536)
        before, begin = procfs.cpu_ns(child), time.monotonic_ns()
        while (left := begin / 1e9 + seconds - time.monotonic()) > 0:
            if select.select([terminal], [], [], left)[0]:
                os.read(terminal, 65536)
        figures = {"cpu_ns": procfs.cpu_ns(child) - before,
                   "wall_ns": time.monotonic_ns() - begin}
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)
        os.close(terminal)
        return figures

    def measure_control_down(self):
        return _run(self.control("down", "--timeout", f"{DOWN_LIMIT}s"))["wall_ns"]

    def measure_script_down(self):
        """What a script needs that knows all process ids: SIGUSR2 to the daemon, then to the
        programs, the last one first.
        """
        programs = [self.events.last(name).pid for name in reversed(self.names)]
        daemon = self.contender.daemon()
        with select.epoll() as ended:
            descriptor = os.pidfd_open(daemon)
            ended.register(descriptor, select.EPOLLIN)
            before = time.monotonic_ns()
            os.kill(daemon, signal.SIGUSR2)
            # A program that ends before the daemon has begun to shut down would be started anew.
            while procfs.is_pending(daemon, signal.SIGUSR2):
                time.sleep(0.001)
            for program in programs:
                os.kill(program, signal.SIGUSR2)
            if not ended.poll(DOWN_LIMIT):
                raise RuntimeError("keelmond does not shut down")
            os.close(descriptor)
        return time.monotonic_ns() - before
