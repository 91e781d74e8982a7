"""What is measured in one run, and in which order."""

import time
from contextlib import ExitStack
from typing import NamedTuple

from world import World


class Plan(NamedTuple):
    """The sizes of a run."""

    counts: list  # numbers of programs, ascending
    quick_rounds: int
    quick_seconds: float  # of each round
    kill_rounds: int
    saves: int
    # Some contenders pause for the rest of a second when a program ended within its first one. So
    # a program that is ended has always run for longer.
    settle_seconds: float
    # keelmond does not look at its configuration for two seconds after it has read it.
    quiet_seconds: float
    idle_seconds: float
    realtime: bool
    parts: tuple  # of PARTS


PARTS = ("scale", "end", "gaps")
FULL = Plan([10, 100, 1000], 8, 0.4, 25, 3, 1.2, 2.6, 60, False, PARTS)
SMOKE = Plan([5], 1, 0.2, 1, 1, 0.1, 2.6, 1, False, PARTS)

# Contenders that make a program wait for a second are not asked as often.
SLOW_NS = 100_000_000
SLOW_QUICK_ROUNDS = 2
SLOW_KILL_ROUNDS = 5


class Run:
    """One run: the figures are {contender: {count: {kind: figures}}}."""

    def __init__(self, plan, contenders, tools, say):
        self.plan = plan
        self.contenders = contenders
        self.tools = tools
        self.say = say
        self.figures = {one.name: {str(count): {} for count in [1, *plan.counts]}
                        for one in contenders}
        self.failures = []

    def measure(self):
        if {"scale", "end"} & set(self.plan.parts):
            for count in self.plan.counts:
                for contender in self._those_for(count):
                    self._measure_scale(contender, count)
        if "gaps" in self.plan.parts:
            self._measure_gaps()
        return self.figures

    def _those_for(self, count):
        return [one for one in self.contenders if one.patience is None or count <= one.patience]

    def _world(self, contender, count):
        return World(contender, count, self.tools, self.plan.realtime)

    def _note(self, world, kind, value):
        """Keeps what a world answered."""
        if value is not None:
            self.figures[world.contender.name][str(world.count)][kind] = value

    def _add(self, world, kind, values):
        kept = self.figures[world.contender.name][str(world.count)].setdefault(kind, [])
        kept += [value for value in values if value is not None]
        return kept

    def _check(self, world, phase):
        if world.failed:
            self.failures.append(f"{world.contender.name}, {world.count} programs: {phase}")

    def _measure_scale(self, contender, count):
        """What grows with the number of programs, in a world that is alone."""
        self.say(f"{contender.title}: {count} programs start, take a new one, end")
        plan = self.plan
        with self._world(contender, count) as world:
            self._note(world, "start_ns", world.ask("start"))
            time.sleep(plan.settle_seconds)
            if "scale" in plan.parts:
                self._measure_living(world)
            if "end" in plan.parts:
                self._note(world, "end_ns", world.ask("end"))
            self._check(world, "scale")

    def _measure_living(self, world):
        plan = self.plan
        self._note(world, "memory", world.ask("memory"))
        if world.count in (plan.counts[0], plan.counts[-1]):
            for _ in range(plan.saves):
                self._add(world, "save_ns", [world.ask("save", after=plan.quiet_seconds)])
        time.sleep(plan.settle_seconds)

    def _measure_gaps(self):
        """Gaps, in turn for all contenders and numbers of programs, so that what else the machine
        does meanwhile meets all of them; then all are idle at once.
        """
        counts = sorted({1, self.plan.counts[0], self.plan.counts[-1]})
        with ExitStack() as stack:
            living = []
            for count in counts:
                for contender in self._those_for(count):
                    self.say(f"{contender.title}: {count} programs start for the gaps")
                    living.append(stack.enter_context(self._world(contender, count)))
                    living[-1].ask("start")
            self._measure_quick(living)
            self._measure_kills(living)
            self._measure_idle([world for world in living if world.count == counts[-1]])
            for world in living:
                self._check(world, "gaps")

    def _measure_quick(self, living):
        plan = self.plan
        for i in range(plan.quick_rounds):
            self.say(f"programs that end at once: round {i + 1} of {plan.quick_rounds}")
            for world in list(living):
                answer = world.ask("quick", seconds=plan.quick_seconds, after=plan.settle_seconds)
                self._add(world, "quick_gaps_ns", answer or [])
            if i + 1 == SLOW_QUICK_ROUNDS:
                living = self._without_slow(living, "quick_gaps_ns")

    def _measure_kills(self, living):
        plan = self.plan
        self.say(f"programs that are killed: {plan.kill_rounds} rounds")
        for i in range(plan.kill_rounds):
            for world in living:
                self._add(world, "kill_gaps_ns", [world.ask("kill", after=plan.settle_seconds)])
            if i + 1 == SLOW_KILL_ROUNDS:
                living = self._without_slow(living, "kill_gaps_ns")

    def _without_slow(self, living, kind):
        return [world for world in living if min(self._add(world, kind, []), default=0) < SLOW_NS]

    def _measure_idle(self, living):
        if self.plan.idle_seconds <= 0:
            return
        self.say(f"idle for {self.plan.idle_seconds:g} seconds")
        time.sleep(self.plan.settle_seconds)
        begins = {}
        for world in living:
            world.ask("work")
            begins[world] = time.monotonic()
        time.sleep(self.plan.idle_seconds)
        for world in living:
            done = world.ask("work")
            seconds = time.monotonic() - begins[world]
            self._note(world, "idle", done and {"seconds": seconds, **done})
