"""keelmondctl beside what it cannot be faster than.

What is measured in one run, and the tables of several.
"""

import time
from typing import NamedTuple

import plan
from report import number, spread, table, verdict
from results import figures, median, ratio


class Plan(NamedTuple):
    """The sizes of a run."""

    counts: list  # numbers of programs, ascending
    rounds: int  # looks at the status
    watch_seconds: float
    settle_seconds: float
    realtime: bool


FULL = Plan([1, 100, 1000], 15, 20, 1.2, False)
SMOKE = Plan([1, 5], 2, 3, 0.1, False)


class Run(plan.Run):
    """One run: the figures are {contender: {count: {kind: figures}}}."""

    def measure(self):
        for contender in self.contenders:
            for count in self.plan.counts:
                self.say(f"keelmondctl: {count:,} programs")
                self._measure_looks(contender, count)
                self._measure_end(contender, count, "script_down")
        return self.figures

    def _measure_looks(self, contender, count):
        with self._world(contender, count) as world:
            world.ask("start")
            time.sleep(self.plan.settle_seconds)
            # In turn, so that what else the machine does meanwhile meets both.
            for _ in range(self.plan.rounds):
                for kind in ("status", "status_floor"):
                    self._add(world, kind, [world.ask(kind)])
            self._note(world, "watch", world.ask("watch", seconds=self.plan.watch_seconds))
            self._end(world, "control_down")

    def _measure_end(self, contender, count, how):
        with self._world(contender, count) as world:
            world.ask("start")
            time.sleep(self.plan.settle_seconds)
            self._end(world, how)

    def _end(self, world, how):
        self._note(world, how, world.ask(how))
        self._check(world, how)


def _looks(kind, what):
    """The median of what looks took, in milliseconds: "wall_ns" or "cpu_ns"."""
    def metric(run, contender, count):
        looks = figures(run, contender, count).get(kind)
        return looks and median([look[what] for look in looks]) / 1e6
    return metric


def _whole(kind):
    """A time in seconds."""
    def metric(run, contender, count):
        value = figures(run, contender, count).get(kind)
        return value and value / 1e9
    return metric


def _watch(run, contender, count):
    """Processor time of `status --watch`, in per cent of one processor."""
    watch = figures(run, contender, count).get("watch")
    return watch and watch["cpu_ns"] / watch["wall_ns"] * 100


STATUS = _looks("status", "wall_ns")
STATUS_CPU = _looks("status", "cpu_ns")
FLOOR = _looks("status_floor", "wall_ns")
FLOOR_CPU = _looks("status_floor", "cpu_ns")


def _rows():
    return (
        ("`status`, ms", STATUS),
        ("... in relation to the bare loop", ratio(STATUS, FLOOR)),
        ("Its processor time, ms", STATUS_CPU),
        ("... in relation to the bare loop", ratio(STATUS_CPU, FLOOR_CPU)),
        ("The bare loop, ms", FLOOR),
        ("`status --watch`, % of a processor", _watch),
        ("`down`, s", _whole("control_down")),
        ("... in relation to the script", ratio(_whole("control_down"), _whole("script_down"))),
        ("The script, s", _whole("script_down")))


def _goals(counts):
    """What, the metric, the number of programs, the most that it may be."""
    wanted = (("`status` of one program, ms", STATUS, 1, 10),
              ("`status` of 1,000 programs, ms", STATUS, 1000, 100),
              ("... in relation to the bare loop", ratio(STATUS, FLOOR), 1000, 1),
              ("`status --watch` with 100 programs, % of a processor", _watch, 100, 1),
              ("`down` with 1,000 programs, in relation to the script",
               ratio(_whole("control_down"), _whole("script_down")), 1000, 1.1))
    return [goal for goal in wanted if goal[2] in counts]


def tables(results, with_goals):
    """The figures in Markdown."""
    lines = []
    for contender in results.contenders:
        rows = [[what, *(spread(results.values(metric, contender, count))
                         for count in results.counts)] for what, metric in _rows()]
        heading = ["keelmondctl", *(f"{count:,}" for count in results.counts)]
        lines += table(heading, rows)
        if not with_goals:
            continue
        rows = []
        for what, metric, count, most in _goals(results.counts):
            values = results.values(metric, contender, count)
            if values:
                rows.append([what, spread(values), number(most), verdict(values, most)])
        lines += table(["goal", "keelmondctl", "at most", ""], rows)
    return lines
