"""How keelmond grows: the same with a hundred programs and with ten thousand.

What is measured in one run, and the tables of several.
"""

import time
from contextlib import ExitStack, contextmanager, nullcontext
from typing import NamedTuple

import plan
from contenders import BY_NAME, Keelmond
from host_memory import HostMemory
from report import number, spread, table, verdict
from results import figures, median, ratio, time_of


class Plan(NamedTuple):
    """The sizes of a run."""

    counts: list  # numbers of programs, ascending
    kill_rounds: int
    reloads: int
    end_seconds: float  # for how long the shutdown is watched
    settle_seconds: float
    realtime: bool
    keeps_memory: bool  # from the host; see host_memory.py


FULL = Plan([100, 1000, 5000, 10000], 25, 3, 10, 1.2, False, False)
SMOKE = Plan([5, 10], 2, 1, 10, 0.1, False, False)

KINDS = ("daemon", "children", "shells", "programs")

# Ids for each program: a child, its shell, the program and a thread; and some for everybody else.
IDS_PER_PROGRAM = 4
IDS_FOR_OTHERS = 10000
MOST_IDS = 4194304


def _read_number(path):
    with open(path, encoding="ascii") as file:
        return int(file.read())


@contextmanager
def room_for(count, say):
    """Raises the machine's number of process ids if so many programs need it, for as long as the
    context lasts. A PID namespace has a limit of its own on some kernels, but that of the namespace
    around it counts as well.

    @return (as the context) for how many programs there is room.
    """
    path = "/proc/sys/kernel/pid_max"
    before = _read_number(path)
    raised = before
    if before < count * IDS_PER_PROGRAM + IDS_FOR_OTHERS:
        try:
            with open(path, "w", encoding="ascii") as file:
                file.write(str(MOST_IDS))
            raised = _read_number(path)
            say(f"kernel.pid_max raised from {before} to {raised} until this is over")
        except OSError as error:
            say(f"kernel.pid_max stays {before}: {error.strerror}")
    try:
        threads = _read_number("/proc/sys/kernel/threads-max")
        yield max(0, (min(raised, threads) - IDS_FOR_OTHERS) // IDS_PER_PROGRAM)
    finally:
        if raised != before:
            with open(path, "w", encoding="ascii") as file:
                file.write(str(before))


class Run(plan.Run):
    """One run: the figures are {contender: {count: {kind: figures}}}."""

    _memory = None

    def measure(self):
        with HostMemory() if self.plan.keeps_memory else nullcontext() as self._memory:
            for contender in self.contenders:
                self._measure_one(contender)
        return self.figures

    def _measure_one(self, contender):
        with ExitStack() as stack:
            # The smallest one lives on: its gaps are measured in turn with those of each of the
            # others, so that what else the machine does meanwhile meets both.
            few = self._begin(stack, contender, self.plan.counts[0])
            for count in self.plan.counts[1:]:
                with ExitStack() as inner:
                    many = self._begin(inner, contender, count)
                    self._measure_gaps(few, many)
                    self._measure_end(many)
            self._measure_end(few)

    def _begin(self, stack, contender, count):
        self.say(f"{contender.title}: {count:,} programs")
        if self._memory is not None:
            self._memory.take_all()
        world = stack.enter_context(self._world(contender, count))
        for kind, value in (world.ask("start_and_load") or {}).items():
            self._note(world, kind, value)
        time.sleep(self.plan.settle_seconds)
        self._note(world, "shares", world.ask("shares"))
        reloads = [world.ask("reload") for _ in range(self.plan.reloads)]
        self._note(world, "reload_ns", median([one for one in reloads if one is not None]))
        return world

    def _measure_gaps(self, few, many):
        answers = {world: [] for world in (few, many)}
        for _ in range(self.plan.kill_rounds):
            for world, gaps in answers.items():
                gaps.append(world.ask("kill", after=0.1))
        known = {world: [gap for gap in gaps if gap is not None] for world, gaps in answers.items()}
        self._note(many, "kill_gaps_ns", known[many])
        self._note(many, "kill_gaps_of_few_ns", known[few])
        if not self.figures[few.contender.name][str(few.count)].get("kill_gaps_ns"):
            self._note(few, "kill_gaps_ns", known[few])

    def _measure_end(self, world):
        done = world.ask("part_of_end", seconds=self.plan.end_seconds)
        for kind, value in (done or {}).items():
            self._note(world, kind, value)
        if world.failed:
            self.failures.append(f"{world.contender.name}, {world.count} programs")


def share(what, kinds=KINDS):
    """The sum of some kinds' memory, for each program."""
    def metric(run, contender, count):
        shares = figures(run, contender, count).get("shares")
        if shares is None:
            return None
        return sum(shares[kind][one] for kind in kinds for one in what) / int(count)
    return metric


def gap_of(key):
    def metric(run, contender, count):
        gap = median(figures(run, contender, count).get(key))
        return gap and gap / 1e6
    return metric


def one_end(run, contender, count):
    """From one program's end to that of the next, in milliseconds, while all are being stopped."""
    ends = figures(run, contender, count).get("ends_ns", [])
    return (ends[-1] - ends[0]) / (len(ends) - 1) / 1e6 if len(ends) > 1 else None


def shutdown_time(counts):
    """The time to shut down, in seconds: measured, or added up from what one end takes with so many
    programs and with the numbers that were measured below.
    """
    def metric(run, contender, count):
        whole = time_of("end_ns")(run, contender, count)
        if whole is not None:
            return whole / 1e3
        smaller = [one for one in counts if one < int(count)]
        here = one_end(run, contender, count)
        if here is None:
            return None
        if not smaller:
            return here * int(count) / 1e3
        rest = metric(run, contender, smaller[-1])
        there = one_end(run, contender, smaller[-1])
        if rest is None or there is None:
            return None
        return rest + (here + there) / 2 * (int(count) - smaller[-1]) / 1e3
    return metric


def _seconds(key):
    milliseconds = time_of(key)
    def metric(*what):
        value = milliseconds(*what)
        return None if value is None else value / 1e3
    return metric


def _rows(results):
    own = ("daemon", "children")
    yield "Time until all run, s", _seconds("start_ns")
    yield "Time until the list has been gone through meanwhile, s", _seconds("load_ns")
    yield "Time of a reload that changes nothing, ms", time_of("reload_ns")
    yield "Gap of a program that is killed: median, ms", gap_of("kill_gaps_ns")
    yield ("The same, in relation to that with the fewest programs in the same minute",
           ratio(gap_of("kill_gaps_ns"), gap_of("kill_gaps_of_few_ns")))
    yield "Page tables, kB per program", share(["page_tables"])
    for kind in KINDS:
        yield f"of which {kind}", share(["page_tables"], [kind])
    yield "Memory (PSS and page tables), kB per program", share(["pss", "page_tables"])
    yield "of which daemon and children", share(["pss", "page_tables"], own)
    yield "From one program's end to the next in the shutdown, ms", one_end
    yield "Time to shut down, s", shutdown_time(results.counts)


def _goals(results):
    """What, the metric, the most that it may be."""
    few, most = results.counts[0], results.counts[-1]
    yield f"Time until {most:,} run, s", _at(_seconds("start_ns"), most), 8
    yield (f"Gap of a program that is killed: {most:,} programs in relation to {few:,}",
           _at(ratio(gap_of("kill_gaps_ns"), gap_of("kill_gaps_of_few_ns")), most), 3)
    if 1000 in results.counts and most > 1000:
        tables = share(["page_tables"])
        yield (f"Page tables per program: {most:,} programs in relation to 1,000",
               ratio(_at(tables, most), _at(tables, 1000)), 1.2)


def _at(metric, count):
    return lambda run, contender, _: metric(run, contender, count)


def tables(results, with_goals):
    """The figures in Markdown."""
    lines = []
    for contender in results.contenders:
        title = BY_NAME[contender].title
        rows = []
        for what, metric in _rows(results):
            cells = [spread(results.values(metric, contender, count)) for count in results.counts]
            if any(cell != "–" for cell in cells):
                rows.append([what, *cells])
        heading = [title, *(f"{count:,} programs" for count in results.counts)]
        lines += table(heading, rows)
        whole = [count for count in results.counts
                 if results.values(time_of("end_ns"), contender, count)]
        if whole != results.counts:
            measured = ", ".join(f"{count:,}" for count in whole) or "no number of"
            lines += [f"The time to shut down was measured with {measured} programs; beyond that "
                      "it is added up from what one end takes.", ""]
        if with_goals and issubclass(BY_NAME[contender], Keelmond):
            rows = []
            for what, metric, most in _goals(results):
                values = results.values(metric, contender, None)
                if values:
                    rows.append([what, spread(values), number(most), verdict(values, most)])
            lines += table(["goal", title, "at most", ""], rows)
    return lines
