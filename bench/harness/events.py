"""Reads what the supervised programs tell: one record for each start.

The layout is that of `record` in bench/programs/bench_program.cpp.
"""

import os
import struct
import time
from collections import defaultdict
from typing import NamedTuple

RECORD = struct.Struct("=qqi12s")
LOOK_EVERY = 0.002


class Start(NamedTuple):
    """One start of a program; times in nanoseconds of the monotonic clock."""

    started: int
    ended: int  # 0 when the program went on to wait
    pid: int


class Events:
    """The file of events, read as it grows."""

    def __init__(self, path):
        self._path = path
        os.close(os.open(path, os.O_CREAT | os.O_WRONLY, 0o666))
        os.chmod(path, 0o666)
        self._file = open(path, "rb", buffering=0)
        self._rest = b""
        self.starts = defaultdict(list)

    def poll(self):
        """Takes in what was appended since the last call."""
        while chunk := self._file.read(1 << 20):
            data = self._rest + chunk
            whole = len(data) - len(data) % RECORD.size
            for started, ended, pid, name in RECORD.iter_unpack(data[:whole]):
                self.starts[name.rstrip(b"\0").decode()].append(Start(started, ended, pid))
            self._rest = data[whole:]

    def programs_started(self):
        """How many programs have been started at least once."""
        return len(self.starts)

    def last(self, name):
        return self.starts[name][-1]

    def wait_for(self, condition, seconds):
        """Polls until `condition()` is true. Returns whether it became true in time."""
        end = time.monotonic() + seconds
        while True:
            self.poll()
            if condition():
                return True
            if time.monotonic() >= end:
                return False
            time.sleep(LOOK_EVERY)

    def wait_for_start(self, name, count, seconds):
        """Waits for the `count`th start of a program and returns it, or None."""
        if self.wait_for(lambda: len(self.starts.get(name, ())) >= count, seconds):
            return self.starts[name][count - 1]
        return None
