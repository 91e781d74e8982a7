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

# How much is left free while something is measured: less than hosts take back.
FREE = 768 << 20
# How little is left free for a moment while memory is taken. What nobody has ever taken, the host
# may not have given yet.
LEAST = 192 << 20
PIECE = 16 << 20
LOOK_EVERY = 0.01


def _size(pages):
    return os.sysconf(pages) * mmap.PAGESIZE


def _free():
    return _size("SC_AVPHYS_PAGES")


class _Held:
    """A stack of pieces. In small pages: to make large ones, the kernel would move the memory of
    programs about, and hold up their starts and ends meanwhile."""

    def __init__(self):
        size = _size("SC_PHYS_PAGES") // PIECE * PIECE
        self._memory = mmap.mmap(-1, size, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
        self._memory.madvise(mmap.MADV_NOHUGEPAGE)
        self._held = 0

    def take_all(self):
        while _free() > LEAST:
            for offset in range(self._held, self._held + PIECE, mmap.PAGESIZE):
                self._memory[offset] = 1
            self._held += PIECE
        self.give_what_is_used()

    def give_what_is_used(self):
        while self._held and _free() < FREE:
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
