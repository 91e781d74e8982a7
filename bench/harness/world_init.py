"""One contender with one number of programs, in a PID and mount namespace of its own.

Run by world.py as the first process of the namespace: `world_init.py WORLD`, in JSON. Then each
line of standard input is one phase to run, {"phase": "kill", ...}, answered by one line with its
figures, all in JSON. When the first process ends, for whatever reason, the kernel kills everything
that is left in the namespace, and with the last process goes the directory in which all of it
worked, which is in memory.
"""

import json
import os
import resource
import select
import shutil
import signal
import subprocess
import sys
import time

import procfs
from contenders import BY_NAME
from control_phases import ControlPhases
from events import Events

START_LIMIT = 180
END_LIMIT = 600
RETURN_LIMIT = 20
# A program that ends at once may be kept from starting again for a second or two.
SPIN_LIMIT = 3


class WorldInit(ControlPhases):
    """A contender, its programs and the phases of the measurement."""

    def __init__(self, spec):
        self.root = spec["root"]
        self.tools = spec["tools"]
        shutil.copy(spec["tools"]["PROGRAM"], self.path("program"))
        for directory in ("p", "s", "new"):
            os.mkdir(self.path(directory))
        self.events = Events(self.path("events"))
        self.processes = procfs.Processes(self.path("program"), (1, os.getpid()))
        self.contender = BY_NAME[spec["contender"]](self.root, spec["tools"])
        # One program can be made to end at once, again and again; the others only wait.
        self.names = ["q00000"] + [f"w{i:05}" for i in range(1, spec["count"])]
        self.contender.prepare(self.names)
        self.kills = 0
        self.saves = 0
        self.work_before = {}

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def measure_start(self):
        """Time until all programs run."""
        return self.measure_start_and_load()["start_ns"]

    def measure_start_and_load(self):
        """The same, and the time until the list of programs has been gone through."""
        loaded = None
        before = time.monotonic_ns()

        def is_over():
            nonlocal loaded
            if loaded is None and self.contender.has_loaded():
                loaded = time.monotonic_ns()
            return self.contender.has_failed() or (loaded is not None and self._all_started())

        self.contender.start()
        self.events.wait_for(is_over, START_LIMIT)
        if not self._all_started():
            raise RuntimeError(
                f"{self.events.programs_started()} of {len(self.names)} programs started")
        last = max(self.events.starts[name][0].started for name in self.names)
        return {"start_ns": last - before, "load_ns": loaded and loaded - before}

    def _all_started(self):
        # Nobody but those programs writes to the file of events.
        return self.events.programs_started() == len(self.names)

    def measure_reload(self):
        """Time until everything is in line with the list again, of which nothing has changed."""
        before = time.monotonic_ns()
        is_over = self.contender.reload()
        if is_over is None:
            return None
        if not self.events.wait_for(is_over, RETURN_LIMIT):
            raise RuntimeError("the reload does not end")
        return time.monotonic_ns() - before

    def measure_memory(self):
        return self.processes.memory()._asdict()

    def measure_shares(self):
        """The memory of each kind of processes."""
        shares = self.processes.shares(self.contender.daemon())
        return {kind: share._asdict() for kind, share in shares.items()}

    def measure_quick(self, seconds, after):
        """Gaps of a program that ends at once, for some seconds; at least one if possible.

        @param after for how long it has to have run before it is made to end at once.
        """
        name = self.names[0]
        first = len(self.events.starts[name])
        with open(self.path("spin"), "w", encoding="ascii"):
            pass
        self._kill(name, after)
        time.sleep(seconds)
        self.events.wait_for(lambda: len(self.events.starts[name]) >= first + 2,
                             SPIN_LIMIT - seconds)
        os.remove(self.path("spin"))
        self.events.wait_for(lambda: self.events.last(name).ended == 0, RETURN_LIMIT)
        spun = self.events.starts[name][first:]
        return [after.started - before.ended for before, after in zip(spun, spun[1:])]

    def measure_kill(self, after):
        """The gap of one program that is killed, another one each time.

        @param after for how long it has to have run.
        """
        targets = self.names[1:] or self.names
        name = targets[self.kills % len(targets)]
        self.kills += 1
        count = len(self.events.starts[name])
        killed = self._kill(name, after)
        back = self.events.wait_for_start(name, count + 1, RETURN_LIMIT)
        if back is None:
            raise RuntimeError(f"{name} did not come back")
        return back.started - killed

    def _kill(self, name, after):
        """Kills a program, which has run long enough, and returns when."""
        last = self.events.last(name)
        ready = last.started / 1e9 + after
        time.sleep(max(0.0, ready - time.monotonic()))
        killed = time.monotonic_ns()
        os.kill(last.pid, signal.SIGKILL)
        return killed

    def measure_save(self, after):
        """Time from a save by rename to the first instruction of the program that it adds.

        @param after for how long nothing has been changed.
        @return None when no program can be added.
        """
        most = self.contender.most_programs
        if not self.contender.takes_additions or most == len(self.names):
            return None
        name = f"n{self.saves:05}"
        self.contender.prepare_addition(name)
        time.sleep(after + self.contender.save_offset(self.saves))
        self.saves += 1
        saved = time.monotonic_ns()
        self.contender.add()
        start = self.events.wait_for_start(name, 1, RETURN_LIMIT)
        if start is None:
            raise RuntimeError(f"{name} was not started")
        return start.started - saved

    def measure_work(self):
        """What has been done since the last time this was asked."""
        before, self.work_before = self.work_before, self.processes.work()
        return procfs.work_between(before, self.work_before)._asdict()

    def measure_end(self):
        """Time until nothing is left."""
        begin = time.monotonic_ns()
        self.contender.end()
        limit = time.monotonic() + END_LIMIT
        while not self._is_over():
            if time.monotonic() > limit:
                raise RuntimeError(f"{len(self.processes.others())} processes did not end")
            time.sleep(0.005)
        return time.monotonic_ns() - begin

    def measure_part_of_end(self, seconds):
        """Asks for the shutdown and watches it for some seconds at most.

        @return the times since then at which programs ended, and the time until nothing was left
        or None.
        """
        ends = []
        with select.epoll() as living:
            watched = [os.pidfd_open(self.events.last(name).pid) for name in self.names]
            for descriptor in watched:
                living.register(descriptor, select.EPOLLIN)
            begin = time.monotonic_ns()
            self.contender.end()
            while len(ends) < len(watched):
                left = seconds - (time.monotonic_ns() - begin) / 1e9
                if left <= 0:
                    return {"ends_ns": ends, "end_ns": None}
                for descriptor, _ in living.poll(left):
                    ends.append(time.monotonic_ns() - begin)
                    os.close(descriptor)
        self.events.wait_for(self._is_over, END_LIMIT)
        return {"ends_ns": ends, "end_ns": time.monotonic_ns() - begin}

    def _is_over(self):
        return self.contender.process.poll() is not None and self.processes.all_ended()


def raise_limits():
    """Allows thousands of processes and descriptors, or as many as the hard limits do."""
    for kind, wanted in ((resource.RLIMIT_NOFILE, 65536), (resource.RLIMIT_NPROC, 65536)):
        _, hard = resource.getrlimit(kind)
        try:
            resource.setrlimit(kind, (max(wanted, hard), max(wanted, hard)))
        except (ValueError, OSError):
            resource.setrlimit(kind, (hard, hard))


def drive(spec):
    raise_limits()
    world = WorldInit(spec)
    for line in sys.stdin:
        arguments = json.loads(line)
        figures = getattr(world, "measure_" + arguments.pop("phase"))(**arguments)
        print(json.dumps(figures), flush=True)


def main():
    spec = json.loads(sys.argv[1])
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "keelmond-bench", spec["root"]],
                   check=True)
    driver = os.fork()
    if driver == 0:
        drive(spec)
        sys.exit(0)
    # The first process of the namespace inherits whoever loses its parent.
    while True:
        ended, status = os.wait()
        if ended == driver:
            sys.exit(os.waitstatus_to_exitcode(status) != 0)


if __name__ == "__main__":
    main()
