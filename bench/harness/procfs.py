"""What /proc tells about the supervising processes of a world.

A world is a PID namespace with a /proc of its own. Everything in it supervises, except the
harness's own two processes and the programs that are supervised.
"""

import os
import re
from typing import NamedTuple

SHELLS = ("dash", "sh", "bash", "busybox")


class Memory(NamedTuple):
    """Sums over the supervising processes; sizes in kB."""

    pss: int
    page_tables: int
    processes: int
    threads: int
    shell_pss: int
    shell_page_tables: int
    shells: int


class Share(NamedTuple):
    """What one kind of processes has in all; sizes in kB."""

    pss: int
    page_tables: int
    processes: int


class Work(NamedTuple):
    """What one thread has done since it was created."""

    cpu_ns: int
    switches: int


def _read(path):
    try:
        with open(path, "rb", buffering=0) as file:
            return file.read().decode(errors="replace")
    except OSError:
        return ""


def _fields(text):
    """The "Name: 12 kB" lines of a file of /proc, as numbers."""
    fields = {}
    for line in text.splitlines():
        name, colon, value = line.partition(":")
        first = value.split(None, 1)[0] if value.strip() else ""
        if colon and first.isdigit():
            fields[name] = int(first)
    return fields


def pids():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def is_zombie(pid):
    # Not from "stat": for that the kernel adds up the times of all threads, of which there may be
    # ten thousand, and keeps the process from creating more meanwhile.
    state = re.search(r"^State:\s*(\w)", _read(f"/proc/{pid}/status"), re.MULTILINE)
    return state is None or state.group(1) in "ZX"


def parent(pid):
    _, _, after_name = _read(f"/proc/{pid}/stat").rpartition(")")
    return int(after_name.split()[1]) if after_name else 0


def cpu_ns(pid):
    """The processor time that the process has taken, helpers that have ended included."""
    with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
        _, _, after_name = file.read().rpartition(")")
    user, system = after_name.split()[11:13]
    return (int(user) + int(system)) * 1_000_000_000 // os.sysconf("SC_CLK_TCK")


def is_pending(pid, signal):
    """Whether the process has been sent the signal and has not taken it."""
    pending = re.search(r"^ShdPnd:\s*(\w+)", _read(f"/proc/{pid}/status"), re.MULTILINE)
    return pending is not None and bool(int(pending.group(1), 16) >> (signal - 1) & 1)


def proportional_size(pid):
    """In kB; 0 when the process has ended."""
    return _fields(_read(f"/proc/{pid}/smaps_rollup")).get("Pss", 0)


def watches_files(pid):
    """Whether the process has an inotify instance."""
    try:
        descriptors = os.listdir(f"/proc/{pid}/fd")
        return any(os.readlink(f"/proc/{pid}/fd/{fd}") == "anon_inode:inotify"
                   for fd in descriptors)
    except OSError:
        return False


class Processes:
    """Tells the supervising processes from the others."""

    def __init__(self, program, own_pids):
        status = os.stat(program)
        self._program = (status.st_dev, status.st_ino)
        self._own = set(own_pids)

    def others(self):
        """All processes that are not the harness's own, ended ones included."""
        return [pid for pid in pids() if pid not in self._own]

    def all_ended(self):
        return all(is_zombie(pid) for pid in self.others())

    def supervising(self):
        return [pid for pid in self.others() if self._is_program(pid) is False]

    def _is_program(self, pid):
        """None when the process has ended."""
        try:
            status = os.stat(f"/proc/{pid}/exe")
        except OSError:
            return None
        return (status.st_dev, status.st_ino) == self._program

    def memory(self):
        total = [0] * len(Memory._fields)
        for pid in self.supervising():
            pss, tables, threads = _memory_of(pid)
            shell = _is_shell(pid)
            one = (pss, tables, 1, threads, pss * shell, tables * shell, int(shell))
            total = [a + b for a, b in zip(total, one)]
        return Memory(*total)

    def shares(self, daemon):
        """The memory of the daemon, of its forked children, of the shells, and of the programs."""
        shares = {kind: Share(0, 0, 0) for kind in ("daemon", "children", "shells", "programs")}
        for pid in self.others():
            is_program = self._is_program(pid)
            if is_program is None:
                continue
            kind = ("programs" if is_program else "daemon" if pid == daemon else
                    "shells" if _is_shell(pid) else "children")
            pss, tables, _ = _memory_of(pid)
            one = (pss, tables, 1)
            shares[kind] = Share(*(a + b for a, b in zip(shares[kind], one)))
        return shares

    def work(self):
        """What each thread of each supervising process has done, by (pid, tid)."""
        done = {}
        for pid in self.supervising():
            try:
                threads = os.listdir(f"/proc/{pid}/task")
            except OSError:
                continue
            for tid in threads:
                done[pid, int(tid)] = _thread_work(f"/proc/{pid}/task/{tid}")
        return done


def _memory_of(pid):
    """Proportional set size and page tables in kB, and the number of threads."""
    status = _fields(_read(f"/proc/{pid}/status"))
    return proportional_size(pid), status.get("VmPTE", 0), status.get("Threads", 0)


def _is_shell(pid):
    try:
        return os.path.basename(os.readlink(f"/proc/{pid}/exe")) in SHELLS
    except OSError:
        return False


def _thread_work(directory):
    status = _fields(_read(f"{directory}/status"))
    switches = sum(status.get(kind + "_ctxt_switches", 0) for kind in ("voluntary", "nonvoluntary"))
    scheduled = _read(f"{directory}/schedstat").split()
    if scheduled:
        return Work(int(scheduled[0]), switches)
    # A kernel without schedstat: clock ticks are all there is.
    _, _, after_name = _read(f"{directory}/stat").rpartition(")")
    ticks = sum(int(value) for value in after_name.split()[11:13])
    return Work(ticks * 1_000_000_000 // os.sysconf("SC_CLK_TCK"), switches)


def work_between(before, after):
    """What was done from one `Processes.work` to the next."""
    none = Work(0, 0)
    cpu = sum(work.cpu_ns - before.get(key, none).cpu_ns for key, work in after.items())
    switches = sum(work.switches - before.get(key, none).switches for key, work in after.items())
    return Work(cpu, switches)
