"""Keeps memory from the host of a virtual machine, so that none is fetched while measuring.

Some hosts take back what a machine leaves free, and let it wait for each page that it wants again:
4 to 15 microseconds where this was seen, and a program with its child and its shell takes more than
a hundred. So one process takes all free memory beforehand, and gives it back as fast as it is used.
"""

import mmap
import os
import select
import subprocess
import sys

# What is left free all the time, less than what hosts take back.
FREE = 768 << 20
PIECE = 16 << 20
LOOK_EVERY = 0.005


def _memory(kind):
    with open("/proc/meminfo", encoding="ascii") as file:
        for line in file:
            if line.startswith(kind + ":"):
                return int(line.split()[1]) << 10
    raise RuntimeError(f"/proc/meminfo does not tell {kind}")


class _Held:
    """A stack of pieces, in large pages: those are given back in no time."""

    def __init__(self):
        size = _memory("MemTotal") // PIECE * PIECE
        self._memory = mmap.mmap(-1, size, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
        self._memory.madvise(mmap.MADV_HUGEPAGE)
        self._held = 0

    def take_all(self):
        while _memory("MemFree") > FREE + 2 * PIECE:
            for offset in range(self._held, self._held + PIECE, mmap.PAGESIZE):
                self._memory[offset] = 1
            self._held += PIECE

    def give_what_is_used(self):
        while self._held and _memory("MemFree") < FREE:
            self._held -= PIECE
            self._memory.madvise(mmap.MADV_DONTNEED, self._held, PIECE)


class HostMemory:
    """A context in which free memory is held. Needs root."""

    def __enter__(self):
        # Before all that is measured: whoever uses memory must not be faster than this.
        self._keeper = subprocess.Popen(
            ["chrt", "--rr", "2", sys.executable, "-B", os.path.abspath(__file__)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
        return self

    def __exit__(self, *unused):
        self._keeper.kill()
        self._keeper.communicate()

    def take_all(self):
        self._keeper.stdin.write(b"t")
        if not self._keeper.stdout.read(1):
            raise RuntimeError("no memory is kept from the host any more")


def main():
    # If there is too little after all, this process is the one to end.
    with open("/proc/self/oom_score_adj", "w", encoding="ascii") as file:
        file.write("1000")
    held = _Held()
    while True:
        if select.select([sys.stdin], [], [], LOOK_EVERY)[0]:
            if not os.read(sys.stdin.fileno(), 1):
                return
            held.take_all()
            os.write(sys.stdout.fileno(), b"t")
        held.give_what_is_used()


if __name__ == "__main__":
    main()
